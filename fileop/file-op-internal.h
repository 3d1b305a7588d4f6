#ifndef BRIMLOCK_FILEOP_FILE_OP_INTERNAL_H
#define BRIMLOCK_FILEOP_FILE_OP_INTERNAL_H

// Shared by the sources of this library.

#include <cstdint>
#include <string>

#include <sys/types.h>

inline const std::string kFileOpComponent = "file_op_debug";

// Sets `type` to the FSType of the mode. Returns false and leaves `type` alone when the type bits are unknown.
bool TypeFromMode(mode_t mode, uint32_t &type);

// Whether the name is "." or "..".
inline bool IsDotEntry(const char *name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

#endif
