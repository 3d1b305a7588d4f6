#!/bin/sh
# Prints what a program inherits: the environment, which files are open besides the first two, the
# umask, and which signals up to 28 are blocked or ignored. (The C library itself ignores two higher
# ones.) Starts no process, because a test limits the user's number of processes.
unset _
export -p
for number in 2 3 4 5 6 7 8 9; do
    [ ! -e "/proc/$$/fd/$number" ] || echo "$number"
done
while read -r field value _; do
    case $field in
    Umask:) echo "$field $value" ;;
    Sig[BI]*) echo "$field ${value#?????????}" ;;
    esac
done </proc/$$/status
