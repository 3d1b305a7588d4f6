# Prints what a program inherits: the environment, umask, and which of the signals up to 28 are blocked or ignored. (The
# C library ignores two of its own, above.) Starts no process, because the user may have no more of them.
unset _
export -p
while read -r field value _; do
    case $field in
    Umask:) echo "$field $value" ;;
    Sig[BI]*) echo "$field ${value#?????????}" ;;
    esac
done </proc/$$/status
