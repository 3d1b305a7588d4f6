#include <cerrno>
#include <thread>

#include <fcntl.h>

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

TEST(LogDeathTest, BeforeInitializeOnlySevereMessagesReachStandardError)
{
    EXPECT_EXIT((Say("hidden\n", Logger::INFO), Say("seen\n", Logger::WARNING), exit(0)),
                testing::ExitedWithCode(0), "^[0-9]{4}-[0-9-]{5}T[0-9:]{8} seen\n$");
}

TEST_F(LogTest, ALineTellsTimeProcessThreadLevelAndPlace)
{
    StartLog();
    LOGGER_INFO("service_debug", "copied %d\n", 3);
    const std::regex line("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d \\( *" + std::to_string(getpid()) +
                          ": *\\d{1,5}\\) \\[INFO\\] log-test\\.cpp\\(\\d+\\): copied 3\n");
    EXPECT_TRUE(std::regex_match(Log(), line)) << Log();
}

TEST_F(LogTest, ShowsTheCallersErrnoAndLeavesItAlone)
{
    WriteFile(LogPath(), std::string(kRotateBytes, '-')); // the first line is followed by a rotation
    StartLog();
    setenv("TZ", ":/no/such/zone", 1); // and the look-up for its time stamp fails
    std::stringstream text;
    text << "stream";

    errno = EDQUOT;
    Logger::LogMsg3(Logger::ERROR, "launcher_debug", text,
                    Logger::ConfigFlag(Logger::FLAG_NEWLINE | Logger::FLAG_ERRNO));
    EXPECT_EQ(errno, EDQUOT);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    LOGGER_ERROR("a component whose name is too long to be kept in place", "direct %m\n");
#pragma GCC diagnostic pop
    EXPECT_EQ(errno, EDQUOT);

    errno = 0;
    text.str("quiet");
    Logger::LogMsg3(Logger::ERROR, "launcher_debug", text, Logger::FLAG_ERRNO);
    unsetenv("TZ");

    const std::string reason = strerror(EDQUOT);
    EXPECT_NE(Generation(0).find(" stream, err=" + std::to_string(EDQUOT) + ":" + reason + "\n"),
              std::string::npos);
    EXPECT_NE(Log().find(": direct " + reason + "\n"), std::string::npos) << Log();
    EXPECT_EQ(Log().substr(Log().size() - 6), " quiet");
}

TEST_F(LogTest, EachComponentHasItsOwnThreshold)
{
    StartLog("default_component=7\nlauncher_debug=7x\nservice_debug=2\nfile_op_debug=none\n");
    const std::pair<const char *, int> levels[] = {{"launcher_debug", 7}, {"service_debug", 2},
                                                   {"file_op_debug", 0},  {"Launcher_debug", 4},
                                                   {"unknown", 4},        {"default_component", 7}};
    for (const auto &[component, level] : levels) {
        EXPECT_EQ(Logger::GetCompLevel(component), level) << component;
        EXPECT_TRUE(Logger::IsNeedToLog(Logger::Level(level), component));
        EXPECT_FALSE(Logger::IsNeedToLog(Logger::Level(level + 1), component));
    }
    // What a first level file said stays, and a second log file takes over.
    WriteFile(Path("other-levels"), "service_debug=6\n");
    ASSERT_EQ(
        Logger::Initialize(Logger::TYPE_FILE, Path("other"), Path("other-levels"), 50, Logger::SCOPE_THREAD),
        0);
    EXPECT_EQ(Logger::GetCompLevel("launcher_debug"), 7);
    EXPECT_EQ(Logger::GetCompLevel("service_debug"), 6);
    Say("moved\n");
    EXPECT_EQ(Log(), "");
    EXPECT_EQ(ReadFile(Path("other")).substr(kStampBytes), "moved\n");
    Logger::Destroy();
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "launcher_debug"));
}

TEST_F(LogTest, AFailedInitializeSilencesTheLoggerAndNothingElse)
{
    for (const std::string &path : {std::string(), scratch.string()}) {
        EXPECT_EQ(Logger::Initialize(Logger::TYPE_FILE, path, "", 50, Logger::SCOPE_THREAD), -1);
        EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "launcher_debug"));
    }
    StartLog();
    Say("again\n");
    EXPECT_EQ(Log().substr(kStampBytes), "again\n");
    EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1);
    EXPECT_NE(fcntl(STDERR_FILENO, F_GETFD), -1);
}

TEST_F(LogTest, RotatesAfterTheMessageThatPassesFiveMebibytes)
{
    const std::string old(kRotateBytes - kStampBytes - 6, '-');
    WriteFile(LogPath(), old);
    StartLog();
    Say("12345\n"); // makes it exactly five
    EXPECT_EQ(fs::file_size(LogPath()), kRotateBytes);
    EXPECT_FALSE(fs::exists(LogPath() + "_0"));
    Say("over\n");
    EXPECT_EQ(Log(), "");
    EXPECT_EQ(Generation(0).size(), kRotateBytes + kStampBytes + 5);
}

TEST_F(LogTest, KeepsOneGenerationLessThanItsNumber)
{
    StartLog();
    for (int i = 0; i < 60; ++i) {
        Say("run " + std::to_string(i) + "\n");
        ASSERT_EQ(Logger::Rotate(), 0);
    }
    EXPECT_EQ(Generation(0).substr(kStampBytes), "run 59\n");
    EXPECT_EQ(Generation(48).substr(kStampBytes), "run 11\n");
    EXPECT_FALSE(fs::exists(LogPath() + "_49"));
}

TEST_F(LogTest, AFailedRotationDropsMessagesUntilTheNextInitialize)
{
    StartLog();
    fs::remove(LogPath());
    EXPECT_EQ(Logger::Rotate(), -1);
    Say("dropped\n");
    EXPECT_FALSE(fs::exists(LogPath()));
    StartLog();
    Say("back\n");
    EXPECT_EQ(Log().substr(kStampBytes), "back\n");
}

TEST_F(LogTest, ThreadsLoseAndTearNoLineThroughRotations)
{
    StartLog();
    constexpr int kThreads = 4;
    constexpr int kLines = 2500;
    const std::string filler(1500, '.'); // about 15 MiB in all
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&filler, t] {
            for (int i = 0; i < kLines; ++i) {
                Say("<" + std::to_string(t) + " " + std::to_string(i) + filler + ">\n");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }

    int next[kThreads] = {};
    ASSERT_TRUE(fs::exists(LogPath() + "_1"));
    std::istringstream all(Generation(2) + Generation(1) + Generation(0) + Log());
    for (std::string line; std::getline(all, line);) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(sscanf(line.c_str() + kStampBytes, "<%d %d", &t, &i), 2) << line;
        ASSERT_EQ(line.substr(line.size() - filler.size() - 1), filler + ">");
        ASSERT_EQ(i, next[t]++);
    }
    for (const int lines : next) {
        EXPECT_EQ(lines, kLines);
    }
}
