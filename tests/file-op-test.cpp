#include "fileop/file-op.h"

#include <cerrno>
#include <set>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "fileop/tmp-name-gen.h"
#include "tests/support.h"

namespace
{
class FileOpTest : public ScratchTest
{
protected:
    FileOpTest() { StartLog(); }

    bool Logged(const std::string &text) const { return Log().find("): " + text) != std::string::npos; }
};

mode_t ModeOf(const fs::path &path)
{
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}
} // namespace

TEST(PathStringTest, PathsAreCutAtTheLastSlash)
{
    const struct {
        const char *path;
        const char *parent;
        const char *name;
    } cases[] = {{"a", "/", "a"},       {"/a", "/", "a"},  {"/a/b", "/a", "b"},
                 {"/a/b/", "/a/b", ""}, {"a/b", "a", "b"}, {"", "/", ""},
                 {"/", "/", ""},        {"/a/", "/a", ""}, {"//a", "/", "a"}};
    for (const auto &c : cases) {
        EXPECT_EQ(FSParentPath(c.path), c.parent) << c.path;
        EXPECT_EQ(FSBaseName(c.path), c.name) << c.path;
    }
    const struct {
        const char *parent;
        const char *child;
        bool expected;
    } pairs[] = {{"/a", "/a", true},     {"/a", "/a/b", true},  {"/a", "/ab", false},
                 {"/a/", "/a/b", false}, {"/a/b", "/a", false}, {"/b", "/a/b", false}};
    for (const auto &p : pairs) {
        EXPECT_EQ(FSIsParentFolder(p.parent, p.child), p.expected) << p.parent << " " << p.child;
    }
}

TEST_F(FileOpTest, ARecordTellsWhatIsThereWithoutFollowingLinks)
{
    WriteFile(Path("file"), "12345");
    fs::create_symlink("nowhere", Path("dangling"));
    fs::create_directory(Path("folder"));
    mkfifo(Path("fifo").c_str(), 0600);
    sockaddr_un address = {AF_UNIX, {}};
    Path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(fd);

    const struct {
        std::string path;
        uint32_t type;
        bool exists;
    } cases[] = {{Path("file"), 1, true}, {Path("folder"), 2, true}, {Path("dangling"), 3, true},
                 {"/dev/null", 5, true},  {Path("fifo"), 6, true},   {Path("socket"), 7, true},
                 {Path("none"), 0, false}};
    for (const auto &c : cases) {
        _FILE_INFO_tag info;
        info.size = 99;
        ASSERT_EQ(GetFileInfo(c.path, info), 0) << c.path;
        EXPECT_EQ(info.type, c.type) << c.path;
        EXPECT_EQ(info.exists, c.exists) << c.path;
        EXPECT_EQ(info.path, c.path);
        EXPECT_EQ(info.name, FSBaseName(c.path));
        EXPECT_EQ(IsFileExist(c.path, true), c.exists) << c.path;
    }
    _FILE_INFO_tag info;
    ASSERT_EQ(GetFileInfo(Path("dangling"), info), 0);
    EXPECT_EQ(info.size, strlen("nowhere"));
    ASSERT_EQ(GetFileInfo(Path("none"), info), 0);
    EXPECT_EQ(info.size, 0u);

    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    const _FILE_INFO_tag before = info;
    EXPECT_EQ(GetFileInfo(Path("file/below"), info), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(info, before);
    EXPECT_EQ(FSStat(Path("file/below"), info, false), -2);
    EXPECT_EQ(FSStat("", info, false), -1);
    EXPECT_FALSE(IsFileExist("", true));

    chmod(Path("file").c_str(), 0600);
    ASSERT_EQ(FSStat(Path("file"), info, true), 0);
    EXPECT_TRUE(info == before);
    WriteFile(Path("file"), "123456");
    ASSERT_EQ(FSStat(Path("file"), info, true), 0);
    EXPECT_TRUE(info != before);
}

TEST_F(FileOpTest, PermissionsCountOnlyWhereTheyForbid)
{
    WriteFile(Path("closed/file"), "x", 0400);
    WriteFile(Path("open"), "x", 0600);
    chmod(Path("closed").c_str(), 0500);
    EXPECT_EQ(InChild([this] {
                  if (getuid() == 0) {
                      chown(Path("closed").c_str(), kNobody, kNobody);
                      chown(Path("closed/file").c_str(), kNobody, kNobody);
                  }
                  BecomeUnprivileged();
                  return isFileWRForbidden(Path("closed/file"), W_OK) &&
                         hasFilePermission(Path("closed/file"), R_OK) &&
                         hasFilePermission(Path("none"), W_OK) && hasFilePermission(Path("open/x"), W_OK);
              }),
              1);
}

TEST_F(FileOpTest, ProbesOfTheFileSystemSayNoWhenTheyCannotTell)
{
    EXPECT_FALSE(isMountPoint(Path("none")));
    EXPECT_FALSE(IsMSDOS(Path("none")));
    EXPECT_TRUE(Logged("isMountPoint: Failed to get file system info '" + Path("none") + "'. No such"));
    EXPECT_TRUE(Logged("IsSupportLargeFile: Failed to get file system info '" + Path("none") + "'. No such"));
    EXPECT_FALSE(isMountPoint("/proc"));

    fs::create_symlink(scratch, Path("link"));
    std::string path = Path("link/../log");
    EXPECT_EQ(FSGetRealPath(path), -1);
    EXPECT_EQ(path, Path("link/../log"));
    path = Path("link/log");
    EXPECT_EQ(FSGetRealPath(path), 0);
    EXPECT_EQ(path, fs::canonical(LogPath()).string());
}

TEST_F(FileOpTest, CopiesBytesAndChoosesTheMode)
{
    umask(022);
    const std::string bytes(20000, 'b');
    WriteFile(Path("src"), bytes, 0775);
    WriteFile(Path("dst"), std::string(30000, 'a'), 0600);
    EXPECT_EQ(FSCopy(Path("src"), Path("dst"), false, true), 0);
    EXPECT_EQ(ReadFile(Path("dst")), bytes);
    EXPECT_EQ(ModeOf(Path("dst")), 0600u);
    EXPECT_EQ(FSCopy(Path("src"), Path("kept"), false, true), 0);
    EXPECT_EQ(ModeOf(Path("kept")), 0755u);
    EXPECT_EQ(FSCopy(Path("src"), Path("plain"), true, false), 0);
    EXPECT_EQ(ModeOf(Path("plain")), 0644u);
    EXPECT_FALSE(fs::exists(Path("src")));

    EXPECT_EQ(FSCopy(Path("src"), Path("never"), false, true), -1);
    EXPECT_FALSE(fs::exists(Path("never")));
    EXPECT_TRUE(Logged("CopyFile: open(" + Path("src") + "): No such file or directory (2)\n"));
    EXPECT_EQ(FSCopy(scratch, Path("folder"), false, false), -1);
    EXPECT_TRUE(Logged("CopyFile: read: Is a directory (21)\n"));
    EXPECT_EQ(FSCopy(Path("plain"), "/dev/full", true, false), -2);
    EXPECT_TRUE(fs::exists(Path("plain"))) << "only a complete copy removes its source";
}

TEST_F(FileOpTest, MakesFoldersAndKeepsErrno)
{
    WriteFile(Path("file"), "");
    fs::create_directory(Path("real"));
    fs::create_symlink("real", Path("link"));
    fs::create_symlink("file", Path("filelink"));
    const struct {
        const char *path;
        bool recursive;
        int result;
        const char *message;
    } cases[] = {
        {"real", false, 0, ""},
        {"new", false, 0, ""},
        {"x/y", false, -2, "path = "},
        {"x/y//z/", true, 0, ""},
        {"link/below", true, 0, ""},
        {"link", false, -1, "FSMKDir: Create a folder but local file system is not directory '"},
        {"file", true, -1, "FSMKDir: Create a folder but local file system is not directory '"},
        {"file/a/b", true, -1, "FSMKDir: Failed to to file info '"},
        {"filelink/", true, -1, "FSMKDir: Failed to to file info '"},
    };
    for (const auto &c : cases) {
        StartLog();
        WriteFile(LogPath(), "");
        EXPECT_EQ(FSMKDir(Path(c.path), c.recursive), c.result) << c.path;
        EXPECT_TRUE(Logged(c.message) || c.result == 0) << c.path << "\n" << Log();
        EXPECT_EQ(fs::is_directory(Path(c.path)), c.result == 0 || std::string(c.path) == "link") << c.path;
    }
    EXPECT_EQ(FSMKDir("", true), -1);

    for (const bool recursive : {false, true}) {
        EXPECT_EQ(FSMKDir("/proc/brimlock", recursive), -2);
        EXPECT_EQ(errno, ENOENT);
    }
    const fs::path back = fs::current_path();
    fs::current_path(scratch);
    EXPECT_EQ(FSMKDir("relative/level", true), 0);
    fs::current_path(back);
    EXPECT_TRUE(fs::is_directory(Path("relative/level")));

    EXPECT_EQ(FSMKDirFromRoot(Path("r/a/b"), Path("r")), -1) << "the root itself is never made";
    fs::create_directory(Path("r"));
    EXPECT_EQ(FSMKDirFromRoot(Path("r/a/b"), Path("r")), 0);
    EXPECT_TRUE(fs::is_directory(Path("r/a/b")));
    EXPECT_EQ(FSMKDirFromRoot(Path("r"), Path("r")), 0);
    EXPECT_EQ(FSMKDirFromRoot(Path("rx/a"), Path("r")), -1);
    EXPECT_EQ(FSMKDirFromRoot("/r", "/r/longer"), -1);
}

TEST_F(FileOpTest, MovesTreesAlsoToAnotherFileSystem)
{
    std::string other = "/dev/shm/brimlock-test-XXXXXX";
    ASSERT_NE(mkdtemp(other.data()), nullptr);
    _FILE_INFO_tag here;
    _FILE_INFO_tag there;
    ASSERT_EQ(GetFileInfo(scratch, here), 0);
    ASSERT_EQ(GetFileInfo(other, there), 0);
    ASSERT_NE(here.device, there.device);

    WriteFile(Path("tree/a/file"), "moved", 0700);
    const std::vector<std::string> tree = Tree(Path("tree"));
    EXPECT_EQ(FSRename(Path("tree"), Path("near"), false), 0);
    EXPECT_EQ(FSRename(Path("near"), other + "/far", false), 0);
    EXPECT_EQ(Tree(other + "/far"), tree);
    EXPECT_EQ(ModeOf(other + "/far/a/file"), 0644u);
    EXPECT_FALSE(fs::exists(Path("near")));
    EXPECT_TRUE(
        Logged("rename failed: " + Path("near") + " -> " + other + "/far, " + strerror(EXDEV) + " (18)\n"));

    fs::create_symlink("x", Path("link"));
    EXPECT_EQ(FSRename(Path("link"), other + "/link", true), -3);
    EXPECT_EQ(FSRename("", other, true), -1);
    EXPECT_EQ(FSRename(Path("none"), other, true), -2);
    EXPECT_EQ(FSRename(Path("link"), Path(std::string(300, 'n')), true), -100);
    EXPECT_EQ(FSRename(Path("link"), Path("no/such/folder"), true), -3);
    fs::remove_all(other);
}

TEST_F(FileOpTest, RemovesTreesButNothingBehindALink)
{
    WriteFile(Path("outside/file"), "stays");
    fs::create_directories(Path("tree/a/b"));
    fs::create_symlink(Path("outside"), Path("tree/a/link"));
    EXPECT_EQ(FSRemove(Path("tree"), true), 0);
    EXPECT_FALSE(fs::exists(Path("tree")));
    EXPECT_EQ(ReadFile(Path("outside/file")), "stays");
    EXPECT_EQ(FSRemove(Path("tree"), true), 0);
    EXPECT_EQ(FSRemove("", true), -1);
    EXPECT_EQ(FSRemove(Path("outside/file/x"), true), -1);
    EXPECT_EQ(FSRemove("/proc/self/status", true), -3);

    // A folder that may not be listed stays, and that is a success.
    EXPECT_EQ(InChild([this] {
                  BecomeUnprivileged();
                  WriteFile(Path("mine/hidden/file"), "");
                  chmod(Path("mine/hidden").c_str(), 0);
                  return FSRemove(Path("mine/hidden"), false);
              }),
              0);
    EXPECT_TRUE(fs::exists(Path("mine/hidden")));
}

TEST_F(FileOpTest, WalksAFolder)
{
    WriteFile(Path("walk/file"), "12345");
    fs::create_symlink("123", Path("walk/link"));
    for (const int flags : {0, FS_DIR_WITH_INFO}) {
        DIR_HANDLE handle;
        DIR_ENTRY entry;
        std::set<std::string> seen;
        ASSERT_EQ(FSOpenDir(Path("walk"), flags, handle), 0);
        while (FSReadDir(handle, entry) == 1) {
            seen.insert(entry.name + ":" + std::to_string(entry.type));
            if (entry.type != FS_TYPE_DIR) {
                EXPECT_EQ(entry.size, flags == 0 ? 0u : entry.name == "file" ? 5u : 3u) << entry.name;
                EXPECT_EQ(entry.mtime != 0, flags != 0);
            }
        }
        EXPECT_EQ(seen, (std::set<std::string>{".:2", "..:2", "file:1", "link:3"}));
        FSCloseDir(handle);
        EXPECT_EQ(handle.dir, nullptr);
        FSCloseDir(handle); // closed, as good as never opened
    }
    DIR_HANDLE unopened;
    EXPECT_EQ(FSOpenDir(Path("walk/file"), 0, unopened), -1);
    EXPECT_TRUE(Logged("FSOpenDir: Failed to open directory '" + Path("walk/file") + "'. Not a directory\n"));
    FSCloseDir(unopened);
}

TEST_F(FileOpTest, MakesTemporaryNames)
{
    std::string path;
    ASSERT_EQ(FSMktemp(scratch, path), 0);
    EXPECT_TRUE(std::regex_match(path, std::regex(scratch.string() + "/[A-Za-z0-9]{6}")));
    EXPECT_EQ(ModeOf(path), 0644u);
    const std::string kept = path;
    EXPECT_EQ(FSMktemp(Path("none"), path), -1);
    EXPECT_EQ(path, kept);
    EXPECT_TRUE(Logged("mkstemp(" + Path("none") + "/"));
    EXPECT_NE(Log().find("): No such file or directory(2)\n"), std::string::npos);

    std::set<std::string> names;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(FSCreateTempPath("/tmp", path), 0);
        ASSERT_TRUE(std::regex_match(path, std::regex("/tmp/[0-9a-zA-Z_-]{8}"))) << path;
        names.insert(path);
    }
    EXPECT_EQ(names.size(), 1000u);
}

TEST_F(FileOpTest, LinksOwnersModesTimesAndFlushing)
{
    WriteFile(Path("file"), "x", 0600);
    ASSERT_EQ(FSCreateSymbolicLink("file", Path("link")), 0);
    EXPECT_EQ(FSCreateSymbolicLink("other", Path("link")), -1);
    std::string target = "unchanged";
    EXPECT_EQ(FSReadSymbolicLink(Path("file"), target), -1);
    EXPECT_EQ(target, "unchanged");
    EXPECT_EQ(FSReadSymbolicLink(Path("link"), target), 0);
    EXPECT_EQ(target, "file");

    EXPECT_EQ(FSUTime(Path("link"), 1000, 2000), 0);
    _FILE_INFO_tag info;
    ASSERT_EQ(GetFileInfo(Path("link"), info), 0);
    EXPECT_EQ(info.mtime, 2000);
    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    EXPECT_NE(info.mtime, 2000);

    EXPECT_EQ(FSChmod(Path("link"), 0640), 0);
    EXPECT_EQ(ModeOf(Path("file")), 0640u);
    const uid_t owner = getuid() == 0 ? kNobody : getuid();
    EXPECT_EQ(FSChown(Path("link"), owner, getgid()), 0);
    ASSERT_EQ(GetFileInfo(Path("link"), info), 0);
    EXPECT_EQ(info.uid, owner);
    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    EXPECT_EQ(info.uid, getuid());
    // A relative path is not one of the current folder.
    const fs::path back = fs::current_path();
    fs::current_path(scratch);
    EXPECT_EQ(FSChown("file", getuid(), getgid()), -1);
    fs::current_path(back);

    EXPECT_EQ(FSFsync(Path("file")), 0);
    EXPECT_EQ(FSFsync(Path("none")), 1);
    EXPECT_EQ(FSFsync(Path("file/x")), -1);
    EXPECT_EQ(FSFsync("/dev/null"), -1);
}
