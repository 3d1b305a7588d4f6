#ifndef BRIMLOCK_SERVICE_USER_FOLDER_LOCK_H
#define BRIMLOCK_SERVICE_USER_FOLDER_LOCK_H

#include <chrono>
#include <memory>
#include <string>

#include "fileop/scoped-fd.h"

// The right to change what is in a user's folder. It is a kernel lock on the file "upgrade.lock" in that folder: so
// every launcher that works on the folder meets it, on another host and on the file server too (which share locks of a
// file's bytes, and no others), and it goes with the process. The file is there only as long as somebody holds or wants
// the lock.
class UserFolderLock
{
public:
    enum Result { HELD, TAKEN_BY_ANOTHER, NOT_LOCKABLE };

    // Waits up to `patience` for the lock. NOT_LOCKABLE: the folder is missing, cannot be written or knows no locks.
    Result Acquire(const std::string &folder, std::chrono::milliseconds patience);

    // Removes the file and gives the lock back. Without a lock it does nothing.
    void Release();

    UserFolderLock() = default;
    ~UserFolderLock() { Release(); }
    UserFolderLock(const UserFolderLock &) = delete;
    UserFolderLock &operator=(const UserFolderLock &) = delete;

private:
    Result Try();

    std::string path;
    std::unique_ptr<ScopedFd> file; // holds the lock
};

#endif
