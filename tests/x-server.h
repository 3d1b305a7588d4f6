#ifndef BRIMLOCK_TESTS_X_SERVER_H
#define BRIMLOCK_TESTS_X_SERVER_H

#include <csignal>
#include <cstdlib>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

// A virtual X server of the test's own, with 96 dots per inch. DISPLAY names it while it lives.
class XServer
{
public:
    XServer()
    {
        int number[2];
        if (pipe(number) != 0 || (pid = fork()) < 0) {
            abort();
        }
        if (pid == 0) {
            const std::string fd = std::to_string(number[1]);
            if (freopen("/dev/null", "w", stderr) != nullptr) {
                execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24", "-dpi", "96",
                       nullptr);
            }
            _exit(127);
        }
        close(number[1]);
        display = ":";
        for (char digit = 0; read(number[0], &digit, 1) == 1 && digit != '\n';) {
            display += digit;
        }
        close(number[0]);
        setenv("DISPLAY", display.c_str(), 1);
        unsetenv("WAYLAND_DISPLAY");
        unsetenv("QT_QPA_PLATFORM");
    }
    ~XServer()
    {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    XServer(const XServer &) = delete;
    XServer &operator=(const XServer &) = delete;

    std::string display;

private:
    pid_t pid = 0;
};

#endif
