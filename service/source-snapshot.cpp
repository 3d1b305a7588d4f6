#include "service/source-snapshot.h"

#include <utility>

#include <sys/stat.h>

SourceSnapshot::Entry SourceSnapshot::Look(const std::string &path, bool isFollowed, bool &isLink)
{
    struct stat status = {};
    if ((isFollowed ? stat : lstat)(path.c_str(), &status) != 0) {
        return {path, isFollowed, -1, {}};
    }
    isLink = S_ISLNK(status.st_mode);
    return {path, isFollowed, status.st_size, status.st_ctim};
}

void SourceSnapshot::Add(const std::string &path)
{
    bool isLink = false;
    entries.push_back(Look(path, false, isLink));
    if (isLink) {
        entries.push_back(Look(path, true, isLink));
    }
}

bool SourceSnapshot::HasChanged() const
{
    for (const Entry &entry : entries) {
        bool isLink = false;
        const Entry now = Look(entry.path, entry.is_followed, isLink);
        if (now.size != entry.size || now.changed.tv_sec != entry.changed.tv_sec ||
            now.changed.tv_nsec != entry.changed.tv_nsec) {
            return true;
        }
    }
    return false;
}
