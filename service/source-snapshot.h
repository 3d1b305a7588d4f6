#ifndef BRIMLOCK_SERVICE_SOURCE_SNAPSHOT_H
#define BRIMLOCK_SERVICE_SOURCE_SNAPSHOT_H

#include <string>
#include <vector>

#include <sys/stat.h>

#include "fileop/scoped-fd.h"

// stat(2) and lstat(2) for many entries. Keeps the folder of the last entry open, so that the kernel need not look up
// the whole path of the next entry in the same folder.
class NeighbourStat
{
public:
    // Returns 0, or -1 with errno set. `path` is absolute.
    int operator()(const std::string &path, bool followLink, struct stat &status);

private:
    std::string folder;
    ScopedFd folderFd;
};

// Notices whether files and folders have changed since they were added, by size and time of last status change (ctime).
// The ctime of a folder changes when an entry directly in it is added, removed or renamed. Device and inode are not
// compared: on overlay file systems the inode of an untouched folder changes when it leaves the cache.
class SourceSnapshot
{
public:
    struct Status {
        mode_t mode = 0;
        off_t size = -1; // in bytes; -1 when the status could not be read
        timespec changed = {};
    };

    // To be called before the entry is read. For a symbolic link the file that it points to is added too. An entry that
    // is missing, or whose status cannot be read, is added as such. `path` is absolute. Returns the status of the entry
    // itself, as lstat() gives it.
    Status Add(const std::string &path);

    // Reads the status of all entries again and compares. With `onlyReadable`, an entry whose status could not be read,
    // then or now, does not count as changed.
    bool HasChanged(bool onlyReadable) const;

private:
    struct Entry {
        std::string path;
        bool isFollowed; // the entry is what the link `path` points to
        Status status;
    };

    static Status ReadStatus(NeighbourStat &statOf, const std::string &path, bool isFollowed);

    NeighbourStat statToAdd;
    std::vector<Entry> entries;
};

#endif
