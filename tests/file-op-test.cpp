#include "fileop/file-op.h"

#include <cerrno>

#include <sys/resource.h>

#include "tests/support.h"

using FileOpTest = ScratchTest;

TEST(PathStringTest, PathsAreCutAtTheLastSlash)
{
    const std::tuple<std::string, std::string, std::string> cases[] = {
#include "tests/path-cases.inc"
    };
    for (const auto &[path, parent, name] : cases) {
        EXPECT_EQ(FSParentPath(path) + " " + FSBaseName(path), parent + " " + name) << path;
    }
    EXPECT_TRUE(FSIsParentFolder("/a", "/a") && FSIsParentFolder("/a", "/a/b"));
    EXPECT_FALSE(FSIsParentFolder("/a", "/ab") || FSIsParentFolder("/a/", "/a/b") || FSIsParentFolder("/b", "/a/b"));
}

TEST_F(FileOpTest, ARecordTellsWhatIsThereWithoutFollowingLinks)
{
    Shell("mkdir folder; printf 12345 >file; ln -s nowhere link; mkfifo fifo; touch -hd @5 *");
    _FILE_INFO_tag info;
    std::string types;
    for (const char *path : {"file", "folder", "link", "../../dev/null", "fifo", "none"}) {
        ASSERT_EQ(FSStat(Path(path), info, true), 0) << path;
        EXPECT_EQ(IsFileExist(Path(path), true), info.exists) << path;
        types += std::to_string(info.type) + "/" + (info.type == FS_TYPE_DIR ? "" : std::to_string(info.size)) + " ";
    }
    EXPECT_EQ(types, "1/5 2/ 3/7 5/0 6/0 0/0 ");
    struct stat status = {};
    ASSERT_EQ(lstat(Path("link").c_str(), &status) + GetFileInfo(Path("link"), info), 0);
    EXPECT_EQ(std::tie(info.uid, info.gid, info.mode, info.device, info.mtime),
              std::make_tuple(status.st_uid, status.st_gid, status.st_mode, status.st_dev, 5));
    EXPECT_TRUE(FSStat("", info, true) == -1 && FSStat(Path("file/x"), info, true) == -2);
    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    const _FILE_INFO_tag before = info;
    Shell("chmod 600 file");
    ASSERT_EQ(GetFileInfo(info.path, info), 0);
    EXPECT_EQ(GetFileInfo(Path("file/below"), info), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(info == before) << "neither a change of mode nor a failure counts";
    Shell("rm file");
    EXPECT_EQ(GetFileInfo(info.path, info), 0);
    EXPECT_TRUE(info != before && info.path == before.path && !info.exists);
}

TEST_F(FileOpTest, CopiesBytesAndChoosesTheMode)
{
    umask(022);
    const std::string bytes(20000, 'b');
    WriteFile(Path("src"), bytes, 0775);
    WriteFile(Path("dst"), std::string(30000, 'a'), 0600);
    EXPECT_EQ(FSCopy(Path("src"), Path("dst"), false, true), 0);
    EXPECT_EQ(ReadFile(Path("dst")), bytes);
    EXPECT_EQ(FSCopy(Path("src"), Path("kept"), false, true), 0);
    EXPECT_EQ(FSCopy(Path("src"), "/dev/full", true, false), -2);
    EXPECT_EQ(FSCopy(Path("src"), Path("plain"), true, false), 0) << "only a complete copy removes its source";
    EXPECT_TRUE(ModeOf(Path("dst")) == 0600 && ModeOf(Path("kept")) == 0755 && ModeOf(Path("plain")) == 0644);
    EXPECT_EQ(FSCopy(Path("src"), Path("never"), false, true), -1);
    EXPECT_TRUE(!fs::exists(Path("never")) &&
                Logged("CopyFile: open(" + Path("src") + "): No such file or directory (2)"));
    EXPECT_TRUE(FSCopy(scratch, Path("x"), false, false) == -1 && Logged("CopyFile: read: Is a directory (21)\n") == 1);
    Shell("ln -s plain link");
    EXPECT_EQ(FSCopy(Path("link"), Path("followed"), true, true), 0);
    EXPECT_TRUE(ReadFile(Path("followed")) == bytes && ModeOf(Path("followed")) == 0755 && !fs::exists(Path("link")))
        << "the bytes behind the link, the mode of the link";
    const auto copyToALimit = [this] {
        const rlimit limit = {18000, 18000}; // the last piece is written in part
        signal(SIGXFSZ, SIG_IGN);
        return setrlimit(RLIMIT_FSIZE, &limit), FSCopy(Path("kept"), Path("part"), true, false);
    };
    EXPECT_EQ(InChild(copyToALimit), 255);
    EXPECT_EQ(ReadFile(Path("part")) + ReadFile(Path("kept")), bytes.substr(0, 18000) + bytes) << "both stay";
    EXPECT_EQ(Logged("CopyFile: write: File too large (27)\n"), 1);
}

TEST_F(FileOpTest, MakesFoldersAndKeepsErrno)
{
    Shell("touch file; mkdir real r; ln -s real link; ln -s nowhere dangling");
    const std::string kind = "FSMKDir: Create a folder but local file system is not directory '" + scratch.string();
    const std::tuple<const char *, bool, int, std::string> cases[] = {
#include "tests/folder-cases.inc"
    };
    for (const auto &[path, recursive, result, message] : cases) {
        EXPECT_EQ(FSMKDir(Path(path), recursive), result) << path;
        EXPECT_TRUE(result == 0 ? fs::is_directory(Path(path)) : Logged(message) == 1) << Log();
    }
    EXPECT_EQ(FSMKDir(Path("dangling/x"), true), -2);
    EXPECT_EQ(errno, EEXIST) << "mkdir's, not that of the look that follows it";
    EXPECT_EQ(FSMKDirFromRoot(Path("none/a"), Path("none")), -1) << "the root itself is never made";
    umask(027);
    EXPECT_TRUE(FSMKDirFromRoot(Path("r/a/b"), Path("r")) == 0 && ModeOf(Path("r/a/b")) == 0750 && umask(0) == 027);
    EXPECT_TRUE(FSMKDir(Path("all"), true) == 0 && ModeOf(Path("all")) == 0777 && umask(022) == 0);
}

TEST_F(FileOpTest, MovesTreesAlsoToAnotherFileSystem)
{
    const std::string other = "/dev/shm" + scratch.string().substr(4);
    WriteFile(Path("tree/a/file"), "moved", 0700);
    const auto tree = Tree(Path("tree"));
    EXPECT_EQ(FSRename(Path("tree"), Path("near"), false), 0);
    EXPECT_EQ(FSRename(Path("near"), other, false), 0);
    EXPECT_EQ(Tree(other), tree);
    EXPECT_EQ(ModeOf(other + "/a/file"), 0644u);
    EXPECT_EQ(Logged("rename failed: " + Path("near") + " -> " + other + ", Invalid cross-device link (18)\n"), 1);
    Shell("ln -s x link");
    EXPECT_EQ(FSRename(Path("link"), other + "/link", true), -3);
    EXPECT_EQ(FSRename(Path("near"), other, true), -2) << "it is gone";
    EXPECT_EQ(FSRename(Path("link"), Path(std::string(300, 'n')), true), -100);
    fs::remove_all(other);
}

TEST_F(FileOpTest, RemovesTreesButNothingBehindALink)
{
    Shell("mkdir -p outside tree/a/b; echo stays >outside/file; ln -s ../../outside tree/a/link; ln -s outside link");
    EXPECT_EQ(FSRemove(Path("tree"), true) + FSRemove(Path("link"), true), 0);
    Shell("test ! -d tree && test ! -L link && test -e outside/file && chmod 0 outside");
    EXPECT_EQ(FSRemove(Path("tree"), true), 0) << "nothing there";
    EXPECT_EQ(FSRemove("/proc/self/status", true), -3);
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), FSRemove(Path("outside"), false); }), 0);
    EXPECT_TRUE(fs::exists(Path("outside"))) << "what may not be listed stays, and that is a success";
    Shell("mkdir -p tree/a; touch tree/a/file; chmod 555 tree/a; chmod 777 tree");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), FSRemove(Path("tree"), false) + errno; }), EACCES - 3);
    EXPECT_TRUE(fs::exists(Path("tree/a/file")));
}

TEST_F(FileOpTest, WalksAFolder)
{
    DIR_HANDLE handle;
    DIR_ENTRY entry;
    FSCloseDir(handle); // never opened
    EXPECT_EQ(FSOpenDir(LogPath(), 0, handle), -1);
    EXPECT_EQ(Logged("FSOpenDir: Failed to open directory '" + LogPath() + "'. Not a directory\n"), 1);
    Shell("mkdir f f/folder; printf 12345 >f/file; ln -s nowhere f/link; mkfifo f/fifo; touch -hd @5 f/*");
    const auto walk = [&](int flags) {
        std::set<std::string> found;
        EXPECT_EQ(FSOpenDir(Path("f"), flags, handle), 0);
        while (FSReadDir(handle, entry) == 1) {
            const std::string info = std::to_string(entry.mtime) + " " + std::to_string(entry.size);
            found.insert(entry.name + " " + std::to_string(entry.type) + (entry.type == FS_TYPE_DIR ? "" : " " + info));
        }
        FSCloseDir(handle);
        EXPECT_TRUE(handle.path.empty() && handle.dir == nullptr);
        return found;
    };
    using Entries = std::set<std::string>;
    EXPECT_EQ(walk(FS_DIR_WITH_INFO), (Entries{". 2", ".. 2", "fifo 6 5 0", "file 1 5 5", "folder 2", "link 3 5 7"}));
    EXPECT_EQ(walk(0), (Entries{". 2", ".. 2", "fifo 6 0 0", "file 1 0 0", "folder 2", "link 3 0 0"}));
}

TEST_F(FileOpTest, NamesLinksOwnersAndProbes)
{
    std::string path;
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    EXPECT_TRUE(FSMktemp(scratch, path) == 0 && ModeOf(path) == 0644 && Tree("/proc/self/fdinfo").size() == openFiles);
    EXPECT_EQ(FSMktemp(Path("none"), path), -1);
    EXPECT_EQ(Logged("mkstemp(" + Path("none") + "/XXXXXX): No such file or directory(2)\n"), 1);
    EXPECT_EQ(FSCreateTempPath("/tmp", path), 0);
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/[0-9a-zA-Z_-]{8}"))) << path;
    EXPECT_EQ(FSCreateSymbolicLink("log", Path("link")) + FSReadSymbolicLink(Path("link"), path), 0);
    EXPECT_EQ(path, "log");
    const uid_t owner = getuid() == 0 ? kNobody : getuid();
    EXPECT_EQ(FSUTime(Path("link"), 1000, 2000) + FSChown(Path("link"), owner, getgid()), 0);
    _FILE_INFO_tag link;
    _FILE_INFO_tag file;
    ASSERT_EQ(GetFileInfo(Path("link"), link) + GetFileInfo(LogPath(), file), 0);
    struct stat status = {};
    EXPECT_TRUE(lstat(Path("link").c_str(), &status) == 0 && status.st_atime == 1000);
    EXPECT_TRUE(link.mtime == 2000 && link.uid == owner && file.mtime != 2000 && file.uid == getuid()) << "of the link";
    EXPECT_EQ(InChild([&] { return chdir(scratch.c_str()) + FSChown("log", getuid(), getgid()); }), 255)
        << "a relative path is not one of the current folder";
    EXPECT_FALSE(IsMSDOS(Path("none")));
    EXPECT_EQ(Logged("IsSupportLargeFile: Failed to get file system info '" + Path("none") + "'. No such"), 1);
    EXPECT_TRUE(hasFilePermission(Path("none"), W_OK));
    EXPECT_TRUE(FSChmod(Path("link"), 0600) == 0 && ModeOf(LogPath()) == 0600) << "of what is behind it";
    Shell("chmod 711 . ; mkdir -m 700 shut");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), hasFilePermission(Path("shut"), W_OK); }), getuid() != 0);
    path = Path("./link");
    EXPECT_TRUE(FSGetRealPath(path) == 0 && path == LogPath() && FSGetRealPath(path += "/x") == -1);
    EXPECT_TRUE(FSFsync(Path("none")) == 1 && FSFsync(Path("log/x")) == -1 && FSFsync(LogPath()) == 0);
}
