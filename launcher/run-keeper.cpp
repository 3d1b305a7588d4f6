#include "launcher/run-keeper.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "service/linux/start-script.h"

namespace
{
// Set to the process's own id when it starts over; any other value means nothing.
constexpr char kMark[] = "BRIMLOCK_LAUNCHER_STARTED_OVER";
constexpr unsigned int kDisplaySeconds = 5;
constexpr unsigned int kEndSeconds = 3;
constexpr useconds_t kPollMicroseconds = 10000;
constexpr char kNothingStarted[] = "launcher: could not be started, with the display or without\n";
constexpr int kCrashes[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};

// What follows is used by signal handlers: nothing here allocates, locks or logs.

enum State { kNotKept, kWaiting, kRunning, kOver, kStartingOver };
std::atomic<State> state{kNotKept};
std::atomic<pid_t> runner{0}; // the thread that makes the run
char *const *startOverEnvironment = nullptr;
sigset_t startMask;

[[noreturn]] void StartOver()
{
    if (startOverEnvironment == nullptr) {
        // It was not the display.
        [[maybe_unused]] const ssize_t said = write(STDERR_FILENO, kNothingStarted, sizeof kNothingStarted - 1);
        _exit(0);
    }
    alarm(0); // it would outlive what follows
    sigprocmask(SIG_SETMASK, &startMask, nullptr);
    char *const arguments[] = {program_invocation_name, nullptr};
    execve("/proc/self/exe", arguments, startOverEnvironment);
    _exit(0);
}

// This thread can do nothing more. The run can.
[[noreturn]] void EndWithTheRun()
{
    State expected = kWaiting;
    if (state.compare_exchange_strong(expected, kStartingOver) || (expected == kRunning && runner == gettid())) {
        StartOver();
    }
    while (state != kOver) {
        usleep(kPollMicroseconds);
    }
    _exit(0);
}

void HandleCrash(int number)
{
    if (state == kRunning && runner == gettid()) {
        signal(number, SIG_DFL); // there is nobody to finish the run
        return;
    }
    EndWithTheRun();
}

void HandleAlarm(int)
{
    if (state != kRunning) {
        EndWithTheRun();
    }
}

void Handle(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}
// What is opened later must not become a standard stream that the caller has closed: messages would go into it. The
// client finds them closed as they were.
void OccupyStandardStreams()
{
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    close(fd);
}
} // namespace

RunKeeper::RunKeeper() : mark(std::string(kMark) + "=" + std::to_string(getpid()))
{
    for (const int number : kIgnoredSignals) {
        Handle(number, SIG_IGN);
    }

    const char *marked = getenv(kMark);
    mayUseDisplay = marked == nullptr || marked != mark.substr(sizeof kMark);
    unsetenv(kMark);
    OccupyStandardStreams();
    Handle(SIGALRM, SIG_IGN); // which drops one that somebody else has set
    sigset_t alarms;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarms, nullptr);
    sigprocmask(SIG_SETMASK, nullptr, &startMask);
    Handle(SIGALRM, HandleAlarm);
    state = kWaiting;
    if (mayUseDisplay) {
        for (char **variable = environ; *variable != nullptr; ++variable) {
            environment.push_back(*variable);
        }
        environment.push_back(mark.data());
        environment.push_back(nullptr);
        startOverEnvironment = environment.data();
        for (const int number : kCrashes) {
            Handle(number, HandleCrash);
        }
        alarm(kDisplaySeconds);
    }
}

RunKeeper::~RunKeeper()
{
    EndWithTheRun();
}

void RunKeeper::RunBegins()
{
    if (state == kNotKept) {
        return;
    }
    runner = gettid();
    State expected = kWaiting;
    if (!state.compare_exchange_strong(expected, kRunning)) {
        for (;;) {
            pause(); // the program is starting over
        }
    }
    alarm(0);
}

void RunKeeper::RunEnds()
{
    if (state != kNotKept) {
        state = kOver;
        alarm(kEndSeconds);
    }
}

bool RunKeeper::IsRunOver()
{
    return state == kOver;
}
