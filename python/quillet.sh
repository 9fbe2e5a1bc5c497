#!/bin/sh
# The program, beside the interpreter that it runs with, which a "#!" could not name if its path had
# a space. Isolated, it takes modules from nowhere else: not from the folder that one stands in.
exec "$(dirname "$(readlink -f "$0")")/python" -I -m quillet "$@"
