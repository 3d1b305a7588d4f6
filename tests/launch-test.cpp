// The whole program, started as a user starts it: as it is installed, without root's powers.

#include <cstddef>
#include <deque>
#include <memory>

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "service/linux/start-script.h"
#include "tests/support.h"

namespace
{
const std::string kGate = "opt/package/larkspire/gate"; // a file that the copying waits for
const std::string kLog = "home/.Brimlock/log/launcher.log";
const std::string kDisplays = "/tmp/.X11-unix/X"; // and the number: their sockets
bool hasOwnNetwork = false;

// The guard's names are those of the network. In one of its own a launcher meets nobody.
bool EnterOwnNetwork()
{
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    const bool hasEntered = unshare(getuid() == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER) == 0;
    // As who they were; refused where it is not needed.
    std::ofstream("/proc/self/uid_map") << user << " " << user << " 1";
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/gid_map") << group << " " << group << " 1";
    return hasEntered;
}

int OpenSocket(const std::string &name, int (*use)(int, const sockaddr *, socklen_t))
{
    sockaddr_un address = {AF_UNIX, ""};
    const size_t size = offsetof(sockaddr_un, sun_path) + name.copy(address.sun_path, sizeof address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(use(fd, reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(size)), 0) << name;
    return fd;
}

// As the display of this socket, passes on what one client says, up to this many bytes. Then it hangs up, or hangs.
pid_t StartDisplay(const std::string &name, size_t bytes, bool hangs)
{
    const int listener = OpenSocket(name, bind);
    chmod(name.c_str(), 0777);
    listen(listener, 1);
    const pid_t proxy = Spawn([&]() {
        const int client = accept(listener, nullptr, nullptr);
        const int ends[] = {client, OpenSocket(kDisplays + (getenv("DISPLAY") + 1), connect)};
        pollfd events[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
        while (bytes > 0 && poll(events, 2, -1) > 0) {
            char data[4096];
            const int from = events[0].revents != 0 ? 0 : 1;
            const ssize_t size = read(ends[from], data, std::min(from == 0 ? bytes : sizeof data, sizeof data));
            if (size <= 0 || write(ends[1 - from], data, static_cast<size_t>(size)) != size) {
                return 0;
            }
            bytes -= from == 0 ? static_cast<size_t>(size) : 0;
        }
        return hangs ? pause() : 0;
    });
    close(listener);
    return proxy;
}

struct Case {
    std::string prepare = {};      // by a shell, in the scratch folder
    std::string client = "new";    // which is started, if any
    std::string logged = {};       // once
    std::string start = "exec $L"; // by the user's shell; $L is the launcher
    std::string atTheGate = {};    // what happens in the middle of the upgrade; $PID is the launcher
    std::string says = {};         // the start script, beside its own words
    long displayBytes = -1;        // after so many from the launcher a display of its own hangs up
    bool displayHangs = false;     // or hangs
};

// A user's copy and a newer shipped client, and one start of the launcher. Several can be at work at a time.
class Stage : public ScratchTest
{
public:
    using ScratchTest::Log, ScratchTest::Path, ScratchTest::Shell;

    Stage()
    {
        Shell("cp -R '" BRIMLOCK_INSTALLED "' opt; app=home/.Brimlock/Brimlock.app ui=bin/brimlock-ui; "
              ". '" BRIMLOCK_TESTS
              "/make-clients.sh'; printf 'launcher_debug=7\nservice_debug=7\n' >opt/log/launcher.debug");
        old = Tree(app);
    }

    ~Stage() override
    {
        if (proxy != 0) {
            kill(proxy, SIGKILL);
            Wait(proxy);
            unlink((kDisplays + display.substr(1)).c_str());
        }
    }

    void TestBody() override {}

    void Start(const Case &toStart)
    {
        c = toStart;
        static int number = getpid() * 100;
        if (c.displayBytes >= 0) {
            display = ":" + std::to_string(++number);
            proxy = StartDisplay(kDisplays + display.substr(1), static_cast<size_t>(c.displayBytes), c.displayHangs);
        }
        Shell("INFO=opt/INFO BASE=home/.Brimlock APP=$BASE/Brimlock.app PID=$BASE/ui.pid LEVELS=opt/log/launcher.debug "
              "PACKAGE=opt/package/larkspire SCRIPT=$PACKAGE/package/start-stop\n" +
              c.prepare + "\ntest $(id -u) != 0 || chown -hR 65534:65534 home $(test ! -e disk || echo disk)" +
              (c.atTheGate.empty() ? "" : "; mkfifo -m 666 " + kGate)); // before anybody comes to it
        launcher = AsTheUser("L=opt/bin/launcher; " + c.start, isAlone);
        if (!c.atTheGate.empty()) {
            gate = AsTheUser("exec 3>" + kGate + "; PID=" + std::to_string(launcher) + "; " + c.atTheGate, false);
        }
    }

    pid_t AsTheUser(const std::string &command, bool entersOwnNetwork)
    {
        return Spawn([&]() -> int {
            setenv("HOME", Path("home").c_str(), 1);
            setenv("DISPLAY", display.c_str(), 1);
            if (entersOwnNetwork) {
                EnterOwnNetwork();
            }
            BecomeUnprivileged();
            return chdir(scratch.c_str()) != 0 || freopen("home/stderr", "a", stderr) == nullptr ||
                   execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        });
    }

    // Waits for the end of what was started, and looks at what it has left.
    void End()
    {
        SCOPED_TRACE(c.prepare + " | " + c.start + " | " + c.atTheGate + " | " + display);
        EXPECT_TRUE(gate == 0 || Wait(gate) == 0) << "it came to the gate";
        EXPECT_EQ(Wait(launcher), 0);
        const std::string build = c.client == "old" ? "1000" : "1001";
        EXPECT_EQ(Started(), c.client.empty() ? "" : build + " start" + c.says + "\n");
        EXPECT_TRUE(c.logged.empty() || CountOf(ReadFile(Path(kLog)) + ReadFile(Path("home/stderr")), c.logged) == 1)
            << c.logged;
        if (!c.client.empty()) {
            Shell("rm -f " + kGate + " '" + app + "/gate'");
            EXPECT_EQ(Tree(app), c.client == "old" ? old : Tree(package));
        }
    }

    std::string Started() const { return ReadFile(Path("started")); }

    std::string display = ":987"; // that the launcher is told of; this one is not there
    bool isAlone = true;          // meets no other launcher
    Case c;
    pid_t launcher = 0;
    pid_t gate = 0;
    pid_t proxy = 0;
    std::set<std::string> old; // the user's copy
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
#include "tests/run-cases.inc"
    };
    for (const auto &[run, change] : runs) {
        stage.Start({std::string(change) + "; mkdir -p $BASE/log; echo '== " + run + "' >>" + kLog});
        EXPECT_EQ(Wait(stage.launcher), 0);
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
    const Case cases[] = {
#include "tests/spoil-cases.inc"
#include "tests/start-cases.inc"
    };
    setenv("QT_X11_NO_MITSHM", "1", 1); // descriptors do not pass the proxy
    std::deque<Stage> hanging;
    std::deque<Stage> others;
    for (const Case &c : cases) {
        std::deque<Stage> &stages = c.displayHangs ? hanging : others;
        stages.emplace_back().Start(c);
        if (!hasOwnNetwork || others.size() > 2) {
            stages.front().End();
            stages.pop_front();
        }
    }
    for (std::deque<Stage> *stages : {&others, &hanging}) {
        for (Stage &stage : *stages) {
            stage.End();
        }
    }
}

TEST(LaunchTest, OneLauncherOfAUserRunsAtATime)
{
    // A stranger, whom only root can play, listens under one name and has another, and then all of them.
    const std::string name = '\0' + std::string("veltrano-brimlock-launcher-") + std::to_string(kNobody);
    listen(getuid() == 0 ? OpenSocket(name, bind) : -1, 1);
    int number = 1;
    for (const int taken : {2, 8}) {
        for (; number < taken && getuid() == 0; ++number) {
            OpenSocket(name + "-" + std::to_string(number), bind);
        }
        Stage stage;
        stage.isAlone = false;
        stage.Start({"", "new", "",
                     "for v in XDG_RUNTIME_DIR TMPDIR XDG_DATA_HOME USER A B; do env $v=/x $L & done; wait",
                     "until [ $(grep -c 'app has already launched, return' " + kLog + ") = 5 ]; do sleep 0.01; done"});
        stage.End();
    }

    Stage killed;
    killed.Start({"", "new", "", "exec $L", "kill -KILL $PID"});
    EXPECT_EQ(Wait(killed.launcher), 128 + SIGKILL);
    killed.Start({"rm " + kGate});
    killed.End();
}

TEST(LaunchTest, NothingThatHappensToTheWindowEndsTheRun)
{
    Stage stage;
    stage.display = getenv("DISPLAY");
    setenv("QT_FONT_DPI", "144", 1);
    stage.Start({"", "new", "", "exec $L",
                 "while [ ! -e go ]; do sleep 0.01; done; "
                 "[ \"$(grep -oE 'libqxcb|xcbgl' /proc/$PID/maps | uniq)\" = libqxcb ]"});
    EXPECT_NE(AskWindow("getwindowgeometry").find("Geometry: 600x"), std::string::npos);
    AskWindow("key --window %1 Escape sleep 0.3");
    EXPECT_NE(AskWindow(""), "") << "it is still there";
    AskWindow("windowkill");
    EXPECT_EQ(stage.Started(), "");
    stage.Shell(": >go");
    stage.End(); // also when the display has cut the connection
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
    // Nothing of the developer's desktop.
    for (const char *variable : {"QT_QPA_PLATFORM", "LANGUAGE", "WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP"}) {
        unsetenv(variable);
    }
    setenv("LC_ALL", "C", 1);
    hasOwnNetwork = EnterOwnNetwork();
    return RUN_ALL_TESTS();
}
