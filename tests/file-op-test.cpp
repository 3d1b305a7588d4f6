#include "fileop/file-op.h"

#include <cerrno>

#include "tests/support.h"

using FileOpTest = ScratchTest;

TEST(PathStringTest, PathsAreCutAtTheLastSlash)
{
    for (const auto &[path, parent, name] : {std::tuple("a", "/", "a"),
                                             {"/a", "/", "a"},
                                             {"/a/b", "/a", "b"},
                                             {"/a/b/", "/a/b", ""},
                                             {"", "/", ""},
                                             {"/", "/", ""},
                                             {"a/b", "a", "b"},
                                             {"/a/", "/a", ""}}) {
        EXPECT_EQ(FSParentPath(path) + " " + FSBaseName(path), std::string(parent) + " " + name) << path;
    }
    for (const auto &[parent, child, expected] : {std::tuple("/a", "/a", true),
                                                  {"/a", "/a/b", true},
                                                  {"/a", "/ab", false},
                                                  {"/a/", "/a/b", false},
                                                  {"/a/b", "/a", false},
                                                  {"/b", "/a/b", false}}) {
        EXPECT_EQ(FSIsParentFolder(parent, child), expected) << parent << " " << child;
    }
}

TEST_F(FileOpTest, ARecordTellsWhatIsThereWithoutFollowingLinks)
{
    Shell("mkdir folder; printf 12345 >file; ln -s nowhere link; mkfifo fifo");
    _FILE_INFO_tag info;
    for (const auto &[path, type] : {std::pair(Path("file"), 1u),
                                     {Path("folder"), 2u},
                                     {Path("link"), 3u},
                                     {"/dev/null", 5u},
                                     {Path("fifo"), 6u},
                                     {Path("none"), 0u}}) {
        ASSERT_EQ(FSStat(path, info, true), 0) << path;
        EXPECT_EQ(info.type, type) << path;
        EXPECT_EQ(IsFileExist(path, true), type != 0) << path;
        EXPECT_EQ(info.name, FSBaseName(path));
    }
    ASSERT_EQ(GetFileInfo(Path("link"), info), 0);
    EXPECT_EQ(info.size, strlen("nowhere"));
    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    const _FILE_INFO_tag before = info;
    EXPECT_EQ(GetFileInfo(Path("file/below"), info), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(info == before);
    EXPECT_EQ(FSStat(Path("file/below"), info, false), -2);
    EXPECT_EQ(FSStat("", info, false), -1);
    EXPECT_FALSE(IsFileExist("", true));
    Shell("chmod 600 file");
    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    EXPECT_TRUE(info == before);
    Shell("printf 6 >>file");
    ASSERT_EQ(GetFileInfo(Path("file"), info), 0);
    EXPECT_TRUE(info != before);
}

TEST_F(FileOpTest, ProbesCountAsPermittedWhatIsNotThere)
{
    EXPECT_TRUE(hasFilePermission(Path("none"), W_OK));
    Shell("echo >secret; chmod 0 secret");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), isFileWRForbidden(Path("secret"), R_OK); }), 1);
    EXPECT_FALSE(isMountPoint(Path("none")));
    EXPECT_FALSE(IsMSDOS(Path("none")));
    EXPECT_EQ(Logged("isMountPoint: Failed to get file system info '" + Path("none") + "'. No such"), 1);
    EXPECT_EQ(Logged("IsSupportLargeFile: Failed to get file system info '" + Path("none") + "'. No such"),
              1);
    Shell("ln -s . link");
    std::string path = Path("link/none");
    EXPECT_EQ(FSGetRealPath(path), -1);
    EXPECT_EQ(path, Path("link/none"));
    path = Path("link/log");
    EXPECT_EQ(FSGetRealPath(path), 0);
    EXPECT_EQ(path, LogPath());
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
    EXPECT_EQ(FSCopy(Path("src"), "/dev/full", true, false), -2);
    EXPECT_EQ(FSCopy(Path("src"), Path("plain"), true, false), 0)
        << "only a complete copy removes its source";
    EXPECT_EQ(ModeOf(Path("plain")), 0644u);
    EXPECT_EQ(FSCopy(Path("src"), Path("never"), false, true), -1);
    EXPECT_FALSE(fs::exists(Path("never")));
    EXPECT_EQ(Logged("CopyFile: open(" + Path("src") + "): No such file or directory (2)\n"), 1);
    EXPECT_EQ(FSCopy(scratch, Path("folder"), false, false), -1);
    EXPECT_EQ(Logged("CopyFile: read: Is a directory (21)\n"), 1);
}

TEST_F(FileOpTest, MakesFoldersAndKeepsErrno)
{
    Shell("touch file; mkdir real r; ln -s real link");
    const std::string kind =
        "FSMKDir: Create a folder but local file system is not directory '" + scratch.string();
    const struct {
        const char *path;
        bool recursive;
        int result;
        std::string message;
    } cases[] = {{"real", false, 0, ""},
                 {"new", false, 0, ""},
                 {"x/y//z/", true, 0, ""},
                 {"link/below", true, 0, ""},
                 {"no/y", false, -2, "path = " + Path("no/y") + " errno : No such file or directory\n"},
                 {"link", false, -1, kind + "/link' (3)\n"},
                 {"file", true, -1, kind + "/file' (1)\n"},
                 {"file/a/b", true, -1, "FSMKDir: Failed to to file info '" + Path("file/a/b") + "'\n"}};
    for (const auto &c : cases) {
        EXPECT_EQ(FSMKDir(Path(c.path), c.recursive), c.result) << c.path;
        EXPECT_TRUE(c.result == 0 ? fs::is_directory(Path(c.path)) : Logged(c.message) == 1) << Log();
    }
    for (const bool recursive : {false, true}) {
        EXPECT_EQ(FSMKDir("/proc/brimlock", recursive), -2);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(FSMKDirFromRoot(Path("none/a"), Path("none")), -1) << "the root itself is never made";
    EXPECT_EQ(FSMKDirFromRoot(Path("r/a/b"), Path("r")), 0);
    EXPECT_TRUE(fs::is_directory(Path("r/a/b")));
    EXPECT_EQ(FSMKDirFromRoot(Path("r"), Path("r")), 0);
    EXPECT_EQ(FSMKDirFromRoot(Path("rx/a"), Path("r")), -1);
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
    EXPECT_FALSE(fs::exists(Path("near")));
    EXPECT_EQ(
        Logged("rename failed: " + Path("near") + " -> " + other + ", Invalid cross-device link (18)\n"), 1);
    Shell("ln -s x link");
    EXPECT_EQ(FSRename(Path("link"), other + "/link", true), -3);
    EXPECT_EQ(FSRename("", other, true), -1);
    EXPECT_EQ(FSRename(Path("none"), other, true), -2);
    EXPECT_EQ(FSRename(Path("link"), Path(std::string(300, 'n')), true), -100);
    fs::remove_all(other);
}

TEST_F(FileOpTest, RemovesTreesButNothingBehindALink)
{
    Shell("mkdir -p outside tree/a/b; echo stays >outside/file; ln -s ../../outside tree/a/link");
    EXPECT_EQ(FSRemove(Path("tree"), true), 0);
    EXPECT_FALSE(fs::exists(Path("tree")));
    EXPECT_TRUE(fs::exists(Path("outside/file")));
    EXPECT_EQ(FSRemove(Path("tree"), true), 0);
    EXPECT_EQ(FSRemove("", true), -1);
    EXPECT_EQ(FSRemove("/proc/self/status", true), -3);
    const auto removeHidden = [this] {
        BecomeUnprivileged();
        WriteFile(Path("mine/hidden/file"), "");
        chmod(Path("mine/hidden").c_str(), 0);
        return FSRemove(Path("mine/hidden"), false);
    };
    EXPECT_EQ(InChild(removeHidden), 0);
    EXPECT_TRUE(fs::exists(Path("mine/hidden"))) << "what may not be listed stays, and that is a success";
}

TEST_F(FileOpTest, WalksAFolder)
{
    Shell("mkdir walk; printf 12345 >walk/file; ln -s 123 walk/link");
    for (const auto &[flags, expected] :
         {std::pair(0, std::set<std::string>{". 2 0", ".. 2 0", "file 1 0", "link 3 0"}),
          {FS_DIR_WITH_INFO, {". 2 1", ".. 2 1", "file 1 5", "link 3 3"}}}) {
        DIR_HANDLE handle;
        DIR_ENTRY entry;
        std::set<std::string> seen;
        ASSERT_EQ(FSOpenDir(Path("walk"), flags, handle), 0);
        while (FSReadDir(handle, entry) == 1) {
            const uint64_t size = entry.type == FS_TYPE_DIR ? entry.size != 0 : entry.size;
            seen.insert(entry.name + " " + std::to_string(entry.type) + " " + std::to_string(size));
        }
        EXPECT_EQ(seen, expected);
        FSCloseDir(handle);
        FSCloseDir(handle); // as good as never opened
    }
    DIR_HANDLE unopened;
    EXPECT_EQ(FSOpenDir(Path("walk/file"), 0, unopened), -1);
    EXPECT_EQ(Logged("FSOpenDir: Failed to open directory '" + Path("walk/file") + "'. Not a directory\n"),
              1);
    FSCloseDir(unopened);
}

TEST_F(FileOpTest, TemporaryNamesLinksOwnersAndTimes)
{
    std::string path;
    ASSERT_EQ(FSMktemp(scratch, path), 0);
    EXPECT_TRUE(std::regex_match(path, std::regex(scratch.string() + "/[A-Za-z0-9]{6}")));
    EXPECT_EQ(ModeOf(path), 0644u);
    EXPECT_EQ(FSMktemp(Path("none"), path), -1);
    EXPECT_EQ(Logged("): No such file or directory(2)\n"), 1);
    std::set<std::string> names;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(FSCreateTempPath("/tmp", path), 0);
        ASSERT_TRUE(std::regex_match(path, std::regex("/tmp/[0-9a-zA-Z_-]{8}"))) << path;
        names.insert(path);
    }
    EXPECT_EQ(names.size(), 1000u);

    WriteFile(Path("file"), "x", 0600);
    ASSERT_EQ(FSCreateSymbolicLink("file", Path("link")), 0);
    EXPECT_EQ(FSCreateSymbolicLink("other", Path("link")), -1);
    EXPECT_EQ(FSReadSymbolicLink(Path("link"), path), 0);
    EXPECT_EQ(FSReadSymbolicLink(Path("file"), path), -1);
    EXPECT_EQ(path, "file");
    EXPECT_EQ(FSUTime(Path("link"), 1000, 2000), 0);
    EXPECT_EQ(FSChmod(Path("link"), 0640), 0);
    EXPECT_EQ(ModeOf(Path("file")), 0640u);
    const uid_t owner = getuid() == 0 ? kNobody : getuid();
    EXPECT_EQ(FSChown(Path("link"), owner, getgid()), 0);
    _FILE_INFO_tag link;
    _FILE_INFO_tag file;
    ASSERT_EQ(GetFileInfo(Path("link"), link) + GetFileInfo(Path("file"), file), 0);
    EXPECT_TRUE(link.mtime == 2000 && file.mtime != 2000) << "a link's own time";
    EXPECT_TRUE(link.uid == owner && file.uid == getuid()) << "a link's own owner";
    EXPECT_EQ(FSChown("relative", owner, getgid()), -1);
    EXPECT_EQ(FSFsync(Path("file")), 0);
    EXPECT_EQ(FSFsync(Path("none")), 1);
    EXPECT_EQ(FSFsync("/dev/null"), -1);
}
