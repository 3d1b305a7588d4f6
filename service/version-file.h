#ifndef BRIMLOCK_SERVICE_VERSION_FILE_H
#define BRIMLOCK_SERVICE_VERSION_FILE_H

#include <map>
#include <string>

// The pairs in group [Version] of a version file ("INFO", INI syntax, UTF-8). None when the file is missing, cannot be
// read or is not a regular file of at most 1 MiB.
std::map<std::string, std::string> ReadVersionFile(const std::string &path);

// The number at the beginning of the text, as atoi() reads it; 0 for a text without one.
int BuildNumber(const std::string &text);

#endif
