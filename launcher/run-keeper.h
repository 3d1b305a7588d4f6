#ifndef BRIMLOCK_LAUNCHER_RUN_KEEPER_H
#define BRIMLOCK_LAUNCHER_RUN_KEEPER_H

#include <string>
#include <vector>

// Sees to it that a start ends with one whole run and exit status 0, whatever a signal, the display or the library
// that talks to it does to the process. main has one, before anything else and `thread_local`: exit() ends such an
// object first of all, while everything static is still there for the run to use.
class RunKeeper
{
public:
    // From here on kIgnoredSignals are ignored. Until the run begins, an exit() by this thread, a crash, or a
    // display that does not answer for kDisplaySeconds starts the program over, without a display.
    RunKeeper();

    // Ends the process with 0. A run that has begun is finished first, one that has not is made by starting over.
    ~RunKeeper();

    RunKeeper(const RunKeeper &) = delete;
    RunKeeper &operator=(const RunKeeper &) = delete;

    // False in a process that has started over.
    bool MayUseDisplay() const { return mayUseDisplay; }

    // Called by the thread that makes the run, when it begins and when there is nothing more to do. Once it is over,
    // the process ends within kEndSeconds, even if the display keeps the window's thread. Without a RunKeeper
    // nothing happens.
    static void RunBegins();
    static void RunEnds();
    static bool IsRunOver();

private:
    std::string mark;
    std::vector<char *> environment; // as it was at the start, and the mark
    bool mayUseDisplay;
};

#endif
