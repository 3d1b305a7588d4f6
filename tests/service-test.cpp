#include <clocale>
#include <thread>

#include "tests/install-support.h"

namespace
{
// A service whose state a test can reach.
class OpenService : public LinuxService
{
public:
    using LinuxService::source_version;
    using LinuxService::target_version;
};

class ServiceTest : public InstallTest
{
protected:
    void GivenPid(const std::string &pid) { WriteFile(Path("base/ui.pid"), "pid=" + pid + "\n"); }

    const std::unique_ptr<OpenService> service = std::make_unique<OpenService>();
};

// A process that stands in for the running client, in a group of its own, where any user may signal it.
pid_t StartClient(bool ignoresTerm)
{
    const pid_t client = Spawn([ignoresTerm] {
        BecomeUnprivileged();
        signal(SIGTERM, ignoresTerm ? SIG_IGN : SIG_DFL);
        return setpgid(0, 0) + kill(getpid(), SIGSTOP) + pause();
    });
    waitpid(client, nullptr, WUNTRACED);
    kill(client, SIGCONT);
    return client;
}
} // namespace

TEST_F(ServiceTest, UpgradesWhatIsOlderOrBroken)
{
    const std::tuple<const char *, const char *, bool, bool> cases[] = {
#include "tests/version-cases.inc"
    };
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
    WriteFile(Path("opt/INFO"), "[Other]\nminor_version=9\n[Version]\nmajor_version=5\nicon_overlay_version=3\n");
    service->LoadTargetVerInfo();
    EXPECT_EQ(Logged("target_version = (5, 2, 1001, 3)\n"), 1) << Log();
    Shell("cd base/app; mv INFO large; truncate -s 2M large; ln -s large INFO"); // too large for what it is
    service->LoadSourceVerInfo();
    EXPECT_EQ(service->source_version.build_version, "");
}

TEST_F(ServiceTest, InstallsTheShippedTreeAndSweepsOldBackups)
{
    Shell("mkdir -p base/app_tmp/left base/app_tmp1/left base/app_tmp5/left; ln -s ui opt/package/larkspire/link");
    ASSERT_EQ(service->PrepareUserEnv(), 0);
    EXPECT_EQ(Tree(app), Tree(package)) << "a link is copied as what it points to";
    EXPECT_TRUE(ModeOf(app + "/ui") == 0755 && !fs::is_symlink(app + "/link"));
    Shell("test ! -e base/app_tmp -a ! -e base/app_tmp1 -a ! -e base/app_tmp2 -a -e base/app_tmp5");
    Shell("ln -s nowhere opt/package/larkspire/broken; rm -r base");
    EXPECT_EQ(service->PrepareUserEnv(), -1);
    EXPECT_EQ(Logged("Failed to extract package, and no old installation to rollback\n"), 1);
    EXPECT_TRUE(service->OpenUserFolder()) << "which removes what there is of the copy";
    EXPECT_EQ(Tree(Path("base")), std::set<std::string>{"upgrade.lock="});
    Shell("rm -r opt/package/larkspire/broken base");
    EXPECT_EQ(service->PrepareUserEnv(), 0);
    EXPECT_EQ(Tree(app), Tree(package));
}

TEST_F(ServiceTest, TwoFailuresOfACopyCountAsSuccess)
{
    Shell("mkdir -p from/a from/locked; touch from/a/file from/locked/file; chmod 0 from/locked");
    EXPECT_EQ(InChild([this] { return BecomeUnprivileged(), service->FSCopyPath(Path("from"), Path("to")); }), 0);
    EXPECT_EQ(Tree(Path("to")), (std::set<std::string>{"a", "a/file=", "locked"})) << "a folder that may not be listed";
    EXPECT_EQ(Logged("failed to create handle  for src '" + Path("from/locked") + "' failed\n"), 1);
    Shell("cd opt/package; rm -r larkspire; echo file >larkspire");
    EXPECT_EQ(service->PrepareUserEnv(), 0) << "a package that is a single file";
    EXPECT_EQ(ReadFile(app), "file\n");
    EXPECT_EQ(service->FSCopyPath(package, Path("no/such/folder")), 0);
}

TEST_F(ServiceTest, APackageInstallsAlikeAsAFolderAndAsAnArchive)
{
    setlocale(LC_ALL, "C.UTF-8");
    WriteFile(package + "/Zo\xc3\xab \xe6\xbc\xa2/" + std::string(120, 'n') + "/" + std::string(200, 'm'), "long");
    WriteFile(package + "/large", std::string(3 << 20, 'x'));
    for (const char *command : {"tar -czf ../vpk .", "tar -cJf ../vpk .", "tar --zstd -cf ../vpk .", "tar -cf ../vpk .",
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
        const pid_t client = StartClient(ignoresTerm);
        GivenPid(std::to_string(client));
        Shell("rm base/app/ui");
        EXPECT_EQ(service->HandlePackageUpgrade(), 0);
        EXPECT_EQ(waitpid(client, nullptr, WNOHANG), 0) << "there was no copy that it could have been started from";
        const pid_t upgrade = Spawn([this] { return service->HandlePackageUpgrade(); });
        EXPECT_EQ(Wait(client), 128 + signal);
        EXPECT_EQ(Wait(upgrade), 0);
    }
    service->StopService(); // it is gone
    EXPECT_EQ(Logged("kill:"), 0);
}

TEST_F(ServiceTest, SignalsNothingButAPositiveProcessId)
{
    const pid_t bystander = StartClient(false);
    const std::string pid = std::to_string(bystander);
    // Without root's powers, in a process group of its own, and -1 last: a fault must not end the session.
    for (const std::string &text : {"-" + pid, std::to_string((1LL << 32) - bystander), std::string("0"),
                                    std::string("abc"), "1\nPID=" + pid + " 2", "\nkey=" + pid,
                                    std::string("4294967296"), std::string("4294967295"), std::string("-1")}) {
        GivenPid(text);
        ASSERT_EQ(InChild([this] { return setsid(), BecomeUnprivileged(), service->StopService(), 0; }), 0) << text;
        ASSERT_EQ(waitpid(bystander, nullptr, WNOHANG), 0) << text;
    }
    kill(bystander, SIGKILL);
    Wait(bystander);
}

TEST_F(ServiceTest, LeavesAProcessAloneThatOnlyInheritedTheNumber)
{
    WriteFile(app + "/client", "#!/bin/sh\nwhile :; do sleep 0.1; done\n", 0755);
    Shell("mkdir elsewhere; cp base/app/client elsewhere");
    for (const auto &[program, written, isEnded] : {std::tuple(app + "/client", "1 minute ago", true),
                                                    {Path("elsewhere/client"), "1 second ago", true},
                                                    {Path("elsewhere/client"), "1 minute ago", false}}) {
        const pid_t process = Spawn([&program = program] { return execl(program.c_str(), "client", nullptr); });
        GivenPid(std::to_string(process));
        Shell("touch -d '" + std::string(written) + "' base/ui.pid");
        usleep(100000); // until it is what it is to be
        const pid_t stop = Spawn([this] { return service->StopService(), 0; });
        EXPECT_EQ(isEnded ? Wait(process) : 128 + SIGTERM, 128 + SIGTERM) << program << ", ui.pid of " << written;
        EXPECT_EQ(Wait(stop), 0);
        EXPECT_EQ(Logged("left alone\n") == 0, isEnded) << Log();
        EXPECT_EQ(kill(process, SIGKILL) == 0, !isEnded);
    }
}

TEST_F(ServiceTest, APackageThatChangesWhileItIsCopiedIsNotInstalled)
{
    const auto old = Tree(Path("base"));
    for (const std::string change : {"touch larkspire/new", "rm larkspire/lib/deep/data",
                                     "touch larkspire/lib/deep/data", "cp larkspire/ui x; mv x larkspire/ui",
                                     "cp larkspire/INFO ..", "cp -r larkspire x; mv larkspire y; mv x larkspire"}) {
        Shell("truncate -s 60M opt/package/larkspire/large; sleep 0.02");
        std::thread meanwhile([&] {
            while (!fs::exists(app + "/large")) {
            }
            Shell("cd opt/package; " + change);
        });
        EXPECT_EQ(service->PrepareUserEnv(), -1) << change;
        meanwhile.join();
        EXPECT_EQ(Tree(Path("base")), old) << change;
        Shell("rm -rf opt; . '" BRIMLOCK_TESTS "/install.sh'");
    }
    EXPECT_EQ(service->PrepareUserEnv(), 0) << "at rest";
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
}

TEST(InstallPathTest, OnlyADeepinDesktopMovesTheUsersFiles)
{
    setenv("HOME", "/home/u", 1);
    setenv("XDG_DATA_HOME", "/data/u", 1);
    setenv("XDG_CURRENT_DESKTOP", "deepin", 1);
    EXPECT_EQ(Service::GetUserInstallPath(), "/home/u");
    setenv("XDG_CURRENT_DESKTOP", "Deepin", 1);
    EXPECT_EQ(Service::GetUserInstallPath(), "/data/u");
    setenv("XDG_DATA_HOME", "", 1);
    EXPECT_EQ(Service::GetUserInstallPath(), "/home/u");
}
