#ifndef BRIMLOCK_FILEOP_TMP_NAME_GEN_H
#define BRIMLOCK_FILEOP_TMP_NAME_GEN_H

#include <cstdint>
#include <mutex>
#include <random>
#include <string>

// Makes random names of eight characters: letters, digits, "-" and "_". May be called from any thread. Throws only what
// the standard library throws when the random device cannot be opened or the mutex cannot be locked.
class TmpNameGen
{
public:
    static TmpNameGen *getInstance();

    // Starts a new sequence from the system's random device.
    void reseed();

    std::string getTmpName();

    // The folder, "/" and a random name. Nothing is created, and it is not checked whether the name is free.
    std::string getTmpPath(const std::string &folder);

private:
    TmpNameGen() { reseed(); }

    std::mutex mutex;
    std::linear_congruential_engine<uint64_t, 16807, 0, 2147483647> engine;
};

#endif
