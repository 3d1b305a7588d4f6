#ifndef BRIMLOCK_LAUNCHER_RUN_KEEPER_H
#define BRIMLOCK_LAUNCHER_RUN_KEEPER_H

#include <string>
#include <vector>

// A run is what the launcher is started for: one call of Worker::HandleServicce, which upgrades the user's copy if
// needed and starts the client. A RunKeeper guarantees one complete run and exit status 0, also when the process gets a
// signal, or when the display fails, does not answer, or its library crashes or calls exit().
//
// How: until the run begins, such a failure makes the process start over, by execve() of its own program, without a
// display. Once the run has begun, the thread that fails waits until the run is over and then ends the process.
//
// main() creates the only one, as a thread_local object: exit() destroys the calling thread's objects before any static
// one, and the run still uses the static ones.
class RunKeeper
{
public:
    // Makes the process ignore the signals that would end it (see docs/behaviour.md). Remembers the caller's signal
    // settings for the start script. Unless the process has started over, also unblocks and handles the signals of a
    // crash, such as SIGSEGV, and starts a timer: if the run has not begun after 10 s, the process starts over. A stack
    // overflow is handled on the calling thread only, which is the GUI thread; on another one it ends the process.
    RunKeeper();

    // Does not return. If the run has begun, waits for its end and ends the process with status 0. If it has not begun,
    // starts over.
    ~RunKeeper();

    RunKeeper(const RunKeeper &) = delete;
    RunKeeper &operator=(const RunKeeper &) = delete;

    // False in a process that has started over.
    bool MayUseDisplay() const { return mayUseDisplay; }

    // The thread that makes the run calls RunBegins() at its beginning and RunEnds() at its end. After RunEnds() the
    // process ends within 3 s, even if the display blocks the GUI thread. In a process without a RunKeeper both do
    // nothing.
    static void RunBegins();
    static void RunEnds();
    static bool IsRunOver();

private:
    bool mayUseDisplay;
    std::string mark;                // NAME=value: tells the program after execve() that the process has started over
    std::vector<char *> environment; // for the program after execve(): the caller's variables, and the mark
};

#endif
