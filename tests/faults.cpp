// Cuts an upgrade short at each of its file-changing system calls, by SIGKILL, by a power cut on a modelled disk and by
// errors, and looks at what the next starts make of it. Started by scripts/faults, as root: the launcher itself runs as
// an ordinary user.
//
// The modelled disk keeps what is done to folders in order, and loses the content of every file that was not flushed.

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <map>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>

#include "service/user-folder-lock.h"
#include "tests/support.h"

namespace
{
constexpr int kPowerCut = -1;
constexpr int kPowerCutButInfo = -2;
constexpr int kKill = -3;

// What happens to a start at one of its calls. The first call has number 0; -1 hits none.
struct Plan {
    int call = -1;
    int fault = kKill; // or an error number
};

// A state of the home, and what is done in it.
struct Flow {
    std::string name;
    bool hasCopy;
    bool isPackageBroken;
    int killedBefore; // the call that an earlier start was killed at; -1: there was none
};

// What is at stake: the two copies, and everything else that is in the home.
struct Trees {
    std::set<std::string> oldCopy;
    std::set<std::string> newCopy;
    std::set<std::string> rest;
};

const std::string work = fs::current_path();
const std::string home = work + "/home";
const std::string app = home + "/.Brimlock/Brimlock.app";
const std::string package = work + "/opt/package/larkspire";

int row[2] = {}; // how many things were wrong in it, and how many right
int all[2] = {};

void Report(const std::string &what, const std::string &wrong)
{
    ++row[wrong.empty()];
    if (!wrong.empty()) {
        printf("FAILED %s: %s\n", what.c_str(), wrong.c_str());
    }
}

// A row of the table, with what has been reported since the last.
void EndRow(const std::string &name)
{
    printf("| %-50s | %6d | %6d |\n", name.c_str(), row[true], row[false]);
    fflush(stdout);
    for (const bool isRight : {false, true}) {
        all[isRight] += row[isRight];
        row[isRight] = 0;
    }
}

void Shell(const std::string &command)
{
    if (system(command.c_str()) != 0) {
        printf("failed: %s\n", command.c_str());
        exit(1);
    }
}

// The path in the home, its log aside, that a system call changes or flushes; "" for every other call.
std::string ChangedPath(pid_t thread, const __ptrace_syscall_info &info)
{
    static const std::map<uint64_t, int> pathArguments = {{SYS_openat, 1}, {SYS_rename, 0}, {SYS_unlink, 0},
                                                          {SYS_rmdir, 0},  {SYS_mkdir, 0},  {SYS_chmod, 0}};
    static const std::set<uint64_t> onDescriptors = {SYS_write, SYS_ftruncate, SYS_fsync, SYS_syncfs};
    const std::string process = "/proc/" + std::to_string(thread);
    std::string path;
    if (const auto found = pathArguments.find(info.entry.nr); found != pathArguments.end()) {
        if (info.entry.nr == SYS_openat && (info.entry.args[2] & (O_CREAT | O_TRUNC)) == 0) {
            return "";
        }
        std::ifstream memory(process + "/mem");
        memory.seekg(static_cast<std::streamoff>(info.entry.args[found->second]));
        std::getline(memory, path, '\0');
    } else if (onDescriptors.count(info.entry.nr) != 0) {
        std::error_code none;
        path = fs::read_symlink(process + "/fd/" + std::to_string(info.entry.args[0]), none);
    }
    return path.rfind(home, 0) == 0 && path.find("/.Brimlock/log") == std::string::npos ? path : "";
}

pid_t SpawnLauncher(bool isTraced = false, bool isAlone = false)
{
    return Spawn([=]() -> int {
        // As far as this one can see, no other launcher is there: neither its /tmp nor its sockets.
        if (isAlone && (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 || mount("tmp", "/tmp", "tmpfs", 0, nullptr) != 0)) {
            return 99;
        }
        BecomeUnprivileged();
        if (isTraced) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
        }
        return freopen("stderr", "a", stderr) == nullptr || // what the toolkit has to say of a bare system
               execl((work + "/opt/bin/launcher").c_str(), "launcher", nullptr);
    });
}

// One start, disturbed as planned. Returns its exit status; `calls` becomes the number of calls that it made.
int StartTraced(const Plan &plan, int &calls)
{
    const pid_t launcher = SpawnLauncher(true);
    int status = 0;
    waitpid(launcher, &status, 0);
    ptrace(PTRACE_SETOPTIONS, launcher, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
    ptrace(PTRACE_SYSCALL, launcher, nullptr, 0);

    std::set<ino_t> unflushed;
    pid_t failing = 0; // the thread whose call is made to fail
    calls = 0;
    for (pid_t thread = 0; (thread = waitpid(-1, &status, __WALL)) > 0;) {
        if (!WIFSTOPPED(status)) {
            if (thread == launcher) {
                break;
            }
            continue;
        }
        const bool isOwnSignal = WSTOPSIG(status) != SIGTRAP && WSTOPSIG(status) != SIGSTOP;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            ptrace(PTRACE_SYSCALL, thread, nullptr, isOwnSignal ? WSTOPSIG(status) : 0);
            continue;
        }
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_EXIT && failing == thread) {
            ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, rax), -plan.fault);
            failing = 0;
        }
        const std::string path = info.op == PTRACE_SYSCALL_INFO_ENTRY ? ChangedPath(thread, info) : "";
        if (!path.empty()) {
            struct stat file = {};
            stat(path.c_str(), &file);
            if (calls++ == plan.call && plan.fault > 0) {
                ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, orig_rax), -1); // which makes none
                failing = thread;
            } else if (calls - 1 == plan.call) {
                kill(launcher, SIGKILL);
            } else if (info.entry.nr == SYS_write) {
                unflushed.insert(file.st_ino);
            } else if (info.entry.nr == SYS_fsync) {
                unflushed.erase(file.st_ino);
            } else if (info.entry.nr == SYS_syncfs) {
                unflushed.clear();
            }
        }
        ptrace(PTRACE_SYSCALL, thread, nullptr, 0);
    }
    for (const auto &entry : fs::recursive_directory_iterator(home)) {
        struct stat file = {};
        lstat(entry.path().c_str(), &file);
        const bool isLost =
            plan.fault == kPowerCut || (plan.fault == kPowerCutButInfo && entry.path().filename() != "INFO");
        if (isLost && S_ISREG(file.st_mode) && unflushed.count(file.st_ino) != 0) {
            fs::resize_file(entry.path(), 0);
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void BreakPackage(bool isBroken)
{
    Shell(isBroken ? "ln -sfn nowhere opt/package/larkspire/lib/broken" : "rm -f opt/package/larkspire/lib/broken");
}

// The home but for the app folder and the log.
std::set<std::string> Rest()
{
    static const std::regex own("^\\.Brimlock/(Brimlock\\.app$|Brimlock\\.app/|log)");
    std::set<std::string> rest;
    for (const std::string &entry : Tree(home)) {
        if (!std::regex_search(entry, own)) {
            rest.insert(entry);
        }
    }
    return rest;
}

// A user's home, with a copy or without, and a newer package.
Trees Prepare(bool hasCopy)
{
    Shell("rm -rf home started opt/package/larkspire/lib/broken; app=home/.Brimlock/Brimlock.app ui=bin/brimlock-ui; . "
          "'" BRIMLOCK_TESTS "/make-clients.sh'; mkdir -p home/.hidden home/.Brimlock/data $app/lib/.deep; "
          "echo kept | tee home/.hidden/file home/.Brimlock/data/db >$app/only-old; "
          "head -c 20000 /dev/urandom | tee -a $folder/lib/.deep/data >$app/lib/.deep/data");
    Trees trees = {Tree(app), Tree(package), Rest()};
    Shell(std::string(hasCopy ? "" : "rm -r home/.Brimlock/Brimlock.app; ") + "chown -hR 65534:65534 home");
    return trees;
}

// What is wrong after a start, "" for nothing. Where it must have settled, the new copy is in place and nothing else
// has changed; else the old one may be.
std::string Wrong(int status, const Trees &trees, bool mustHaveSettled)
{
    const std::set<std::string> copy = fs::exists(app) ? Tree(app) : std::set<std::string>();
    const std::string ran = ReadFile(work + "/started");
    const std::string name = copy == trees.newCopy ? "1001 start\n" : "1000 start\n";
    if (status != 0) {
        return "exit status " + std::to_string(status);
    }
    if (copy != trees.newCopy && (mustHaveSettled || copy != trees.oldCopy)) {
        return "the wrong copy, or one that is not whole";
    }
    if (ran.size() < name.size() || ran.substr(ran.size() - name.size()) != name) {
        return "its start script did not run";
    }
    return mustHaveSettled && Rest() != trees.rest ? "something else in the home has changed" : "";
}

// Hits every `stride`-th call of the flow. Each time a good start follows, at once and after one that fails.
void Hit(const Flow &flow, int fault, const std::string &name, int stride)
{
    int calls = 1;
    for (int call = -1; call < calls; call += call < 0 ? 1 : stride) {
        int made = 0;
        for (const bool failsFirst : {false, true}) {
            const std::string where = flow.name + ", " + name + " at call " + std::to_string(call);
            const Trees trees = Prepare(flow.hasCopy);
            if (flow.killedBefore >= 0) {
                StartTraced({flow.killedBefore}, made);
            }
            BreakPackage(flow.isPackageBroken);
            const int status = StartTraced({call, fault}, made);
            if (call < 0) {
                calls = made; // of a start that nothing happens to
                break;
            }
            if (fault < 0) {
                Report(where, status == 128 + SIGKILL ? "" : "was not made");
            } else if (flow.hasCopy) {
                Report(where, Wrong(status, trees, false));
            }
            if (failsFirst) {
                BreakPackage(true);
                const int failing = Wait(SpawnLauncher());
                if (flow.hasCopy) {
                    Report(where + ", then a start that fails", Wrong(failing, trees, false));
                }
            }
            BreakPackage(false);
            Report(where + ", then a good start", Wrong(Wait(SpawnLauncher()), trees, true));
        }
    }
    EndRow(flow.name + ", " + name);
}

void FullAndReadOnly()
{
    for (const std::string spoil : {"head -c 2M /dev/zero >fill 2>/dev/null || true", "mount -o remount,ro ."}) {
        const Trees trees = Prepare(true);
        Shell("mv home saved; mkdir home; mount -t tmpfs -o size=1m none home; cp -a saved/. home; cd home; " + spoil);
        const std::string wrong = Wrong(Wait(SpawnLauncher()), trees, false);
        Report(spoil, Tree(app) == trees.oldCopy ? wrong : "the old copy is gone");
        Shell("rm -f home/fill; umount home; rm -r saved");
    }
    EndRow("a full and a read-only file system");
}

void Pairs(int stride)
{
    // A large file, so that the first takes longer than that.
    Shell("head -c 30M /dev/zero >'" + package +
          "/large'; mkdir -p opt/log; echo service_debug=6 >opt/log/launcher.debug");
    for (int ms = 0; ms <= 20; ms += stride > 1 ? 4 : 1) {
        const Trees trees = Prepare(true);
        const pid_t first = SpawnLauncher(false, true);
        usleep(static_cast<useconds_t>(ms) * 1000);
        const int second = Wait(SpawnLauncher(false, true));
        Report(std::to_string(ms) + " ms apart", Wrong(Wait(first) + second, trees, true));
        const std::string log = ReadFile(home + "/.Brimlock/log/launcher.log");
        Report("one of them upgrades, both start the client",
               CountOf(log, "copy package") == 1 && CountOf(ReadFile(work + "/started"), "1001") == 2 ? "" : log);
    }
    Shell("rm '" + package + "/large' opt/log/launcher.debug");
    EndRow("two launchers that cannot see each other's /tmp");
}

// Another launcher that never ends its turn, and a start script that takes its time.
void Patience()
{
    Trees trees = Prepare(true);
    Shell("echo 'sleep 62' >>'" + app + "/package/start-stop'");
    trees.oldCopy = Tree(app);
    const pid_t other = Spawn([] {
        BecomeUnprivileged();
        UserFolderLock lock;
        return lock.Acquire(home + "/.Brimlock", {}) == UserFolderLock::HELD ? pause() : 1;
    });
    sleep(1);
    const int status = Wait(SpawnLauncher(), 150000);
    const std::string log = ReadFile(home + "/.Brimlock/log/launcher.log");
    Report("a start that others hold up", Tree(app) == trees.oldCopy ? Wrong(status, trees, false) : "not held up");
    Report("its WARNING lines", CountOf(log, "[WARNING]") == 2 ? "" : "missing: " + log);
    kill(other, SIGKILL);
    Wait(other);
    EndRow("a turn and a start script that do not end");
}

void TwelveRounds()
{
    const Trees trees = Prepare(true);
    for (int round = 0; round < 12; ++round) {
        int calls = 0;
        BreakPackage(false);
        StartTraced({4 + 3 * round}, calls);
        BreakPackage(true);
        Report("a failing upgrade after a kill", Wrong(Wait(SpawnLauncher()), trees, false));
    }
    BreakPackage(false);
    Report("one good upgrade after twelve rounds", Wrong(Wait(SpawnLauncher()), trees, true));
    EndRow("twelve rounds of a kill and a failing upgrade");
}
} // namespace

// Runs in a scratch folder with a staged install in "opt". Argument: every how many-th call is hit.
// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown ends the run with a failure
int main(int argc, char **argv)
{
    const int stride = argc > 1 ? atoi(argv[1]) : 1;
    umask(022);
    for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "XDG_CURRENT_DESKTOP"}) {
        unsetenv(variable);
    }
    setenv("HOME", home.c_str(), 1);
    Shell("chmod 777 .");

    printf("| what is done to the launcher                       | passed | failed |\n|---|---|---|\n");
    for (const Flow &flow : {Flow{"an upgrade", true, false, -1},
                             {"a first install", false, false, -1},
                             {"a failing upgrade", true, true, -1},
                             {"putting right", true, false, 15}}) {
        Hit(flow, kKill, "SIGKILL", stride);
        Hit(flow, kPowerCut, "power cut", stride);
        Hit(flow, kPowerCutButInfo, "power cut that spares INFO", stride);
        for (const int error : {EIO, ENOSPC, EACCES, EINTR}) {
            Hit(flow, error, strerror(error), stride);
        }
    }
    FullAndReadOnly();
    Pairs(stride);
    Patience();
    TwelveRounds();
    printf("%d passed, %d failed\n", all[true], all[false]);
    return all[false] == 0 && all[true] > 0 ? 0 : 1;
}
