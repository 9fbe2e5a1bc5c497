"""Measurements of the process: its threads and the time that its tools take."""
