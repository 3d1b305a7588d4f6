#include "launcher/run-keeper.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include "service/linux/signal-settings.h"

namespace
{
// The name of an environment variable. Its value is the id of the process that starts over, so that a value which was
// inherited from another process means nothing, and then the numbers of the signals that the caller ignores. The next
// program cannot find these out by itself, because this one has changed them.
constexpr char kMark[] = "BRIMLOCK_LAUNCHER_STARTED_OVER";
constexpr unsigned int kDisplaySeconds = 10;
constexpr unsigned int kEndSeconds = 3;
constexpr useconds_t kPollMicroseconds = 10000;
constexpr char kCouldNotStart[] = "launcher: could not be started, with the display or without\n";

// The end of a session, a failing write to a pipe and the limit on the size of files must not end an upgrade half-way.
constexpr int kIgnored[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGXFSZ};
constexpr int kCrashes[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};

// Signal handlers use everything from here to HandleAlarm(): it must not allocate, lock or log.

enum State { kNoKeeper, kBeforeRun, kRunning, kOver, kStartingOver };
std::atomic<State> state{kNoKeeper};
std::atomic<pid_t> runThread{0};
char *const *startOverEnvironment = nullptr; // null in a process that has started over
sigset_t callerBlocked;

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

// The calling thread cannot continue: wait until the run is over, or start over if no other thread can make it.
[[noreturn]] void ExitAfterRun()
{
    State expected = kBeforeRun;
    if (state.compare_exchange_strong(expected, kStartingOver) || (expected == kRunning && runThread == gettid())) {
        StartOver();
    }
    while (state != kOver) {
        usleep(kPollMicroseconds);
    }
    _exit(0);
}

void HandleCrash(int number)
{
    if (state == kRunning && runThread == gettid()) {
        signal(number, SIG_DFL); // the run itself has crashed: let the signal end the process
        return;
    }
    ExitAfterRun();
}

// The time limit of the display or, after the run, of the end of the process.
void HandleAlarm(int)
{
    if (state != kRunning) {
        ExitAfterRun();
    }
}

void Handle(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}

std::string Mark(const sigset_t &callerIgnored)
{
    std::string mark = std::string(kMark) + "=" + std::to_string(getpid());
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&callerIgnored, number) == 1) {
            mark += " " + std::to_string(number);
        }
    }
    return mark;
}

// Removes the mark from the environment. Returns whether this process has started over; `callerIgnored` is then what
// the mark says.
bool TakeMark(sigset_t &callerIgnored)
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

// Where the caller has closed a standard stream, opens /dev/null in its place: otherwise the next file that is opened
// would become that stream and get messages written into it. The client again finds the stream closed.
void OccupyStandardStreams()
{
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    close(fd);
}
} // namespace

RunKeeper::RunKeeper()
{
    SignalSettings caller = CurrentSignalSettings();
    mayUseDisplay = !TakeMark(caller.ignored);
    RememberCallerSignals(caller);
    callerBlocked = caller.blocked;

    for (const int number : kIgnored) {
        Handle(number, SIG_IGN);
    }
    OccupyStandardStreams();
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGALRM);
    Handle(SIGALRM, SIG_IGN); // discards one that was sent before and is blocked
    Handle(SIGALRM, HandleAlarm);
    state = kBeforeRun;
    if (mayUseDisplay) {
        mark = Mark(caller.ignored);
        for (char **variable = environ; *variable != nullptr; ++variable) {
            environment.push_back(*variable);
        }
        environment.push_back(mark.data());
        environment.push_back(nullptr);
        startOverEnvironment = environment.data();
        for (const int number : kCrashes) {
            Handle(number, HandleCrash);
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
