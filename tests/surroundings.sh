#!/bin/sh
# Prints what a program inherits: the environment, whether standard error is open, the umask, and
# which signals up to 28 are blocked or ignored. (The C library itself ignores two higher ones.)
# Starts no process, because a test limits the user's number of processes.
unset _
[ ! -e /proc/$$/fd/2 ] || echo 'standard error'
export -p
while read -r field value _; do
    case $field in
    Umask:) echo "$field $value" ;;
    Sig[BI]*) echo "$field ${value#?????????}" ;;
    esac
done </proc/$$/status
