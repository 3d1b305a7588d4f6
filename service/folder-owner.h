#ifndef BRIMLOCK_SERVICE_FOLDER_OWNER_H
#define BRIMLOCK_SERVICE_FOLDER_OWNER_H

#include <string>

#include <sys/stat.h>
#include <unistd.h>

// When root has created the open file in a user's folder, gives it to the owner of the folder, who must be able to use
// it later. Does nothing for everybody else. Returns whether the file has the owner that it must have.
inline bool GiveToFolderOwner(int fd, const std::string &folder)
{
    struct stat status = {};
    return geteuid() != 0 || (stat(folder.c_str(), &status) == 0 && fchown(fd, status.st_uid, status.st_gid) == 0);
}

#endif
