#ifndef BRIMLOCK_FILEOP_FILE_OP_INTERNAL_H
#define BRIMLOCK_FILEOP_FILE_OP_INTERNAL_H

// What the library's own sources share.

#include <cstdint>
#include <string>

#include <sys/types.h>

inline const std::string kFileOpComponent = "file_op_debug";

// The FSType for a mode's type bits. Returns false, with `type` as it was, for bits of no known kind.
bool TypeFromMode(mode_t mode, uint32_t &type);

// The entries that stand for the folder itself and its parent.
inline bool IsDotEntry(const char *name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

#endif
