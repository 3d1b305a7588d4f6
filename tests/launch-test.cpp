// Tests the installed program, started by an unprivileged user.

#include <cstddef>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "tests/support.h"

namespace
{
// The variables of the tests' shell commands, which run in the scratch folder.
const std::string kVariables =
    "L=opt/bin/launcher INFO=opt/INFO LEVELS=opt/log/launcher.debug PACKAGE=opt/package/larkspire "
    "SCRIPT=$PACKAGE/package/start-stop GATE=$PACKAGE/gate BASE=home/.Brimlock "
    "APP=$BASE/Brimlock.app PIDFILE=$BASE/ui.pid LOG=$BASE/log/launcher.log "
    "SURROUNDINGS=./surroundings.sh\n";
const std::string kDisplays = "/tmp/.X11-unix/X"; // the socket of display 0 is this and "0"

int OpenSocket(const std::string &name, int (*use)(int, const sockaddr *, socklen_t))
{
    sockaddr_un address = {AF_UNIX, ""};
    const size_t size =
        offsetof(sockaddr_un, sun_path) + name.copy(address.sun_path, sizeof address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(use(fd, reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(size)),
              0)
        << name;
    return fd;
}

// Starts a proxy of the X server $X_SERVER. After it has forwarded `bytes` bytes of its client, it
// closes the connection, or hangs.
pid_t StartDisplay(const std::string &name, int bytes, bool hangs)
{
    const int listener = OpenSocket(name, bind);
    chmod(name.c_str(), 0777);
    listen(listener, 1);
    const pid_t proxy = Spawn([&]() {
        const int client = accept(listener, nullptr, nullptr);
        const int ends[] = {client, OpenSocket(kDisplays + (getenv("X_SERVER") + 1), connect)};
        pollfd events[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
        while (bytes > 0 && poll(events, 2, -1) > 0) {
            char data[4096];
            const int from = events[0].revents != 0 ? 0 : 1;
            const size_t most = from == 0 ? static_cast<size_t>(bytes) : sizeof data;
            const ssize_t size = read(ends[from], data, std::min(most, sizeof data));
            if (size <= 0 || write(ends[1 - from], data, static_cast<size_t>(size)) != size) {
                return 0;
            }
            bytes -= from == 0 ? static_cast<int>(size) : 0;
        }
        return hangs ? pause() : 0;
    });
    close(listener);
    return proxy;
}

struct Case {
    std::string prepare = {};       // commands before the start, in the scratch folder
    std::string client = "new";     // which copy's start script must run: "old", "new" or none
    std::string check = "true";     // commands after the start
    std::string start = "true";     // commands of the user's shell, before it executes the launcher
    std::string duringUpgrade = {}; // the user's commands in mid-upgrade; $PID is the launcher
};

// A home with the user's copy, an installation with a newer shipped client, and one start of the
// launcher.
class StagedStart : public ScratchFolder
{
public:
    explicit StagedStart(const Case &toStart = {}) : c(toStart)
    {
        // The checkout may be in a home that only root may enter.
        Shell("install -m 644 '" BRIMLOCK_TESTS "/surroundings.sh' .;"
              "cp -R '" BRIMLOCK_INSTALLED "' opt; app=$APP ui=bin/brimlock-ui;"
              ". '" BRIMLOCK_TESTS "/make-clients.sh'; printf '%9000d' 1 >$PACKAGE/large;"
              "printf 'launcher_debug=7\nservice_debug=7\nfile_op_debug=4\n' >$LEVELS;"
              "for script in $APP/package/start-stop $SCRIPT; do"
              "  echo \". '$PWD/surroundings.sh' >'$PWD/inherited'\" >>$script; done");
        oldCopy = Tree(app);
    }

    std::string Shell(const std::string &commands) const
    {
        return ScratchFolder::Shell(kVariables + commands);
    }

    void Start()
    {
        Shell(c.prepare +
              "\n[ $(id -u) != 0 ] || chown -hR 65534:65534 $(ls -d home disk || true)" +
              (c.duringUpgrade.empty() ? "" : "\nmkfifo -m 666 $GATE"));
        launcher = AsTheUser(c.start + "; . $SURROUNDINGS >home/given; exec $L");
        if (!c.duringUpgrade.empty()) {
            // The package contains a FIFO. To open it, the launcher, which copies it, and this
            // shell wait for each other. Until the shell closes it, the upgrade does not go on.
            const std::string pid = "PID=" + std::to_string(launcher);
            gate = AsTheUser("set -e; exec 3>$GATE; " + pid + "; " + c.duringUpgrade);
        }
    }

    pid_t AsTheUser(const std::string &command)
    {
        return Spawn([&]() -> int {
            setenv("HOME", Path("home").c_str(), 1);
            BecomeUnprivileged();
            close_range(STDERR_FILENO + 1, ~0U, 0);
            return chdir(scratch.c_str()) != 0 || freopen("/dev/zero", "r", stdin) == nullptr ||
                   freopen("home/stdout", "a", stdout) == nullptr ||
                   freopen("home/stderr", "a", stderr) == nullptr ||
                   execl("/bin/sh", "sh", "-c", (kVariables + command).c_str(), nullptr);
        });
    }

    // Waits for the processes, and checks the started client, the user's copy and the log.
    void End()
    {
        SCOPED_TRACE("before the start: " + c.prepare + "\nthe start: " + c.start +
                     "\nduring the upgrade: " + c.duringUpgrade);
        EXPECT_EQ(gate == 0 ? 0 : Wait(gate), 0) << "during the upgrade";
        EXPECT_EQ(Wait(launcher), 0);
        if (c.client.empty()) {
            EXPECT_FALSE(fs::exists(Path("started")));
        } else {
            const bool isOld = c.client == "old";
            EXPECT_EQ(ReadFile(Path("started")), isOld ? "1000 start\n" : "1001 start\n");
            Shell("diff home/given inherited");
            Shell("rm -f $GATE $APP/gate");
            EXPECT_EQ(Tree(app), isOld ? oldCopy : Tree(package));
        }
        Shell("logged() { cat $LOG home/stderr | grep -c \"$1\" | grep -qx 1; }\n" + c.check);
    }

    Case c;
    pid_t launcher = 0;
    pid_t gate = 0; // the shell that executes c.duringUpgrade
    std::set<std::string> oldCopy;
    const std::string app = Path("home/.Brimlock/Brimlock.app");
    const std::string package = Path("opt/package/larkspire");
};

void MakeStart(const Case &c)
{
    StagedStart stage(c);
    stage.Start();
    stage.End();
}
} // namespace

TEST(LaunchTest, TheLogOfAStartIsUnchanged)
{
    StagedStart stage;
    stage.Shell("rm -r $BASE; mkdir -p home/.Larkspire/app/x");
    const std::pair<std::string, std::string> starts[] = {
#include "tests/log-start-cases.inc"
    };
    for (const auto &[name, change] : starts) {
        stage.c.prepare = change + "; mkdir -p $BASE/log; echo '== " + name + "' >>$LOG";
        stage.Start();
        EXPECT_EQ(Wait(stage.launcher), 0);
    }
    // Removes the lines of folders in the package, because their order depends on the file system,
    // and all start markers except the first.
    stage.Shell("sed -i -E '/cpp.[0-9]+.: copy from .*larkspire.[a-z]/d;"
                "/^== nothing/,$ { / >>> /d }' $LOG");
    EXPECT_EQ(stage.PlainLog("home/.Brimlock/log/launcher.log"),
              ReadFile(BRIMLOCK_TESTS "/launch-log.txt"));
}

TEST(LaunchTest, AClientStartsDespiteDamagedFilesSignalsAndLimits)
{
    const std::tuple<const char *, const char *, const char *> spoils[] = {
#include "tests/spoil-cases.inc"
    };
    const std::tuple<const char *, const char *, const char *, const char *> starts[] = {
#include "tests/start-cases.inc"
    };
    for (const auto &[prepare, client, check] : spoils) {
        MakeStart({prepare, client, check});
    }
    for (const auto &[start, duringUpgrade, client, check] : starts) {
        MakeStart({"", client, check, start, duringUpgrade});
    }
}

TEST(LaunchTest, AClientStartsAlsoWhenTheDisplayFails)
{
    const std::pair<int, bool> displays[] = {
#include "tests/display-cases.inc"
    };
    setenv("QT_X11_NO_MITSHM", "1", 1); // the proxy forwards no descriptors
    const std::string number = std::to_string(getpid() * 100);
    for (const auto &[bytes, hangs] : displays) {
        SCOPED_TRACE(bytes);
        const pid_t proxy = StartDisplay(kDisplays + number, bytes, hangs);
        // Also when the caller has blocked the signals of the timer and of a crash.
        MakeStart({"", "new", "true",
                   "export DISPLAY=:" + number +
                       "; exec env --block-signal=ALRM,ABRT "
                       "sh -c \". '$SURROUNDINGS' >home/given; exec $L\""});
        kill(proxy, SIGKILL);
        Wait(proxy);
        unlink((kDisplays + number).c_str());
    }
}

TEST(LaunchTest, OneLauncherOfAUserRunsAtATime)
{
    const std::string name =
        '\0' + std::string("veltrano-brimlock-launcher-") + std::to_string(kNobody);
    const Case six = {
        "", "new", "true",
        "n=6; for v in XDG_RUNTIME_DIR TMPDIR XDG_DATA_HOME USER A B; do "
        "n=$((n - 1)); (sleep 0.$n; exec env $v=/x $L) & done; wait; cp inherited home/given; exit",
        "until [ $(grep -c 'app has already launched, return' $LOG) = 5 ]; do sleep 0.01; done"};
    // Another user may hold the name: and accept connections, not listen, or have a full queue.
    // Only a test that runs as root can be this other user.
    enum Holder { kNobodyElse, kAnswers, kSilent, kFull };
    for (const Holder holder : {kNobodyElse, kAnswers, kSilent, kFull}) {
        SCOPED_TRACE(holder);
        const bool isHeld = holder != kNobodyElse && getuid() == 0;
        const int listener = isHeld ? OpenSocket(name, bind) : -1;
        if (isHeld && holder != kSilent) {
            listen(listener, holder == kFull ? 0 : SOMAXCONN);
        }
        const int caller = isHeld && holder == kFull ? OpenSocket(name, connect) : -1;
        MakeStart(six);
        close(listener);
        close(caller);
    }
}
