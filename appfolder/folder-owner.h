#ifndef BRIMLOCK_APPFOLDER_FOLDER_OWNER_H
#define BRIMLOCK_APPFOLDER_FOLDER_OWNER_H

#include <string>

#include <sys/stat.h>
#include <unistd.h>

// If this process runs as root, gives the open file, which it has created in a user's folder, to the owner of the
// folder, who must be able to use it later. Otherwise does nothing. Returns false when the owner could not be changed.
inline bool GiveToFolderOwner(int fd, const std::string &folder)
{
    struct stat status = {};
    return geteuid() != 0 || (stat(folder.c_str(), &status) == 0 && fchown(fd, status.st_uid, status.st_gid) == 0);
}

#endif
