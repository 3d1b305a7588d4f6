// The whole program, started as a user starts it: as it is installed, without root's powers.

#include <cstddef>
#include <deque>
#include <memory>

#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "service/linux/start-script.h"
#include "tests/support.h"

namespace
{
const std::string kGate = "opt/package/larkspire/gate"; // a file that the copying waits for
const std::string kLog = "home/.Brimlock/log/launcher.log";
bool hasOwnNetwork = false;

// The guard's names are those of the network. With one of its own nobody else's launcher is met.
bool EnterOwnNetwork()
{
    const std::string user = std::to_string(getuid());
    if (unshare(getuid() == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER) != 0) {
        return false;
    }
    std::ofstream("/proc/self/uid_map") << user << " " << user << " 1";
    return true;
}

// Passes on what one client tells the display, up to this many bytes. Then it hangs up, or nothing happens any more.
// Returns its own display's name.
std::string DisplayUntil(long bytes, bool hangs, pid_t &proxy)
{
    static int number = getpid() * 100;
    const auto opened = [](const std::string &display, auto &&use) {
        sockaddr_un address = {AF_UNIX, ""};
        snprintf(address.sun_path, sizeof address.sun_path, "/tmp/.X11-unix/X%s", display.c_str() + 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(use(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << address.sun_path;
        chmod(address.sun_path, 0777);
        return fd;
    };
    const std::string name = ":" + std::to_string(++number);
    const int listener = opened(name, bind);
    listen(listener, 1);
    proxy = Spawn([=]() mutable {
        pollfd ends[] = {{accept(listener, nullptr, nullptr), POLLIN, 0},
                         {opened(getenv("DISPLAY"), connect), POLLIN, 0}};
        while (bytes > 0 && poll(ends, 2, -1) > 0) {
            for (const int from : {0, 1}) {
                char data[4096];
                const size_t most = from == 0 ? std::min<size_t>(sizeof data, static_cast<size_t>(bytes)) : sizeof data;
                const ssize_t size = ends[from].revents != 0 ? read(ends[from].fd, data, most) : 0;
                if (size < 0 || (ends[from].revents != 0 && size == 0) ||
                    write(ends[1 - from].fd, data, size) != size) {
                    return 0;
                }
                bytes -= from == 0 ? size : 0;
            }
        }
        return hangs ? pause() : 0;
    });
    close(listener);
    return name;
}

// A user's copy and a newer shipped client, and one start of the launcher. Several can be at work at a time.
class Stage : public ScratchTest
{
public:
    using ScratchTest::Log;
    using ScratchTest::Path;
    using ScratchTest::Shell;

    // "old" and "new" is what the clients say when they are started.
    Stage()
    {
        Shell("cp -R '" BRIMLOCK_INSTALLED "' opt; mkdir -p home");
        for (const auto &[folder, build, name] : {std::tuple(app, "1000", "old"), {package, "1001", "new"}}) {
            const std::string sign = "\necho " + std::string(name) +
                                     " $1${QT_QPA_PLATFORM+ platform=$QT_QPA_PLATFORM} >>'" + Path("started") + "'\n";
            WriteFile(folder + "/INFO", std::string("[Version]\nbuild_version=") + build + "\n");
            WriteFile(folder + "/bin/brimlock-ui", name, 0755);
            WriteFile(folder + "/package/start-stop", "#!/bin/sh" + sign, 0755);
        }
        Shell(
            "cp opt/package/larkspire/INFO opt; printf 'launcher_debug=7\nservice_debug=7\n' >opt/log/launcher.debug");
    }

    ~Stage() override
    {
        if (proxy != 0) {
            kill(proxy, SIGKILL);
            Wait(proxy);
        }
    }

    void TestBody() override {}

    // Runs the command, in which $L is the launcher, as the user. What is `atTheGate` happens in the middle of the
    // upgrade; $PID is the launcher there. Not `here` means in another network.
    void Start(const std::string &command = "exec $L", const std::string &atTheGate = "", bool here = true)
    {
        // As far as what is in there stands still: a launcher may be at work.
        Shell("test $(id -u) != 0 || chown -hR 65534:65534 home $(test ! -e disk || echo disk) || true");
        launcher = Spawn([&]() -> int {
            const rlimit limit = {fileBytes, fileBytes};
            setenv("HOME", Path("home").c_str(), 1);
            setenv("DISPLAY", display.c_str(), 1);
            here || EnterOwnNetwork();
            BecomeUnprivileged();
            return chdir(scratch.c_str()) != 0 || freopen("home/stderr", "w", stderr) == nullptr ||
                   setrlimit(RLIMIT_FSIZE, &limit) != 0 ||
                   execl("/bin/sh", "sh", "-c", ("L=opt/bin/launcher; " + command).c_str(), nullptr);
        });
        if (!atTheGate.empty()) {
            Shell("mkfifo -m 666 " + kGate);
            gate = Spawn([&]() -> int {
                BecomeUnprivileged();
                const std::string whole = "exec 3>" + kGate + "; PID=" + std::to_string(launcher) + "; " + atTheGate;
                return chdir(scratch.c_str()) != 0 ||
                       execlp("timeout", "timeout", "30", "sh", "-c", whole.c_str(), nullptr);
            });
        }
    }

    // Waits for the end of what was started.
    void End(const std::string &started, const std::string &logged = "")
    {
        EXPECT_TRUE(gate == 0 || Wait(gate) == 0) << "it came to the gate";
        EXPECT_EQ(Wait(launcher), 0);
        EXPECT_EQ(Started(), started.empty() ? "" : started + "\n");
        EXPECT_TRUE(logged.empty() || Logged(logged) == 1) << logged;
    }

    int Logged(const std::string &text) const
    {
        return CountOf(ReadFile(Path("home/.Brimlock/log/launcher.log")) + ReadFile(Path("home/stderr")), text);
    }
    std::string Started() const { return ReadFile(Path("started")); }

    std::string display; // that launchers are told of
    rlim_t fileBytes = RLIM_INFINITY;
    pid_t launcher = 0;
    pid_t gate = 0;
    pid_t proxy = 0;
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

TEST(LaunchTest, WholeRunsReadAsTheyAlwaysDid)
{
    Stage stage;
    stage.Shell("rm -r home/.Brimlock; mkdir -p home/.Larkspire/app/x");
    const char *const runs[][2] = {
        {"first install", "true"},
        {"nothing to do", "true"},
        {"upgrade", "sed -i s/1001/1002/ opt/INFO opt/package/larkspire/INFO"},
        {"nothing to do: a downgrade", "sed -i s/1002/1001/ opt/INFO"},
        {"failed upgrade", "sed -i s/1001/1003/ opt/INFO; ln -s nothing opt/package/larkspire/link"}};
    std::string started;
    for (const auto &[run, change] : runs) {
        stage.Shell(std::string(change) + "; mkdir -p home/.Brimlock/log; echo '== " + run + "' >>" + kLog);
        stage.Start();
        started += started.empty() ? "new start" : "\nnew start";
        stage.End(started);
    }
    EXPECT_FALSE(fs::exists(stage.Path("home/.Larkspire/app")));
    // Without what no two runs share, and without the copied folders, whose order is the disk's.
    stage.Shell("sed -E 's/^[0-9T:-]+ \\( *[0-9]+: *[0-9]+\\) //; s/\\([0-9]+\\): /: /; s|'\"$PWD\"'||g; "
                "/copy from .*larkspire.[a-z]/d' " +
                kLog + " >plain");
    EXPECT_EQ(ReadFile(stage.Path("plain")), ReadFile(BRIMLOCK_TESTS "/launch-log.txt"));
}

TEST(LaunchTest, NothingAroundAStartCostsTheClient)
{
    const std::string noWindow = "no window is shown\n";
    const struct {
        std::string prepare, start, atTheGate, started, logged;
    } cases[] = {
#include "tests/start-cases.inc"
    };
    setenv("QT_X11_NO_MITSHM", "1", 1); // its descriptors do not pass the proxy
    std::deque<Stage> hanging;
    for (const long bytes : {0, 3000, 8000, 9500}) { // about 9700 are said until the window is there
        Stage &stage = hanging.emplace_back();
        stage.display = DisplayUntil(bytes, true, stage.proxy);
        stage.Start("exec $L", "", !hasOwnNetwork);
        hasOwnNetwork ? (void)0 : stage.End("new start");
    }
    for (const auto &c : cases) {
        SCOPED_TRACE(c.prepare + " | " + c.start + " | " + c.atTheGate);
        Stage stage;
        stage.Shell("SCRIPT=opt/package/larkspire/package/start-stop INFO=opt/INFO LOGS=home/.Brimlock/log\n" +
                    c.prepare + "\n:");
        stage.Start(c.start, c.atTheGate);
        stage.End(c.started, c.logged);
    }
    for (long bytes = 0; bytes < 11000; bytes += 900) {
        SCOPED_TRACE("the display dies after " + std::to_string(bytes) + " bytes");
        Stage stage;
        stage.display = DisplayUntil(bytes, false, stage.proxy);
        stage.Start();
        stage.End("new start");
    }
    for (Stage &stage : hanging) {
        if (hasOwnNetwork) {
            stage.End("new start");
        }
    }
    unsetenv("QT_X11_NO_MITSHM");
}

TEST(LaunchTest, BadInputCostsNobodyTheClient)
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
    for (const auto &[spoil, client, message] : cases) {
        SCOPED_TRACE(spoil);
        Stage stage;
        stage.display = ":987"; // which is not there
        stage.fileBytes = 64 << 10;
        const auto old = Tree(stage.app);
        stage.Shell(names + spoil);
        stage.Start();
        stage.End(std::string(client) + " start", message);
        EXPECT_EQ(Tree(stage.app), client == std::string("old") ? old : Tree(stage.package));
    }
}

TEST(LaunchTest, OneLauncherOfAUserRunsAtATime)
{
    // A stranger has some of the names, and listens under one. Only root can play the stranger.
    const uid_t user = getuid() == 0 ? kNobody : getuid();
    std::vector<int> strangers;
    for (const char *name : {"", "-1"}) {
        sockaddr_un address = {AF_UNIX, ""};
        const int size = snprintf(address.sun_path + 1, 100, "veltrano-brimlock-launcher-%u%s", user, name);
        strangers.push_back(socket(AF_UNIX, SOCK_STREAM, 0));
        if (getuid() == 0) {
            ASSERT_EQ(bind(strangers.back(), reinterpret_cast<const sockaddr *>(&address),
                           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(size))),
                      0);
        }
    }
    listen(strangers[0], 1);

    Stage stage;
    stage.Start("for v in XDG_RUNTIME_DIR TMPDIR XDG_DATA_HOME USER A B; do env $v=/x $L & done; wait",
                "until [ $(grep -c 'app has already launched, return' " + kLog + ") = 5 ]; do sleep 0.01; done");
    stage.End("new start");

    Stage killed;
    killed.Start("exec $L", "kill -KILL $PID");
    EXPECT_EQ(Wait(killed.launcher), 128 + SIGKILL);
    killed.Shell("rm " + kGate);
    killed.Start();
    killed.End("new start");
}

TEST(LaunchTest, NothingThatHappensToTheWindowEndsTheRun)
{
    for (const auto &[dpi, geometry] : {std::pair("96", "Geometry: 400x"), {"144", "Geometry: 600x"}}) {
        Stage stage;
        stage.display = getenv("DISPLAY");
        setenv("QT_FONT_DPI", dpi, 1);
        stage.Start("exec $L", "while [ ! -e go ]; do sleep 0.01; done");
        EXPECT_NE(AskWindow("getwindowgeometry").find(geometry), std::string::npos);
        AskWindow("key --window %1 Escape sleep 0.3");
        EXPECT_NE(AskWindow(""), "") << "it is still there";
        AskWindow("windowkill");
        EXPECT_EQ(stage.Started(), "");
        stage.Shell(": >go");
        stage.End("new start"); // also when the display has cut the connection
    }
}

TEST(LaunchTest, WarnsOfAStartScriptThatDoesNotReturn)
{
    Stage stage;
    WriteFile(stage.Path("slow"), "#!/bin/sh\nsleep 0.2\necho $1 >'" + stage.Path("started") + "'", 0755);
    RunStartScript(stage.Path("slow"), 100);
    EXPECT_EQ(stage.Started(), "start\n") << "it is waited for";
    EXPECT_EQ(CountOf(stage.Log(), "has not returned for"), 1);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    unsetenv("QT_QPA_PLATFORM");
    hasOwnNetwork = EnterOwnNetwork();
    return RUN_ALL_TESTS();
}
