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
// There is one, a thread_local object at the beginning of main: exit() destroys the calling thread's objects before any
// static one, and the run still uses the static ones.
class RunKeeper
{
public:
    // Makes the process ignore the signals that would end it (see docs/behaviour.md) and unblocks and handles crashes.
    // Remembers the caller's signal settings for the start script. Gives the display kDisplaySeconds until the run must
    // have begun.
    RunKeeper();

    // Ends the process with status 0. Before that it waits for a run that has begun; if none has, it starts over.
    ~RunKeeper();

    RunKeeper(const RunKeeper &) = delete;
    RunKeeper &operator=(const RunKeeper &) = delete;

    // False in a process that has started over.
    bool MayUseDisplay() const { return mayUseDisplay; }

    // The thread that makes the run calls these at its beginning and at its end. After RunEnds() the process ends
    // within kEndSeconds, even if the display blocks the GUI thread. In a process without a RunKeeper they do nothing.
    static void RunBegins();
    static void RunEnds();
    static bool IsRunOver();

private:
    bool mayUseDisplay;
    std::string mark;                // the variable that tells the next program that the process has started over
    std::vector<char *> environment; // for the next program: as it was at the start, and the mark
};

#endif
