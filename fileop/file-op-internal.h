#ifndef BRIMLOCK_FILEOP_FILE_OP_INTERNAL_H
#define BRIMLOCK_FILEOP_FILE_OP_INTERNAL_H

// What the library's own sources share.

constexpr char kFileOpComponent[] = "file_op_debug";

// The entries that stand for the folder itself and its parent.
inline bool IsDotEntry(const char *name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

#endif
