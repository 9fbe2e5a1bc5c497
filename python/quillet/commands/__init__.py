"""The program's commands, a file each, whose `main` runs it and returns the exit status."""
