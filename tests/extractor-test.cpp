#include "extractor/extractor.h"

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
    ExtractorTest()
    {
        StartLog();
        StrTable::InitStrTable();
        fs::create_directory(Path("src"));
    }

    // Runs a shell command in the folder that archives are made from.
    void Shell(const std::string &command)
    {
        ASSERT_EQ(system(("cd '" + Path("src") + "' && (" + command + ") >/dev/null 2>&1").c_str()), 0)
            << command;
    }

    // One tar of entries that no ordinary tool would write.
    void WriteTar(const std::vector<std::pair<std::string, std::string>> &links, const std::string &file)
    {
        archive *out = archive_write_new();
        archive_write_set_format_gnutar(out);
        ASSERT_EQ(archive_write_open_filename(out, Path("a").c_str()), ARCHIVE_OK);
        const auto add = [out](const std::string &name, const std::string &target) {
            archive_entry *entry = archive_entry_new();
            archive_entry_set_pathname(entry, name.c_str());
            archive_entry_set_mode(entry, (target.empty() ? AE_IFREG : AE_IFLNK) | 0644);
            archive_entry_set_symlink(entry, target.empty() ? nullptr : target.c_str());
            archive_entry_set_size(entry, target.empty() ? 4 : 0);
            archive_write_header(out, entry);
            archive_write_data(out, "data", target.empty() ? 4 : 0);
            archive_entry_free(entry);
        };
        for (const auto &[name, target] : links) {
            add(name, target);
        }
        add(file, "");
        archive_write_free(out);
    }

    int Extract(const std::string &source, const std::string &target)
    {
        Extractor extractor;
        extractor.SetSource(source);
        extractor.SetTarget(target);
        return extractor.Extract();
    }

    int Count(const std::string &source)
    {
        Extractor extractor;
        extractor.SetSource(source);
        extractor.SetTarget(Path("out"));
        return extractor.Count();
    }
};
} // namespace

TEST_F(ExtractorTest, ReportsLabelAndOneStepForEachEntry)
{
    Shell("mkdir f && echo 1 >f/1 && : >f/2 && ln -s 1 f/3 && tar -czf ../a f");
    std::vector<std::pair<int, int>> steps;
    QStringList labels;
    QObject context;
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateProgress, &context,
                     [&](int total, int done) { steps.emplace_back(total, done); });
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateDialogText, &context,
                     [&](const QString &text) { labels << text; });
    EXPECT_EQ(Extract(Path("a"), Path("out")), 0);
    EXPECT_EQ(steps, (std::vector<std::pair<int, int>>{{4, 1}, {4, 2}, {4, 3}, {4, 4}}));
    EXPECT_EQ(fs::read_symlink(Path("out/f/3")), "1");

    // The label is sent before anything can fail.
    EXPECT_EQ(Extract(Path("none"), Path("out")), -1);
    EXPECT_EQ(labels,
              QStringList({"Brimlock Client is initializing...", "Brimlock Client is initializing..."}));
    EXPECT_EQ(CountOf(Log(), "archive_read_open_filename failed: '"), 1u);
    EXPECT_EQ(CountOf(Log(), "Failed to calculate total file numbers, ret: -1\n"), 1u);
    EXPECT_EQ(Extract("", Path("out")), -1);
    EXPECT_EQ(Count(""), -1);
    EXPECT_EQ(CountOf(Log(), ": Invalid Argument\n"), 1u);
    EXPECT_EQ(CountOf(Log(), ": Invalid argument\n"), 1u);
}

TEST_F(ExtractorTest, ReplacesWhatIsThereAndKeepsNoOwnersOrTimes)
{
    Shell("echo new >f && touch -d 2001-01-01 f && chmod 4755 f && tar --hard-dereference -cf ../a f f");
    WriteFile(Path("out/f"), "old", 0400);
    WriteFile(Path("behind"), "untouched");
    fs::remove(Path("out/f"));
    fs::create_symlink(Path("behind"), Path("out/f"));
    EXPECT_EQ(Count(Path("a")), 2) << "a name may come twice";
    EXPECT_EQ(Extract(Path("a"), Path("out") + "/"), 0) << Log();
    EXPECT_EQ(ReadFile(Path("out/f")), "new\n");
    EXPECT_EQ(ReadFile(Path("behind")), "untouched");
    EXPECT_EQ(fs::status(Path("out/f")).permissions() & fs::perms::set_uid, fs::perms::none);
    struct stat info = {};
    ASSERT_EQ(stat(Path("out/f").c_str(), &info), 0);
    EXPECT_GT(info.st_mtime, time(nullptr) - 600);
}

TEST_F(ExtractorTest, UnpacksSparseFilesWithoutTheirSize)
{
    Shell("truncate -s 4G big && printf end >>big && tar -Sczf ../a big");
    ASSERT_EQ(Extract(Path("a"), Path("out")), 0);
    struct stat info = {};
    ASSERT_EQ(stat(Path("out/big").c_str(), &info), 0);
    EXPECT_EQ(info.st_size, (4LL << 30) + 3);
    EXPECT_LT(info.st_blocks * 512, 1 << 20);
}

TEST_F(ExtractorTest, RefusesBadArchivesAndBadTargets)
{
    Shell("head -c 300000 /dev/urandom >data && tar -czf ../good data && head -c 100000 ../good "
          ">../truncated &&"
          "tar -cJf ../damaged data && printf XXXXXXXX | dd of=../damaged bs=1 seek=150000 conv=notrunc &&"
          "tar -cf ../empty --files-from /dev/null && cp data ../random && : >../nothing && mkfifo ../fifo &&"
          "mkdir ../folder && echo x >one && ln one two && tar -cf ../hardlink one two");
    WriteFile(Path("file"), "a target that is no folder");
    const struct {
        const char *source;
        const char *target;
        const char *message;
    } cases[] = {
        {"truncated", "out", "archive_read_extract2 failed: '"},
        {"damaged", "out", "archive_read_extract2 failed: '"},
        {"empty", "out", "Failed to calculate total file numbers, ret: 0\n"},
        {"nothing", "out", "Failed to calculate total file numbers, ret: 0\n"},
        {"random", "out", "Failed to calculate total file numbers, ret: -1\n"},
        {"folder", "out", "Failed to calculate total file numbers, ret: "},
        {"fifo", "out", "archive_read_open_filename failed: '"},
        {"none", "out", "archive_read_open_filename failed: '"},
        {"good", "file", "archive_read_extract2 failed: '"},
        {"hardlink", "out", "archive_read_extract2 failed: '"}, // its target is not below the working folder
    };
    for (const auto &c : cases) {
        StartLog();
        WriteFile(LogPath(), "");
        EXPECT_EQ(Extract(Path(c.source), Path(c.target)), -1) << c.source;
        EXPECT_EQ(CountOf(Log(), c.message), 1u) << c.source << "\n" << Log();
        EXPECT_EQ(Log().find("(null)"), std::string::npos) << Log();
    }
    EXPECT_EQ(ReadFile(Path("file")), "a target that is no folder");
}

TEST_F(ExtractorTest, NamesStayBelowTheTarget)
{
    WriteTar({}, "../escaped");
    EXPECT_EQ(Extract(Path("a"), Path("out")), -1);
    EXPECT_FALSE(fs::exists(Path("escaped")));

    WriteTar({}, Path("absolute"));
    EXPECT_EQ(Extract(Path("a"), Path("out")), 0);
    EXPECT_FALSE(fs::exists(Path("absolute")));
    EXPECT_EQ(ReadFile(Path("out") + Path("absolute")), "data");

    WriteTar({}, "latin1-\xe9");
    EXPECT_EQ(Extract(Path("a"), Path("out")), 0);
    EXPECT_EQ(ReadFile(Path("out/latin1-\xe9")), "data");

    // The package is trusted with its links: nothing keeps an entry from being written through one.
    fs::create_directory(Path("outside"));
    WriteTar({{"link", Path("outside")}}, "link/through");
    EXPECT_EQ(Extract(Path("a"), Path("out")), 0);
    EXPECT_EQ(ReadFile(Path("outside/through")), "data");
}

TEST_F(ExtractorTest, ListsNamesAlsoFromStandardInput)
{
    Shell("echo 1 >one && echo 2 >two && tar -cf ../a one two");
    testing::internal::CaptureStdout();
    Extractor extractor;
    extractor.SetSource(Path("a"));
    extractor.SetTarget("unused");
    EXPECT_EQ(extractor.List(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "one\ntwo\n");
    extractor.SetSource(Path("none"));
    EXPECT_EQ(extractor.List(), -1);

    EXPECT_EQ(InChild([this] {
                  if (freopen(Path("a").c_str(), "r", stdin) == nullptr ||
                      !freopen(Path("listed").c_str(), "w", stdout)) {
                      return 1;
                  }
                  return Extractor().List();
              }),
              0);
    EXPECT_EQ(ReadFile(Path("listed")), "one\ntwo\n");
    EXPECT_EQ(CountOf(Log(), "[ERROR] extractor.cpp"), 2u) << Log();
}

TEST_F(ExtractorTest, CopiesAnEntrysDataBlockByBlock)
{
    Shell("head -c 200000 /dev/urandom >data && gzip -k data");
    archive *reader = archive_read_new();
    archive_read_support_filter_all(reader);
    archive_read_support_format_raw(reader);
    archive *writer = archive_write_disk_new();
    archive_entry *entry = nullptr;
    ASSERT_EQ(archive_read_open_filename(reader, Path("src/data.gz").c_str(), 10240), ARCHIVE_OK);
    ASSERT_EQ(archive_read_next_header(reader, &entry), ARCHIVE_OK);
    archive_entry_set_pathname(entry, Path("copy").c_str());
    ASSERT_EQ(archive_write_header(writer, entry), ARCHIVE_OK);
    EXPECT_EQ(Extractor().copy_data(reader, writer), 0);
    archive_write_free(writer);
    archive_read_free(reader);
    EXPECT_EQ(ReadFile(Path("copy")), ReadFile(Path("src/data")));
    EXPECT_EQ(Extractor().copy_data(nullptr, nullptr), -1);
}
