#!/bin/sh
# Starts the program with the interpreter beside it, which a "#!" could not name where its path has a
# space. It is isolated: the folder that one stands in gives it no modules.
exec "$(dirname "$(readlink -f "$0")")/python" -I -m quillet "$@"
