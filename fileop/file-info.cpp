// Information about a path, from the file system or from the text of the path.

#include "fileop/file-op.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>

#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "fileop/file-op-internal.h"
#include "log/log.h"

namespace
{
constexpr size_t kRealPathBytes = 8192;

constexpr int64_t kCifsMagic = 0xFF534D42;
constexpr int64_t kNfsMagic = 0x6969;
constexpr int64_t kFuseMagic = 0x65735546;
constexpr int64_t kMsdosMagic = 0x4D44;
} // namespace

bool TypeFromMode(mode_t mode, uint32_t &type)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        type = FS_TYPE_FILE;
        return true;
    case S_IFDIR:
        type = FS_TYPE_DIR;
        return true;
    case S_IFCHR:
    case S_IFBLK:
        type = FS_TYPE_DEVICE;
        return true;
    case S_IFLNK:
        type = FS_TYPE_LINK;
        return true;
    case S_IFIFO:
        type = FS_TYPE_FIFO;
        return true;
    case S_IFSOCK:
        type = FS_TYPE_SOCKET;
        return true;
    default:
        return false;
    }
}

bool _FILE_INFO_tag::operator==(const _FILE_INFO_tag &other) const
{
    return std::tie(exists, size, mtime, type, path, name) ==
           std::tie(other.exists, other.size, other.mtime, other.type, other.path, other.name);
}

int GetFileInfo(const std::string &path, _FILE_INFO_tag &info)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            return -1;
        }
        _FILE_INFO_tag missing;
        missing.path = path; // `path` may refer to info.path, so `info` is replaced last
        missing.name = FSBaseName(path);
        info = std::move(missing);
        return 0;
    }

    info.path = path;
    info.name = FSBaseName(path);
    info.mtime = static_cast<int32_t>(status.st_mtim.tv_sec);
    info.size = static_cast<uint64_t>(status.st_size);
    info.exists = true;
    info.uid = status.st_uid;
    info.gid = status.st_gid;
    info.mode = status.st_mode;
    info.device = status.st_dev;
    return TypeFromMode(info.mode, info.type) ? 0 : -1;
}

bool IsFileExist(const std::string &path, bool)
{
    _FILE_INFO_tag info;
    return !path.empty() && GetFileInfo(path, info) == 0 && info.exists;
}

int FSStat(const std::string &path, _FILE_INFO_tag &info, bool)
{
    if (path.empty()) {
        return -1;
    }
    return GetFileInfo(path, info) < 0 ? -2 : 0;
}

bool FSTimeEqual(int64_t a, int64_t b)
{
    return a == b;
}

std::string FSParentPath(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

std::string FSBaseName(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool FSIsParentFolder(const std::string &parent, const std::string &child)
{
    if (parent.size() > child.size()) {
        return false;
    }
    const char next = child.c_str()[parent.size()];
    return (next == '/' || next == '\0') && child.compare(0, parent.size(), parent) == 0;
}

int FSGetRealPath(std::string &path)
{
    LOGGER_DEBUG(kFileOpComponent, " org path [%s]\n", path.c_str());
    static_assert(kRealPathBytes >= PATH_MAX, "realpath() writes up to PATH_MAX bytes");
    char resolved[kRealPathBytes];
    if (realpath(path.c_str(), resolved) == nullptr) {
        return -1;
    }
    path = resolved;
    LOGGER_DEBUG(kFileOpComponent, " get full path [%s]\n", path.c_str());
    return 0;
}

bool isMountPoint(const std::string &path)
{
    struct statfs status = {};
    if (statfs(path.c_str(), &status) != 0) {
        LOGGER_ERROR(kFileOpComponent, "isMountPoint: Failed to get file system info '%s'. %s\n", path.c_str(),
                     strerror(errno));
        return false;
    }
    return status.f_type == kCifsMagic || status.f_type == kNfsMagic || status.f_type == kFuseMagic;
}

bool IsMSDOS(const std::string &path)
{
    struct statfs status = {};
    if (statfs(path.c_str(), &status) != 0) {
        // The message names another function. Log readers search for it.
        LOGGER_ERROR(kFileOpComponent, "IsSupportLargeFile: Failed to get file system info '%s'. %s\n", path.c_str(),
                     strerror(errno));
        return false;
    }
    if (status.f_type != kMsdosMagic) {
        return false;
    }
    LOGGER_WARNING(kFileOpComponent, "Detect a MSDOS platform for path '%s'.\n", path.c_str());
    return true;
}

bool isFileWRForbidden(const std::string &path, int mode)
{
    return access(path.c_str(), mode) != 0 && (errno == EPERM || errno == EACCES);
}

bool hasFilePermission(const std::string &path, int mode)
{
    return !isFileWRForbidden(path, mode);
}
