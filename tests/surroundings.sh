#!/bin/sh
# Prints what a program inherits: standard error, the environment, other open files, the umask, and
# which signals up to 28 are blocked or ignored. (The C library itself ignores two higher ones.)
# Starts no process, because a test limits the user's number of processes.
unset _
[ ! -e /proc/$$/fd/2 ] || echo 'standard error' # a pattern opens a file, which may be number 2
export -p
for file in "/proc/$$/fd/"[3-9]; do
    echo "${file##*/}"
done
while read -r field value _; do
    case $field in
    Umask:) echo "$field $value" ;;
    Sig[BI]*) echo "$field ${value#?????????}" ;;
    esac
done </proc/$$/status
