#include "service/source-snapshot.h"

#include <fcntl.h>

int NeighbourStat::operator()(const std::string &path, bool followLink, struct stat &status)
{
    const size_t slash = path.rfind('/');
    if (!folderFd || path.compare(0, slash + 1, folder) != 0) {
        folder = path.substr(0, slash + 1);
        folderFd = std::make_unique<ScopedFd>(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return fstatat(folderFd->get(), path.c_str() + slash + 1, &status, followLink ? 0 : AT_SYMLINK_NOFOLLOW);
}

// Sets size and ctime of the entry. Returns its type and permissions, or 0 when its status cannot be read.
mode_t SourceSnapshot::ReadStatus(NeighbourStat &statusOf, Entry &entry)
{
    struct stat status = {};
    if (statusOf(entry.path, entry.is_followed, status) != 0) {
        return 0;
    }
    entry.size = status.st_size;
    entry.changed = status.st_ctim;
    return status.st_mode;
}

void SourceSnapshot::Add(const std::string &path)
{
    for (const bool isFollowed : {false, true}) {
        Entry &entry = entries.emplace_back();
        entry.path = path;
        entry.is_followed = isFollowed;
        if (!S_ISLNK(ReadStatus(statusToAdd, entry))) {
            return;
        }
    }
}

bool SourceSnapshot::HasChanged() const
{
    NeighbourStat statusOf;
    for (const Entry &entry : entries) {
        Entry now;
        now.path = entry.path;
        now.is_followed = entry.is_followed;
        ReadStatus(statusOf, now);
        if (now.size != entry.size || now.changed.tv_sec != entry.changed.tv_sec ||
            now.changed.tv_nsec != entry.changed.tv_nsec) {
            return true;
        }
    }
    return false;
}
