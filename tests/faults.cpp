// Causes a fault at each system call of an upgrade, and checks the starts that follow. Started by
// scripts/faults, as root; the launcher itself runs as an ordinary user.

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <map>
#include <random>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/user.h>

#include "tests/support.h"

namespace
{
// The faults. The power cuts must be first. A commit of the file system writes all changes of
// folders to the disk, but no file content that was not flushed.
enum Fault { POWER_CUT, POWER_CUT_AFTER_COMMIT, KILL, IO_ERROR, FULL_DISK, SECOND_LAUNCHER };
const std::string kFaultNames[] = {"power cut", "power cut after a commit",
                                   "SIGKILL",   "EIO, reading calls too",
                                   "full disk", "second launcher"};

constexpr long kIoError = -EIO; // as the kernel returns it

// What must be true after a start. For the last two, the client must also have been started from a
// complete copy.
enum Expected { EXITS, OLD_OR_NEW_COPY, NEW_COPY_ALONE };

// A start in which faults are caused.
struct Flow {
    std::string name;
    std::string home; // the state of the home before the start, see Save()
    bool isPackageBroken;
    Expected expected; // until a start without a fault has been made
};

struct Outcome {
    int status = 0;
    int calls = 0;     // the number of calls at which the fault could be caused
    int launchers = 1; // each of them starts a client
    std::string hit;   // the call at which the fault was caused, "" for none
};

const std::string work = fs::current_path();
const std::string app = "home/.Brimlock/Brimlock.app";
const std::string package = "opt/package/larkspire";
bool hasLoopDevice = false;

std::set<std::string> oldCopy;
std::set<std::string> newCopy;
std::set<std::string> upgraded; // the home with the new copy, without the log

std::array<int, 2> checks = {}; // how many failed, and how many passed

void Expect(bool isRight, const std::string &what)
{
    ++checks[isRight];
    if (!isRight) {
        printf("FAILED %s\n", what.c_str());
    }
}

// Prints a row of the table, with the number of checks since the last row.
void EndRow(const std::string &name)
{
    static std::array<int, 2> before = {};
    printf("| %-58s | %6d | %6d |\n", name.c_str(), checks[true] - before[true],
           checks[false] - before[false]);
    fflush(stdout);
    before = checks;
}

void Shell(const std::string &command)
{
    if (system(("set -e; " + command).c_str()) != 0) {
        printf("failed: %s\n", command.c_str());
        exit(1);
    }
}

// The home is an ext4 image on a loop device; where there is none, a tmpfs. Save() gives its state
// a name, Load() restores it.
void Save(const std::string &name)
{
    Shell(hasLoopDevice ? "sync -f home; cp --sparse=always disks/live disks/" + name
                        : "rm -rf disks/" + name + "; cp -a home disks/" + name);
}

// Without auto_da_alloc, ext4 does not help programs that forget to flush.
void Load(const std::string &name)
{
    const std::string saved = "disks/" + name;
    Shell("! mountpoint -q home || umount -l home; rm -f disks/live");
    Shell(hasLoopDevice ? "cp --sparse=always " + saved +
                              " disks/live; "
                              "mount -o loop,noauto_da_alloc disks/live home"
                        : "mount -t tmpfs -o size=8m none home; cp -a " + saved + "/. home");
}

// The path that a system call uses, if the fault is caused at this call; else "". The path must be
// in the user's folder except for the log, or, for IO_ERROR, in the package. Opening and listing a
// folder of the package do not count, because the launcher takes a folder that it cannot list for
// empty.
std::string TargetOf(pid_t thread, const __ptrace_syscall_info &info, Fault fault)
{
    // The number of the argument that is a path; -1: the first is a descriptor.
    static const std::map<uint64_t, int> changing = {
        {SYS_openat, 1}, {SYS_rename, 0}, {SYS_unlink, 0}, {SYS_rmdir, 0},
        {SYS_mkdir, 0},  {SYS_write, -1}, {SYS_fsync, -1}, {SYS_syncfs, -1}};
    static const std::map<uint64_t, int> reading = {
        {SYS_openat, 1}, {SYS_newfstatat, 1},  {SYS_statx, 1},  {SYS_access, 0},
        {SYS_read, -1},  {SYS_getdents64, -1}, {SYS_fcntl, -1}, {SYS_close, -1}};
    static const std::regex targets("^" + work + "/(home/.Brimlock($|/(?!log))|opt/(INFO|pack))");

    const auto number = info.entry.nr;
    const bool isReading =
        changing.count(number) == 0 ||
        (number == SYS_openat && (info.entry.args[2] & (O_CREAT | O_TRUNC)) == 0);
    const auto &calls = isReading ? reading : changing;
    const auto call = calls.find(number);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY || call == calls.end() ||
        (isReading && fault != IO_ERROR)) {
        return "";
    }
    const std::string process = "/proc/" + std::to_string(thread);
    std::string path;
    if (call->second >= 0) {
        std::ifstream memory(process + "/mem");
        memory.seekg(static_cast<std::streamoff>(info.entry.args[call->second]));
        std::getline(memory, path, '\0');
    }
    const bool isListing = number == SYS_openat || path.empty();
    if (path.empty() || path[0] != '/') { // of fstat(), or relative to a folder
        std::error_code none;
        path = fs::read_symlink(process + "/fd/" + std::to_string(info.entry.args[0]), none) / path;
    }
    const bool isFolderOfPackage =
        path.find(package) != std::string::npos && fs::is_directory(path);
    const bool isHit = std::regex_search(path, targets) && !(isListing && isFolderOfPackage);
    return isHit ? path : "";
}

// Starts a launcher: traced, or with its own /tmp and network namespace, so that it finds no other
// launcher.
pid_t SpawnLauncher(bool isTraced)
{
    return Spawn([isTraced] {
        const bool isReady = isTraced ? setpgid(0, 0) == 0 && ptrace(PTRACE_TRACEME, 0, 0, 0) == 0
                                      : unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
                                            mount("tmp", "/tmp", "tmpfs", 0, nullptr) == 0;
        BecomeUnprivileged();
        freopen("/dev/null", "w", stderr);
        return isReady ? execl("opt/bin/launcher", "launcher", nullptr) : 99;
    });
}

// Makes a start with the fault at call number `target`; -1: without a fault.
Outcome Start(bool isPackageBroken, Fault fault = KILL, int target = -1)
{
    const std::string link = package + "/lib/broken";
    Shell("rm -f started " + link + (isPackageBroken ? "; ln -s nowhere " + link : ""));
    Outcome outcome;
    pid_t failing = 0; // the thread whose call fails
    pid_t second = 0;
    int status = 0;
    alarm(200); // if a start hangs, end this program
    const pid_t launcher = SpawnLauncher(true);
    pid_t thread = waitpid(launcher, &status, 0);
    ptrace(PTRACE_SETOPTIONS, launcher, nullptr,
           static_cast<long>(PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL));
    for (; WIFSTOPPED(status) || thread != launcher; thread = waitpid(-launcher, &status, __WALL)) {
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
        const std::string path = TargetOf(thread, info, fault);
        if (!path.empty() && outcome.calls++ == target) {
            outcome.hit = "system call " + std::to_string(info.entry.nr) + " on " + path;
            if (fault == IO_ERROR) {
                failing =
                    thread; // gets the error below; without a call, but a failing close() closes
                const long number = info.entry.nr == SYS_close ? SYS_close : -1;
                ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, orig_rax), number);
            } else if (fault == FULL_DISK) { // with room for some pages
                Shell("head -c 9M /dev/zero >home/fill 2>&- && exit 1; truncate -s -" +
                      std::to_string(target % 8 * 4) + "K home/fill");
            } else if (fault == SECOND_LAUNCHER) {
                second = SpawnLauncher(false);
                usleep(300000); // it reaches the lock, or finishes its upgrade, before the call
                outcome.launchers = 2;
            } else {
                Shell(fault == POWER_CUT_AFTER_COMMIT ? "touch home; sync home" : "");
                Shell(fault < KILL ? "cp --sparse=always disks/live disks/cut" : "");
                kill(launcher, SIGKILL);
            }
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && failing == thread) {
            failing = 0;
            ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, rax), kIoError);
            ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
            Expect(info.exit.is_error != 0 && info.exit.rval == kIoError, "the call fails");
        }
        const long signal = WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
        const bool isOwnSignal = signal < SIGRTMAX && signal != SIGTRAP && signal != SIGSTOP;
        // Do not stop the first thread at its calls: it only shows the window, with many calls.
        ptrace(thread == launcher ? PTRACE_CONT : PTRACE_SYSCALL, thread, nullptr,
               isOwnSignal ? signal : 0L);
    }
    if (!outcome.hit.empty() && fault < KILL) {
        Load("cut");
    }
    outcome.status = status + (second > 0 ? Wait(second) : 0);
    return outcome;
}

void Check(const std::string &what, const Outcome &start, Expected expected)
{
    const bool isKilled = start.status == SIGKILL && !start.hit.empty();
    Expect(start.status == 0 || isKilled, what + ": exit status " + std::to_string(start.status));
    if (expected == EXITS || isKilled) {
        return;
    }
    const std::set<std::string> copy = fs::exists(app) ? Tree(app) : std::set<std::string>();
    const bool isNew = copy == newCopy;
    Expect(isNew || (expected == OLD_OR_NEW_COPY && copy == oldCopy), what + ": the wrong copy");
    const std::string line = isNew ? "1001 start\n" : "1000 start\n";
    const std::string ran = ReadFile("started");
    Expect(ran == (start.launchers == 1 ? line : line + line), what + ": started " + ran);
    if (expected == NEW_COPY_ALONE) {
        Shell("rm -r home/.Brimlock/log");
        Expect(Tree("home") == upgraded, what + ": something is left behind");
    }
}

// One row: causes the fault at every `stride`-th call. After each fault makes a good start, and
// separately a failing start and then a good one.
void HitCalls(const Flow &flow, Fault fault, int stride)
{
    bool isHit = hasLoopDevice || fault >= KILL;
    int call = 0;
    for (; isHit; call += stride) {
        Load(flow.home);
        const Outcome start = Start(flow.isPackageBroken, fault, call);
        const std::string where = flow.name + ", " + kFaultNames[fault] + " at call " +
                                  std::to_string(call) + ", " + start.hit;
        isHit = !start.hit.empty();
        Expect(isHit || call > 0, where + "which is not made");
        Check(where, start, flow.expected);
        Save("hit");
        Shell("rm -f home/fill");
        Check(where + ", then a good start", Start(false), NEW_COPY_ALONE);
        Load("hit");
        Check(where + ", then a start that fails", Start(true), flow.expected);
        Shell("rm -f home/fill");
        Check(where + ", then that and a good start", Start(false), NEW_COPY_ALONE);
    }
    EndRow(flow.name + ", " + kFaultNames[fault] + (call > 0 ? "" : ": NOT MADE, no loop device"));
}

// Two to six starts that are interrupted or fail, then two good ones.
void RandomSequences(int count, unsigned int seed)
{
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int end) { return static_cast<int>(random() % end); };
    for (int sequence = 0; sequence < count; ++sequence) {
        std::string done = "sequence " + std::to_string(sequence);
        Load(below(2) == 0 ? "upgrade" : "stale");
        for (int starts = 2 + below(5); starts > 0; --starts) {
            const bool isPackageBroken = below(2) == 0;
            const auto fault = static_cast<Fault>(hasLoopDevice ? below(3) : KILL);
            const int call = below(100); // a start that makes fewer is not interrupted
            done += (isPackageBroken ? ", a start that fails, " : ", a good start, ") +
                    kFaultNames[fault] + " at call " + std::to_string(call);
            Check(done, Start(isPackageBroken, fault, call), OLD_OR_NEW_COPY);
        }
        Check(done + ", a good start", Start(false), OLD_OR_NEW_COPY);
        Check(done + ", two good starts", Start(false), NEW_COPY_ALONE);
    }
    EndRow(std::to_string(count) + " random sequences, seed " + std::to_string(seed));
}

void ReadOnly()
{
    Load("stale");
    Shell("mount -o remount,ro home");
    Check("read-only", Start(false), OLD_OR_NEW_COPY);
    Shell("mount -o remount,rw home");
    Check("no longer read-only", Start(false), NEW_COPY_ALONE);
    EndRow("a read-only file system");
}

// Waits of 60 s: for a start script that sleeps, of another launcher for that one, and, in another
// home, for a lock that is never released.
void Waits()
{
    Load("upgrade");
    Shell("cp -a home other; install -o 65534 /dev/null other/.Brimlock/upgrade.lock; rm started; "
          "echo \"[ -e $PWD/slept ] || { >$PWD/slept; sleep 62; }\" "
          ">>opt/package/larkspire/package/start-stop");
    const int lock = open("other/.Brimlock/upgrade.lock", O_RDWR | O_CLOEXEC);
    Expect(lockf(lock, F_TLOCK, 0) == 0, "the lock");
    const pid_t slow = SpawnLauncher(false);
    sleep(3);
    const time_t begin = time(nullptr);
    const pid_t next = SpawnLauncher(false);
    setenv("HOME", (work + "/other").c_str(), 1);
    const pid_t refused = SpawnLauncher(false);

    Expect(Wait(next, 150000) == 0 && time(nullptr) - begin > 50, "waits for the start script");
    const int status = Wait(slow) + Wait(refused);
    const std::string ran = ReadFile("started");
    Expect(status == 0 && CountOf(ran, "1001") == 2 && CountOf(ran, "1000") == 1, "started " + ran);
    std::string log = ReadFile("home/.Brimlock/log/launcher.log");
    Expect(CountOf(log, "[WARNING]") == 1 && CountOf(log, "[ERROR]") == 0, "a slow script: " + log);
    log = ReadFile("other/.Brimlock/log/launcher.log");
    Expect(CountOf(log, "[WARNING]") == 1 && CountOf(log, "Failed to upgrade package") == 1,
           "a refused upgrade: " + log);
    EndRow("a slow start script, and a lock that is not released");
}

// Creates the package, and saves the states of the home with which the flows begin.
void Prepare()
{
    Shell("mkdir home disks; mount -t tmpfs none disks; truncate -s 8M disks/live; "
          "mkfs.ext4 -q -F -m 0 disks/live");
    hasLoopDevice = system("mount -o loop disks/live home 2>&-") == 0;
    Shell("app=home/.Brimlock/Brimlock.app ui=bin/brimlock-ui; . '" BRIMLOCK_TESTS
          "/make-clients.sh'; "
          "mkdir -p home/.hidden home/.Brimlock/data $app/lib/.deep; "
          "echo kept | tee home/.hidden/file home/.Brimlock/data/db >$app/only-old; "
          "head -c 20000 /dev/urandom | tee -a $folder/lib/.deep/data >$app/lib/.deep/data; "
          "chown -hR 65534:65534 home");
    oldCopy = Tree(app);
    newCopy = Tree(package);
    Save("upgrade");
    Shell("rm -r " + app);
    Save("none");
    Shell("cp -r " + package + " " + app);
    upgraded = Tree("home");
    Load("upgrade");
    Shell("cd home/.Brimlock; cp -a Brimlock.app Brimlock.app_tmp; "
          "sed -i s/1000/999/ Brimlock.app_tmp/INFO Brimlock.app_tmp/package/start-stop");
    Save("stale");
    const int calls = Start(false).calls;
    for (const std::string state : {"copying", "installed"}) {
        Load("stale");
        Start(false, KILL, state == "copying" ? calls / 3 : calls * 2 / 3);
        Save(state);
    }
}
} // namespace

// Runs in a scratch folder with an installation in "opt". Arguments: the stride of HitCalls(), and
// the seed of the random sequences.
// NOLINTNEXTLINE(bugprone-exception-escape): an exception makes the program fail
int main(int argc, char **argv)
{
    const int stride = argc > 1 ? atoi(argv[1]) : 1;
    const auto seed = static_cast<unsigned int>(argc > 2 ? atoi(argv[2]) : time(nullptr));
    Prepare();
    printf("| what is done to the launcher | passed | failed |\n|---|---|---|\n");
    for (const Flow &flow : {Flow{"an upgrade", "upgrade", false, OLD_OR_NEW_COPY},
                             {"an upgrade beside a stale backup", "stale", false, OLD_OR_NEW_COPY},
                             {"a failing upgrade", "stale", true, OLD_OR_NEW_COPY},
                             {"a first install", "none", false, EXITS},
                             {"recovery in mid-copy", "copying", false, OLD_OR_NEW_COPY},
                             {"recovery after the copy", "installed", false, OLD_OR_NEW_COPY}}) {
        for (const Fault fault :
             {KILL, POWER_CUT, POWER_CUT_AFTER_COMMIT, IO_ERROR, FULL_DISK, SECOND_LAUNCHER}) {
            HitCalls(flow, fault, stride);
        }
    }
    RandomSequences(stride > 1 ? 20 : 240, seed);
    ReadOnly();
    Waits();
    printf("%d passed, %d failed\n", checks[true], checks[false]);
    return checks[false] == 0 && checks[true] > 0 ? 0 : 1;
}
