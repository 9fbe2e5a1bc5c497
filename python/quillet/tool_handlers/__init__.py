"""The functions behind the tools, and the tools' health."""
