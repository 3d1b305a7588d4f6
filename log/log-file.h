#ifndef BRIMLOCK_LOG_LOG_FILE_H
#define BRIMLOCK_LOG_LOG_FILE_H

// What the library's own sources share.

#include <cstdio>
#include <string>

// Opens a regular file for appending, creating it when it is missing; null when there is something else, without
// waiting for the other end of a FIFO. Close-on-exec: the client that the launcher starts must not hold the log.
FILE *OpenForAppend(const std::string &path);

#endif
