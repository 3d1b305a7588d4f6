#include <cerrno>
#include <thread>

#include <syslog.h>

#include "tests/support.h"

namespace
{
constexpr size_t kStampBytes = 20;
constexpr size_t kRotateBytes = size_t{5} * 1024 * 1024;
constexpr int kLines = 40000;

void Say(const std::string &text, Logger::Level level = Logger::ERROR)
{
    Logger::LogMsg(level, "launcher_debug", "%s", text.c_str());
}
} // namespace

using LogTest = ScratchTest;

// Logs before main() and after it.
const struct StaticObject {
    StaticObject() { Say("constructor\n", Logger::WARNING); }
    ~StaticObject() { Say("destructor\n"); }
} staticObject;

TEST(LogDeathTest, EachSinkHasItsForm)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // restarts the program
    const auto useAllSinks = [] {
        Say("hidden\n", Logger::INFO);
        openlog("system", LOG_PERROR, LOG_USER);
        setlogmask(LOG_MASK(LOG_ERR)); // the priority of all levels
        Logger::Initialize(Logger::TYPE_SYSLOG, "", "", 50, Logger::SCOPE_THREAD);
        Say("log\n", Logger::WARNING);
        Logger::Initialize(Logger::TYPE_STDERR, "", "", 50, Logger::SCOPE_THREAD);
        exit(Logger::PrintToFilePointer("%d\n", 1));
    };
    EXPECT_EXIT(useAllSinks(), testing::ExitedWithCode(kStampBytes + 2),
                "^[^ ]{19} constructor\nsystem: log\n[^ ]{19} 1\n[^ ]{19} destructor\n$");
}

TEST_F(LogTest, ShowsTheLocalTimeToTheSecond)
{
    // The third line has the same zone as the second, but a later time.
    for (const char *zone : {"ZONE-5", "ZONE7", "ZONE7"}) {
        WriteFile(LogPath(), "");
        setenv("TZ", zone, 1);
        const std::string earliest = Shell("date +'%FT%T now'");
        Say("now\n");
        EXPECT_LE(earliest, Log()) << zone;
        EXPECT_LE(Log(), Shell("date +'%FT%T now'")) << zone;
        sleep(1);
    }
    unsetenv("TZ");
}

TEST_F(LogTest, ShowsTheCallersErrnoAndRotatesAfterTheLineThatPassesFiveMebibytes)
{
    const std::string before = "stream that was filled before";
    const std::string shown = ", err=" + std::to_string(EDQUOT) + ":" + strerror(EDQUOT) + "\n";
    const size_t filled =
        kRotateBytes - kStampBytes - before.size() - shown.size(); // one line makes it five
    WriteFile(LogPath(), std::string(filled, '-'));
    StartLog();
    setenv("TZ", ":/no/such/zone", 1);
    std::stringstream text(before);
    // A new thread has no time stamp yet, so its first line looks for the zone, which fails.
    std::thread([&text] {
        errno = EDQUOT;
        Logger::LogMsg3(Logger::ERROR, "launcher_debug", text,
                        Logger::FLAG_NEWLINE | Logger::FLAG_ERRNO);
        EXPECT_EQ(errno, EDQUOT);
        LOGGER_ERROR("a component whose name is too long to be kept in place", "%s\n", "direct");
        EXPECT_EQ(errno, EDQUOT);
        errno = 0;
        text.str("quiet");
        Logger::LogMsg3(Logger::ERROR, "launcher_debug", text, Logger::FLAG_ERRNO);
    }).join();
    unsetenv("TZ");
    const std::string stamp = "\\d{4}(-\\d\\d){2}T\\d\\d(:\\d\\d){2} ";
    const std::string expected =
        stamp + before + shown + stamp + "\\( *" + std::to_string(getpid()) +
        ": *\\d{1,5}\\) \\[ERROR\\] log-test\\.cpp\\(\\d+\\): direct\n//" + stamp + "quiet";
    const std::string found = ReadFile(LogPath() + "_0").substr(filled) + "//" + Log();
    EXPECT_TRUE(std::regex_match(found, std::regex(expected))) << found;
}

TEST_F(LogTest, EachComponentHasItsOwnThresholdUntilItIsSetAgain)
{
    const std::tuple<const char *, const char *, bool> cases[] = {
#include "tests/level-cases.inc"
    };
    for (const auto &[file, expected, isUnreadable] : cases) {
        StartLog(file);
        std::string levels;
        for (const char *component :
             {"launcher_debug", "service_debug", "file_op_debug", "Launcher_debug", "unknown"}) {
            levels += std::to_string(Logger::GetCompLevel(component));
        }
        EXPECT_EQ(levels, expected);
        EXPECT_EQ(Logger::LevelsUnreadable(), isUnreadable) << file;
    }
    Logger::Initialize(Logger::TYPE_STDERR, "", Path("none"), 50, Logger::SCOPE_THREAD);
    EXPECT_FALSE(Logger::LevelsUnreadable()) << "just missing";
    EXPECT_TRUE(Logger::IsNeedToLog(Logger::INFO, "service_debug"));
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::DEBUG, "service_debug"));
    Logger::Destroy();
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "service_debug"));
}

TEST_F(LogTest, AFailureSilencesTheLoggerUntilTheNextInitialize)
{
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    EXPECT_EQ(Logger::Rotate(), 0);
    fs::rename(LogPath(), Path("moved"));
    EXPECT_EQ(Logger::Rotate(), -1);
    Say("dropped\n");
    EXPECT_EQ(ReadFile(Path("moved")), "");
    EXPECT_FALSE(fs::exists(LogPath()));
    for (const char *path : {"/tmp/", "/dev/full", ""}) {
        const Logger::InitConfig config = {Logger::TYPE_FILE, path, "", 1, Logger::SCOPE_NONE};
        EXPECT_EQ(Logger::Initialize(config), -1) << path;
    }
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "launcher_debug"));
    StartLog();
    Say("back\n");
    EXPECT_EQ(Log().substr(kStampBytes), "back\n");
    StartLog();
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles)
        << "its own are closed, and the program's are not";
}

TEST_F(LogTest, ThreadsLoseAndTearNoLineThroughRotations)
{
    const std::string filler(150, '.'); // about 13 MiB in all
    const auto write = [&filler](int first) {
        for (int i = 0; i < kLines; ++i) {
            Say(std::to_string(first + i) + filler + "\n");
        }
    };
    std::thread other(write, kLines);
    write(0);
    other.join();
    std::istringstream all(ReadFile(LogPath() + "_1") + ReadFile(LogPath() + "_0") + Log());
    std::set<std::string> lines;
    for (std::string line; std::getline(all, line);) {
        ASSERT_GT(line.size(), kStampBytes);
        lines.insert(line.substr(kStampBytes));
    }
    EXPECT_EQ(lines.size(), 2 * kLines);
}
