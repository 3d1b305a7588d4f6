#include "extractor/extractor.h"

#include "launcher/notify/notify-adapter.h"
#include "launcher/strings/str-table.h"
#include "tests/support.h"

namespace
{
class ExtractorTest : public ScratchTest
{
protected:
    ExtractorTest()
    {
        StrTable::InitStrTable();
        alarm(60); // a FIFO whose writer never comes must not hold up the tests
    }

    Extractor Of(const std::string &source, const std::string &target) const
    {
        Extractor extractor;
        extractor.SetSource(source.empty() ? "" : Path(source));
        extractor.SetTarget(Path(target));
        return extractor;
    }
};
} // namespace

TEST_F(ExtractorTest, ReportsLabelAndOneStepForEachEntry)
{
    Shell("mkdir f; echo 1 >f/1; : >f/2; ln -s 1 f/3; tar -czf a f");
    std::vector<std::pair<int, int>> steps;
    QStringList labels;
    QObject context;
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateProgress, &context,
                     [&](int total, int done) { steps.emplace_back(total, done); });
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateDialogText, &context,
                     [&](const QString &text) { labels << text; });
    EXPECT_EQ(Of("a", "out").Extract(), 0);
    EXPECT_EQ(steps, (std::vector<std::pair<int, int>>{{4, 1}, {4, 2}, {4, 3}, {4, 4}}));
    EXPECT_EQ(Of("none", "out").Extract(), -1);
    EXPECT_EQ(labels.join('|'), "Brimlock Client is initializing...|Brimlock Client is initializing...");
    EXPECT_EQ(Of("", "out").Extract(), -1);
    EXPECT_EQ(Of("", "out").Count(), -1);
    EXPECT_EQ(Logged(": Invalid Argument\n"), 1);
    EXPECT_EQ(Logged(": Invalid argument\n"), 1);
}

TEST_F(ExtractorTest, ReplacesWhatIsThereAndRestoresNoOwnersTimesOrModes)
{
    const uid_t user = getuid() == 0 ? kNobody : getuid();
    Shell("echo new >f; chmod 4755 f; tar --owner=" + std::to_string(user) +
          " --mtime=2001-01-01 --hard-dereference -cf a f f; tar --owner=12345 -rf a levels;"
          "echo safe >behind; mkdir -m 777 out; ln -s ../behind out/f");
    EXPECT_EQ(Of("a", "out").Count(), 3) << "a name may come twice";
    EXPECT_EQ(InChild([this] { return umask(077), BecomeUnprivileged(), Of("a", "out/").Extract(); }), 0) << Log();
    EXPECT_EQ(ReadFile(Path("out/f")) + ReadFile(Path("behind")), "new\nsafe\n");
    EXPECT_EQ(ModeOf(Path("out/f")), 0700u) << "less the umask and the set-id bit";
    for (const char *name : {"out/f", "out/levels"}) {
        struct stat info = {};
        ASSERT_EQ(stat(Path(name).c_str(), &info), 0) << name;
        EXPECT_TRUE(info.st_uid == user && info.st_mtime > time(nullptr) - 600) << name;
    }
}

TEST_F(ExtractorTest, RefusesBadArchivesAndBadTargets)
{
    Shell(". '" BRIMLOCK_TESTS "/bad-archives.sh'");
    const std::string uncounted = "Failed to calculate total file numbers, ret: ";
    const std::string unwritten = "archive_read_extract2 failed: '";
    const std::tuple<const char *, const char *, std::string> cases[] = {
#include "tests/archive-cases.inc"
    };
    for (const auto &[source, target, message] : cases) {
        WriteFile(LogPath(), "");
        EXPECT_EQ(Of(source, target).Extract(), -1) << source;
        EXPECT_EQ(Logged(message), 1) << source << "\n" << Log();
        EXPECT_EQ(Logged("(null)"), 0) << Log();
    }
    EXPECT_EQ(ReadFile(Path("file")), "file\n");
}

TEST_F(ExtractorTest, NamesStayBelowTheTargetButLinksAreTrusted)
{
    Shell("echo data >one; mkdir outside; cp one $(printf 'latin1-\\351'); tar -Pcf a \"$PWD/one\" latin1*;"
          "ln -s \"$PWD/outside\" link; tar -cf b link; rm link; mkdir link; cp one link; tar -rf b link/one");
    EXPECT_EQ(Of("a", "out").Extract(), 0);
    EXPECT_EQ(ReadFile(Path("out") + Path("one")) + ReadFile(Path("out/latin1-\xe9")), "data\ndata\n");
    EXPECT_EQ(Of("b", "out").Extract(), 0);
    EXPECT_EQ(ReadFile(Path("outside/one")), "data\n");
}

TEST_F(ExtractorTest, ListsNamesAlsoFromStandardInput)
{
    Shell("touch one two; tar -cf a one two; mkfifo pipe; (cat a >pipe &)");
    EXPECT_EQ(Of("pipe", "out").Count(), 2) << "what comes through a pipe is read once";
    const auto listing = [this] {
        return freopen(Path("a").c_str(), "r", stdin) == nullptr ||
               freopen(Path("listed").c_str(), "w", stdout) == nullptr || Of("a", "out").List() != 0 ||
               Of("", "out").List() != 0 || Of("none", "out").List() != -1;
    };
    EXPECT_EQ(InChild(listing), 0);
    EXPECT_EQ(ReadFile(Path("listed")), "one\ntwo\none\ntwo\n");
    EXPECT_EQ(Logged("Invalid argument\n"), 1);
}
