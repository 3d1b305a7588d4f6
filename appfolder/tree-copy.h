#ifndef BRIMLOCK_APPFOLDER_TREE_COPY_H
#define BRIMLOCK_APPFOLDER_TREE_COPY_H

#include <string>

// Copies what `dst` lacks of the tree `src`: files, folders, and links as links, with their modes. Nothing in `dst` is
// replaced. Sockets, FIFOs and devices are left out. With `unfinished`, a path that does not exist on the file system
// of `dst`, `dst` never holds a part of a file: each file becomes a hard link of that in `src`, which takes no room; if
// the file system has none, it is written to `unfinished`, flushed and renamed. Returns false, with ERROR lines, at the
// first entry that cannot be read or copied; what was copied so far stays.
bool CopyMissing(const std::string &src, const std::string &dst, const std::string &unfinished);

// Removes a tree, also where its folders deny writing. Logs nothing.
void RemoveCopy(const std::string &path);

#endif
