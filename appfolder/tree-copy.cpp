#include "appfolder/tree-copy.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "appfolder/log-component.h"
#include "fileop/file-op.h"
#include "log/log.h"

namespace
{
namespace fs = std::filesystem;

constexpr mode_t kModeBits = 07777;
constexpr mode_t kUnfinishedFolderMode = 0700; // a folder of the source may deny writing

bool Failed(const std::string &path, int error)
{
    LOGGER_ERROR(kServiceComponent, "cannot copy '%s': %s (%d)\n", path.c_str(), strerror(error), error);
    return false;
}

bool CopyFile(const std::string &src, mode_t mode, const std::string &dst)
{
    // FSCopy() has logged why it failed. The umask may have removed bits of the mode.
    return FSCopy(src, dst, false, true) == 0 && (chmod(dst.c_str(), mode & kModeBits) == 0 || Failed(src, errno));
}

// `dst` never has a part of the file.
bool CopyWholeFile(const std::string &src, mode_t mode, const std::string &dst, const std::string &unfinished)
{
    if (link(src.c_str(), dst.c_str()) == 0) {
        return true; // takes no room
    }
    if (CopyFile(src, mode, unfinished) && FSFsync(unfinished) == 0 &&
        (rename(unfinished.c_str(), dst.c_str()) == 0 || Failed(src, errno))) {
        return true;
    }
    const int error = errno;
    unlink(unfinished.c_str());
    errno = error;
    return false;
}

bool CopyFolder(const std::string &src, mode_t mode, const std::string &dst, const std::string &unfinished)
{
    struct stat status = {};
    if (mkdir(dst.c_str(), kUnfinishedFolderMode) != 0 && errno != EEXIST) {
        return Failed(src, errno);
    }
    if (lstat(dst.c_str(), &status) != 0) {
        return Failed(src, errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return true; // something else has this name
    }
    std::error_code error;
    for (fs::directory_iterator entry(src, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = "/" + entry->path().filename().string();
        if (!CopyMissing(src + name, dst + name, unfinished)) {
            return false;
        }
    }
    if (error) {
        return Failed(src, error.value());
    }
    return status.st_mode == mode || chmod(dst.c_str(), mode & kModeBits) == 0 || Failed(src, errno);
}
} // namespace

bool CopyMissing(const std::string &src, const std::string &dst, const std::string &unfinished)
{
    struct stat status = {};
    struct stat existing = {};
    if (lstat(src.c_str(), &status) != 0) {
        return Failed(src, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return CopyFolder(src, status.st_mode, dst, unfinished);
    }
    if (lstat(dst.c_str(), &existing) == 0) {
        return true;
    }
    std::string target;
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
        return unfinished.empty() ? CopyFile(src, status.st_mode, dst)
                                  : CopyWholeFile(src, status.st_mode, dst, unfinished);
    case S_IFLNK:
        return FSReadSymbolicLink(src, target) == 0 && FSCreateSymbolicLink(target, dst) == 0;
    default:
        return true;
    }
}

void RemoveCopy(const std::string &path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        chmod(path.c_str(), (status.st_mode & kModeBits) | kUnfinishedFolderMode);
        std::error_code ignored; // FSRemove() removes what it can
        for (fs::directory_iterator entry(path, ignored), end; entry != end; entry.increment(ignored)) {
            RemoveCopy(entry->path());
        }
    }
    FSRemove(path, false);
}
