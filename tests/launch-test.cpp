// The whole program, started as a user starts it: from a staged install, without root's powers.

#include <sys/resource.h>

#include "tests/support.h"

namespace
{
class LaunchTest : public ScratchTest
{
protected:
    LaunchTest() { Given("0"); }

    // An installed client and a shipped one that is newer; "old" and "new" is what they say when their start script
    // ends, after this many seconds.
    void Given(const std::string &seconds)
    {
        Shell("rm -rf home opt disk started; mkdir -p opt/bin opt/log home; cp '" BRIMLOCK_LAUNCHER "' opt/bin");
        for (const auto &[folder, build, name] : {std::tuple(app, "1000", "old"), {package, "1001", "new"}}) {
            const std::string sign =
                std::string("\necho ") + name + " $1$QT_QPA_PLATFORM >>'" + Path("started") + "'\n";
            WriteFile(folder + "/INFO", std::string("[Version]\nbuild_version=") + build + "\n");
            WriteFile(folder + "/bin/brimlock-ui", name, 0755);
            WriteFile(folder + "/package/start-stop", "#!/bin/sh\nsleep " + seconds + sign, 0755);
        }
        Shell(
            "cp opt/package/larkspire/INFO opt; printf 'launcher_debug=7\nservice_debug=7\n' >opt/log/launcher.debug");
    }

    pid_t Start(rlim_t fileBytes = RLIM_INFINITY)
    {
        // As far as what is in there stands still: a launcher may be at work.
        Shell("test $(id -u) != 0 || chown -hR 65534:65534 home $(test ! -e disk || echo disk) || true");
        return Spawn([this, fileBytes]() -> int {
            const rlimit limit = {fileBytes, fileBytes};
            setenv("HOME", Path("home").c_str(), 1);
            setenv("DISPLAY", display.c_str(), 1);
            signal(SIGXFSZ, SIG_IGN);
            BecomeUnprivileged();
            return freopen(Path("stderr").c_str(), "w", stderr) == nullptr || setrlimit(RLIMIT_FSIZE, &limit) != 0 ||
                   execl(Path("opt/bin/launcher").c_str(), "launcher", nullptr);
        });
    }

    int LauncherLogged(const std::string &text) const
    {
        return CountOf(ReadFile(Path("home/.Brimlock/log/launcher.log")) + ReadFile(Path("stderr")), text);
    }
    std::string Started() const { return ReadFile(Path("started")); }

    std::string display; // that launchers are told of
    const std::string app = Path("home/.Brimlock/Brimlock.app");
    const std::string package = Path("opt/package/larkspire");
};

// What xdotool says of the window; waits until it is there.
std::string AskWindow(const std::string &command)
{
    const std::string whole = "timeout 20 xdotool search --sync --onlyvisible --name '^Brimlock Client$' " + command;
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(whole.c_str(), "r"), pclose);
    char answer[200] = "";
    return std::string(answer, fread(answer, 1, sizeof answer, pipe.get()));
}
} // namespace

TEST_F(LaunchTest, InstallsLeavesAloneAndUpgrades)
{
    Shell("rm -r home/.Brimlock; mkdir -p home/.Larkspire/app/x");
    for (const std::string build : {"1001", "1001", "1002", "1001"}) {
        Shell("for f in opt/INFO opt/package/larkspire/INFO; do sed -i s/100./" + build + "/ $f; done");
        EXPECT_EQ(Wait(Start()), 0);
    }
    EXPECT_EQ(Started(), "new start\nnew start\nnew start\nnew start\n");
    EXPECT_EQ(ReadFile(app + "/INFO"), "[Version]\nbuild_version=1002\n");
    EXPECT_EQ(LauncherLogged("no need to upgrade\n"), 2);
    EXPECT_FALSE(fs::exists(Path("home/.Larkspire/app")));
    // What marks a start shows a path's first character.
    EXPECT_EQ(LauncherLogged(">>> user_larkspire_path = /\n"), 4);
    EXPECT_EQ(LauncherLogged(">>> user_larkspire_app_path = \n"), 4);
    EXPECT_EQ(LauncherLogged(">>> "), 28);
}

TEST_F(LaunchTest, BadInputCostsNobodyTheClient)
{
    const std::string rollback = "Failed to extract package, rollback to old installation\n";
    const std::string noPid = "Failed to read pid file '";
    const std::string noLevels = "no log levels read from '";
    const std::string noBackup = "at max retries, exiting\n";
    const std::tuple<const char *, const char *, std::string> cases[] = {
#include "tests/spoil-cases.inc"
    };
    const std::string names = "INFO=opt/INFO BASE=home/.Brimlock APP=$BASE/Brimlock.app PID=$BASE/ui.pid "
                              "LEVELS=opt/log/launcher.debug PACKAGE=opt/package/larkspire; ";
    display = ":987"; // which is not there
    for (const auto &[spoil, client, message] : cases) {
        Shell("chmod -R u+w home");
        Given("0");
        const auto old = Tree(app);
        Shell(names + spoil);
        EXPECT_EQ(Wait(Start(64 << 10)), 0) << spoil;
        EXPECT_EQ(Started(), std::string(client) + " start\n") << spoil;
        EXPECT_EQ(Tree(app), client == std::string("old") ? old : Tree(package)) << spoil;
        EXPECT_TRUE(message.empty() || LauncherLogged(message) == 1) << spoil;
    }
}

TEST_F(LaunchTest, OneLauncherOfAUserRunsAtATime)
{
    Given("1");
    std::vector<pid_t> launchers;
    for (const char *variable : {"A", "XDG_RUNTIME_DIR", "TMPDIR", "XDG_DATA_HOME", "USER", "LOGNAME"}) {
        setenv(variable, "/nonexistent", 1);
        launchers.push_back(Start());
        unsetenv(variable);
    }
    for (const pid_t launcher : launchers) {
        EXPECT_EQ(Wait(launcher), 0);
    }
    EXPECT_EQ(Started(), "new start\n");
    EXPECT_EQ(LauncherLogged("app has already launched, return\n"), 5);
    const uid_t user = getuid() == 0 ? kNobody : getuid();
    EXPECT_EQ(ModeOf("/tmp/.veltrano-brimlock-launcher-" + std::to_string(user) + ".lock"), 0600u) << "for nobody else";

    const pid_t killed = Start();
    while (LauncherLogged("removing aged app folder") < 2) {
        usleep(1000);
    }
    usleep(200000); // its start script runs on
    kill(killed, SIGKILL);
    Wait(killed);
    EXPECT_EQ(Wait(Start()), 0);
    EXPECT_EQ(Started(), "new start\nnew start\nnew start\n") << "neither the killed one nor its script holds the lock";
}

TEST_F(LaunchTest, NothingThatHappensToTheWindowEndsTheRun)
{
    display = getenv("DISPLAY");
    for (const auto &[dpi, geometry] : {std::pair("96", "Geometry: 400x"), {"144", "Geometry: 600x"}}) {
        Given("4");
        setenv("QT_FONT_DPI", dpi, 1);
        const pid_t launcher = Start();
        EXPECT_NE(AskWindow("getwindowgeometry").find(geometry), std::string::npos);
        AskWindow("key --window %1 Escape sleep 0.3");
        EXPECT_NE(AskWindow(""), "") << "it is still there";
        AskWindow("windowkill");
        EXPECT_EQ(Started(), "");
        EXPECT_EQ(Wait(launcher), 0);
        EXPECT_EQ(Started(), "new start\n") << "also when the display has cut the connection";
    }
}

TEST_F(LaunchTest, KilledAtAnyMomentItLeavesACompleteCopy)
{
    int cutShort = 0;
    for (useconds_t attempt = 0; attempt < 12; ++attempt) {
        Given("0");
        Shell("cd opt/package/larkspire; for i in 1 2 3 4 5 6 7 8; do cp -r bin d$i; head -c 500000 /dev/zero >d$i/f; "
              "done");
        const auto oldCopy = Tree(app);
        const auto newCopy = Tree(package);
        const pid_t launcher = Start();
        while (!fs::exists(app + "_tmp") && !fs::exists(Path("started"))) {
        }
        usleep(attempt * 500); // into the upgrade, a little further each time
        kill(launcher, SIGKILL);
        Wait(launcher);
        const auto isComplete = [&](const std::string &copy) {
            return fs::exists(copy) && (Tree(copy) == oldCopy || Tree(copy) == newCopy);
        };
        EXPECT_TRUE(isComplete(app) || isComplete(app + "_tmp")) << attempt;
        cutShort += isComplete(app) ? 0 : 1;
        EXPECT_EQ(Wait(Start()), 0);
        EXPECT_EQ(Tree(app), newCopy) << "the next start mends it";
    }
    EXPECT_GT(cutShort, 0) << "no attempt hit the copying";
}
