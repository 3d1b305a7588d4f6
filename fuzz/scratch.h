#ifndef BRIMLOCK_FUZZ_SCRATCH_H
#define BRIMLOCK_FUZZ_SCRATCH_H

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "log/log.h"

// Ends the run, with the input as the reproducer, when what must hold does not.
inline void Require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// A folder that anybody may write to, made at the first call and removed at the end. That call also sets up what all
// targets want: no log, and no file over 1 MiB, however much an input may say that it holds.
inline const std::filesystem::path &Scratch()
{
    static const auto &folder = *new auto([] {
        std::string name = std::filesystem::temp_directory_path() / "brimlock-fuzz-XXXXXX";
        Require(mkdtemp(name.data()) != nullptr);
        atexit([] { std::filesystem::remove_all(Scratch()); });
        std::filesystem::permissions(name, std::filesystem::perms::all);
        Logger::Destroy();
        const rlimit limit = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_IGN);
        return std::filesystem::path(name);
    }());
    return folder;
}

// Shuts the calling thread into the scratch folder, without the power to make devices: an archive's links may lead
// anywhere. Needs root, or `unshare --map-root-user`, where nobody has that power in the first place.
inline void ShutIn()
{
    constexpr uid_t nobody = 65534;
    Require(unshare(CLONE_FS) == 0 && chroot(Scratch().c_str()) == 0 && chdir("/") == 0);
    Require(syscall(SYS_setresuid, nobody, nobody, nobody) == 0 || errno == EINVAL);
}

inline void WriteInput(const std::string &path, const uint8_t *bytes, size_t size)
{
    std::ofstream(path).write(reinterpret_cast<const char *>(bytes), static_cast<std::streamsize>(size));
}

#endif
