// Temporary files, links, owners, modes and times.

#include "fileop/file-op.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "fileop/file-op-internal.h"
#include "fileop/tmp-name-gen.h"
#include "log/log.h"

namespace
{
constexpr size_t kPathBytes = 4096;
constexpr mode_t kTempFileMode = 0644;
} // namespace

int FSMktemp(const std::string &folder, std::string &path)
{
    char name[kPathBytes];
    snprintf(name, sizeof name, "%s/XXXXXX", folder.c_str());
    const std::string pattern = name;
    const int fd = mkstemp(name);
    if (fd < 0) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat" // "%m" is the C library's, not the language standard's
        LOGGER_ERROR(kFileOpComponent, "mkstemp(%s): %m(%d)\n", pattern.c_str(), errno);
#pragma GCC diagnostic pop
        return -1;
    }
    close(fd);
    path = name;
    chmod(name, kTempFileMode);
    return 0;
}

int FSCreateTempPath(const std::string &folder, std::string &path)
{
    path = TmpNameGen::getInstance()->getTmpPath(folder);
    return path.empty() ? -1 : 0;
}

int FSCreateSymbolicLink(const std::string &target, const std::string &link)
{
    if (symlink(target.c_str(), link.c_str()) != 0) {
        LOGGER_ERROR(kFileOpComponent,
                     "FSCreateSymbolicLink: Failed to create symbolic link '%s' -> '%s' (code: %d, msg: %s)\n",
                     target.c_str(), link.c_str(), errno, strerror(errno));
        return -1;
    }
    return 0;
}

int FSReadSymbolicLink(const std::string &link, std::string &target)
{
    char text[kPathBytes] = "";
    const ssize_t length = readlink(link.c_str(), text, sizeof text);
    if (length < 0) {
        LOGGER_ERROR(kFileOpComponent, "FSReadSymbolicLink: Failed to read symbolic link '%s' (code: %d, msg: %s)\n",
                     link.c_str(), errno, strerror(errno));
        return -1;
    }
    if (static_cast<size_t>(length) >= sizeof text) {
        LOGGER_ERROR(kFileOpComponent, "FSReadSymbolicLink: path of '%s' is more than %d\n", link.c_str(),
                     static_cast<int>(sizeof text));
        return -1;
    }
    target.assign(text, static_cast<size_t>(length));
    return 0;
}

int FSChown(const std::string &path, unsigned int uid, unsigned int gid)
{
    // Callers give absolute paths. A relative one must not refer to the current folder, as with AT_FDCWD: with
    // descriptor 0, which is usually not a folder, it fails.
    if (fchownat(0, path.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) != 0) {
        LOGGER_ERROR(kFileOpComponent, "FSChown: Failed to chown '%s' (code: %d, msg: %s)\n", path.c_str(), errno,
                     strerror(errno));
        return -1;
    }
    return 0;
}

int FSChmod(const std::string &path, unsigned int mode)
{
    if (chmod(path.c_str(), mode) != 0) {
        LOGGER_ERROR(kFileOpComponent, "FSChmod: Failed to chmod '%s' (code: %d, msg: %s)\n", path.c_str(), errno,
                     strerror(errno));
        return -1;
    }
    return 0;
}

int FSUTime(const std::string &path, int64_t atime, int64_t mtime)
{
    const timeval times[2] = {{atime, 0}, {mtime, 0}};
    return lutimes(path.c_str(), times);
}
