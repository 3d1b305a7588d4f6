#include "launcher/run-keeper.h"

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include "service/linux/signal-settings.h"

namespace
{
// The name of an environment variable. Its value begins with the id of the process that starts over: a value with
// another id was inherited from another process and is ignored. The numbers of the signals that the caller ignores
// follow. The program after execve() cannot find these out, because this one has changed them.
constexpr char kMark[] = "BRIMLOCK_LAUNCHER_STARTED_OVER";
constexpr unsigned int kDisplaySeconds = 10;
constexpr unsigned int kEndSeconds = 3;
constexpr useconds_t kPollMicroseconds = 10000;
constexpr size_t kSignalStackBytes = 64UL * 1024;
constexpr char kCouldNotStart[] = "launcher: could not be started, with the display or without\n";

// None of these may end an upgrade half-way: the end of a session, a write to a pipe that nobody reads, a file that
// reaches the size limit.
constexpr int kIgnored[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGXFSZ};
constexpr int kCrashes[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};

// Signal handlers use everything from here to HandleAlarm(): it must not allocate, lock or log.

enum State { kNoKeeper, kBeforeRun, kRunning, kOver, kStartingOver };
std::atomic<State> state{kNoKeeper};
std::atomic<pid_t> runThread{0};
char *const *startOverEnvironment = nullptr; // null in a process that has started over
sigset_t callerBlocked;
alignas(std::max_align_t) char signalStack[kSignalStackBytes]; // used after a stack overflow of the GUI thread

[[noreturn]] void StartOver()
{
    if (startOverEnvironment == nullptr) {
        // Starting over did not help. Do not try again for ever.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kCouldNotStart, sizeof kCouldNotStart - 1);
        _exit(0);
    }
    alarm(0); // execve() keeps a pending alarm
    sigprocmask(SIG_SETMASK, &callerBlocked, nullptr);
    char *const arguments[] = {program_invocation_name, nullptr};
    execve("/proc/self/exe", arguments, startOverEnvironment);
    _exit(0);
}

// To be called when the calling thread cannot continue. Starts over if the run has not begun, or if the calling thread
// itself makes it. Otherwise waits for the end of the run, and then ends the process.
[[noreturn]] void ExitAfterRun()
{
    State found = kBeforeRun;
    const bool hasNotBegun = state.compare_exchange_strong(found, kStartingOver);
    const bool isRunThread = found == kRunning && runThread == gettid();
    if (hasNotBegun || isRunThread) {
        StartOver();
    }
    while (state != kOver) { // if another thread starts over, its execve() ends this one
        usleep(kPollMicroseconds);
    }
    _exit(0);
}

void HandleCrash(int number)
{
    if (state == kRunning && runThread == gettid()) {
        signal(number, SIG_DFL); // the run itself has crashed: the signal comes again and ends the process
        return;
    }
    ExitAfterRun();
}

// A limit has passed: kDisplaySeconds before the run, or kEndSeconds after it.
void HandleAlarm(int)
{
    if (state != kRunning) {
        ExitAfterRun();
    }
}

void SetHandler(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART | SA_ONSTACK;
    sigaction(number, &action, nullptr);
}

std::string MakeMark(const sigset_t &callerIgnored)
{
    std::string mark = std::string(kMark) + "=" + std::to_string(getpid());
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&callerIgnored, number) == 1) {
            mark += " " + std::to_string(number);
        }
    }
    return mark;
}

// Removes the mark from the environment. If this process has started over, returns true and sets `callerIgnored` to the
// signals that the mark names.
bool ReadAndRemoveMark(sigset_t &callerIgnored)
{
    const char *value = getenv(kMark);
    std::istringstream words(value != nullptr ? value : "");
    unsetenv(kMark);
    pid_t process = 0;
    if (!(words >> process) || process != getpid()) {
        return false;
    }
    sigemptyset(&callerIgnored);
    for (int number = 0; words >> number;) {
        sigaddset(&callerIgnored, number);
    }
    return true;
}

// Opens /dev/null for each standard stream that the caller has closed. Otherwise the next file that is opened would get
// the number of that stream, and messages would be written into it. Because of O_CLOEXEC, the client finds the stream
// closed again.
void OpenClosedStandardStreams()
{
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC); // the lowest free number
    }
    close(fd);
}
} // namespace

RunKeeper::RunKeeper()
{
    SignalSettings caller = CurrentSignalSettings();
    mayUseDisplay = !ReadAndRemoveMark(caller.ignored);
    RememberCallerSignals(caller);
    callerBlocked = caller.blocked;

    for (const int number : kIgnored) {
        SetHandler(number, SIG_IGN);
    }
    OpenClosedStandardStreams();
    const stack_t stack = {signalStack, 0, sizeof signalStack};
    sigaltstack(&stack, nullptr);
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGALRM);
    SetHandler(SIGALRM, SIG_IGN); // discards a pending one, which the caller may have blocked
    SetHandler(SIGALRM, HandleAlarm);
    state = kBeforeRun;
    if (mayUseDisplay) {
        mark = MakeMark(caller.ignored);
        for (char **variable = environ; *variable != nullptr; ++variable) {
            environment.push_back(*variable);
        }
        environment.push_back(mark.data());
        environment.push_back(nullptr);
        startOverEnvironment = environment.data();
        for (const int number : kCrashes) {
            SetHandler(number, HandleCrash);
            sigaddset(&handled, number);
        }
        alarm(kDisplaySeconds);
    }
    sigprocmask(SIG_UNBLOCK, &handled, nullptr);
}

RunKeeper::~RunKeeper()
{
    ExitAfterRun();
}

void RunKeeper::RunBegins()
{
    if (state == kNoKeeper) {
        return;
    }
    runThread = gettid();
    State expected = kBeforeRun;
    if (!state.compare_exchange_strong(expected, kRunning)) {
        for (;;) {
            pause(); // another thread is starting over
        }
    }
    alarm(0);
}

void RunKeeper::RunEnds()
{
    if (state != kNoKeeper) {
        state = kOver;
        alarm(kEndSeconds);
    }
}

bool RunKeeper::IsRunOver()
{
    return state == kOver;
}
