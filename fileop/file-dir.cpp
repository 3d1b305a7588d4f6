// Walking folders.

#include "fileop/file-op.h"

#include <cerrno>
#include <cstring>

#include "fileop/file-op-internal.h"
#include "log/log.h"

int FSOpenDir(const std::string &path, int flags, DIR_HANDLE &handle)
{
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) {
        LOGGER_ERROR(kFileOpComponent, "FSOpenDir: Failed to open directory '%s'. %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    handle.path = path;
    handle.flags = flags;
    handle.dir = dir;
    return 0;
}

int FSReadDir(DIR_HANDLE &handle, DIR_ENTRY &entry)
{
    const dirent *next = readdir(handle.dir);
    if (next == nullptr) {
        return 0;
    }
    _FILE_INFO_tag info; // time and size stay 0 without FS_DIR_WITH_INFO
    if ((handle.flags & FS_DIR_WITH_INFO) != 0) {
        const std::string path = handle.path + "/" + next->d_name;
        if (FSStat(path, info, false) < 0) {
            // The message names another function. Log readers search for it.
            LOGGER_ERROR(kFileOpComponent, "FSOpenDir: Failed to get info for '%s'\n", path.c_str());
            return -1;
        }
    }
    entry.name = next->d_name;
    entry.type = FS_TYPE_NONE;
    TypeFromMode(DTTOIF(next->d_type), entry.type);
    entry.mtime = info.mtime;
    entry.size = info.size;
    return 1;
}

void FSCloseDir(DIR_HANDLE &handle)
{
    if (handle.dir != nullptr) {
        closedir(handle.dir);
    }
    handle.dir = nullptr;
    handle.path.clear();
}
