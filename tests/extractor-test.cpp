#include "extractor/extractor.h"

#include "launcher/strings/str-table.h"
#include "tests/support.h"

namespace
{
class ExtractorTest : public ScratchTest
{
protected:
    Extractor Of(const std::string &source) const
    {
        alarm(60); // opening a FIFO could block
        StrTable::InitStrTable();
        Extractor extractor;
        extractor.SetSource(source.empty() ? "" : Path(source));
        extractor.SetTarget(Path("out"));
        return extractor;
    }

    // Executes the commands, which create the archive "a", and extracts it as an ordinary user.
    int Extract(const std::string &prepare) const
    {
        Shell("rm -rf a out; " + prepare);
        return InChild([this] { return umask(077), BecomeUnprivileged(), Of("a").Extract(); });
    }
};
} // namespace

TEST_F(ExtractorTest, ReplacesExistingFilesBelowTheTarget)
{
    const std::string user = std::to_string(getuid() == 0 ? kNobody : getuid());
    const std::tuple<const char *, const char *, std::string> cases[] = {
#include "tests/good-archive-cases.inc"
    };
    for (const auto &[prepare, look, expected] : cases) {
        EXPECT_EQ(Extract(prepare), 0) << prepare << Log();
        EXPECT_EQ(Shell(look), expected) << prepare;
    }
}

TEST_F(ExtractorTest, RefusesBadArchivesAndBadTargets)
{
    const std::string uncounted = "Failed to calculate total file numbers, ret: ";
    const std::string unwritten = "archive_read_extract2 failed: '";
    const std::pair<const char *, std::string> cases[] = {
#include "tests/bad-archive-cases.inc"
    };
    for (const auto &[prepare, message] : cases) {
        WriteFile(LogPath(), "");
        EXPECT_EQ(Extract(prepare), 255) << prepare;
        EXPECT_EQ(Logged(message), 1) << prepare << Log();
        EXPECT_EQ(Logged("(null)"), 0) << Log();
    }
}

TEST_F(ExtractorTest, CountsAFifoAndListsStandardInput)
{
    Shell("touch one two; tar -cf a one two; mkfifo pipe; (cat a >pipe &)");
    const auto list = [this](const char *source) {
        return InChild([&] {
            freopen(Path("a").c_str(), "r", stdin);
            freopen(Path("listed").c_str(), "w", stdout);
            return Of(source).List();
        });
    };
    ExpectResults({
#include "tests/list-cases.inc"
    });
}
