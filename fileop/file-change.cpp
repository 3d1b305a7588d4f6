// Copying, creating, moving, removing and flushing.

#include "fileop/file-op.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileop/file-op-internal.h"
#include "fileop/scoped-fd.h"
#include "log/log.h"

namespace
{
constexpr size_t kCopyBytes = 8192;
constexpr uint64_t kKernelCopyBytes = 32UL * 1024; // for a smaller file the two system calls cost more than they save
constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kNewFolderMode = 0777;

struct DirDeleter {
    void operator()(DIR *dir) const { closedir(dir); }
};
using ScopedDir = std::unique_ptr<DIR, DirDeleter>;

// Follows links.
bool LeadsToFolder(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Like mkdir(2), but also succeeds when the folder exists. After a failure, errno is that of mkdir(2).
bool MakeFolder(const std::string &path)
{
    if (mkdir(path.c_str(), kNewFolderMode) == 0) {
        return true;
    }
    const int mkdirErrno = errno;
    if (mkdirErrno == EEXIST && LeadsToFolder(path)) {
        return true;
    }
    errno = mkdirErrno;
    return false;
}

// Creates the folder at `prefix`, one level of the path that FSMKDir() creates. Returns false with errno set.
bool MakeLevel(const std::string &prefix, bool isLast)
{
    struct stat status = {};
    if (stat(prefix.c_str(), &status) != 0) {
        return MakeFolder(prefix);
    }
    if (S_ISDIR(status.st_mode)) {
        return true;
    }
    if (isLast) {
        errno = EEXIST;
        LOGGER_INFO(kFileOpComponent, "FSMKDirP: path: %s is existing file or symbolic link pointed to file\n",
                    prefix.c_str());
        return false;
    }
    // The message is wrong, but log readers search for it: the entry is no folder. The next level fails with ENOTDIR.
    LOGGER_INFO(kFileOpComponent, "FSMKDirP: path: %s is symbolic link pointed to folder\n", prefix.c_str());
    return true;
}

bool MakeAllLevels(const std::string &path)
{
    for (size_t end = 0;;) {
        end = std::min(path.find('/', end + 1), path.size());
        const bool isLast = end + 1 >= path.size(); // a trailing "/" is not a level
        if (!MakeLevel(path.substr(0, end), isLast)) {
            return false;
        }
        if (isLast) {
            return true;
        }
    }
}

// Logs why a write failed. Returns -1 or, when the disk is full or over quota, -2.
int WriteFailure()
{
    const int result = errno == ENOSPC || errno == EDQUOT ? -2 : -1;
    LOGGER_ERROR(kFileOpComponent, "CopyFile: write: %s (%d)\n", strerror(errno), errno);
    return result;
}

// Returns 0 or what WriteFailure() returns.
int WriteAll(int fd, const char *bytes, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written <= 0) {
            return WriteFailure();
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

// Reads `in` to its end and writes it to `out`, except for the next `shared` bytes, which are only read. Returns 0, -1
// or what WriteFailure() returns.
int ReadAndWrite(int in, int out, off_t shared)
{
    char buffer[kCopyBytes];
    for (;;) {
        const ssize_t size = read(in, buffer, sizeof buffer);
        if (size < 0) {
            LOGGER_ERROR(kFileOpComponent, "CopyFile: read: %s (%d)\n", strerror(errno), errno);
            return -1;
        }
        if (size == 0) {
            return 0;
        }
        const ssize_t skipped = std::min<off_t>(size, shared);
        shared -= skipped;
        const int result = WriteAll(out, buffer + skipped, static_cast<size_t>(size - skipped));
        if (result != 0) {
            return result;
        }
    }
}

// Copies from `in`, which has about `size` bytes, to the empty file `out`. Both are at their beginning. Lets the kernel
// do it if it can; ReadAndWrite() copies the rest and reports each failure.
int CopyBytes(int in, int out, uint64_t size)
{
    off_t shared = 0;
    if (size >= kKernelCopyBytes) {
        if (ioctl(out, FICLONE, in) == 0) {
            // The files share their blocks now. None has been read, and one may be unreadable. If lseek() fails, which
            // it may on a network, everything is written.
            shared = std::max<off_t>(0, lseek(out, 0, SEEK_END));
        } else if (errno == EOPNOTSUPP || errno == EXDEV) {
            // Not after another error: where blocks can be shared, this call shares them too, and nothing is read.
            while (copy_file_range(in, nullptr, out, nullptr, size, 0) > 0) {
            }
        }
    }
    return ReadAndWrite(in, out, shared);
}

// Opens a file for FSCopy(). The messages call that function CopyFile, its older name.
int OpenForCopy(const std::string &path, int flags, mode_t mode)
{
    const int fd = open(path.c_str(), flags | O_CLOEXEC, mode);
    if (fd < 0) {
        LOGGER_ERROR(kFileOpComponent, "CopyFile: open(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
    }
    return fd;
}

// Copies from `in` to `dst`, which gets this mode if it is new. Returns what FSCopy() returns.
int CopyTo(const std::string &dst, mode_t mode, int in, uint64_t size)
{
    ScopedFd out(OpenForCopy(dst, O_WRONLY | O_CREAT | O_TRUNC, mode));
    if (!out.valid()) {
        return -1;
    }
    const int result = CopyBytes(in, out.get(), size);
    return result == 0 && !out.Close() ? WriteFailure() : result;
}

// Moves a folder to another file system, entry by entry.
int MoveFolder(const std::string &src, const std::string &dst, bool followLink)
{
    if (FSMKDir(dst, true) != 0) {
        return -3;
    }
    ScopedDir dir(opendir(src.c_str()));
    if (!dir) {
        return -3;
    }
    while (const dirent *entry = readdir(dir.get())) {
        if (IsDotEntry(entry->d_name)) {
            continue;
        }
        const std::string name = std::string("/") + entry->d_name;
        if (FSRename(src + name, dst + name, followLink) != 0) {
            return -3;
        }
    }
    dir.reset();
    return remove(src.c_str()) == 0 ? 0 : -3;
}
} // namespace

int FSCopy(const std::string &src, const std::string &dst, bool removeSource, bool keepMode)
{
    ScopedFd in(OpenForCopy(src, O_RDONLY, 0));
    if (!in.valid()) {
        return -1;
    }
    mode_t mode = kNewFileMode;
    uint64_t size = 0; // not known
    if (keepMode) {
        _FILE_INFO_tag info;
        if (FSStat(src, info, true) < 0) {
            LOGGER_ERROR(kFileOpComponent, "FSStat: check state (%s) failed\n", src.c_str());
            return -1;
        }
        mode = info.mode;
        size = info.size;
    }
    const int result = CopyTo(dst, mode, in.get(), size);
    if (result != 0 || !removeSource) {
        return result;
    }
    in.reset();
    return remove(src.c_str()) == 0 ? 0 : -1;
}

int FSCopyWithMode(const std::string &src, const std::string &dst, uint32_t mode, uint64_t size)
{
    const ScopedFd in(OpenForCopy(src, O_RDONLY, 0));
    return in.valid() ? CopyTo(dst, mode, in.get(), size) : -1;
}

int FSMKDir(const std::string &path, bool recursive)
{
    if (path.empty()) {
        return -1;
    }
    _FILE_INFO_tag info;
    if (GetFileInfo(path, info) != 0) {
        // Log readers search for this text, with "to" twice.
        LOGGER_ERROR(kFileOpComponent, "FSMKDir: Failed to to file info '%s'\n", path.c_str());
        return -1;
    }
    if (info.exists) {
        if (info.type == FS_TYPE_DIR) {
            return 0;
        }
        LOGGER_ERROR(kFileOpComponent, "FSMKDir: Create a folder but local file system is not directory '%s' (%d)\n",
                     path.c_str(), static_cast<int>(info.type));
        return -1;
    }
    if (recursive ? MakeAllLevels(path) : MakeFolder(path)) {
        return 0;
    }
    LOGGER_ERROR(kFileOpComponent, "path = %s errno : %s\n", path.c_str(), strerror(errno));
    return -2;
}

int FSMKDirFromRoot(const std::string &target, const std::string &root)
{
    if (root.size() > target.size()) {
        // Log readers search for this text, with "then" instead of "than".
        LOGGER_ERROR(kFileOpComponent, "Giving a root '%s' whose length is larger then target's '%s'.\n", root.c_str(),
                     target.c_str());
        return -1;
    }
    if (!FSIsParentFolder(root, target)) {
        LOGGER_ERROR(kFileOpComponent, "root '%s' is not a parent folder of target '%s'\n", root.c_str(),
                     target.c_str());
        return -1;
    }
    const std::string relative = target.substr(root.size());
    std::string level;
    while (level.size() != relative.size()) {
        level = relative.substr(0, relative.find('/', level.size() + 1));
        LOGGER_DEBUG(kFileOpComponent, "FSMKDirFromRoot: create %s\n", level.c_str());
        if (FSMKDir(root + level, false) < 0) {
            return -1;
        }
    }
    return 0;
}

int FSRename(const std::string &src, const std::string &dst, bool followLink)
{
    if (src.empty() || dst.empty()) {
        return -1;
    }
    _FILE_INFO_tag info;
    if (FSStat(src, info, followLink) < 0 || !info.exists) {
        return -2;
    }
    if (rename(src.c_str(), dst.c_str()) == 0) {
        return 0;
    }
    if (errno == ENAMETOOLONG) {
        return -100;
    }
    if (errno != EXDEV) {
        return -3;
    }

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat" // "%m" is the C library's, not the language standard's
    LOGGER_DEBUG(kFileOpComponent, "rename failed: %s -> %s, %m (%d)\n", src.c_str(), dst.c_str(), errno);
#pragma GCC diagnostic pop
    switch (info.type) {
    case FS_TYPE_FILE:
        return FSCopy(src, dst, true, false) < 0 ? -3 : 0;
    case FS_TYPE_DIR:
        return MoveFolder(src, dst, followLink);
    default:
        return -3;
    }
}

int FSRemove(const std::string &path, bool)
{
    _FILE_INFO_tag info;
    if (path.empty() || GetFileInfo(path, info) != 0) {
        return -1;
    }
    if (!info.exists) {
        return 0;
    }
    if (info.type == FS_TYPE_DIR) {
        ScopedDir dir(opendir(path.c_str()));
        if (!dir) {
            return 0; // callers rely on that: they must not remove a folder that they may not list
        }
        while (const dirent *entry = readdir(dir.get())) {
            if (IsDotEntry(entry->d_name)) {
                continue;
            }
            const std::string child = path + "/" + entry->d_name;
            if (entry->d_type != DT_REG) {
                if (FSRemove(child, false) != 0) {
                    return -3;
                }
            } else if (remove(child.c_str()) != 0 && errno != ENOENT) { // a regular file needs no lstat() before
                return -3;
            }
        }
    }
    return remove(path.c_str()) == 0 ? 0 : -3;
}

int FSFsync(const std::string &path)
{
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        if (errno == ENOENT) {
            return 1;
        }
        LOGGER_ERROR(kFileOpComponent, "FSFsync: open(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
        return -1;
    }
    if (fsync(file.get()) != 0) {
        LOGGER_ERROR(kFileOpComponent, "FSFsync: fsync(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
        return -1;
    }
    return 0;
}
