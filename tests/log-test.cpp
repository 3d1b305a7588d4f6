#include <cerrno>
#include <ctime>
#include <thread>

#include <fcntl.h>
#include <syslog.h>

#include "tests/support.h"

namespace
{
constexpr size_t kStampBytes = 20;
constexpr size_t kRotateBytes = 5 * 1024 * 1024;

void Say(const std::string &text, Logger::Level level = Logger::ERROR)
{
    Logger::LogMsg(level, "launcher_debug", "%s", text.c_str());
}

class LogTest : public ScratchTest
{
protected:
    std::string Generation(int number) const { return ReadFile(LogPath() + "_" + std::to_string(number)); }
};
} // namespace

// Logs before main() and after it.
const struct StaticObject {
    StaticObject() { Say("constructor\n", Logger::WARNING); }
    ~StaticObject() { Say("destructor\n"); }
} staticObject;

TEST(LogDeathTest, EachSinkHasItsForm)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // runs the program anew, constructors included
    const auto useAllSinks = [] {
        Say("hidden\n", Logger::INFO);
        Say("seen\n", Logger::WARNING);
        openlog("system", LOG_PERROR, LOG_USER);
        setlogmask(LOG_MASK(LOG_ERR)); // the one priority
        Logger::Initialize(Logger::TYPE_SYSLOG, "", "", 50, Logger::SCOPE_THREAD);
        Say("log\n", Logger::WARNING);
        const std::string file = "/tmp/brimlock-type-4-" + std::to_string(getpid());
        Logger::Initialize(Logger::Type(4), file, "", 50, Logger::SCOPE_THREAD);
        Say("bare\n");
        remove(file.c_str());
        Logger::Initialize(Logger::TYPE_STDERR, "", "", 50, Logger::SCOPE_THREAD);
        exit(Logger::PrintToFilePointer("%d\n", 1));
    };
    EXPECT_EXIT(useAllSinks(), testing::ExitedWithCode(kStampBytes + 2),
                "^[^ ]{19} constructor\n[^ ]{19} seen\nsystem: log\nbare\n[^ ]{19} 1\n[^ ]{19} destructor\n$");
}

TEST_F(LogTest, TellsTheLocalTimeOfThisVerySecond)
{
    // The third line has the zone of the second, but not its time.
    for (const auto &[zone, offset, nap] :
         {std::tuple("AAA-5", 18000, 0), {"BBB+7", -25200, 2}, {"BBB+7", -25200, 0}}) {
        WriteFile(LogPath(), "");
        setenv("TZ", zone, 1);
        Say("now\n");
        tm told = {};
        strptime(Log().c_str(), "%Y-%m-%dT%H:%M:%S now\n", &told);
        EXPECT_NEAR(timegm(&told), time(nullptr) + offset, 1) << zone << Log();
        sleep(nap);
    }
    unsetenv("TZ");
}

TEST_F(LogTest, ShowsTheCallersErrnoAndLeavesItAlone)
{
    WriteFile(LogPath(), std::string(kRotateBytes, '-'));
    StartLog();
    setenv("TZ", ":/no/such/zone", 1);
    std::stringstream text("stream that was filled before");
    // A new thread has no time stamp yet: its first line looks in vain for the zone, and is followed by a
    // rotation.
    std::thread([&text] {
        errno = EDQUOT;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
        LOGGER_ERROR("a component whose name is too long to be kept in place", "direct %m\n");
#pragma GCC diagnostic pop
        EXPECT_EQ(errno, EDQUOT);
        Logger::LogMsg3(Logger::ERROR, "launcher_debug", text, Logger::ConfigFlag(6));
        EXPECT_EQ(errno, EDQUOT);
        errno = 0;
        text.str("quiet");
        Logger::LogMsg3(Logger::ERROR, "launcher_debug", text, Logger::FLAG_ERRNO);
    }).join();
    unsetenv("TZ");

    const std::string reason = strerror(EDQUOT);
    const std::regex line("\\d{4}(-\\d\\d){2}T\\d\\d(:\\d\\d){2} \\( *" + std::to_string(getpid()) +
                          ": *\\d{1,5}\\) \\[ERROR\\] log-test\\.cpp\\(\\d+\\): direct " + reason + "\n");
    EXPECT_TRUE(std::regex_match(Generation(0).substr(kRotateBytes), line)) << Generation(0).substr(kRotateBytes);
    EXPECT_EQ(Logged(" stream that was filled before, err=" + std::to_string(EDQUOT) + ":" + reason + "\n"), 1)
        << Log();
    EXPECT_EQ(Log().substr(Log().size() - 6), " quiet");
}

TEST_F(LogTest, EachComponentHasItsOwnThresholdUntilItIsSetAgain)
{
    StartLog("default_component=7\nlauncher_debug=7x\nservice_debug=2\nfile_op_debug=none\n");
    for (const auto &[component, level] : {std::pair("launcher_debug", 7),
                                           {"service_debug", 2},
                                           {"file_op_debug", 0},
                                           {"Launcher_debug", 4},
                                           {"unknown", 4}}) {
        EXPECT_TRUE(Logger::IsNeedToLog(Logger::Level(level), component)) << component;
        EXPECT_FALSE(Logger::IsNeedToLog(Logger::Level(level + 1), component)) << component;
    }
    StartLog("service_debug=6\n");
    EXPECT_EQ(Logger::GetCompLevel("launcher_debug"), 7);
    EXPECT_EQ(Logger::GetCompLevel("service_debug"), 6);
    EXPECT_FALSE(Logger::LevelsUnreadable());
    StartLog("service_debug=5\nmalformed\n");
    EXPECT_TRUE(Logger::LevelsUnreadable());
    EXPECT_EQ(Logger::GetCompLevel("service_debug"), 6);
    EXPECT_EQ(Logger::Initialize(Logger::TYPE_STDERR, "", Path("none"), 50, Logger::SCOPE_THREAD), 0);
    EXPECT_FALSE(Logger::LevelsUnreadable()) << "just missing";
    Logger::Destroy();
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "launcher_debug"));
}

TEST_F(LogTest, AFailureSilencesTheLoggerUntilTheNextInitialize)
{
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    const fs::path output = fs::read_symlink("/proc/self/fd/1");
    fs::remove(LogPath());
    EXPECT_EQ(Logger::Rotate(), -1);
    Say("dropped\n");
    EXPECT_FALSE(fs::exists(LogPath()));
    Shell("mkfifo fifo");
    const int reader = open(Path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
    for (const std::string &path : {Path(""), Path("fifo"), std::string("/dev/full"), std::string()}) {
        EXPECT_EQ(Logger::Initialize(Logger::TYPE_FILE, path, "", 50, Logger::SCOPE_THREAD), -1) << path;
    }
    close(reader);
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "launcher_debug"));
    StartLog();
    Say("back\n");
    Shell("! ls -l /proc/self/fd | grep -F '" + LogPath() + "'"); // no other program holds the log
    EXPECT_EQ(Log().substr(kStampBytes), "back\n");
    StartLog();
    EXPECT_EQ(fs::read_symlink("/proc/self/fd/1"), output) << "a stream that is not the logger's stays open";
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles) << "and the logger's own does not";
}

TEST_F(LogTest, RotatesAfterTheMessageThatPassesFiveMebibytes)
{
    WriteFile(LogPath(), std::string(kRotateBytes - kStampBytes - 6, '-'));
    StartLog();
    Say("12345\n"); // makes it exactly five
    EXPECT_EQ(fs::file_size(LogPath()), kRotateBytes);
    WriteFile(LogPath(), std::string(kRotateBytes - kStampBytes - 4, '-'));
    StartLog();
    Say("over\n"); // by one
    EXPECT_EQ(Log(), "");
    EXPECT_EQ(Generation(0).size(), kRotateBytes + 1);
    for (int i = 0; i < 60; ++i) {
        Say("run " + std::to_string(i) + "\n");
        ASSERT_EQ(Logger::Rotate(), 0);
    }
    EXPECT_EQ(Generation(0).substr(kStampBytes), "run 59\n");
    EXPECT_EQ(Generation(48).substr(kStampBytes), "run 11\n");
    EXPECT_FALSE(fs::exists(LogPath() + "_49")) << "of the fifty numbers one stays free";
}

TEST_F(LogTest, ThreadsLoseAndTearNoLineThroughRotations)
{
    const std::string filler(1500, '.'); // about 15 MiB in all
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&filler, t] {
            for (int i = 0; i < 2500; ++i) {
                Say("<" + std::to_string(t) + " " + std::to_string(i) + filler + ">\n");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(fs::exists(LogPath() + "_1"));
    std::vector<int> lines(4);
    std::istringstream all(Generation(2) + Generation(1) + Generation(0) + Log());
    for (std::string line; std::getline(all, line);) {
        const int t = line.at(kStampBytes + 1) - '0';
        ASSERT_EQ(line.substr(kStampBytes),
                  "<" + std::to_string(t) + " " + std::to_string(lines.at(t)++) + filler + ">");
    }
    EXPECT_EQ(lines, std::vector<int>(4, 2500));
}
