// Cuts an upgrade short at each of its file-changing system calls, by SIGKILL, by a power cut on a modelled disk and by
// errors, and looks at what the next starts make of it. Started by scripts/faults, as root: the launcher itself runs as
// an ordinary user.
//
// The modelled disk keeps what is done to folders in order, and loses the content of every file that was not flushed.

#include <cerrno>
#include <cstdio>
#include <map>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>

#include "fileop/scoped-fd.h"
#include "tests/support.h"

namespace
{
enum Fault { NOTHING, KILL, POWER_CUT, POWER_CUT_BUT_INFO, ERROR };

struct Plan {
    Fault fault = NOTHING;
    int call = -1; // the first call has number 0; none is hit by -1
    int error = 0;
};

const fs::path work = fs::current_path();
const fs::path home = work / "home";
const fs::path base = home / ".Brimlock";
const fs::path app = base / "Brimlock.app";
const fs::path package = work / "opt/package/larkspire";
const fs::path started = work / "started";

void Shell(const std::string &command)
{
    if (system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

// The stopped system call of a traced launcher.
class Call
{
public:
    explicit Call(pid_t tracedThread) : thread(tracedThread) { ptrace(PTRACE_GETREGS, thread, nullptr, &regs); }

    // The path that it changes or flushes, "" for a call that is none of these.
    std::string Changes() const
    {
        switch (regs.orig_rax) {
        case SYS_open:
            return (regs.rsi & (O_CREAT | O_TRUNC)) != 0 ? Text(regs.rdi) : "";
        case SYS_openat:
            return (regs.rdx & (O_CREAT | O_TRUNC)) != 0 ? Text(regs.rsi) : "";
        case SYS_write:
        case SYS_ftruncate:
        case SYS_fsync:
        case SYS_fdatasync:
        case SYS_syncfs:
            return File();
        case SYS_rename:
        case SYS_unlink:
        case SYS_rmdir:
        case SYS_mkdir:
        case SYS_chmod:
            return Text(regs.rdi);
        case SYS_renameat:
        case SYS_renameat2:
        case SYS_unlinkat:
        case SYS_mkdirat:
            return Text(regs.rsi);
        default:
            return "";
        }
    }

    std::string File() const
    {
        std::error_code none;
        return fs::read_symlink("/proc/" + std::to_string(thread) + "/fd/" + std::to_string(regs.rdi), none);
    }

    unsigned long long Number() const { return regs.orig_rax; }

    void Skip()
    {
        regs.orig_rax = static_cast<unsigned long long>(-1);
        ptrace(PTRACE_SETREGS, thread, nullptr, &regs);
    }

    void Return(int error)
    {
        regs.rax = static_cast<unsigned long long>(-error);
        ptrace(PTRACE_SETREGS, thread, nullptr, &regs);
    }

private:
    std::string Text(unsigned long long address) const
    {
        char text[4096] = "";
        const ScopedFd memory(open(("/proc/" + std::to_string(thread) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
        const ssize_t size = pread(memory.get(), text, sizeof text - 1, static_cast<off_t>(address));
        return size > 0 ? text : "";
    }

    pid_t thread;
    user_regs_struct regs = {};
};

pid_t SpawnLauncher(bool isTraced, bool isAlone = false)
{
    return Spawn([=]() -> int {
        // As far as this namespace goes, no other launcher is there: neither its /tmp nor its sockets.
        if (isAlone && (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
                        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                        mount("tmp", "/tmp", "tmpfs", 0, nullptr) != 0)) {
            return 99;
        }
        BecomeUnprivileged();
        if (freopen((work / "stderr").c_str(), "w", stderr) == nullptr) {
            return 98;
        }
        if (isTraced) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
        }
        execl((work / "opt/bin/launcher").c_str(), "launcher", nullptr);
        return 97;
    });
}

int Start()
{
    return Wait(SpawnLauncher(false));
}

void CutPower(const std::set<ino_t> &unflushed, bool keepsInfo)
{
    for (const auto &entry : fs::recursive_directory_iterator(home)) {
        struct stat status = {};
        if (lstat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            unflushed.count(status.st_ino) != 0 && !(keepsInfo && entry.path().filename() == "INFO")) {
            fs::resize_file(entry.path(), 0);
        }
    }
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
    std::map<pid_t, bool> isInside; // a system call, by thread
    std::set<pid_t> failing;
    calls = 0;
    for (pid_t thread = waitpid(-1, &status, __WALL); thread > 0; thread = waitpid(-1, &status, __WALL)) {
        if (!WIFSTOPPED(status)) {
            if (thread == launcher) {
                break;
            }
            continue;
        }
        int signal = WSTOPSIG(status);
        if (signal == (SIGTRAP | 0x80)) {
            signal = 0;
            Call call(thread);
            isInside[thread] = !isInside[thread];
            if (!isInside[thread] && failing.erase(thread) != 0) {
                call.Return(plan.error);
            }
            const std::string path = isInside[thread] ? call.Changes() : "";
            if (path.rfind(home.string(), 0) == 0 && path.find("/.Brimlock/log") == std::string::npos) {
                if (calls++ == plan.call) {
                    if (plan.fault == ERROR) {
                        call.Skip();
                        failing.insert(thread);
                    } else {
                        kill(launcher, SIGKILL);
                        continue;
                    }
                } else if (call.Number() == SYS_syncfs) {
                    unflushed.clear();
                } else {
                    struct stat file = {};
                    stat(path.c_str(), &file);
                    if (call.Number() == SYS_fsync) {
                        unflushed.erase(file.st_ino);
                    } else if (call.Number() == SYS_write) {
                        unflushed.insert(file.st_ino);
                    }
                }
            }
        } else if (signal == SIGTRAP || signal == SIGSTOP) {
            signal = 0; // of the tracing itself
        }
        ptrace(PTRACE_SYSCALL, thread, nullptr, signal);
    }
    if (plan.fault == POWER_CUT || plan.fault == POWER_CUT_BUT_INFO) {
        CutPower(unflushed, plan.fault == POWER_CUT_BUT_INFO);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void MakeClient(const fs::path &folder, const std::string &build, const std::string &name)
{
    fs::remove_all(folder);
    WriteFile(folder / "INFO", "[Version]\nbuild_version=" + build + "\n");
    WriteFile(folder / "bin/brimlock-ui", name, 0755);
    WriteFile(folder / "package/start-stop", "#!/bin/sh\necho " + name + " >>'" + started.string() + "'\n", 0755);
    WriteFile(folder / "lib/deep/data", name + std::string(20000, 'd'));
    WriteFile(folder / ("only-" + name), name);
}

void SetPackage(bool isBroken)
{
    fs::remove(package / "lib/broken");
    if (isBroken) {
        fs::create_symlink("nowhere", package / "lib/broken");
    }
}

// What is at stake in a scenario: the two copies, and everything else that is in the home.
struct Trees {
    std::set<std::string> oldCopy;
    std::set<std::string> newCopy;
    std::set<std::string> rest;
};

// The home but for the app folder and the log.
std::set<std::string> Rest()
{
    std::set<std::string> rest;
    for (const std::string &entry : Tree(home)) {
        if (entry.rfind(".Brimlock/Brimlock.app/", 0) != 0 && entry != ".Brimlock/Brimlock.app" &&
            entry.rfind(".Brimlock/log", 0) != 0) {
            rest.insert(entry);
        }
    }
    return rest;
}

// A user's home, with a copy or without, and a newer package.
Trees Prepare(bool hasCopy)
{
    fs::remove_all(home);
    WriteFile(home / ".hidden/file", "kept");
    WriteFile(home / "Documents/file", "kept");
    WriteFile(base / "data/db", "kept");
    MakeClient(app, "1000", "old");
    SetPackage(false);
    Trees trees = {Tree(app), Tree(package), Rest()};
    if (!hasCopy) {
        fs::remove_all(app);
        trees.oldCopy.clear();
    }
    Shell("chown -hR 65534:65534 '" + home.string() + "'; rm -f '" + started.string() + "'");
    return trees;
}

// What is wrong after a start, "" for nothing. `mustBe`: the copy that must be in place, null for either.
std::string Wrong(int status, const Trees &trees, const std::set<std::string> *mustBe, bool isRestSettled)
{
    if (status != 0) {
        return "exit status " + std::to_string(status);
    }
    const std::set<std::string> copy = fs::exists(app) ? Tree(app) : std::set<std::string>();
    if (mustBe != nullptr ? copy != *mustBe : copy != trees.oldCopy && copy != trees.newCopy) {
        return "a copy that is neither the old nor the new one, or the wrong one";
    }
    const std::string ran = ReadFile(started);
    const std::string expected = copy == trees.newCopy ? "new\n" : copy.empty() ? "" : "old\n";
    if (ran.size() < expected.size() || ran.substr(ran.size() - expected.size()) != expected) {
        return "started: " + ran;
    }
    return isRestSettled && Rest() != trees.rest ? "something else in the home has changed" : "";
}

class Report
{
public:
    void Add(const std::string &name, const std::string &wrong)
    {
        ++(wrong.empty() ? passed : failed);
        if (!wrong.empty()) {
            printf("FAILED %s: %s\n", name.c_str(), wrong.c_str());
        }
    }
    void EndRow(const std::string &row)
    {
        printf("| %-52s | %6d | %6d |\n", row.c_str(), passed - passedBefore, failed - failedBefore);
        fflush(stdout);
        passedBefore = passed;
        failedBefore = failed;
    }
    int passed = 0;
    int failed = 0;

private:
    int passedBefore = 0;
    int failedBefore = 0;
};

struct Flow {
    const char *name;
    bool hasCopy;
    bool isPackageBroken;
    int cutBefore; // the call that an earlier start was killed at; -1: there was none
};

// Brings the home into the flow's state, then makes the disturbed start.
Trees Disturb(const Flow &flow, const Plan &plan, int &status, int &calls)
{
    const Trees trees = Prepare(flow.hasCopy);
    if (flow.cutBefore >= 0) {
        StartTraced({KILL, flow.cutBefore}, calls);
    }
    SetPackage(flow.isPackageBroken);
    status = StartTraced(plan, calls);
    return trees;
}

// Every `stride`-th call of the flow, each followed by a start that succeeds, and by one that fails before it.
void CutShort(Report &report, const Flow &flow, Fault fault, const char *name, int stride)
{
    int status = 0;
    int calls = 0;
    Disturb(flow, {}, status, calls);
    const int all = calls;
    for (int call = 0; call < all; call += stride) {
        const std::string where = std::string(flow.name) + ", " + name + " at call " + std::to_string(call);
        for (const bool failsFirst : {false, true}) {
            const Trees trees = Disturb(flow, {fault, call}, status, calls);
            report.Add(where + ": the cut", status == 128 + SIGKILL ? "" : "was not made");
            if (failsFirst) {
                SetPackage(true);
                const int failing = Start();
                if (flow.hasCopy) {
                    report.Add(where + ": a start that fails", Wrong(failing, trees, nullptr, false));
                }
                SetPackage(false);
            }
            SetPackage(false);
            report.Add(where + ": a good start", Wrong(Start(), trees, &trees.newCopy, true));
        }
    }
    report.EndRow(std::string(flow.name) + ", " + name);
}

void Fail(Report &report, const Flow &flow, int error, int stride)
{
    int status = 0;
    int calls = 0;
    Disturb(flow, {}, status, calls);
    const int all = calls;
    for (int call = 0; call < all; call += stride) {
        const std::string where = std::string(flow.name) + ", " + strerror(error) + " at call " + std::to_string(call);
        const Trees trees = Disturb(flow, {ERROR, call, error}, status, calls);
        if (flow.hasCopy) {
            report.Add(where, Wrong(status, trees, nullptr, false));
        }
        SetPackage(false);
        report.Add(where + ": a good start", Wrong(Start(), trees, &trees.newCopy, true));
    }
    report.EndRow(std::string(flow.name) + ", " + strerror(error));
}

void FullAndReadOnly(Report &report)
{
    for (const char *spoil : {"head -c 2M /dev/zero >fill || true", "mount -o remount,ro ."}) {
        const Trees trees = Prepare(true);
        Shell("mv home saved; mkdir home; mount -t tmpfs -o size=1m none home; cp -a saved/. home; cd home; " +
              std::string(spoil));
        report.Add(spoil, Wrong(Start(), trees, &trees.oldCopy, false));
        Shell("rm -f home/fill; umount home; rm -r saved");
    }
    report.EndRow("a full and a read-only file system");
}

void Pairs(Report &report, int stride)
{
    for (int ms = 0; ms <= 20; ms += stride) {
        const Trees trees = Prepare(true);
        const pid_t first = SpawnLauncher(false, true);
        usleep(static_cast<useconds_t>(ms) * 1000);
        const pid_t second = SpawnLauncher(false, true);
        const int status = Wait(first) + Wait(second);
        report.Add("a pair " + std::to_string(ms) + " ms apart", Wrong(status, trees, &trees.newCopy, true));
        report.Add("both of the pair start the client", ReadFile(started) == "new\nnew\n" ? "" : ReadFile(started));
    }
    report.EndRow("two launchers that cannot see each other's /tmp");
}

void TwelveRounds(Report &report)
{
    const Trees trees = Prepare(true);
    int calls = 0;
    for (int round = 0; round < 12; ++round) {
        SetPackage(false);
        StartTraced({KILL, 4 + 3 * round}, calls);
        SetPackage(true);
        report.Add("a failing upgrade after a kill", Wrong(Start(), trees, nullptr, false));
    }
    SetPackage(false);
    report.Add("one good upgrade after twelve rounds", Wrong(Start(), trees, &trees.newCopy, true));
    report.EndRow("twelve rounds of a kill and a failing upgrade");
}
} // namespace

// Runs in a scratch folder with a staged install in "opt". An argument: every how many-th call is hit.
int main(int argc, char **argv)
{
    const int stride = argc > 1 ? atoi(argv[1]) : 1;
    umask(022);
    for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "XDG_CURRENT_DESKTOP"}) {
        unsetenv(variable);
    }
    setenv("HOME", home.c_str(), 1);
    MakeClient(package, "1001", "new");
    fs::copy_file(package / "INFO", work / "opt/INFO", fs::copy_options::overwrite_existing);
    fs::permissions(work, fs::perms(0777));

    const Flow flows[] = {{"an upgrade", true, false, -1},
                          {"a first install", false, false, -1},
                          {"a failing upgrade", true, true, -1},
                          {"putting right", true, false, 15}};
    Report report;
    printf("| what is done to the launcher                         | passed | failed |\n|---|---|---|\n");
    for (const Flow &flow : flows) {
        CutShort(report, flow, KILL, "SIGKILL", stride);
        CutShort(report, flow, POWER_CUT, "power cut", stride);
        CutShort(report, flow, POWER_CUT_BUT_INFO, "power cut, INFO on disk", stride);
        for (const int error : {EIO, ENOSPC, EACCES, EINTR}) {
            Fail(report, flow, error, stride);
        }
    }
    FullAndReadOnly(report);
    Pairs(report, stride);
    TwelveRounds(report);
    printf("%d passed, %d failed\n", report.passed, report.failed);
    return report.failed == 0 && report.passed > 0 ? 0 : 1;
}
