#ifndef BRIMLOCK_TESTS_SUPPORT_H
#define BRIMLOCK_TESTS_SUPPORT_H

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/log.h"

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
constexpr int kWaitMilliseconds = 30000;

inline std::string ReadFile(const fs::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Creates the folders above it too.
inline void WriteFile(const fs::path &path, const std::string &text, mode_t mode = 0644)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
}

inline int CountOf(const std::string &text, const std::string &part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// The names of all entries below a folder, with the contents of the files.
inline std::set<std::string> Tree(const fs::path &folder)
{
    std::set<std::string> entries;
    for (const auto &entry : fs::recursive_directory_iterator(folder)) {
        const std::string name = entry.path().lexically_relative(folder).string();
        entries.insert(entry.is_regular_file() ? name + "=" + ReadFile(entry.path()) : name);
    }
    return entries;
}

// Executes the body in a child process.
inline pid_t Spawn(const std::function<int()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    return child;
}

// Waits for a child process. Returns its exit status, or 128 + N if signal N ended it. If it does
// not end in time, the test fails and the process is killed.
inline int Wait(pid_t child, int milliseconds = kWaitMilliseconds)
{
    int status = 0;
    for (; waitpid(child, &status, WNOHANG) == 0; usleep(1000)) {
        if (milliseconds-- == 0) {
            ADD_FAILURE() << "process " << child << " does not end";
            kill(child, SIGKILL);
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline int InChild(const std::function<int()> &body)
{
    return Wait(Spawn(body));
}

// From now on this system call has this seccomp result in this process. No call has the number -1.
inline void Filter(unsigned int call, unsigned int result)
{
    sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, result),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program = {4, filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        abort();
    }
}

// The rows CALL(call, result) of a table. The calls are made in this order.
using Calls = std::vector<std::tuple<const char *, std::string, std::string>>;
#define CALL(call, result)                                                                         \
    {                                                                                              \
#call, testing::PrintToString(call), testing::PrintToString(result)                        \
    }

inline void ExpectResults(const Calls &calls)
{
    for (const auto &[call, found, expected] : calls) {
        EXPECT_EQ(found, expected) << call;
    }
}

// If this process runs as root, makes it an ordinary user, whom permissions restrict.
inline void BecomeUnprivileged()
{
    if (getuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
        abort();
    }
}

// A folder that every user may write to, with a log file of all levels in it. The destructor
// removes the folder.
class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string name =
            "/tmp/brimlock t\xc3\xabst-XXXXXX"; // blank and accent, as a home folder may have
        if (mkdtemp(name.data()) == nullptr || chmod(name.c_str(), 0777) != 0) {
            abort();
        }
        scratch = name;
        StartLog();
    }

    ~ScratchFolder()
    {
        Logger::Destroy();
        Shell("chmod -R u+rwX . || true; rm -rf \"$PWD\""); // not FSRemove(), which is under test
    }

    void StartLog(const char *levels = "launcher_debug=7\nservice_debug=7\n"
                                       "extractor_debug=7\nfile_op_debug=7\n")
    {
        WriteFile(Path("levels"), levels);
        ASSERT_EQ(Logger::Initialize(Logger::TYPE_FILE, LogPath(), Path("levels"), 50,
                                     Logger::SCOPE_THREAD),
                  0);
        chmod(LogPath().c_str(), 0666);
    }

    // Executes commands in the scratch folder and returns their output. Each must succeed.
    std::string Shell(const std::string &commands) const
    {
        const std::string out = scratch.string() + ".out";
        const std::string trace = scratch.string() + ".trace";
        const std::string whole = "exec >'" + out + "' 2>'" + trace + "'; cd '" + scratch.string() +
                                  "' && set -ex\n" + commands;
        const int status = system(whole.c_str());
        const std::string printed = ReadFile(out);
        EXPECT_EQ(status, 0) << printed << ReadFile(trace);
        remove(out.c_str());
        remove(trace.c_str());
        return printed;
    }

    // A log without time, process, thread, source line and scratch folder, which differ each time.
    std::string PlainLog(const std::string &log = "log") const
    {
        return Shell("sed -E 's/^([0-9T:-]+ )?\\( *[0-9]+: *[0-9]+\\) //; s/\\([0-9]+\\): /: /; "
                     "s#(/tmp|/dev/shm)'\"${PWD#/tmp}\"'##g' " +
                     log);
    }

    std::string LogPath() const { return Path("log"); }
    std::string Log() const { return ReadFile(LogPath()); }
    int Logged(const std::string &text) const { return CountOf(Log(), text); }
    std::string Path(const std::string &name) const { return scratch / name; }

    fs::path scratch;
};

class ScratchTest : public testing::Test, protected ScratchFolder
{
};

#endif
