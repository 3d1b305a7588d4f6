#include "extractor/extractor.h"

#include <memory>

#include <archive.h>
#include <archive_entry.h>

#include "launcher/notify/notify-adapter.h"
#include "launcher/strings/str-table.h"
#include "tests/support.h"

namespace
{
class ExtractorTest : public ScratchTest
{
protected:
    Extractor Of(const std::string &source, const std::string &target) const
    {
        alarm(60); // a FIFO whose writer never comes must not hold up the tests
        StrTable::InitStrTable();
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
    QStringList told;
    QObject context;
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateProgress, &context,
                     [&](int total, int done) { told << QString::number(done) + " of " + QString::number(total); });
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateDialogText, &context,
                     [&](const QString &text) { told << text; });
    EXPECT_TRUE(Of("a", "out").Extract() == 0 && Of("none", "out").Extract() == -1);
    EXPECT_EQ(told.join('|'), "Brimlock Client is initializing...|1 of 4|2 of 4|3 of 4|4 of 4|"
                              "Brimlock Client is initializing...");
}

TEST_F(ExtractorTest, CopiesTheDataOfAnEntryIntoItsPlaces)
{
    Shell("head -c 300000 /dev/urandom >f; truncate -s 1M f; echo end >>f; tar -Scf a f");
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_all(reader.get());
    archive_read_open_filename(reader.get(), Path("a").c_str(), 10240);
    archive_entry *entry = nullptr;
    archive_read_next_header(reader.get(), &entry);
    archive_entry_set_pathname(entry, Path("copy").c_str());
    const std::unique_ptr<archive, int (*)(archive *)> writer(archive_write_disk_new(), archive_write_free);
    archive_write_header(writer.get(), entry);
    EXPECT_EQ(Extractor().copy_data(reader.get(), writer.get()), 0);
    Shell("tar -xf a; cmp f copy");
    archive_read_close(reader.get());
    EXPECT_EQ(Extractor().copy_data(reader.get(), writer.get()) + Extractor().copy_data(nullptr, writer.get()), -2);
    EXPECT_EQ(Logged("archive_read_data_block failed: '") + Logged(": Invalid Argument\n"), 2) << Log();
}

TEST_F(ExtractorTest, ReplacesWhatIsThereAndRestoresNoOwnersTimesOrModes)
{
    const std::string user = std::to_string(getuid() == 0 ? kNobody : getuid());
    Shell("echo new >f; chmod 4755 f; tar --owner=" + user +
          " --mtime=2001-01-01 --hard-dereference -cf a f f; "
          "tar --owner=12345 -rf a levels; echo safe >behind; mkdir -m 777 out; ln -s ../behind out/f");
    EXPECT_EQ(InChild([this] { return umask(077), BecomeUnprivileged(), Of("a", "out/").Extract(); }), 0) << Log();
    EXPECT_EQ(ReadFile(Path("out/f")) + ReadFile(Path("behind")), "new\nsafe\n");
    Shell("test $(stat -c %u:%a out/f) = " + user + ":700 -a $(stat -c %u:%a out/levels) = " + user +
          ":600 -a ! out/f -ot a -a ! out/levels -ot a");
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

TEST_F(ExtractorTest, CountsAndListsAlsoWhatComesOnce)
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
    EXPECT_EQ(Of("", "out").Extract() + Of("", "out").Count(), -2);
    EXPECT_TRUE(Logged(": Invalid argument\n") == 2 && Logged(": Invalid Argument\n") == 1) << Log();
}
