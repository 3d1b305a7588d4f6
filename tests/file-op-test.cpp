#include "fileop/file-op.h"

#include <cerrno>

#include <sys/resource.h>

#include "tests/support.h"

using FileOpTest = ScratchTest;
using Texts = std::set<std::string>;

TEST(PathStringTest, PathsAreCutAtTheLastSlash)
{
    const std::tuple<std::string, std::string, std::string> cases[] = {
#include "tests/path-cases.inc"
    };
    for (const auto &[path, parent, name] : cases) {
        EXPECT_EQ(FSParentPath(path), parent) << path;
        EXPECT_EQ(FSBaseName(path), name) << path;
    }
}

TEST_F(FileOpTest, ResultsAndMessagesAreUnchanged)
{
    Shell("touch file; mkdir real; ln -s real link; touch -hd @5 link; ln -s nowhere dangling");
    const std::string file = Path("file");
    const std::string link = Path("link");
    const std::string none = Path("none");
    const std::string shm = "/dev/shm" + scratch.string().substr(4); // another file system
    const uid_t user = getuid() == 0 ? kNobody : getuid();
    _FILE_INFO_tag info;
    _FILE_INFO_tag other;
    DIR_HANDLE handle;
    std::string text;
    const auto unprivileged = [](const std::function<int()> &call) {
        return InChild([&] { return BecomeUnprivileged(), call() == 0 ? 0 : errno; });
    };
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    fs::current_path(scratch);
    ExpectResults({
#include "tests/call-cases.inc"
    });
    fs::current_path("/");
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
    EXPECT_EQ(PlainLog(), ReadFile(BRIMLOCK_TESTS "/file-op-log.txt"));
}

TEST_F(FileOpTest, WalksAFolderAndClosesIt)
{
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    DIR_HANDLE handle;
    FSCloseDir(handle); // never opened
    Shell(
        "mkdir f f/folder; printf 12345 >f/file; ln -s no f/link; mkfifo f/fifo; touch -hd @5 f/*");
    const auto walk = [&](int flags) {
        Texts found;
        EXPECT_EQ(FSOpenDir(Path("f"), flags, handle), 0);
        for (DIR_ENTRY entry; FSReadDir(handle, entry) == 1;) {
            const auto known = " " + std::to_string(entry.mtime) + " " + std::to_string(entry.size);
            found.insert(
                entry.name + " " + std::to_string(entry.type) +
                (entry.type == FS_TYPE_DIR ? "" : known)); // a folder's differ between disks
        }
        FSCloseDir(handle);
        return found;
    };
    const Texts withInfo = {". 2", ".. 2", "fifo 6 5 0", "file 1 5 5", "folder 2", "link 3 5 2"};
    const Texts without = {". 2", ".. 2", "fifo 6 0 0", "file 1 0 0", "folder 2", "link 3 0 0"};
    EXPECT_EQ(walk(FS_DIR_WITH_INFO), withInfo);
    EXPECT_EQ(walk(0), without);
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
}

TEST_F(FileOpTest, LargeFilesAreCopiedWhateverTheKernelAnswers)
{
    Shell("head -c 1000001 /dev/urandom >src");
    const auto copy = [this] { return FSCopy(Path("src"), Path("dst"), false, true); };
    for (const unsigned int error : {0, EOPNOTSUPP, ENOSYS, EPERM}) {
        const auto copyWithoutKernel = [&] {
            Filter(error != 0 ? SYS_ioctl : -1U, SECCOMP_RET_ERRNO | error);
            Filter(error != 0 ? SYS_copy_file_range : -1U, SECCOMP_RET_ERRNO | error);
            return copy();
        };
        EXPECT_EQ(InChild(copyWithoutKernel), 0);
        Shell("cmp src dst; rm dst");
    }
    EXPECT_EQ(Log(), "");
    // The file may only grow to a size in the middle of a block.
    const auto copyPart = [&] {
        const rlimit most = {500001, 500001};
        signal(SIGXFSZ, SIG_IGN);
        return setrlimit(RLIMIT_FSIZE, &most) == 0 && copy() == -1 ? errno : 0;
    };
    EXPECT_EQ(InChild(copyPart), EFBIG);
    Shell("head -c 500001 src | cmp - dst");
    EXPECT_EQ(Logged("CopyFile: write: File too large (27)"), 1);
}
