#ifndef BRIMLOCK_APPFOLDER_USER_FOLDER_LOCK_H
#define BRIMLOCK_APPFOLDER_USER_FOLDER_LOCK_H

#include <chrono>
#include <string>

#include "fileop/scoped-fd.h"

// Advisory lock on the file "upgrade.lock" in the user's folder. It works over NFS, so launchers on other hosts respect
// it too, and the kernel releases it when the process ends.
class UserFolderLock
{
public:
    enum Result { HELD, HELD_BY_ANOTHER, NOT_LOCKABLE };

    // Waits up to `timeout` for the lock, creating the file. NOT_LOCKABLE: the folder is missing, cannot be written or
    // supports no locks; what this call has created is removed again. Releases a lock that this object holds already.
    Result Acquire(const std::string &folder, std::chrono::milliseconds timeout);

    // Removes the file and releases the lock. A file with contents is not the launcher's and is not removed. Does
    // nothing when the lock is not held.
    void Release();

    UserFolderLock() = default;
    ~UserFolderLock() { Release(); }
    UserFolderLock(const UserFolderLock &) = delete;
    UserFolderLock &operator=(const UserFolderLock &) = delete;

private:
    Result Try(const std::string &folder);

    std::string path;
    ScopedFd file; // open while the lock is held
};

#endif
