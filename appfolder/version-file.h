#ifndef BRIMLOCK_APPFOLDER_VERSION_FILE_H
#define BRIMLOCK_APPFOLDER_VERSION_FILE_H

#include <map>
#include <string>

// The pairs in group [Version] of a version file ("INFO", INI syntax). The bytes of the file are read as Latin-1; the
// pairs are UTF-8. There are none when the file is missing, cannot be read or is not a regular file of at most 1 MiB.
std::map<std::string, std::string> ReadVersionFile(const std::string &path);

// The number at the beginning of the text, as atoi() reads it; 0 for a text without one.
int BuildNumber(const std::string &text);

#endif
