#include "fileop/file-op.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>

#include "tests/support.h"

using FileOpTest = ScratchTest;
using Texts = std::set<std::string>;

TEST(PathStringTest, PathsAreCutAtTheLastSlash)
{
    const std::tuple<std::string, std::string, std::string> cases[] = {
#include "tests/path-cases.inc"
    };
    for (const auto &[path, parent, name] : cases) {
        EXPECT_EQ(FSParentPath(path) + " " + FSBaseName(path), parent + " " + name) << path;
    }
}

TEST_F(FileOpTest, ResultsAndMessagesAreWhatTheyAlwaysWere)
{
    Shell("touch file; mkdir real; ln -s real link; ln -s nowhere dangling");
    const std::string file = Path("file");
    const std::string link = Path("link");
    const std::string none = Path("none");
    _FILE_INFO_tag info;
    DIR_HANDLE handle;
    std::string text;
    fs::current_path(scratch);
    const std::pair<int, int> cases[] = {
#include "tests/call-cases.inc"
    };
    fs::current_path("/");
    for (const auto &c : cases) {
        EXPECT_EQ(c.first, c.second) << "case " << &c - cases + 1;
    }
    EXPECT_TRUE(text == Path("real/x") && fs::is_directory(Path("x/y/z")) && fs::is_directory(Path("real/below")));
    Shell("sed -E 's/^[^ ]+ \\( *[0-9]+: *[0-9]+\\) //; s/\\([0-9]+\\): /: /; s|'\"$PWD\"'||g' log >plain");
    EXPECT_EQ(ReadFile(Path("plain")), ReadFile(BRIMLOCK_TESTS "/file-op-log.txt"));
}

TEST_F(FileOpTest, ARecordTellsWhatIsThereWithoutFollowingLinks)
{
    Shell("ln -s nowhere link; touch -hd @5 link");
    _FILE_INFO_tag info;
    struct stat status = {};
    ASSERT_EQ(lstat(Path("link").c_str(), &status) + GetFileInfo(Path("link"), info), 0);
    EXPECT_EQ(std::tie(info.uid, info.gid, info.mode, info.device, info.size, info.mtime),
              std::make_tuple(status.st_uid, status.st_gid, status.st_mode, status.st_dev, 7, 5));
    const _FILE_INFO_tag before = info;
    EXPECT_EQ(FSChown(Path("link"), getuid(), getgid() == 0 ? kNobody : getgid()) + GetFileInfo(info.path, info), 0);
    EXPECT_EQ(GetFileInfo(LogPath() + "/x", info), -1);
    EXPECT_TRUE(errno == ENOTDIR && info == before) << "neither a change of owner nor a failure counts";
    Shell("rm link");
    EXPECT_TRUE(GetFileInfo(info.path, info) == 0 && info != before && info.path == before.path && !info.exists &&
                info.mtime == 0);
}

TEST_F(FileOpTest, CopiesBytesAndChoosesTheMode)
{
    umask(002);
    std::string bytes(20000, 'b');
    std::generate(bytes.begin(), bytes.end(), rand);
    WriteFile(Path("src"), bytes, 0775);
    WriteFile(Path("dst"), std::string(30000, 'a'), 0600);
    EXPECT_EQ(FSCopy(Path("src"), Path("dst"), false, true) + FSCopy(Path("src"), Path("kept"), false, true), 0);
    EXPECT_EQ(FSCopy(Path("src"), "/dev/full", true, false), -2);
    EXPECT_EQ(FSCopy(Path("src"), Path("plain"), true, false), 0) << "only a complete copy removes its source";
    EXPECT_EQ(FSCopy(Path("src"), Path("never"), false, true), -1);
    Shell("ln -s plain link");
    EXPECT_EQ(FSCopy(Path("link"), Path("followed"), true, true), 0);
    Shell(
        "cmp dst followed && test ! -e never -a ! -L link && test \"$(stat -c %a dst kept plain followed | xargs)\" = "
        "'600 775 644 775'"); // of a link the bytes behind it, and its own mode
    EXPECT_EQ(ReadFile(Path("dst")), bytes);

    // A pipe that holds half a piece, and is emptied by a signal in the middle of each write.
    Shell("mkfifo pipe");
    static const int pipe = open(Path("pipe").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    static char taken[30000];
    static ssize_t size = 0;
    fcntl(pipe, F_SETPIPE_SZ, 4096);
    signal(SIGALRM, [](int) { size += std::max<ssize_t>(read(pipe, taken + size, 4096), 0); });
    ualarm(5000, 5000);
    EXPECT_EQ(FSCopy(Path("kept"), Path("pipe"), false, false), 0);
    ualarm(0, 0);
    raise(SIGALRM);
    EXPECT_EQ(std::string(taken, size), bytes);
}

TEST_F(FileOpTest, FoldersGetTheModeThatTheUmaskLeaves)
{
    umask(027);
    EXPECT_EQ(FSMKDirFromRoot(Path("a/b/c"), Path("a")), -1);
    EXPECT_EQ(FSMKDir(Path("a"), false) + FSMKDirFromRoot(Path("a/b/c"), Path("a")), 0);
    EXPECT_TRUE(ModeOf(Path("a/b")) == 0750 && umask(0) == 027);
    EXPECT_TRUE(FSMKDir(Path("all"), true) == 0 && ModeOf(Path("all")) == 0777 && umask(022) == 0);
}

TEST_F(FileOpTest, MovesTreesAlsoToAnotherFileSystem)
{
    const std::string other = "/dev/shm" + scratch.string().substr(4);
    WriteFile(Path("tree/a/file"), "moved", 0700);
    const auto tree = Tree(Path("tree"));
    EXPECT_EQ(FSRename(Path("tree"), Path("near"), false) + FSRename(Path("near"), other, false), 0);
    EXPECT_TRUE(Tree(other) == tree && ModeOf(other + "/a/file") == 0644 && !fs::exists(Path("near")));
    fs::remove_all(other);
}

TEST_F(FileOpTest, RemovesTreesButNothingBehindALink)
{
    Shell("mkdir -p outside tree/a/b; echo stays >outside/file; ln -s ../../outside tree/a/link; ln -s outside link");
    EXPECT_EQ(FSRemove(Path("tree"), true) + FSRemove(Path("link"), true), 0);
    Shell("test ! -d tree -a ! -L link -a -e outside/file && chmod 0 outside");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), FSRemove(Path("outside"), false); }), 0);
    EXPECT_TRUE(fs::exists(Path("outside"))) << "what may not be listed stays, and that is a success";
    Shell("mkdir -p tree/a; touch tree/a/file; chmod 555 tree/a; chmod 777 tree");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), FSRemove(Path("tree"), false) + errno; }), EACCES - 3);
    EXPECT_TRUE(fs::exists(Path("tree/a/file")));
}

TEST_F(FileOpTest, WalksAFolder)
{
    DIR_HANDLE handle;
    FSCloseDir(handle); // never opened
    Shell("mkdir f f/folder; printf 12345 >f/file; ln -s nowhere f/link; mkfifo f/fifo; touch -hd @5 f/*");
    const auto walk = [&](int flags) {
        Texts found;
        EXPECT_EQ(FSOpenDir(Path("f"), flags, handle), 0);
        DIR_ENTRY entry;
        while (FSReadDir(handle, entry) == 1) {
            _FILE_INFO_tag info;
            EXPECT_TRUE(GetFileInfo(Path("f/") + entry.name, info) == 0 && info.type == entry.type) << entry.name;
            const std::string known = std::to_string(entry.mtime) + " " + std::to_string(entry.size);
            found.insert(entry.name + " " + (entry.type == FS_TYPE_DIR ? "" : known));
        }
        FSCloseDir(handle);
        EXPECT_TRUE(handle.path.empty() && handle.dir == nullptr);
        return found;
    };
    EXPECT_EQ(walk(FS_DIR_WITH_INFO), (Texts{". ", ".. ", "fifo 5 0", "file 5 5", "folder ", "link 5 7"}));
    EXPECT_EQ(walk(0), (Texts{". ", ".. ", "fifo 0 0", "file 0 0", "folder ", "link 0 0"}));
}

TEST_F(FileOpTest, NamesLinksOwnersAndProbes)
{
    std::string path;
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    EXPECT_TRUE(FSMktemp(scratch, path) == 0 && ModeOf(path) == 0644 && Tree("/proc/self/fdinfo").size() == openFiles);
    EXPECT_TRUE(FSCreateTempPath("/tmp", path) == 0 && std::regex_match(path, std::regex("/tmp/[0-9a-zA-Z_-]{8}")));
    const uid_t owner = getuid() == 0 ? kNobody : getuid();
    EXPECT_EQ(FSCreateSymbolicLink("log", Path("link")) + FSChown(Path("link"), owner, getgid()), 0);
    EXPECT_EQ(FSChmod(Path("link"), 0600) + FSUTime(Path("link"), 1000, 2000), 0);
    Shell("test \"$(stat -c '%X %Y %u' link)\" = '1000 2000 " + std::to_string(owner) + "'");
    EXPECT_EQ(ModeOf(LogPath()), 0600) << "of what is behind it";
    Shell("chmod 711 . ; mkdir -m 700 shut");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), hasFilePermission(Path("shut"), W_OK); }), getuid() != 0);
}
