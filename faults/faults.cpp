// Causes a fault at each system call of an upgrade, and checks the starts that follow. Started by
// scripts/faults, as root; the launcher itself runs as an ordinary user.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <map>
#include <random>

#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/user.h>

#include "tests/support.h"

namespace
{
// The faults. A commit of the file system writes all changes of folders to the disk, but no file
// content that was not flushed.
enum Fault { POWER_CUT, POWER_CUT_AFTER_COMMIT, KILL, IO_ERROR, FULL_DISK, SECOND_LAUNCHER };
const std::map<Fault, std::string> kFaultNames = {
    {POWER_CUT, "power cut"}, {POWER_CUT_AFTER_COMMIT, "power cut after a commit"},
    {KILL, "SIGKILL"},        {IO_ERROR, "EIO, reading calls too"},
    {FULL_DISK, "full disk"}, {SECOND_LAUNCHER, "second launcher"}};

constexpr long kIoError = -EIO; // as the kernel returns it

constexpr unsigned long kShareBlocks = _IOW(0x94, 9, int); // FICLONE

// The calls at which a fault can be caused, each with the number of its argument that is a path;
// -1 - N: argument N is a descriptor.
const std::map<uint64_t, int> kCalls = {
    {SYS_openat, 1},          {SYS_rename, 0},     {SYS_unlink, 0}, {SYS_rmdir, 0},
    {SYS_mkdir, 0},           {SYS_write, -1},     {SYS_fsync, -1}, {SYS_syncfs, -1},
    {SYS_ioctl, -1},          {SYS_newfstatat, 1}, {SYS_statx, 1},  {SYS_access, 0},
    {SYS_read, -1},           {SYS_fcntl, -1},     {SYS_close, -1}, {SYS_getdents64, -1},
    {SYS_copy_file_range, -3}};
const std::set<uint64_t> kReadingCalls = {SYS_newfstatat, SYS_statx, SYS_access,    SYS_read,
                                          SYS_fcntl,      SYS_close, SYS_getdents64};

// What must be true after a start. Except for the first, the client must also have been started
// from a complete copy.
enum Expected { EXITS, OLD_OR_NEW_COPY, NEW_COPY, NEW_COPY_ALONE };

// A start in which faults are caused.
struct Flow {
    std::string name;
    std::string state;  // the state of the home, see prepare.sh
    std::string record; // a start before was killed when the journal held this,
    int callsInRecord;  // at this call; 0: there was none
    bool isPackageBroken;
    Expected expected; // until a start without a fault has been made
};
const Flow kFlows[] = {
    {"an upgrade", "upgrade", "", 0, false, OLD_OR_NEW_COPY},
    {"a failing upgrade", "upgrade", "", 0, true, OLD_OR_NEW_COPY},
    {"a first install", "none", "", 0, false, EXITS},
    {"recovery in mid-move", "upgrade", "state=moving", 5, false, OLD_OR_NEW_COPY},
    {"recovery in mid-copy", "upgrade", "state=copying", 15, false, OLD_OR_NEW_COPY},
    {"recovery after the copy", "stale", "state=installed", 5, false, OLD_OR_NEW_COPY},
    {"an upgrade beside a stale backup", "stale", "", 0, false, OLD_OR_NEW_COPY},
    {"a failing upgrade beside it", "stale", "", 0, true, OLD_OR_NEW_COPY},
    {"a first install that was cut", "none", "state=copying", 15, false, EXITS}};

// A file system of the home, see home.sh, with the number of flows that it gets.
struct Home {
    std::string name;
    size_t flows;
    std::vector<Fault> faults;
};
const Home kHomes[] = {
    {"ext4",
     std::size(kFlows),
     {KILL, POWER_CUT, POWER_CUT_AFTER_COMMIT, IO_ERROR, FULL_DISK, SECOND_LAUNCHER}},
    {"overlay", 5, {KILL, POWER_CUT, IO_ERROR, FULL_DISK}},
    {"btrfs", 3, {KILL, POWER_CUT, POWER_CUT_AFTER_COMMIT, IO_ERROR}},
    {"XFS", 3, {KILL, POWER_CUT, POWER_CUT_AFTER_COMMIT}},
    {"gocryptfs", 3, {KILL}},
    {"mergerfs", 3, {KILL}},
    {"ntfs-3g", 3, {KILL}}};

struct Outcome {
    int status = 0;
    int calls = 0;     // the number of calls at which the fault could be caused
    pid_t failing = 0; // the thread whose call fails, until it has failed
    pid_t second = 0;  // another launcher; each starts a client
    std::string hit;   // the call at which the fault was caused, "" for none
};

const std::string work = fs::current_path();
const std::string app = "home/.Brimlock/Brimlock.app";
const std::string package = "opt/package/larkspire";
std::string mounted; // the name of a file system
std::mt19937 randomNumbers;

std::set<std::string> oldCopy;
std::set<std::string> newCopy;
std::set<std::string> upgraded; // the home with the new copy, without the log
std::set<uint64_t> callsMet;

std::array<int, 2> checks = {}; // how many failed, and how many passed

int RandomBelow(int end)
{
    return static_cast<int>(randomNumbers() % static_cast<unsigned int>(end));
}

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

bool Try(const std::string &commands)
{
    return system(("set -e; " + commands).c_str()) == 0;
}

void Shell(const std::string &commands)
{
    if (!Try(commands)) {
        printf("failed: %s\n", commands.c_str());
        exit(1);
    }
}

void Unmount()
{
    for (const char *folder : {"home", "opt/package", "disk"}) {
        while (umount(folder) != 0 && errno == EBUSY) { // until a process in it has ended
            usleep(5000);
        }
    }
}

std::string HomeScript(const std::string &arguments)
{
    return "sh " BRIMLOCK_FAULTS "/home.sh " + mounted + " " + arguments + " 2>home.log";
}

// Gives the state of the home and of the package a name. Load() restores it.
void Save(const std::string &name)
{
    Unmount();
    Shell("cp --sparse=always disks/live disks/" + name + "; " + HomeScript("mount"));
}

void Load(const std::string &name)
{
    Unmount();
    Shell("rm -f disks/live; cp --sparse=always disks/" + name + " disks/live; " +
          HomeScript("mount"));
}

// Returns false if this file system is not possible here; home.log says why.
bool MakeHome(const std::string &fileSystem, const std::string &state)
{
    Unmount();
    mounted = fileSystem;
    return Try(HomeScript("make " + state));
}

// The path that a system call uses, if the fault is caused at this call; else "". The path must be
// in the user's folder except for the log, or, for IO_ERROR, in the package. Opening and listing a
// folder of the package do not count, because the launcher takes a folder that it cannot list for
// empty.
std::string TargetOf(pid_t thread, const __ptrace_syscall_info &info, Fault fault)
{
    static const std::regex targets("^" + work + "/(home/.Brimlock($|/(?!log))|opt/(INFO|pack))");

    const auto number = info.entry.nr;
    const bool isReading =
        kReadingCalls.count(number) == 1 ||
        (number == SYS_openat && (info.entry.args[2] & (O_CREAT | O_TRUNC)) == 0);
    const auto call = kCalls.find(number);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY || call == kCalls.end() ||
        (isReading && fault != IO_ERROR) ||
        (number == SYS_ioctl && info.entry.args[1] != kShareBlocks)) {
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
        const auto fd = info.entry.args[std::max(-1 - call->second, 0)];
        path = fs::read_symlink(process + "/fd/" + std::to_string(fd), none) / path;
    }
    const bool isFolderOfPackage =
        path.find(package) != std::string::npos && fs::is_directory(path);
    if (!std::regex_search(path, targets) || (isListing && isFolderOfPackage)) {
        return "";
    }
    callsMet.insert(number);
    return path;
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

// Causes the fault at the call that a thread of the launcher has begun.
void Cause(Fault fault, pid_t launcher, pid_t thread, uint64_t call, Outcome &outcome)
{
    switch (fault) {
    case POWER_CUT_AFTER_COMMIT: // the second way is for btrfs
        Shell("touch home; sync home; btrfs subvolume create disk/new >/dev/null 2>&1 || true");
        [[fallthrough]];
    case POWER_CUT:
        Shell("cp --sparse=always disks/live disks/cut");
        [[fallthrough]];
    case KILL:
        kill(launcher, SIGKILL);
        return;
    case IO_ERROR: { // without a call, but a failing close() closes; Start() sets the result
        outcome.failing = thread;
        const long number = call == SYS_close ? SYS_close : -1;
        ptrace(PTRACE_POKEUSER, thread, offsetof(user_regs_struct, orig_rax), number);
        return;
    }
    case FULL_DISK: // with room for some pages
        Shell("head -c 9M /dev/zero >disk/fill 2>&- && exit 1; truncate -s -" +
              std::to_string(outcome.calls % 8 * 4) + "K disk/fill");
        return;
    case SECOND_LAUNCHER:
        outcome.second = SpawnLauncher(false);
        usleep(300000); // it reaches the lock, or finishes its upgrade, before the call
        return;
    }
    printf("no code for fault %d\n", fault);
    exit(1);
}

// Makes a start with the fault at call number `target`; -1: without a fault.
Outcome Start(bool isPackageBroken, Fault fault = KILL, int target = -1)
{
    const std::string link = package + "/lib/broken";
    Shell("rm -f started " + link + (isPackageBroken ? "; ln -s nowhere " + link : ""));
    Outcome outcome;
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
            Cause(fault, launcher, thread, info.entry.nr, outcome);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && outcome.failing == thread) {
            outcome.failing = 0;
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
    if (!outcome.hit.empty() && (fault == POWER_CUT || fault == POWER_CUT_AFTER_COMMIT)) {
        Load("cut");
    }
    outcome.status = status + (outcome.second > 0 ? Wait(outcome.second) : 0);
    return outcome;
}

void Check(const std::string &what, const Outcome &start, Expected expected)
{
    const bool isKilled = start.status == SIGKILL && !start.hit.empty();
    Expect(start.status == 0 || isKilled, what + ": exit status " + std::to_string(start.status));
    if (expected == EXITS) {
        return;
    }
    if (isKilled) {
        const auto isWhole = [](const fs::directory_entry &entry) {
            const auto copy = entry.is_directory() ? Tree(entry) : std::set<std::string>();
            return copy == oldCopy || copy == newCopy;
        };
        const fs::directory_iterator folders("home/.Brimlock");
        Expect(std::any_of(begin(folders), end(folders), isWhole), what + ": no whole copy");
        return;
    }
    const std::set<std::string> copy = fs::exists(app) ? Tree(app) : std::set<std::string>();
    const bool isNew = copy == newCopy;
    Expect(isNew || (expected == OLD_OR_NEW_COPY && copy == oldCopy), what + ": the wrong copy");
    const std::string line = isNew ? "1001 start\n" : "1000 start\n";
    const std::string ran = ReadFile("started");
    Expect(ran == (start.second == 0 ? line : line + line), what + ": started " + ran);
    if (expected == NEW_COPY_ALONE) {
        Shell("rm -r home/.Brimlock/log");
        std::set<std::string> different;
        const std::set<std::string> found = Tree("home");
        std::set_symmetric_difference(begin(found), end(found), begin(upgraded), end(upgraded),
                                      std::inserter(different, end(different)));
        Expect(different.empty(),
               what + ": too much or too little: " + (different.empty() ? "" : *different.begin()));
    }
}

// Saves the home with which a flow begins. Returns false if that is not possible here.
bool Begin(const std::string &fileSystem, const Flow &flow)
{
    if (!MakeHome(fileSystem, flow.state)) {
        Shell("tail -n 1 home.log | tr -d '\\n' >missing");
        EndRow(fileSystem + ": NOT MADE, " + ReadFile("missing"));
        return false;
    }
    for (int call = 0, met = 0; met < flow.callsInRecord; ++call) {
        MakeHome(fileSystem, flow.state);
        const Outcome start = Start(false, KILL, call);
        Check(flow.name, start, flow.expected);
        met += CountOf(ReadFile("home/.Brimlock/upgrade.journal"), flow.record);
        Shell(start.hit.empty() ? "false" : "true"); // beyond the last call
    }
    Save("begin");
    return true;
}

// One row: causes the fault at every `stride`-th call. After each fault makes a good start, and
// separately a failing start and then a good one.
void HitCalls(const Flow &flow, Fault fault, int stride)
{
    const std::string row = mounted + ": " + flow.name + ", " + kFaultNames.at(fault);
    // Without an old copy there is room for one client: too little to replace a copy that was cut
    // when it was complete, but not yet recorded.
    const Expected afterGoodStart = flow.expected == EXITS ? NEW_COPY : NEW_COPY_ALONE;
    // On an overlay, even removing a file needs room.
    const bool isStuck = mounted == "overlay" && fault == FULL_DISK;
    const Expected expected = isStuck ? EXITS : flow.expected;
    bool isHit = true;
    for (int call = RandomBelow(stride); isHit; call += stride) {
        Load("begin");
        const Outcome start = Start(flow.isPackageBroken, fault, call);
        const std::string where = row + " at call " + std::to_string(call) + ", " + start.hit;
        isHit = !start.hit.empty();
        Expect(start.calls > 0, where + "no call is made");
        Check(where, start, expected);
        Save("hit");
        Shell("rm -f disk/fill");
        Check(where + ", then a good start", Start(false), afterGoodStart);
        Load("hit");
        Check(where + ", then a start that fails", Start(true), expected);
        Shell("rm -f disk/fill disk/ballast");
        Check(where + ", then that and a good start", Start(false), NEW_COPY_ALONE);
    }
    EndRow(row);
}

// Two to six starts that are interrupted or fail, then two good ones.
void RandomSequences(int count)
{
    for (int sequence = 0; sequence < count; ++sequence) {
        std::string done = "sequence " + std::to_string(sequence);
        MakeHome("ext4", RandomBelow(2) == 0 ? "upgrade" : "stale");
        Save("begin"); // flushes it: the first power cut must not lose the old copy
        for (int starts = 2 + RandomBelow(5); starts > 0; --starts) {
            const bool isPackageBroken = RandomBelow(2) == 0;
            const Fault fault = std::array{KILL, POWER_CUT, POWER_CUT_AFTER_COMMIT}[RandomBelow(3)];
            const int call = RandomBelow(100); // a start that makes fewer is not interrupted
            done += (isPackageBroken ? ", a start that fails, " : ", a good start, ") +
                    kFaultNames.at(fault) + " at call " + std::to_string(call);
            Check(done, Start(isPackageBroken, fault, call), OLD_OR_NEW_COPY);
        }
        Check(done + ", a good start", Start(false), OLD_OR_NEW_COPY);
        Check(done + ", two good starts", Start(false), NEW_COPY_ALONE);
    }
    EndRow(std::to_string(count) + " random sequences");
}

void ReadOnly()
{
    MakeHome("ext4", "stale");
    Shell("mount -o remount,ro disk");
    Check("read-only", Start(false), OLD_OR_NEW_COPY);
    Shell("mount -o remount,rw disk");
    Check("no longer read-only", Start(false), NEW_COPY_ALONE);
    EndRow("a read-only file system");
}

// Waits of 60 s: for a start script that sleeps, of another launcher for that one, and, in another
// home, for a lock that is never released.
void Waits()
{
    MakeHome("ext4", "upgrade");
    Shell("cp -a home other; install -o 65534 /dev/null other/.Brimlock/upgrade.lock; rm started; "
          "echo \"[ -e $PWD/slept ] || { >$PWD/slept; sleep 70; }\" "
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

} // namespace

// Runs in a scratch folder with an installation in "opt". Arguments: the stride of HitCalls(), and
// the seed of the random numbers.
// NOLINTNEXTLINE(bugprone-exception-escape): an exception makes the program fail
int main(int argc, char **argv)
{
    const int stride = argc > 1 ? atoi(argv[1]) : 1;
    const auto seed = static_cast<unsigned int>(argc > 2 ? atoi(argv[2]) : time(nullptr));
    randomNumbers.seed(seed);
    Shell("sh " BRIMLOCK_FAULTS "/prepare.sh " BRIMLOCK_TESTS);
    oldCopy = Tree("states/upgrade/.Brimlock/Brimlock.app");
    newCopy = Tree(package);
    upgraded = Tree("states/upgraded");
    printf("Stride %d, seed %u.\n\n", stride, seed);
    printf("| what is done to the launcher | passed | failed |\n|---|---|---|\n");
    for (const Home &home : kHomes) {
        for (size_t flow = 0; flow < home.flows && Begin(home.name, kFlows[flow]); ++flow) {
            for (const Fault fault : home.faults) {
                HitCalls(kFlows[flow], fault, stride);
            }
        }
    }
    RandomSequences(stride > 1 ? 20 : 240);
    ReadOnly();
    Waits();
    for (const auto &[number, argument] : kCalls) {
        Expect(callsMet.count(number) == 1, std::to_string(number) + " is never called");
    }
    EndRow("every call of the table is made");
    printf("%d passed, %d failed\n", checks[true], checks[false]);
    return checks[false] == 0 && checks[true] > 0 ? 0 : 1;
}
