#include "service/user-folder-lock.h"

#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileop/file-op.h"

namespace
{
constexpr mode_t kMode = 0600;
constexpr std::chrono::milliseconds kPollInterval(50);

bool LockWhole(int fd)
{
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    return fcntl(fd, F_OFD_SETLK, &whole) == 0;
}

// Whether the path still names the file that is open: whoever held the lock before has removed that one.
bool IsStillThere(int fd, const std::string &path)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}
} // namespace

UserFolderLock::Result UserFolderLock::Acquire(const std::string &folder, std::chrono::milliseconds patience)
{
    path = folder + "/upgrade.lock";
    const auto end = std::chrono::steady_clock::now() + patience;
    Result result = Try();
    while (result == TAKEN_BY_ANOTHER && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPollInterval);
        result = Try();
    }
    return result;
}

UserFolderLock::Result UserFolderLock::Try()
{
    // Open for writing: on a network file system an exclusive lock asks for it.
    auto opened =
        std::make_unique<ScopedFd>(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
    if (!opened->valid()) {
        return NOT_LOCKABLE;
    }
    struct stat folder = {};
    if (geteuid() == 0 && stat(FSParentPath(path).c_str(), &folder) == 0 &&
        fchown(opened->get(), folder.st_uid, folder.st_gid) != 0) {
        return NOT_LOCKABLE; // root works on a folder whose owner must be able to meet the lock
    }
    if (!LockWhole(opened->get())) {
        return errno == EAGAIN || errno == EACCES || errno == EINTR ? TAKEN_BY_ANOTHER : NOT_LOCKABLE;
    }
    if (!IsStillThere(opened->get(), path)) {
        return TAKEN_BY_ANOTHER; // that is, not free yet: the next try opens the file that is there now
    }
    file = std::move(opened);
    return HELD;
}

void UserFolderLock::Release()
{
    if (file) {
        unlink(path.c_str());
        file.reset();
    }
}
