// The whole program, started as a user starts it: from a staged install, without root's powers.

#include <sys/resource.h>

#include "tests/support.h"

#include <X11/Xlib.h>

namespace
{
std::string Info(const std::string &build)
{
    return "[Version]\nbuild_version=" + build + "\n";
}

class LaunchTest : public ScratchTest
{
protected:
    LaunchTest() { Given("0"); }

    // An installed client "old" and a shipped client "new". The start script says so, after this many
    // seconds.
    void Given(const std::string &seconds)
    {
        Shell("rm -rf home opt disk started; mkdir -p opt/bin opt/log home; cp " BRIMLOCK_LAUNCHER " opt/bin");
        for (const auto &[folder, build, name] : {std::tuple(app, "1000", "old"), {package, "1001", "new"}}) {
            WriteFile(folder + "/INFO", Info(build));
            WriteFile(folder + "/bin/brimlock-ui", name, 0755);
            WriteFile(folder + "/package/start-stop",
                      "#!/bin/sh\nsleep " + seconds + "\necho " + name + " $1 >>" + Path("started") + "\n", 0755);
        }
        WriteFile(info, Info("1001"));
        WriteFile(levels, "launcher_debug=7\nservice_debug=7\n");
    }

    pid_t Start(const std::string &home = "home", const char *locale = "C", rlim_t fileBytes = RLIM_INFINITY)
    {
        if (getuid() == 0) {
            Shell("chown -hR 65534:65534 home disk '" + home + "' || true");
        }
        const pid_t pid = fork();
        if (pid == 0) {
            setenv("HOME", Path(home).c_str(), 1);
            setenv("LC_ALL", locale, 1);
            const rlimit limit = {fileBytes, fileBytes};
            signal(SIGXFSZ, SIG_IGN);
            BecomeUnprivileged();
            if (freopen(Path("stderr").c_str(), "w", stderr) != nullptr && setrlimit(RLIMIT_FSIZE, &limit) == 0) {
                execl(Path("opt/bin/launcher").c_str(), "launcher", nullptr);
            }
            _exit(127);
        }
        return pid;
    }

    std::string LauncherLog() const { return ReadFile(base + "/log/launcher.log") + ReadFile(Path("stderr")); }
    std::string Started() const { return ReadFile(Path("started")); }

    const std::string base = Path("home/.Brimlock");
    const std::string app = base + "/Brimlock.app";
    const std::string package = Path("opt/package/larkspire");
    const std::string info = Path("opt/INFO");
    const std::string levels = Path("opt/log/launcher.debug");
};

// What xdotool says of the window; waits until it is there.
std::string AskWindow(const std::string &command)
{
    const std::string whole = "timeout 20 xdotool search --sync --onlyvisible --name '^Brimlock Client$' " + command;
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(whole.c_str(), "r"), pclose);
    char answer[200] = "";
    return std::string(answer, fread(answer, 1, sizeof answer, pipe.get()));
}

// What a window manager sends when the user closes a window.
void AskToClose(Window window)
{
    Display *display = XOpenDisplay(nullptr);
    XEvent event = {};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    XSendEvent(display, window, False, NoEventMask, &event);
    XCloseDisplay(display);
}
} // namespace

TEST_F(LaunchTest, InstallsLeavesAloneAndUpgrades)
{
    Shell("rm -r home/.Brimlock; mkdir -p home/.Larkspire/app/x");
    for (const char *build : {"1001", "1001", "1002", "1001"}) {
        WriteFile(info, Info(build));
        WriteFile(package + "/INFO", Info(build));
        EXPECT_EQ(Wait(Start()), 0);
    }
    EXPECT_EQ(Started(), "new start\nnew start\nnew start\nnew start\n");
    EXPECT_EQ(ReadFile(app + "/INFO"), Info("1002"));
    EXPECT_EQ(CountOf(LauncherLog(), "no need to upgrade\n"), 2);
    EXPECT_FALSE(fs::exists(Path("home/.Larkspire/app")));
    // What marks a start shows a path's first character.
    EXPECT_EQ(CountOf(LauncherLog(), ">>> user_larkspire_path = /\n"), 4);
    EXPECT_EQ(CountOf(LauncherLog(), ">>> user_larkspire_app_path = \n"), 4);
    EXPECT_EQ(CountOf(LauncherLog(), ">>> "), 28);
}

TEST_F(LaunchTest, BadInputCostsNobodyTheClient)
{
    const std::string noBuild = "no build_version in '";
    const std::string rollback = "Failed to extract package, rollback to old installation\n";
    const std::string noPid = "Failed to read pid file '";
    const std::string noLevels = "no log levels read from '";
    const std::string noBackup = "at max retries, exiting\n";
    const std::tuple<const char *, const char *, std::string> cases[] = {
#include "tests/spoil-cases.inc"
    };
    const std::string names =
        "INFO=opt/INFO BASE=home/.Brimlock APP=home/.Brimlock/Brimlock.app LEVELS=opt/log/launcher.debug "
        "PID=home/.Brimlock/ui.pid PACKAGE=opt/package/larkspire; ";
    for (const auto &[spoil, client, message] : cases) {
        Shell("chmod -R u+w home");
        Given("0");
        const auto old = Tree(app);
        Shell(names + spoil);
        EXPECT_EQ(Wait(Start("home", "C", 64 << 10)), 0) << spoil;
        EXPECT_EQ(Started(), std::string(client) + " start\n") << spoil;
        EXPECT_EQ(Tree(app), client == std::string("old") ? old : Tree(package)) << spoil;
        EXPECT_TRUE(message.empty() || CountOf(LauncherLog(), message) == 1) << spoil << "\n" << LauncherLog();
    }
}

TEST_F(LaunchTest, RunsFromAHomeWithBlanksAndLettersOfAnyLanguage)
{
    for (const char *locale : {"C", "C.UTF-8"}) {
        const std::string home = std::string("Zo\xc3\xab \xe6\xbc\xa2 ") + locale;
        Shell("mkdir '" + home + "'");
        EXPECT_EQ(Wait(Start(home, locale)), 0);
        EXPECT_EQ(Tree(Path(home + "/.Brimlock/Brimlock.app")), Tree(package));
    }
    EXPECT_EQ(Started(), "new start\nnew start\n");
}

TEST_F(LaunchTest, OneLauncherOfAUserRunsAtATime)
{
    Given("1");
    std::vector<pid_t> launchers;
    for (const char *variable : {"A", "XDG_RUNTIME_DIR", "TMPDIR", "XDG_DATA_HOME", "XDG_CURRENT_DESKTOP", "USER"}) {
        for (const std::string &value : {Path("opt"), std::string()}) {
            setenv(variable, value.c_str(), 1);
            launchers.push_back(Start());
        }
        unsetenv(variable);
    }
    for (const pid_t launcher : launchers) {
        EXPECT_EQ(Wait(launcher), 0);
    }
    EXPECT_EQ(Started(), "new start\n");
    EXPECT_EQ(CountOf(LauncherLog(), "app has already launched, return\n"), 11);
    const uid_t user = getuid() == 0 ? kNobody : getuid();
    const std::string lock = "/tmp/.veltrano-brimlock-launcher-" + std::to_string(user) + ".lock";
    EXPECT_EQ(ModeOf(lock), 0600u) << "no other user can hold it";

    const pid_t killed = Start();
    while (CountOf(LauncherLog(), "no need to upgrade\n") == 0) {
        usleep(1000);
    }
    usleep(200000); // its start script runs on
    kill(killed, SIGKILL);
    Wait(killed);
    EXPECT_EQ(Wait(Start()), 0);
    EXPECT_EQ(Started(), "new start\nnew start\nnew start\n") << "what it has started holds no lock";
}

TEST_F(LaunchTest, NoRequestToCloseEndsTheRun)
{
    const XServer server;
    for (const auto &[dpi, geometry] : {std::pair("96", "Geometry: 400x"), {"144", "Geometry: 600x"}}) {
        Given("2");
        setenv("QT_FONT_DPI", dpi, 1);
        const pid_t launcher = Start();
        EXPECT_NE(AskWindow("getwindowgeometry").find(geometry), std::string::npos);
        AskToClose(std::stoul("0" + AskWindow("")));
        AskWindow("key --window %1 Escape sleep 0.3");
        EXPECT_NE(AskWindow(""), "");
        EXPECT_EQ(Started(), "");
        EXPECT_EQ(Wait(launcher), 0);
        EXPECT_EQ(Started(), "new start\n");
    }
    unsetenv("QT_FONT_DPI");
}

TEST_F(LaunchTest, WithoutTheDisplayTheRunIsFinished)
{
    Given("2");
    pid_t launcher = 0;
    {
        const XServer server;
        launcher = Start();
        EXPECT_NE(AskWindow(""), "");
    }
    EXPECT_EQ(Started(), "");
    EXPECT_EQ(Wait(launcher), 0);
    EXPECT_EQ(Started(), "new start\n");
}

TEST_F(LaunchTest, KilledAtAnyMomentItLeavesACompleteCopy)
{
    int cutShort = 0;
    for (useconds_t attempt = 0; attempt < 12; ++attempt) {
        Given("0");
        Shell("cd opt/package/larkspire; for i in 1 2 3 4 5 6 7 8; do cp -r bin lib$i; cp -r package lib$i; "
              "done;"
              "for i in 1 2 3 4 5 6 7 8; do head -c 500000 /dev/zero >lib$i/data; done");
        const auto oldCopy = Tree(app);
        const auto newCopy = Tree(package);
        const pid_t launcher = Start();
        // From the moment that the upgrade begins, a little later each time.
        while (!fs::exists(app + "_tmp") && !fs::exists(Path("started"))) {
        }
        usleep(attempt * 500);
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

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "LANGUAGE", "XDG_CURRENT_DESKTOP"}) {
        unsetenv(variable);
    }
    return RUN_ALL_TESTS();
}
