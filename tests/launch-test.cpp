// The whole program, started as a user starts it: from a staged install, without root's powers.

#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>

#include "tests/support.h"
#include "tests/x-server.h"

#include <X11/Xutil.h>
#include <X11/keysym.h>

namespace
{
using namespace std::chrono_literals;

std::string Info(const std::string &build)
{
    return "[Version]\nbuild_version=" + build + "\n";
}

class LaunchTest : public ScratchTest
{
protected:
    LaunchTest()
    {
        fs::create_directories(Path("opt/bin"));
        fs::copy(BRIMLOCK_LAUNCHER, Path("opt/bin/launcher"));
        UseHome("home");
        GivenShipped("1001", "new");
        GivenInstalled("1000", "old");
        WriteFile(Path("opt/log/launcher.debug"), "launcher_debug=7\nservice_debug=7\n");
    }

    void UseHome(const std::string &name)
    {
        home = Path(name);
        base = home + "/.Brimlock";
        app = base + "/Brimlock.app";
    }

    // A client whose start script leaves a sign behind when it ends, after `seconds`.
    void GivenClient(const std::string &folder, const std::string &build, const std::string &name,
                     int seconds)
    {
        WriteFile(folder + "/INFO", Info(build));
        WriteFile(folder + "/bin/brimlock-ui", name, 0755);
        WriteFile(folder + "/package/start-stop",
                  "#!/bin/sh\nsleep " + std::to_string(seconds) + "\necho " + name + " $1 >>" +
                      Path("started") + "\n",
                  0755);
    }

    void GivenShipped(const std::string &build, const std::string &name, int seconds = 0)
    {
        WriteFile(Path("opt/INFO"), Info(build));
        GivenClient(package, build, name, seconds);
    }

    void GivenInstalled(const std::string &build, const std::string &name)
    {
        fs::remove_all(home);
        GivenClient(app, build, name, 0);
        fs::remove(Path("started"));
    }

    void OwnedByTheUser(const std::string &path) const
    {
        const std::string command = "chown -hR 65534:65534 '" + path + "'";
        ASSERT_TRUE(getuid() != 0 || system(command.c_str()) == 0);
    }

    pid_t Start(const std::vector<std::pair<const char *, std::string>> &environment = {},
                rlim_t fileBytes = 0)
    {
        fs::create_directories(home);
        OwnedByTheUser(home);
        const pid_t pid = fork();
        if (pid == 0) {
            if (freopen(Path("stderr").c_str(), "w", stderr) == nullptr) {
                _exit(126);
            }
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            unsetenv("QT_QPA_PLATFORM");
            setenv("HOME", home.c_str(), 1);
            setenv("LC_ALL", "C", 1);
            for (const auto &[name, value] : environment) {
                setenv(name, value.c_str(), 1);
            }
            if (fileBytes != 0) {
                const rlimit limit = {fileBytes, fileBytes};
                setrlimit(RLIMIT_FSIZE, &limit);
                signal(SIGXFSZ, SIG_IGN);
            }
            BecomeUnprivileged();
            execl(Path("opt/bin/launcher").c_str(), "launcher", nullptr);
            _exit(127);
        }
        return pid;
    }

    // The exit status; a signal counts as 128 and its number.
    static int Wait(pid_t pid)
    {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string LauncherLog() const { return ReadFile(base + "/log/launcher.log"); }
    std::string Started() const { return ReadFile(Path("started")); }

    std::string home;
    std::string base;
    std::string app;
    const std::string package = Path("opt/package/larkspire");
};

// The window with this title on the display, once it is there and shown; 0 when it never comes.
Window WaitForWindow(Display *display, const std::string &title)
{
    for (int attempt = 0; attempt < 500; ++attempt) {
        Window root = 0;
        Window parent = 0;
        Window *children = nullptr;
        unsigned int count = 0;
        XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count);
        Window found = 0;
        for (unsigned int i = 0; i < count; ++i) {
            char *name = nullptr;
            XWindowAttributes attributes = {};
            if (XFetchName(display, children[i], &name) != 0 && name == title &&
                XGetWindowAttributes(display, children[i], &attributes) != 0 &&
                attributes.map_state == IsViewable) {
                found = children[i];
            }
            XFree(name);
        }
        XFree(children);
        if (found != 0) {
            return found;
        }
        std::this_thread::sleep_for(20ms);
    }
    return 0;
}

void AskToClose(Display *display, Window window)
{
    XEvent event = {};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    XSendEvent(display, window, False, NoEventMask, &event);
}

void PressEscape(Display *display, Window window)
{
    XEvent event = {};
    event.xkey.display = display;
    event.xkey.window = window;
    event.xkey.root = DefaultRootWindow(display);
    event.xkey.keycode = XKeysymToKeycode(display, XK_Escape);
    event.xkey.same_screen = True;
    for (const int type : {KeyPress, KeyRelease}) {
        event.xkey.type = type;
        XSendEvent(display, window, True, type == KeyPress ? KeyPressMask : KeyReleaseMask, &event);
    }
}
} // namespace

TEST_F(LaunchTest, InstallsLeavesAloneAndUpgrades)
{
    fs::remove_all(home);
    WriteFile(home + "/.Larkspire/app/file", "");
    for (const auto &[build, name] :
         {std::pair("1001", "new"), {"1001", "other"}, {"1002", "newer"}, {"1001", "older"}}) {
        GivenShipped(build, name);
        EXPECT_EQ(Wait(Start()), 0);
    }
    EXPECT_EQ(Started(), "new start\nnew start\nnewer start\nnewer start\n");
    EXPECT_EQ(ReadFile(app + "/bin/brimlock-ui"), "newer");
    EXPECT_EQ(CountOf(LauncherLog(), "no need to upgrade\n"), 2u);
    EXPECT_FALSE(fs::exists(home + "/.Larkspire/app"));
    // The marker of a start shows a path's first character.
    EXPECT_EQ(CountOf(LauncherLog(), ">>> user_larkspire_path = /\n"), 4u);
    EXPECT_EQ(CountOf(LauncherLog(), ">>> user_larkspire_app_path = \n"), 4u);
    EXPECT_EQ(CountOf(LauncherLog(), ">>> "), 28u);
    EXPECT_EQ(ReadFile(Path("stderr")).find("[ERROR]"), std::string::npos);
}

TEST_F(LaunchTest, BadInputCostsNobodyTheClient)
{
    const auto rewrite = [](const std::string &path, const std::string &text, mode_t mode = 0644) {
        return [=] { WriteFile(path, text, mode); };
    };
    const auto enlarge = [](const std::string &path) {
        return [=] {
            WriteFile(path, "");
            fs::resize_file(path, 3ULL << 30);
        };
    };
    const std::string binary("\0\xff\x01\n=\x7f", 6);
    const std::string info = Path("opt/INFO");
    const std::string levels = Path("opt/log/launcher.debug");
    const std::string pidFile = base + "/ui.pid";
    const std::string noBuild = "no build_version in '";
    const std::string rollback = "Failed to extract package, rollback to old installation\n";
    const std::string noPid = "Failed to read pid file '";
    const std::string noLevels = "no log levels read from '";
    struct {
        const char *name;
        std::function<void()> spoil;
        const char *client; // the one in place and started afterwards
        std::string message;
        rlim_t fileBytes = 0;
    } const cases[] = {
        {"shipped INFO missing", [&] { fs::remove(info); }, "old", noBuild},
        {"shipped INFO empty", rewrite(info, ""), "old", noBuild},
        {"shipped INFO unreadable", rewrite(info, Info("1001"), 0), "old", noBuild},
        {"shipped INFO binary", rewrite(info, binary), "old", noBuild},
        {"shipped INFO huge", enlarge(info), "old", noBuild},
        {"own INFO binary", rewrite(app + "/INFO", binary), "new", noBuild},
        {"own INFO a folder", [&] { fs::remove(app + "/INFO"), fs::create_directory(app + "/INFO"); }, "new",
         noBuild},
        {"ui.pid empty", rewrite(pidFile, ""), "new", ""},
        {"ui.pid unreadable", rewrite(pidFile, "pid=1\n", 0), "new", noPid},
        {"ui.pid binary", rewrite(pidFile, binary.substr(1)), "new", noPid},
        {"ui.pid huge", enlarge(pidFile), "new", ""},
        {"levels missing", [&] { fs::remove(levels); }, "new", ""},
        {"levels unreadable", rewrite(levels, "service_debug=7\n", 0), "new", noLevels},
        {"levels binary", rewrite(levels, binary.substr(1)), "new", noLevels},
        {"levels huge", enlarge(levels), "new", ""},
        {"package missing", [&] { fs::remove_all(package); }, "old", rollback},
        {"package with an unreadable file", rewrite(package + "/lib/core", "", 0), "old", rollback},
        {"home full", rewrite(package + "/large", std::string(1 << 20, 'x')), "old", rollback, 64 << 10},
        {"home read-only", [&] { fs::create_directory(base + "/log"), chmod(base.c_str(), 0555); }, "old",
         "at max retries, exiting\n"},
        {"nothing writable", [&] { chmod(base.c_str(), 0555); }, "old", "at max retries, exiting\n"},
        {"log folder a file", rewrite(base + "/log", ""), "new", ""},
        {"another disk",
         [&] {
             fs::copy(base, Path("disk"), fs::copy_options::recursive);
             fs::remove_all(base);
             fs::create_symlink(Path("disk"), base);
             OwnedByTheUser(Path("disk"));
         },
         "new", "user installation is ready"},
    };
    for (const auto &c : cases) {
        fs::remove_all(Path("opt/package"));
        fs::remove_all(Path("disk"));
        fs::remove(levels);
        chmod(base.c_str(), 0755);
        WriteFile(levels, "launcher_debug=7\nservice_debug=7\n");
        fs::remove(info);
        GivenShipped("1001", "new");
        GivenInstalled("1000", "old");
        fs::create_directories(app + "/some/folder");
        c.spoil();
        EXPECT_EQ(Wait(Start({}, c.fileBytes)), 0) << c.name;
        EXPECT_EQ(Started(), std::string(c.client) + " start\n") << c.name;
        EXPECT_EQ(ReadFile(app + "/bin/brimlock-ui"), c.client) << c.name;
        EXPECT_EQ(fs::exists(app + "/some/folder"), c.client == std::string("old")) << c.name;
        EXPECT_FALSE(fs::exists(app + "_tmp")) << c.name;
        const std::string log = LauncherLog() + ReadFile(Path("stderr"));
        EXPECT_TRUE(c.message.empty() || CountOf(log, c.message) == 1) << c.name << "\n" << log;
    }
}

TEST_F(LaunchTest, RunsFromAHomeWithBlanksAndLettersOfAnyLanguage)
{
    for (const char *locale : {"C", "C.UTF-8"}) {
        UseHome(std::string("Zo\xc3\xab \xe6\xbc\xa2 ") + locale);
        EXPECT_EQ(Wait(Start({{"LC_ALL", locale}})), 0);
        EXPECT_EQ(ReadFile(app + "/bin/brimlock-ui"), "new");
        EXPECT_NE(LauncherLog().find("'" + app + "'"), std::string::npos);
    }
    EXPECT_EQ(Started(), "new start\nnew start\n");
}

TEST_F(LaunchTest, ASecondLauncherLeavesTheFirstAlone)
{
    GivenShipped("1001", "new", 1);
    const pid_t first = Start();
    while (!fs::exists(app + "/package/start-stop") || ReadFile(app + "/bin/brimlock-ui") != "new") {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ(Wait(Start({{"XDG_RUNTIME_DIR", Path("other")}})), 0);
    EXPECT_EQ(CountOf(LauncherLog(), "app has already launched, return\n"), 1u);
    EXPECT_EQ(Started(), "");
    EXPECT_EQ(Wait(first), 0);
    EXPECT_EQ(Started(), "new start\n");
}

TEST_F(LaunchTest, NoRequestToCloseEndsTheUpgrade)
{
    const XServer server;
    Display *display = XOpenDisplay(server.display.c_str());
    ASSERT_NE(display, nullptr);
    const std::pair<const char *, int> widths[] = {{"96", 400}, {"144", 600}};
    for (const auto &[dpi, width] : widths) {
        GivenShipped("1001", "new", 2);
        GivenInstalled("1000", "old");
        const pid_t launcher = Start({{"DISPLAY", server.display}, {"QT_FONT_DPI", dpi}});
        const Window window = WaitForWindow(display, "Brimlock Client");
        ASSERT_NE(window, 0u);
        XWindowAttributes attributes = {};
        XGetWindowAttributes(display, window, &attributes);
        EXPECT_EQ(attributes.width, width);
        XSizeHints hints = {};
        long supplied = 0;
        XGetWMNormalHints(display, window, &hints, &supplied);
        EXPECT_EQ(hints.min_width, width);
        EXPECT_EQ(hints.max_width, width);

        AskToClose(display, window);
        PressEscape(display, window);
        XSync(display, False);
        std::this_thread::sleep_for(300ms);
        XGetWindowAttributes(display, window, &attributes);
        EXPECT_EQ(attributes.map_state, IsViewable);
        EXPECT_EQ(Started(), "");
        EXPECT_EQ(Wait(launcher), 0);
        EXPECT_EQ(Started(), "new start\n");
    }
    XCloseDisplay(display);
}

TEST_F(LaunchTest, KilledAtAnyMomentItLeavesACompleteCopy)
{
    for (int i = 0; i < 200; ++i) {
        WriteFile(package + "/lib/part" + std::to_string(i % 10) + "/" + std::to_string(i),
                  std::string(20000, 'p'));
    }
    const std::vector<std::string> newCopy = Tree(package);
    int cutShort = 0;
    for (int attempt = 0; attempt < 12; ++attempt) {
        GivenInstalled("1000", "old");
        const std::vector<std::string> oldCopy = Tree(app);
        const pid_t launcher = Start();
        // From the moment that the upgrade begins, a little later each time.
        while (fs::exists(app + "/package") && !fs::exists(app + "_tmp") &&
               waitpid(launcher, nullptr, WNOHANG) == 0) {
        }
        std::this_thread::sleep_for(attempt * 1ms);
        kill(launcher, SIGKILL);
        Wait(launcher);

        bool complete = false;
        for (const std::string &name : {app, app + "_tmp"}) {
            complete = complete || (fs::exists(name) && (Tree(name) == oldCopy || Tree(name) == newCopy));
        }
        EXPECT_TRUE(complete) << attempt;
        cutShort += Tree(base).empty() || !fs::exists(app) || Tree(app) != newCopy ? 1 : 0;

        EXPECT_EQ(Wait(Start()), 0);
        EXPECT_EQ(Tree(app), newCopy) << "the next start mends it";
    }
    EXPECT_GT(cutShort, 0) << "no attempt hit the upgrade";
}
