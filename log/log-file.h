#ifndef BRIMLOCK_LOG_LOG_FILE_H
#define BRIMLOCK_LOG_LOG_FILE_H

// Shared by the sources of this library.

#include <cstdio>
#include <string>

// Opens a regular file for appending and creates it when it is missing. Returns null when it cannot be opened or is not
// a regular file; never waits for the other end of a FIFO. The descriptor is close-on-exec, so the started client does
// not inherit the log. The caller closes the file.
FILE *OpenForAppend(const std::string &path);

#endif
