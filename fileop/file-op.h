#ifndef BRIMLOCK_FILEOP_FILE_OP_H
#define BRIMLOCK_FILEOP_FILE_OP_H

#include <cstdint>
#include <string>

#include <dirent.h>

// Files, folders and links. Paths are byte strings and are never normalised: a "/" behind the name of a link
// makes the system follow it, so that "link/" is the folder behind it, for FSRemove() too. Unless a function
// says otherwise, 0 is success and -1 a failed system call or an invalid argument; errno is then as that call
// left it. No function undoes what it has already done. None keeps state or takes a lock but
// FSCreateTempPath().

// What GetFileInfo() knows of a path. Two records are equal when existence, size, mtime, type, path and name
// are: a change of owner, mode or device alone makes no difference.
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

// The type codes of _FILE_INFO_tag and DIR_ENTRY. 4 is not in use and stays free: the others keep their
// numbers.
enum FSType : uint32_t {
    FS_TYPE_NONE = 0,
    FS_TYPE_FILE = 1,
    FS_TYPE_DIR = 2,
    FS_TYPE_LINK = 3,
    FS_TYPE_DEVICE = 5,
    FS_TYPE_FIFO = 6,
    FS_TYPE_SOCKET = 7
};

// Fills the record without following a symbolic link. A missing path is a success, with `exists` false. -1:
// the path cannot be looked at, and the record is untouched. Logs nothing.
int GetFileInfo(const std::string &path, _FILE_INFO_tag &info);

// Whether the path names an entry; a dangling link exists, an empty path does not. `followLink` has no
// effect, here and in FSStat(): callers pass it, and rely on a link being looked at itself.
bool IsFileExist(const std::string &path, bool followLink);

// GetFileInfo() with -1 for an empty path and -2 for one that cannot be looked at.
int FSStat(const std::string &path, _FILE_INFO_tag &info, bool followLink);

bool FSTimeEqual(int64_t a, int64_t b);

// Everything before the last "/"; "/" when there is none or only a leading one. "/a/b/" gives "/a/b".
std::string FSParentPath(const std::string &path);

// Everything after the last "/", so "" for "/a/".
std::string FSBaseName(const std::string &path);

// Whether `child` is `parent` or lies below it, by the strings alone. A `parent` with a trailing "/" has no
// children.
bool FSIsParentFolder(const std::string &parent, const std::string &child);

// Replaces the path by its canonical form. -1: it does not resolve, and the path is unchanged.
int FSGetRealPath(std::string &path);

// Whether the path lies on a network or user-space file system (CIFS, NFS, FUSE); false when that cannot be
// told.
bool isMountPoint(const std::string &path);

// Whether the path lies on a FAT file system; false when that cannot be told.
bool IsMSDOS(const std::string &path);

// Whether access(2) with this mask is denied by permissions. A missing file or a read-only file system does
// not count: callers treat a missing target as writable.
bool isFileWRForbidden(const std::string &path, int mode);
bool hasFilePermission(const std::string &path, int mode);

// Copies the bytes of one file, following a link; times, owner and attributes are left alone, and nothing is
// flushed to disk. A new `dst` gets the source's permission bits with keepMode (a link's own, for a link),
// else 0644, less the umask; an existing one is truncated and keeps its own. With removeSource the source is
// removed after a complete copy. -1: open, stat, read, write or close failed, or the source could not be
// removed. -2: disk full or over quota. A partly written `dst` stays: the caller holds the backup and decides.
int FSCopy(const std::string &src, const std::string &dst, bool removeSource, bool keepMode);

// Creates the folder (0777 less the umask), with `recursive` also its missing ancestors, passing through
// links to folders. An existing folder is a success, also one that somebody else makes at the same moment.
// -1: empty path, a path that cannot be looked at, or an entry of another kind, a link to a folder included.
// -2: mkdir failed, errno as it left it.
int FSMKDir(const std::string &path, bool recursive);

// Creates the folders of `target` that lie below `root`, which is neither made nor looked at. -1: `root` is
// no parent of `target`, or a level failed; the levels above it stay.
int FSMKDirFromRoot(const std::string &target, const std::string &root);

// Moves a file or a folder tree; onto another file system by copying (files then get mode 0644) and removing.
// `followLink` has no effect. -1: an empty path. -2: no such source, or none that can be looked at. -3: the
// move failed, what was moved so far stays moved; links, devices, FIFOs and sockets cannot be moved to
// another file system. -100: a name is too long.
int FSRename(const std::string &src, const std::string &dst, bool followLink);

// Removes a file, a link (never what it points to) or a folder tree. A missing path is a success, and so is a
// folder that may not be listed, which stays. `followLink` has no effect. -1: an empty path or one that
// cannot be looked at. -3: something could not be removed; what was removed before it stays removed.
int FSRemove(const std::string &path, bool followLink);

// Flushes a file to disk. 1: there is no such file.
int FSFsync(const std::string &path);

// Sets the times, in seconds since the epoch, of the entry itself: a link is not followed.
int FSUTime(const std::string &path, int64_t atime, int64_t mtime);

// A flag of FSOpenDir(): FSReadDir() then fills time and size too.
constexpr int FS_DIR_WITH_INFO = 1;

// An open folder, for one thread at a time. FSCloseDir() closes it, the destructor does not.
struct DIR_HANDLE {
    std::string path; // as given to FSOpenDir()
    int32_t flags = 0;
    DIR *dir = nullptr; // null when closed
};

struct DIR_ENTRY {
    std::string name;  // without the folder
    uint32_t type = 0; // 0 also where the file system does not tell: ask GetFileInfo() then
    int32_t mtime = 0; // both 0 without FS_DIR_WITH_INFO
    uint64_t size = 0;

    void Clear() { *this = DIR_ENTRY(); }
};

// -1: the folder cannot be opened, and the handle is untouched.
int FSOpenDir(const std::string &path, int flags, DIR_HANDLE &handle);

// Reads the next entry, "." and ".." included. 1: read. 0: no more entries, or a read error. -1: the entry's
// time and size cannot be told, and `entry` is untouched.
int FSReadDir(DIR_HANDLE &handle, DIR_ENTRY &entry);

// Closes the folder if the handle is open, and clears its path. The flags stay.
void FSCloseDir(DIR_HANDLE &handle);

// Creates an empty file of mode 0644 with a random name in the folder; the caller owns it. -1: `path` is
// unchanged.
int FSMktemp(const std::string &folder, std::string &path);

// Makes up a random name in the folder. Nothing is created and nobody checks that the name is free.
int FSCreateTempPath(const std::string &folder, std::string &path);

// Creates the link, replacing nothing.
int FSCreateSymbolicLink(const std::string &target, const std::string &link);

// The link's text as stored. -1 also when it has 4096 bytes or more; `target` is then unchanged.
int FSReadSymbolicLink(const std::string &link, std::string &target);

// Changes the owner of the entry itself. The path must be absolute.
int FSChown(const std::string &path, unsigned int uid, unsigned int gid);

// Changes the mode, following a link.
int FSChmod(const std::string &path, unsigned int mode);

#endif
