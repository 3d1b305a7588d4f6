#include <chrono>

#include "service/linux/start-script.h"
#include "tests/install-support.h"

namespace
{
class ServiceTest : public InstallTest
{
protected:
    void GivenPid(const std::string &pid) { WriteFile(Path("base/ui.pid"), "pid=" + pid + "\n"); }

    // Starts a client as an ordinary user and in its own process group.
    pid_t StartClient(const std::string &program, const char *before = ":")
    {
        WriteFile(program,
                  "#!/bin/sh\n$1\n>'" + Path("ready") + "'$$\nwhile :; do sleep 0.1; done\n", 0755);
        const pid_t client = Spawn([&] {
            BecomeUnprivileged();
            return setsid() < 0 || execl(program.c_str(), "client", before, nullptr) != 0;
        });
        Shell("timeout 30 sh -c 'until [ -e ready" + std::to_string(client) +
              " ]; do sleep 0.01; done'");
        return client;
    }

    LinuxService service;
};
} // namespace

TEST_F(ServiceTest, StopsTheClientButNoOtherProcessWithItsId)
{
    struct Client {
        std::string program;
        const char *before; // a command that the client executes first
        const char *pidFileDate;
        int signal;  // that ends the client; SIGUSR1 is sent by the test
        int seconds; // that StopService() takes; 0: less than 3
    };
    Shell("mv base real; ln -s real base"); // a client's path may be the real one
    const Client clients[] = {{Path("real/app/client"), ":", "1 minute ago", SIGTERM, 0},
                              {app + "/stubborn", "trap : TERM", "1 minute ago", SIGKILL, 5},
                              {Path("another"), ":", "1 second ago", SIGTERM, 0},
                              {Path("inherit(ed)"), ":", "4 seconds ago", SIGUSR1, 0}};
    for (const Client &c : clients) {
        const pid_t client = StartClient(c.program, c.before);
        GivenPid(std::to_string(client));
        Shell("touch -d '" + std::string(c.pidFileDate) + "' base/ui.pid");
        const auto stop = [this] {
            const auto start = std::chrono::steady_clock::now();
            service.StopService();
            const auto passed = std::chrono::steady_clock::now() - start;
            const auto seconds = static_cast<int>(passed / std::chrono::seconds(1));
            return seconds < 3 ? 0 : seconds;
        };
        const pid_t stopper = Spawn(stop);
        if (c.signal == SIGUSR1) {
            sleep(1);
            kill(client, SIGUSR1);
        }
        EXPECT_EQ(Wait(client), 128 + c.signal) << c.program;
        EXPECT_EQ(Wait(stopper), c.seconds) << c.program;
    }
    service.StopService(); // the last client, which has ended
    EXPECT_EQ(Logged("left alone\n"), 1);
    EXPECT_EQ(Logged("kill:"), 0) << Log();
}

TEST_F(ServiceTest, SignalsNothingButAPositiveProcessId)
{
    const pid_t bystander = StartClient(Path("bystander"));
    const std::string pid = std::to_string(bystander);
    const std::string wrapped = std::to_string((1LL << 32) - bystander); // -pid in 32 bits
    // As an ordinary user, in its own process group, and with -1 last: a faulty service must not
    // end other processes of the machine.
    for (const std::string &text : {"-" + pid, wrapped, std::string("0"), std::string("abc"),
                                    "1\nPID=" + pid + " 2", "\nkey=" + pid, std::string("-1")}) {
        GivenPid(text);
        const auto stop = [this] {
            return setsid(), BecomeUnprivileged(), service.StopService(), 0;
        };
        ASSERT_EQ(InChild(stop), 0) << text;
        ASSERT_EQ(waitpid(bystander, nullptr, WNOHANG), 0) << text;
    }
    const auto stopItself = [this] {
        return GivenPid(std::to_string(getpid())), service.StopService(), 0;
    };
    EXPECT_EQ(InChild(stopItself), 0);
    GivenPid(pid);
    Shell("rm base/app/ui");
    EXPECT_EQ(service.HandlePackageUpgrade(), 0) << "no program, so no client";
    kill(bystander, SIGUSR1);
    EXPECT_EQ(Wait(bystander), 128 + SIGUSR1);
}

TEST_F(ServiceTest, ResultsAndMessagesAreUnchanged)
{
    const auto unprivileged = [](const std::function<void()> &call) {
        return InChild([&] { return BecomeUnprivileged(), call(), 0; });
    };
    const auto installPath = [] { return Service::GetUserInstallPath().toStdString(); };
    StartLog("service_debug=7\nfile_op_debug=0\n");
    ExpectResults({
#include "tests/service-cases.inc"
    });
    EXPECT_EQ(PlainLog(), ReadFile(BRIMLOCK_TESTS "/service-log.txt"));
}
