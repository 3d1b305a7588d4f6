#include "service/source-snapshot.h"

#include <fcntl.h>

int NeighbourStat::operator()(const std::string &path, bool followLink, struct stat &status)
{
    const size_t slash = path.rfind('/');
    if (!folderFd.valid() || path.compare(0, slash + 1, folder) != 0) {
        folder = path.substr(0, slash + 1);
        folderFd = ScopedFd(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return fstatat(folderFd.get(), path.c_str() + slash + 1, &status, followLink ? 0 : AT_SYMLINK_NOFOLLOW);
}

SourceSnapshot::Status SourceSnapshot::ReadStatus(NeighbourStat &statOf, const std::string &path, bool isFollowed)
{
    struct stat status = {};
    if (statOf(path, isFollowed, status) != 0) {
        return {};
    }
    return {status.st_mode, status.st_size, status.st_ctim};
}

SourceSnapshot::Status SourceSnapshot::Add(const std::string &path)
{
    const Status status = ReadStatus(statToAdd, path, false);
    entries.push_back({path, false, status});
    if (S_ISLNK(status.mode)) {
        entries.push_back({path, true, ReadStatus(statToAdd, path, true)});
    }
    return status;
}

bool SourceSnapshot::HasChanged(bool onlyReadable) const
{
    NeighbourStat statOf;
    for (const Entry &entry : entries) {
        const Status now = ReadStatus(statOf, entry.path, entry.isFollowed);
        if (onlyReadable && (now.size < 0 || entry.status.size < 0)) {
            continue;
        }
        if (now.size != entry.status.size || now.changed.tv_sec != entry.status.changed.tv_sec ||
            now.changed.tv_nsec != entry.status.changed.tv_nsec) {
            return true;
        }
    }
    return false;
}
