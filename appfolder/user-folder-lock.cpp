#include "appfolder/user-folder-lock.h"

#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "appfolder/folder-owner.h"

namespace
{
// Another user who can open the file could lock it too, so only the owner may open it.
constexpr mode_t kMode = 0600;
constexpr std::chrono::milliseconds kPollInterval(50);
constexpr int kRetries = 3;

// The umask may have removed bits, and the owner may have added some since.
void MakePrivate(int fd)
{
    struct stat status = {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid()) {
        fchmod(fd, kMode);
    }
}

bool LockWholeFile(int fd)
{
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    return fcntl(fd, F_OFD_SETLK, &whole) == 0;
}

// Whether the path still names the open file. The process that held the lock before removes the file when it releases
// the lock, and a third process may have created a new one.
bool IsStillNamed(int fd, const std::string &path)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}

bool IsEmptyFile(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
}
} // namespace

UserFolderLock::Result UserFolderLock::Acquire(const std::string &folder, std::chrono::milliseconds timeout)
{
    Release();
    path = folder + "/upgrade.lock";
    const auto end = std::chrono::steady_clock::now() + timeout;
    Result result = Try(folder);
    // EACCES: root may be about to give the file to the folder's owner. ESTALE: another host has removed the file.
    int retries = kRetries;
    while ((result == HELD_BY_ANOTHER && std::chrono::steady_clock::now() < end) ||
           (result == NOT_LOCKABLE && (errno == EACCES || errno == ESTALE) && retries-- > 0)) {
        std::this_thread::sleep_for(kPollInterval);
        result = Try(folder);
    }
    return result;
}

UserFolderLock::Result UserFolderLock::Try(const std::string &folder)
{
    // Open for writing: NFS grants exclusive locks only on such a descriptor.
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    ScopedFd opened(open(path.c_str(), flags | O_CREAT | O_EXCL, kMode));
    const bool isCreated = opened.valid();
    if (!isCreated) {
        if (errno != EEXIST) {
            return NOT_LOCKABLE;
        }
        opened = ScopedFd(open(path.c_str(), flags));
        if (!opened.valid()) {
            return errno == ENOENT ? HELD_BY_ANOTHER : NOT_LOCKABLE; // ENOENT: it has just been removed
        }
    }
    MakePrivate(opened.get());
    const bool isUsable = !isCreated || GiveToFolderOwner(opened.get(), folder);
    if (isUsable && LockWholeFile(opened.get())) {
        if (!IsStillNamed(opened.get(), path)) {
            return HELD_BY_ANOTHER; // the next try opens the file that has this name now
        }
        file = std::move(opened);
        return HELD;
    }
    const int error = errno;
    if (isUsable && (error == EAGAIN || error == EACCES || error == EINTR)) {
        return HELD_BY_ANOTHER;
    }
    if (isCreated && IsStillNamed(opened.get(), path)) {
        unlink(path.c_str());
    }
    errno = error;
    return NOT_LOCKABLE;
}

void UserFolderLock::Release()
{
    if (!file.valid()) {
        return;
    }
    if (IsEmptyFile(file.get()) && IsStillNamed(file.get(), path)) {
        unlink(path.c_str());
    }
    file.reset();
}
