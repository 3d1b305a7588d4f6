#ifndef BRIMLOCK_SERVICE_TREE_FINGERPRINT_H
#define BRIMLOCK_SERVICE_TREE_FINGERPRINT_H

#include <cstdint>
#include <string>

// A number for a file, or for a folder with all that is below it, that becomes another one when anything there is
// written, replaced, added, removed or renamed, or its mode or owner changes. No file is read, and no clock is trusted:
// what counts is that identity, size and time of last change of an entry are what they were. A missing path has a
// number too.
uint64_t TreeFingerprint(const std::string &path);

// The same for a single entry. That of a folder changes when something directly in it is added, removed or renamed.
uint64_t EntryFingerprint(const std::string &path);

#endif
