#include "service/linux/linux-service.h"

#include <clocale>
#include <csignal>
#include <thread>

#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"
#include "tests/support.h"

namespace
{
// A service whose steps and state a test can reach.
class OpenService : public LinuxService
{
public:
    using LinuxService::source_version;
    using LinuxService::target_version;
};

class ServiceTest : public ScratchTest
{
protected:
    ServiceTest()
    {
        StartLog();
        StrTable::InitStrTable(); // unpacking sends a label
        SetPath("root_resource_path", Path("opt"));
        SetPath("user_brimlock_path", Path("home/.Brimlock"));
        SetPath("user_brimlock_app_path", app);
        SetPath("user_brimlock_resource_path", app);
        SetPath("user_brimlock_ui_path", app + "/bin/brimlock-ui");
        SetPath("user_larkspire_path", Path("home/.Larkspire"));
        fs::create_directories(Path("home"));
    }

    static void SetPath(const char *key, const std::string &path)
    {
        UIPathManager::getInstance()->setPath(key, QString::fromStdString(path));
    }

    static std::string Info(const std::string &build)
    {
        return "[Version]\nmajor_version=1\nminor_version=2\nbuild_version=" + build +
               "\nicon_overlay_version=3\n";
    }

    void GivenInstalled(const std::string &build)
    {
        WriteFile(app + "/INFO", Info(build));
        WriteFile(app + "/bin/brimlock-ui", "old");
    }

    void GivenShipped(const std::string &build)
    {
        WriteFile(Path("opt/INFO"), Info(build));
        WriteFile(package + "/INFO", Info(build));
        WriteFile(package + "/bin/brimlock-ui", "new", 0755);
        WriteFile(package + "/lib/deep/data", std::string("\0binary", 7));
        fs::create_directories(package + "/empty");
    }

    void GivenPidFile(const std::string &text) { WriteFile(Path("home/.Brimlock/ui.pid"), text); }

    const std::string app = Path("home/.Brimlock/Brimlock.app");
    const std::string package = Path("opt/package/larkspire");
};

// A process that stands in for the running client. It is reaped as soon as it ends, as init would.
class Client
{
public:
    explicit Client(bool ignoresTerm)
    {
        int ready[2];
        if (pipe(ready) != 0 || (pid = fork()) < 0) {
            abort();
        }
        if (pid == 0) {
            setpgid(0, 0);
            signal(SIGTERM, ignoresTerm ? SIG_IGN : SIG_DFL);
            (void)!write(ready[1], "", 1);
            for (;;) {
                pause();
            }
        }
        char byte = 0;
        (void)!read(ready[0], &byte, 1);
        close(ready[0]);
        close(ready[1]);
        reaper = std::thread([this] { waitpid(pid, &status, 0); });
    }
    ~Client()
    {
        if (reaper.joinable()) {
            EndedBy();
        }
    }

    // The signal that ended the process; SIGUSR1 when nothing had.
    int EndedBy()
    {
        kill(pid, SIGUSR1);
        reaper.join();
        return WTERMSIG(status);
    }

    pid_t pid = 0;

private:
    int status = 0;
    std::thread reaper;
};
} // namespace

TEST_F(ServiceTest, UpgradesWhatIsOlderOrBroken)
{
    const struct {
        const char *source;
        const char *target;
        bool hasUi;
        bool expected;
    } cases[] = {
        {"", "1000", false, true},     {"1000", "1000", true, false}, {"1000", "1001", true, true},
        {"1001", "1000", true, false}, {"1000", "1000", false, true}, {"1000", "", true, false},
        {"1000", "", false, true},     {"12abc", "12", true, false},  {"12abc", "13", true, true},
        {"  -5", "abc", true, true},   {"", "1", true, true},
    };
    for (const auto &c : cases) {
        OpenService service;
        service.source_version.build_version = c.source;
        service.target_version.build_version = c.target;
        fs::remove_all(app);
        if (c.hasUi) {
            WriteFile(app + "/bin/brimlock-ui", "");
        }
        EXPECT_EQ(service.IsNeedUpgrade(), c.expected) << c.source << " " << c.target << " " << c.hasUi;
    }
}

TEST_F(ServiceTest, AVersionFileChangesOnlyWhatItHolds)
{
    GivenShipped("1001");
    OpenService service;
    service.LoadTargetVerInfo();
    WriteFile(Path("opt/INFO"), "[Other]\nminor_version=9\n[Version]\nmajor_version=5\n");
    service.LoadTargetVerInfo();
    EXPECT_NE(Log().find("target_version = (5, 2, 1001, 3)\n"), std::string::npos) << Log();
    service.LoadSourceVerInfo();
    EXPECT_NE(Log().find("source does not exist\n"), std::string::npos);

    // Sparse, and too large to be taken into memory.
    WriteFile(app + "/INFO", Info("1000"));
    fs::resize_file(app + "/INFO", 3ULL << 30);
    service.LoadSourceVerInfo();
    EXPECT_EQ(service.source_version.build_version, "");
    EXPECT_EQ(CountOf(Log(), "[WARNING]"), 1u) << Log();
}

TEST_F(ServiceTest, InstallsTheShippedTreeAndSweepsOldBackups)
{
    GivenShipped("1001");
    fs::create_symlink("lib/deep/data", package + "/link");
    OpenService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    EXPECT_EQ(ReadFile(app + "/link"), ReadFile(package + "/lib/deep/data"));
    EXPECT_FALSE(fs::is_symlink(app + "/link")) << "a link is copied as what it points to";
    fs::remove(package + "/link");
    fs::remove(app + "/link");
    EXPECT_EQ(Tree(app), Tree(package));
    EXPECT_EQ(fs::status(app + "/bin/brimlock-ui").permissions() & fs::perms::owner_exec,
              fs::perms::owner_exec);

    WriteFile(app + "_tmp/left", "");
    WriteFile(app + "_tmp1/left", "");
    WriteFile(app + "_tmp5/left", "");
    WriteFile(app + "/gone", "");
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    EXPECT_EQ(Tree(app), Tree(package));
    for (const auto &[suffix, stays] :
         {std::pair("_tmp", false), {"_tmp1", false}, {"_tmp2", false}, {"_tmp5", true}}) {
        EXPECT_EQ(fs::exists(app + suffix), stays) << suffix;
    }
}

TEST_F(ServiceTest, RollsBackToTheOldCopyWhenTheNewOneCannotBeCopied)
{
    for (const char *broken : {"lib/deep/broken", "broken"}) {
        GivenInstalled("1000");
        GivenShipped("1001");
        fs::create_symlink("nowhere", package + "/" + broken);
        const std::vector<std::string> old = Tree(app);

        EXPECT_EQ(OpenService().PrepareUserEnv(), -1);
        EXPECT_EQ(Tree(app), old);
        EXPECT_FALSE(fs::exists(app + "_tmp"));
        EXPECT_NE(Log().find("Failed to extract package, rollback to old installation\n"), std::string::npos);

        // Without an old copy what was copied stays, but never as a complete one: its version file is
        // missing.
        fs::remove_all(app);
        EXPECT_EQ(OpenService().PrepareUserEnv(), -1);
        EXPECT_NE(Log().find("Failed to extract package, and no old installation to rollback\n"),
                  std::string::npos);
        EXPECT_TRUE(fs::exists(app));
        EXPECT_FALSE(fs::exists(app + "/INFO"));
        fs::remove_all(Path("opt"));
    }
}

TEST_F(ServiceTest, APackageInstallsAlikeAsAFolderAndAsAnArchive)
{
    setlocale(LC_ALL, "C.UTF-8");
    GivenShipped("1001");
    WriteFile(package + "/a name/with blanks", "blank");
    WriteFile(package + "/Zo\xc3\xab/\xe6\xbc\xa2", "UTF-8");
    WriteFile(package + "/nothing in it", "");
    WriteFile(package + "/long/" + std::string(120, 'n') + "/" + std::string(200, 'm'), "a long name");
    WriteFile(package + "/large", std::string(3 << 20, 'x'));
    OpenService service;
    ASSERT_EQ(service.CopyPackage(), 0);
    const std::vector<std::string> copied = Tree(app);
    ASSERT_EQ(copied, Tree(package));

    for (const char *command :
         {"tar -czf larkspire.vpk -C larkspire .", "tar -cJf larkspire.vpk -C larkspire .",
          "tar --zstd -cf larkspire.vpk -C larkspire .", "tar -cf larkspire.vpk -C larkspire .",
          "tar --format=pax -cf larkspire.vpk -C larkspire .",
          "cd larkspire && zip -qr package.zip . && mv package.zip ../larkspire.vpk",
          "cd larkspire && 7z a ../package.7z . && mv ../package.7z ../larkspire.vpk",
          "cd larkspire && find . | cpio -o -H newc >../larkspire.vpk"}) {
        fs::remove_all(app);
        fs::remove(Path("opt/package/larkspire.vpk"));
        ASSERT_EQ(system(("cd '" + Path("opt/package") + "' && (" + command + ") >/dev/null 2>&1").c_str()),
                  0)
            << command;
        EXPECT_EQ(service.ExtractPackage(), 0) << command << "\n" << Log();
        EXPECT_EQ(Tree(app), copied) << command;
        EXPECT_EQ(fs::status(app + "/bin/brimlock-ui").permissions() & fs::perms::owner_exec,
                  fs::perms::owner_exec);
    }
}

TEST_F(ServiceTest, GivesUpWhenNoBackupNameIsFree)
{
    GivenInstalled("1000");
    GivenShipped("1001");
    WriteFile(app + "_tmp/left", "");
    for (char n = '1'; n <= '9'; ++n) {
        WriteFile(app + "_tmp" + n + "/left", "");
    }
    EXPECT_EQ(OpenService().PrepareUserEnv(), -1);
    EXPECT_EQ(ReadFile(app + "/bin/brimlock-ui"), "old");
    EXPECT_TRUE(fs::exists(app + "_tmp/left"));
    EXPECT_EQ(CountOf(Log(), "failed to backup app from"), 11u);
    EXPECT_EQ(CountOf(Log(), "_tmp9' at max retries, exiting\n"), 1u);
    EXPECT_EQ(CountOf(Log(), "Please check if '" + app + "' is writable."), 1u);
    EXPECT_EQ(CountOf(Log(), "[ERROR]"), 12u);
}

TEST_F(ServiceTest, TwoFailuresOfACopyCountAsSuccess)
{
    // A package that is a single file.
    WriteFile(package, "not a folder");
    GivenInstalled("1000");
    EXPECT_EQ(OpenService().PrepareUserEnv(), 0);
    EXPECT_EQ(ReadFile(app), "not a folder");
    EXPECT_EQ(OpenService().FSCopyPath(package, Path("no/such/folder")), 0);
    EXPECT_EQ(OpenService().FSCopyPath(Path("none"), Path("dst")), -1);

    // A folder that may not be listed.
    EXPECT_EQ(InChild([this] {
                  BecomeUnprivileged();
                  WriteFile(Path("mine/a/file"), "");
                  WriteFile(Path("mine/locked/file"), "");
                  chmod(Path("mine/locked").c_str(), 0);
                  return OpenService().FSCopyPath(Path("mine"), Path("copy"));
              }),
              0);
    EXPECT_EQ(Tree(Path("copy")), (std::vector<std::string>{"a", "a/file=", "locked"}));
    EXPECT_NE(Log().find("[WARNING] cloud-service.cpp"), std::string::npos);
    EXPECT_NE(Log().find("failed to create handle  for src '" + Path("mine/locked") + "' failed\n"),
              std::string::npos);
}

TEST_F(ServiceTest, EndsTheClientGentlyAndThenForcibly)
{
    for (const auto &[ignoresTerm, signal, seconds] : {std::tuple(false, SIGTERM, 0), {true, SIGKILL, 5}}) {
        Client client(ignoresTerm);
        GivenPidFile("pid=" + std::to_string(client.pid) + "\n");
        const time_t before = time(nullptr);
        OpenService().StopService();
        EXPECT_GE(time(nullptr) - before, seconds);
        EXPECT_EQ(client.EndedBy(), signal);
    }
    OpenService().StopService(); // a client that is long gone
    EXPECT_EQ(CountOf(Log(), "kill:"), 0u);
}

TEST_F(ServiceTest, SignalsNothingButAPositiveProcessId)
{
    Client bystander(false);
    const std::string group = std::to_string(bystander.pid);
    const std::string narrowed = std::to_string((1LL << 32) - bystander.pid);
    // In a process group of its own, without root's powers, and -1 last: a fault must not end the session.
    for (const std::string &pid :
         {"pid=-" + group, "pid=" + narrowed, std::string("pid=0"), std::string("pid=abc"),
          std::string("PID=1"), "pid=" + group + " 2", std::string("pid=4294967296"),
          std::string("pid=4294967295"), std::string("pid=-1")}) {
        GivenPidFile(pid + "\n");
        ASSERT_EQ(InChild([] {
                      setsid();
                      BecomeUnprivileged();
                      OpenService().StopService();
                      return 0;
                  }),
                  0)
            << pid;
        ASSERT_EQ(kill(bystander.pid, 0), 0) << pid;
    }
    EXPECT_EQ(CountOf(Log(), "Failed to read pid file"), 1u);
    EXPECT_EQ(bystander.EndedBy(), SIGUSR1);
}

TEST_F(ServiceTest, OnlyAnUpgradeOfAnExistingClientStopsIt)
{
    GivenShipped("1001");
    Client client(false);
    GivenPidFile("pid=" + std::to_string(client.pid) + "\n");
    EXPECT_EQ(OpenService().HandlePackageUpgrade(), 0);
    EXPECT_EQ(kill(client.pid, 0), 0) << "there was no copy that this process could have been started from";
    EXPECT_EQ(OpenService().HandlePackageUpgrade(), 0);
    EXPECT_EQ(client.EndedBy(), SIGTERM);
}

TEST_F(ServiceTest, ThePredecessorGoesWhateverBecomesOfItsData)
{
    const std::string old = Path("home/.Larkspire");
    const std::string current = Path("home/.Brimlock");
    OpenService service;
    WriteFile(old + "/app/file", "");
    WriteFile(old + "/data/db", "first");
    service.RemoveAgedFolders();
    service.RemoveAgedFolders();
    EXPECT_EQ(Tree(old), (std::vector<std::string>{"data", "data/db=first"}));
    EXPECT_EQ(CountOf(Log(), "removing aged app folder " + old + "/app\n"), 2u);

    service.MigrateService();
    EXPECT_EQ(ReadFile(current + "/data/db"), "first");
    EXPECT_FALSE(fs::exists(old));

    WriteFile(old + "/data/db", "second");
    service.MigrateService();
    EXPECT_EQ(ReadFile(current + "/data/db"), "first");
    EXPECT_FALSE(fs::exists(old));
    EXPECT_EQ(CountOf(Log(), "Failed to move data to Brimlock folder\n"), 1u);

    SetPath("user_brimlock_path", Path("log/no-folder"));
    WriteFile(old + "/data/db", "third");
    service.MigrateService();
    EXPECT_EQ(ReadFile(old + "/data/db"), "third");
    EXPECT_EQ(CountOf(Log(), "Failed to create Brimlock folder\n"), 1u);
}

TEST(InstallPathTest, OnlyADeepinDesktopMovesTheUsersFiles)
{
    setenv("HOME", "/home/u", 1);
    const struct {
        const char *desktop;
        const char *data;
        const char *expected;
    } cases[] = {{"Deepin", "/data/u1", "/data/u1"},
                 {"Deepin", "", "/home/u"},
                 {"Deepin", nullptr, "/home/u"},
                 {"deepin", "/data/u1", "/home/u"},
                 {nullptr, "/data", "/home/u"}};
    for (const auto &c : cases) {
        c.desktop ? setenv("XDG_CURRENT_DESKTOP", c.desktop, 1) : unsetenv("XDG_CURRENT_DESKTOP");
        c.data ? setenv("XDG_DATA_HOME", c.data, 1) : unsetenv("XDG_DATA_HOME");
        EXPECT_EQ(Service::GetUserInstallPath(), c.expected) << c.desktop;
    }
}
