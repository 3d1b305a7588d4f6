#include "service/linux/linux-service.h"

#include <clocale>
#include <thread>

#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"
#include "tests/support.h"

namespace
{
// A service whose state a test can reach.
class OpenService : public LinuxService
{
public:
    using LinuxService::source_version;
    using LinuxService::target_version;
};

std::string Info(const std::string &build)
{
    return "[Version]\nmajor_version=1\nminor_version=2\nbuild_version=" + build +
           "\nicon_overlay_version=3\n";
}

class ServiceTest : public ScratchTest
{
protected:
    ServiceTest()
    {
        StrTable::InitStrTable(); // unpacking sends a label
        for (const auto &[key, path] : {std::pair("root_resource_path", "opt"),
                                        {"user_brimlock_path", "base"},
                                        {"user_brimlock_app_path", "base/app"},
                                        {"user_brimlock_resource_path", "base/app"},
                                        {"user_brimlock_ui_path", "base/app/ui"},
                                        {"user_larkspire_path", "old"}}) {
            UIPathManager::getInstance()->setPath(key, QString::fromStdString(Path(path)));
        }
        WriteFile(app + "/INFO", Info("1000"));
        WriteFile(app + "/ui", "old");
        WriteFile(Path("opt/INFO"), Info("1001"));
        WriteFile(package + "/INFO", Info("1001"));
        WriteFile(package + "/ui", "new", 0755);
        WriteFile(package + "/lib/deep/data", std::string("\0binary", 7));
        fs::create_directories(package + "/empty");
        service = std::make_unique<OpenService>();
    }

    void GivenPid(const std::string &pid) { WriteFile(Path("base/ui.pid"), "pid=" + pid + "\n"); }

    const std::string app = Path("base/app");
    const std::string package = Path("opt/package/larkspire");
    std::unique_ptr<OpenService> service;
};

// A process that stands in for the running client. It is reaped as soon as it ends, as init would.
class Client
{
public:
    explicit Client(bool ignoresTerm) : pid(fork())
    {
        if (pid == 0) {
            setpgid(0, 0);
            BecomeUnprivileged(); // others without powers may signal it
            signal(SIGTERM, ignoresTerm ? SIG_IGN : SIG_DFL);
            kill(getpid(), SIGSTOP);
            for (;;) {
                pause();
            }
        }
        waitpid(pid, nullptr, WUNTRACED);
        kill(pid, SIGCONT);
        reaper = std::thread([this] { end = Wait(pid) - 128; });
    }
    ~Client() { reaper.joinable() ? (void)EndedBy() : void(); }

    // The signal that ended the process; SIGUSR1 when nothing had.
    int EndedBy()
    {
        kill(pid, SIGUSR1);
        reaper.join();
        return end;
    }

    const pid_t pid;

private:
    int end = 0;
    std::thread reaper;
};
} // namespace

TEST_F(ServiceTest, UpgradesWhatIsOlderOrBroken)
{
    // clang-format off
    const std::tuple<const char *, const char *, bool, bool> cases[] = {
        {"", "1000", false, true}, {"1000", "1000", true, false}, {"1000", "1001", true, true},
        {"1001", "1000", true, false}, {"1000", "1000", false, true}, {"1000", "", true, false},
        {"12abc", "12", true, false}, {"12abc", "13", true, true}, {"  -5", "abc", true, true}};
    // clang-format on
    for (const auto &[source, target, hasUi, expected] : cases) {
        service->source_version.build_version = source;
        service->target_version.build_version = target;
        Shell(hasUi ? "touch base/app/ui" : "rm -f base/app/ui");
        EXPECT_EQ(service->IsNeedUpgrade(), expected) << source << " " << target << " " << hasUi;
    }
}

TEST_F(ServiceTest, AVersionFileChangesOnlyWhatItHolds)
{
    service->LoadTargetVerInfo();
    WriteFile(Path("opt/INFO"), "[Other]\nminor_version=9\n[Version]\nmajor_version=5\n");
    service->LoadTargetVerInfo();
    EXPECT_EQ(Logged("target_version = (5, 2, 1001, 3)\n"), 1) << Log();
    fs::resize_file(app + "/INFO", 2 << 20); // too large for what it is, also behind a link
    Shell("cd base/app; mv INFO large; ln -s large INFO");
    service->LoadSourceVerInfo();
    EXPECT_EQ(service->source_version.build_version, "");
    EXPECT_EQ(Logged("[WARNING]"), 1) << Log();
}

TEST_F(ServiceTest, InstallsTheShippedTreeAndSweepsOldBackups)
{
    Shell("mkdir -p base/app_tmp/left base/app_tmp1/left base/app_tmp5/left; ln -s lib/deep/data "
          "opt/package/larkspire/link");
    ASSERT_EQ(service->PrepareUserEnv(), 0);
    EXPECT_EQ(ModeOf(app + "/ui") & S_IXUSR, static_cast<mode_t>(S_IXUSR));
    EXPECT_FALSE(fs::is_symlink(app + "/link")) << "a link is copied as what it points to";
    EXPECT_EQ(ReadFile(app + "/link"), ReadFile(package + "/link"));
    Shell("rm base/app/link opt/package/larkspire/link");
    EXPECT_EQ(Tree(app), Tree(package));
    EXPECT_FALSE(fs::exists(app + "_tmp") || fs::exists(app + "_tmp1") || fs::exists(app + "_tmp2"));
    EXPECT_TRUE(fs::exists(app + "_tmp5"));
}

TEST_F(ServiceTest, RollsBackToTheOldCopyWhenTheNewOneCannotBeCopied)
{
    const auto old = Tree(app);
    Shell("ln -s nowhere opt/package/larkspire/broken");
    EXPECT_EQ(service->PrepareUserEnv(), -1);
    EXPECT_EQ(Tree(app), old);
    EXPECT_FALSE(fs::exists(app + "_tmp"));
    EXPECT_EQ(Logged("Failed to extract package, rollback to old installation\n"), 1);
    // Without an old copy what was copied stays, but it never looks complete: its version file is missing.
    Shell("rm -r base/app");
    EXPECT_EQ(service->PrepareUserEnv(), -1);
    EXPECT_EQ(Logged("Failed to extract package, and no old installation to rollback\n"), 1);
    EXPECT_TRUE(fs::exists(app + "/lib/deep/data"));
    EXPECT_FALSE(fs::exists(app + "/INFO"));
}

TEST_F(ServiceTest, GivesUpWhenNoBackupNameIsFree)
{
    Shell("for n in '' 1 2 3 4 5 6 7 8 9; do mkdir -p base/app_tmp$n/left; done");
    const auto before = Tree(Path("base"));
    EXPECT_EQ(service->PrepareUserEnv(), -1);
    EXPECT_EQ(Tree(Path("base")), before);
    EXPECT_EQ(Logged("failed to backup app from"), 11);
    EXPECT_EQ(Logged("_tmp9' at max retries, exiting\n"), 1);
    EXPECT_EQ(Logged("Please check if '" + app + "' is writable."), 1);
}

TEST_F(ServiceTest, TwoFailuresOfACopyCountAsSuccess)
{
    const auto copyLocked = [this] {
        BecomeUnprivileged();
        WriteFile(Path("mine/a/file"), "");
        WriteFile(Path("mine/locked/file"), "");
        chmod(Path("mine/locked").c_str(), 0);
        return service->FSCopyPath(Path("mine"), Path("copy"));
    };
    EXPECT_EQ(InChild(copyLocked), 0) << "a folder that may not be listed";
    EXPECT_EQ(Tree(Path("copy")), (std::set<std::string>{"a", "a/file=", "locked"}));
    EXPECT_EQ(Logged("failed to create handle  for src '" + Path("mine/locked") + "' failed\n"), 1);

    Shell("cd opt/package; rm -r larkspire; echo file >larkspire");
    EXPECT_EQ(service->PrepareUserEnv(), 0) << "a package that is a single file";
    EXPECT_EQ(ReadFile(app), "file\n");
    EXPECT_EQ(service->FSCopyPath(package, Path("no/such/folder")), 0);
    EXPECT_EQ(service->FSCopyPath(Path("none"), Path("dst")), -1);
}

TEST_F(ServiceTest, APackageInstallsAlikeAsAFolderAndAsAnArchive)
{
    setlocale(LC_ALL, "C.UTF-8");
    WriteFile(package + "/Zo\xc3\xab/\xe6\xbc\xa2 with blanks", "UTF-8");
    WriteFile(package + "/long/" + std::string(120, 'n') + "/" + std::string(200, 'm'), "");
    WriteFile(package + "/large", std::string(3 << 20, 'x'));
    for (const char *command :
         {"tar -czf ../vpk .", "tar -cJf ../vpk .", "tar --zstd -cf ../vpk .", "tar -cf ../vpk .",
          "tar --format=pax -cf ../vpk .", "zip -qr ../vpk.zip . && mv ../vpk.zip ../vpk",
          "7z a ../vpk.7z . && mv ../vpk.7z ../vpk", "find . | cpio -o -H newc >../vpk"}) {
        Shell(std::string("rm -rf base/app; cd opt/package/larkspire && ") + command +
              " && mv ../vpk ../larkspire.vpk");
        EXPECT_EQ(service->ExtractPackage(), 0) << command << "\n" << Log();
        EXPECT_EQ(Tree(app), Tree(package)) << command;
        EXPECT_EQ(ModeOf(app + "/ui"), ModeOf(package + "/ui")) << command;
    }
    Shell("rm -r base/app");
    EXPECT_EQ(service->CopyPackage(), 0);
    EXPECT_EQ(Tree(app), Tree(package));
}

TEST_F(ServiceTest, EndsTheClientOfAnExistingCopyGentlyAndThenForcibly)
{
    for (const auto &[ignoresTerm, signal] : {std::pair(false, SIGTERM), {true, SIGKILL}}) {
        Client client(ignoresTerm);
        GivenPid(std::to_string(client.pid));
        Shell("rm base/app/ui");
        EXPECT_EQ(service->HandlePackageUpgrade(), 0);
        EXPECT_EQ(kill(client.pid, 0), 0) << "there was no copy that it could have been started from";
        EXPECT_EQ(service->HandlePackageUpgrade(), 0);
        EXPECT_EQ(client.EndedBy(), signal);
    }
    service->StopService(); // it is gone
    EXPECT_EQ(Logged("kill:"), 0);
}

TEST_F(ServiceTest, SignalsNothingButAPositiveProcessId)
{
    Client bystander(false);
    const std::string pid = std::to_string(bystander.pid);
    // Without root's powers, in a process group of its own, and -1 last: a fault must not end the session.
    for (const std::string &text :
         {"-" + pid, std::to_string((1LL << 32) - bystander.pid), std::string("0"), std::string("abc"),
          "1\nPID=" + pid + " 2", "\nkey=" + pid, std::string("4294967296"), std::string("4294967295"),
          std::string("-1")}) {
        GivenPid(text);
        ASSERT_EQ(InChild([this] { return setsid(), BecomeUnprivileged(), service->StopService(), 0; }), 0)
            << text;
        ASSERT_EQ(kill(bystander.pid, 0), 0) << text;
    }
    EXPECT_EQ(bystander.EndedBy(), SIGUSR1);
}

TEST_F(ServiceTest, ThePredecessorGoesWhateverBecomesOfItsData)
{
    Shell("mkdir -p old/app/x old/data; echo 1 >old/data/db");
    service->RemoveAgedFolders();
    service->RemoveAgedFolders();
    EXPECT_EQ(Tree(Path("old")), (std::set<std::string>{"data", "data/db=1\n"}));
    EXPECT_EQ(Logged("removing aged app folder " + Path("old/app") + "\n"), 2);
    service->MigrateService();
    Shell("test ! -e old; mkdir -p old/data; echo 2 >old/data/db");
    service->MigrateService();
    EXPECT_EQ(ReadFile(Path("base/data/db")), "1\n");
    EXPECT_FALSE(fs::exists(Path("old"))) << "also with the data that could not be moved";
    EXPECT_EQ(Logged("Failed to move data to Brimlock folder\n"), 1);
    Shell("rm -r base; echo >base; mkdir old");
    UIPathManager::getInstance()->setPath("user_brimlock_path", QString::fromStdString(Path("base/below")));
    service->MigrateService();
    EXPECT_TRUE(fs::exists(Path("old")));
    EXPECT_EQ(Logged("Failed to create Brimlock folder\n"), 1);
}

TEST(InstallPathTest, OnlyADeepinDesktopMovesTheUsersFiles)
{
    setenv("HOME", "/home/u", 1);
    for (const auto &[desktop, data, expected] : {std::tuple("Deepin", "/data/u1", "/data/u1"),
                                                  {"Deepin", "", "/home/u"},
                                                  {"deepin", "/data/u1", "/home/u"},
                                                  {"", "/data/u1", "/home/u"}}) {
        setenv("XDG_CURRENT_DESKTOP", desktop, 1);
        setenv("XDG_DATA_HOME", data, 1);
        EXPECT_EQ(Service::GetUserInstallPath(), expected) << desktop;
    }
}
