#ifndef BRIMLOCK_TESTS_SUPPORT_H
#define BRIMLOCK_TESTS_SUPPORT_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/log.h"

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

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

inline size_t CountOf(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// Every file, link and folder below `folder` with what is in it, for comparing trees.
inline std::vector<std::string> Tree(const fs::path &folder)
{
    std::vector<std::string> entries;
    for (const auto &entry : fs::recursive_directory_iterator(folder)) {
        const std::string name = entry.path().lexically_relative(folder).string();
        entries.push_back(entry.is_regular_file() ? name + "=" + ReadFile(entry.path()) : name);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

// Runs the body in a child process and returns its exit status; a signal counts as 128 and its number.
inline int InChild(const std::function<int()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Gives up root's powers, so that permissions apply. An ordinary user has none to give up.
inline void BecomeUnprivileged()
{
    if (getuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
        abort();
    }
}

// A scratch folder that everybody may use, away from the home folder, and a log in it that hears everything.
class ScratchTest : public testing::Test
{
protected:
    ScratchTest()
    {
        std::string name = "/tmp/brimlock-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            abort();
        }
        scratch = name;
        chmod(name.c_str(), 0777);
    }

    ~ScratchTest() override
    {
        Logger::Destroy();
        // Not the library's own removal, which is under test; it also enters folders that forbid it.
        const std::string command =
            "chmod -R u+rwX '" + scratch.string() + "'; rm -rf '" + scratch.string() + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }

    void StartLog(const std::string &levels = "launcher_debug=7\nservice_debug=7\nextractor_debug=7\n"
                                              "file_op_debug=7\n")
    {
        WriteFile(scratch / "levels", levels);
        ASSERT_EQ(
            Logger::Initialize(Logger::TYPE_FILE, LogPath(), scratch / "levels", 50, Logger::SCOPE_THREAD),
            0);
        chmod(LogPath().c_str(), 0666);
    }

    std::string LogPath() const { return scratch / "log"; }
    std::string Log() const { return ReadFile(LogPath()); }
    std::string Path(const std::string &name) const { return scratch / name; }

    fs::path scratch;
};

#endif
