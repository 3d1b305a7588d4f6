#ifndef BRIMLOCK_FILEOP_FILE_OP_H
#define BRIMLOCK_FILEOP_FILE_OP_H

#include <cstdint>
#include <string>

#include <dirent.h>

// Functions for files, folders and links. Paths are byte strings and are not normalised: as in the kernel, "link/" is
// the folder that the link points to, also for FSRemove(). Unless a function says otherwise, it returns 0, or -1 for a
// failed system call or an invalid argument; errno is then as the call left it. After a failure, what was done so far
// is not undone. Only FSCreateTempPath() keeps state and takes a lock.

// Information about a path, from GetFileInfo(). Two records are equal when existence, size, mtime, type, path and name
// are equal; owner, mode and device are not compared.
struct _FILE_INFO_tag {
    std::string path; // as given
    std::string name; // its last component, see FSBaseName()
    uint32_t type = 0;
    int32_t mtime = 0; // seconds since the epoch, the low 32 bits
    uint64_t size = 0; // in bytes; of the link itself for a symbolic link
    bool exists = false;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint32_t mode = 0; // type and permission bits
    uint64_t device = 0;

    bool operator==(const _FILE_INFO_tag &other) const;
    bool operator!=(const _FILE_INFO_tag &other) const { return !(*this == other); }
};

// The type codes of _FILE_INFO_tag and DIR_ENTRY. 4 is not used; callers rely on the numbers of the others.
enum FSType : uint32_t {
    FS_TYPE_NONE = 0,
    FS_TYPE_FILE = 1,
    FS_TYPE_DIR = 2,
    FS_TYPE_LINK = 3,
    FS_TYPE_DEVICE = 5,
    FS_TYPE_FIFO = 6,
    FS_TYPE_SOCKET = 7
};

// Fills the record, without following a symbolic link. Returns 0, also for a missing path, with `exists` false, or -1
// when lstat() fails otherwise; the record is then unchanged. Logs nothing.
int GetFileInfo(const std::string &path, _FILE_INFO_tag &info);

// Whether the path exists. A dangling link exists, an empty path does not; false also when lstat() fails. `followLink`
// has no effect, here and in FSStat(): callers pass both values and rely on a link not being followed.
bool IsFileExist(const std::string &path, bool followLink);

// Like GetFileInfo(), but returns -1 for an empty path and -2 when lstat() fails.
int FSStat(const std::string &path, _FILE_INFO_tag &info, bool followLink);

bool FSTimeEqual(int64_t a, int64_t b);

// The part before the last "/", or "/" when there is no other "/" than a leading one. "/a/b/" gives "/a/b".
std::string FSParentPath(const std::string &path);

// The part after the last "/": "" for "/a/".
std::string FSBaseName(const std::string &path);

// Whether `child` is `parent` or lies below it. Only the strings are compared. A `parent` with a trailing "/" has no
// children.
bool FSIsParentFolder(const std::string &parent, const std::string &child);

// Replaces the path by its canonical form. Returns 0, or -1 with the path unchanged.
int FSGetRealPath(std::string &path);

// Whether the path lies on CIFS, NFS or FUSE; false also when statfs() fails.
bool isMountPoint(const std::string &path);

// Whether the path lies on a FAT file system; false also when statfs() fails.
bool IsMSDOS(const std::string &path);

// Whether permissions deny access(2) with this mask. A missing file or a read-only file system does not count: callers
// treat a missing target as writable.
bool isFileWRForbidden(const std::string &path, int mode);
bool hasFilePermission(const std::string &path, int mode);

// Copies the contents of one file; a link is followed. Times, owner and attributes are not copied, and nothing is
// flushed to disk. A new `dst` gets, less the umask, the permissions of the source with keepMode (of the link itself,
// for a link) and 0644 without; an existing `dst` is truncated and keeps its permissions. With keepMode the kernel
// copies large files, and lets both share their blocks if the file system can. With removeSource the source is removed
// after a complete copy. Returns 0; -1: open, stat, read, write or close failed, or the source could not be removed;
// -2: disk full or over quota. A partly written `dst` stays: the caller has the backup and decides.
int FSCopy(const std::string &src, const std::string &dst, bool removeSource, bool keepMode);

// FSCopy() with keepMode, for a caller that has read the status of `src` itself: the mode and the size from lstat().
// The size need not be exact.
int FSCopyWithMode(const std::string &src, const std::string &dst, uint32_t mode, uint64_t size);

// Creates the folder, with mode 0777 less the umask. With `recursive` also creates missing ancestors, which may lie
// behind links to folders. Returns 0, also when the folder exists or another process creates it at the same moment; -1:
// empty path, failed lstat(), or the path is not a folder (a link to a folder is not one either); -2: mkdir() failed,
// errno is set.
int FSMKDir(const std::string &path, bool recursive);

// Creates the folders of `target` that lie below `root`. `root` itself is neither created nor checked. Returns 0, or -1
// when `root` is not a parent of `target` or a level failed; the levels above it stay.
int FSMKDirFromRoot(const std::string &target, const std::string &root);

// Moves a file or a folder tree. To another file system it copies, with mode 0644 for files, and removes the source.
// `followLink` has no effect. Returns 0; -1: empty path; -2: the source does not exist or lstat() failed; -3: the move
// failed, and what was moved so far stays moved (links, devices, FIFOs and sockets cannot be moved to another file
// system); -100: a name is too long.
int FSRename(const std::string &src, const std::string &dst, bool followLink);

// Removes a file, a link (not what it points to) or a folder tree. `followLink` has no effect. Returns 0, also for a
// missing path and for a folder that cannot be listed, which stays; -1: empty path or failed lstat(); -3: something
// could not be removed, and what was removed before stays removed.
int FSRemove(const std::string &path, bool followLink);

// Flushes a file to disk. Returns 0, 1 when the file does not exist, or -1.
int FSFsync(const std::string &path);

// Sets the times, in seconds since the epoch. A link is not followed.
int FSUTime(const std::string &path, int64_t atime, int64_t mtime);

// A flag of FSOpenDir(): FSReadDir() then fills time and size too.
constexpr int FS_DIR_WITH_INFO = 1;

// An open folder, for use by one thread at a time. It must be closed with FSCloseDir(); there is no destructor.
struct DIR_HANDLE {
    std::string path; // as given to FSOpenDir()
    int32_t flags = 0;
    DIR *dir = nullptr; // null when closed
};

struct DIR_ENTRY {
    std::string name;  // without the folder
    uint32_t type = 0; // 0 also when the file system does not report it: call GetFileInfo() then
    int32_t mtime = 0; // mtime and size are 0 without FS_DIR_WITH_INFO
    uint64_t size = 0;

    void Clear() { *this = DIR_ENTRY(); }
};

// Returns 0, or -1 with the handle unchanged.
int FSOpenDir(const std::string &path, int flags, DIR_HANDLE &handle);

// Reads the next entry, including "." and "..". Returns 1 for an entry; 0 at the end and for a read error; -1 when the
// time and size of the entry cannot be read, with `entry` unchanged.
int FSReadDir(DIR_HANDLE &handle, DIR_ENTRY &entry);

// Closes the folder if the handle is open, and clears its path. The flags stay.
void FSCloseDir(DIR_HANDLE &handle);

// Creates an empty file with mode 0644 and a random name in the folder. The caller removes it. Returns 0, or -1 with
// `path` unchanged.
int FSMktemp(const std::string &folder, std::string &path);

// Sets `path` to a random name in the folder. Nothing is created, and it is not checked whether the name is free.
int FSCreateTempPath(const std::string &folder, std::string &path);

// Creates the link. Fails when `link` exists.
int FSCreateSymbolicLink(const std::string &target, const std::string &link);

// Reads the text of the link. Returns 0, or -1, also for a text of 4096 bytes or more, with `target` unchanged.
int FSReadSymbolicLink(const std::string &link, std::string &target);

// Changes the owner. A link is not followed. The path must be absolute.
int FSChown(const std::string &path, unsigned int uid, unsigned int gid);

// Changes the mode. A link is followed.
int FSChmod(const std::string &path, unsigned int mode);

#endif
