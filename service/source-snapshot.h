#ifndef BRIMLOCK_SERVICE_SOURCE_SNAPSHOT_H
#define BRIMLOCK_SERVICE_SOURCE_SNAPSHOT_H

#include <string>
#include <vector>

#include <sys/types.h>
#include <time.h>

// Notices whether files and folders have changed since they were added, by size and time of last status change (ctime).
// The ctime of a folder changes when an entry directly in it is added, removed or renamed. Device and inode are not
// compared: on overlay file systems the inode of an untouched folder changes when it leaves the cache.
class SourceSnapshot
{
public:
    // To be called before the entry is read. For a symbolic link the file that it points to is added too. An entry that
    // is missing or cannot be looked at is added as such.
    void Add(const std::string &path);

    // Looks at all entries once more.
    bool HasChanged() const;

private:
    struct Entry {
        std::string path;
        bool is_followed; // the entry is what the link `path` points to
        off_t size;       // in bytes; -1 when the entry could not be looked at
        timespec changed;
    };

    static Entry Look(const std::string &path, bool isFollowed, bool &isLink);

    std::vector<Entry> entries;
};

#endif
