#include <chrono>
#include <clocale>

#include "tests/install-support.h"

namespace
{
class ServiceTest : public InstallTest
{
protected:
    void GivenPid(const std::string &pid) { WriteFile(Path("base/ui.pid"), "pid=" + pid + "\n"); }

    // A client's process, at its work, in a group of its own, where any user may signal it.
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

TEST_F(ServiceTest, UpgradesWhatIsOlderOrBroken)
{
    const std::tuple<const char *, const char *, bool, bool> cases[] = {
#include "tests/version-cases.inc"
    };
    int second = 0;
    for (const auto &[source, target, hasUi, expected] : cases) {
        WriteFile(app + "/INFO", std::string("[Version]\nbuild_version=") + source);
        WriteFile(Path("opt/INFO"), std::string("[Version]\nbuild_version=") + target);
        // Qt takes a file of the same size and time for the one that it has read.
        Shell("touch -d @" + std::to_string(++second) + " base/app/INFO opt/INFO base/app/ui");
        Shell(hasUi ? "true" : "rm base/app/ui");
        service.PreUpgrade();
        EXPECT_EQ(service.IsNeedUpgrade(), expected) << source << " " << target << " " << hasUi;
    }
}

TEST_F(ServiceTest, AVersionFileChangesOnlyWhatItHolds)
{
    service.PreUpgrade();
    Shell("test \"$(sed -n 's/.*): \\([a-zA-Z]*[_ ]version\\)[ :].*/\\1/p' log | xargs)\" = "
          "'target_version source_version Source version Target version'");
    WriteFile(Path("opt/INFO"),
              "[Other]\nminor_version=9\n[Version]\nmajor_version=5\nicon_overlay_version=3\n");
    Shell("cd base/app; mv INFO large; truncate -s 2M large; ln -s large INFO"); // too large for
                                                                                 // what it is
    service.PreUpgrade();
    LinuxService().LoadSourceVerInfo();
    EXPECT_EQ(Logged("target_version = (5, 2, 1001, 3)\n") + Logged("source_version = (, , , )\n"),
              2)
        << Log();
    EXPECT_EQ(Logged("source_version = (1, 2, 1000, )\n"), 2) << Log();
}

TEST_F(ServiceTest, InstallsTheShippedTreeAndSweepsOldBackups)
{
    Shell("mkdir -p base/app_tmp/left base/app_tmp1/left base/app_tmp5/left; ln -s ui "
          "opt/package/larkspire/link");
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    EXPECT_TRUE(service.OpenUserFolder() && service.PrepareUserEnv() == 0);
    EXPECT_EQ(Tree(app), Tree(package)) << "a link is copied as what it points to";
    Shell("test -x base/app/ui -a ! -L base/app/link -a \"$(ls base | xargs)\" = 'app app_tmp5 "
          "upgrade.lock'");
    Shell("ln -s nowhere opt/package/larkspire/broken; rm -r base/app*");
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(Logged("Failed to extract package, and no old installation to rollback\n"), 1);
    service.CloseUserFolder();
    EXPECT_TRUE(Tree("/proc/self/fdinfo").size() == openFiles &&
                !fs::exists(Path("base/upgrade.lock")));
    EXPECT_TRUE(service.OpenUserFolder()) << "which removes what there is of the copy";
    EXPECT_EQ(Tree(Path("base")), std::set<std::string>{"upgrade.lock="});
}

TEST_F(ServiceTest, TwoFailuresOfACopyCountAsSuccess)
{
    Shell("mkdir -p from/a from/locked; touch from/a/file from/locked/file; chmod 0 from/locked");
    EXPECT_EQ(InChild([this] {
                  return BecomeUnprivileged(), service.FSCopyPath(Path("from"), Path("to"));
              }),
              0);
    EXPECT_EQ(Tree(Path("to")), (std::set<std::string>{"a", "a/file=", "locked"}))
        << "a folder that may not be listed";
    EXPECT_EQ(Logged("failed to create handle  for src '" + Path("from/locked") + "' failed\n"), 1);
    Shell("cd opt/package; rm -r larkspire; echo file >larkspire");
    EXPECT_EQ(service.PrepareUserEnv(), 0) << "a package that is a single file";
    EXPECT_EQ(ReadFile(app), "file\n");
    EXPECT_EQ(service.FSCopyPath(package, Path("no/such/folder")), 0);
}

TEST_F(ServiceTest, APackageInstallsAlikeAsAFolderAndAsAnArchive)
{
    setlocale(LC_ALL, "C.UTF-8");
    WriteFile(package + "/Zo\xc3\xab \xe6\xbc\xa2/" + std::string(120, 'n') + "/" +
                  std::string(200, 'm'),
              "long");
    WriteFile(package + "/large", std::string(3 << 20, 'x'));
    for (const char *command :
         {"tar -czf ../vpk .", "tar -cJf ../vpk .", "tar --zstd -cf ../vpk .", "tar -cf ../vpk .",
          "tar --format=pax -cf ../vpk .", "zip -qr ../vpk.zip . && mv ../vpk.zip ../vpk",
          "7z a ../vpk.7z . && mv ../vpk.7z ../vpk", "find . | cpio -o -H newc >../vpk"}) {
        Shell(std::string("rm -rf base/app; cd opt/package/larkspire && ") + command +
              " && mv ../vpk ../larkspire.vpk");
        EXPECT_EQ(service.ExtractPackage(), 0) << command << "\n" << Log();
        EXPECT_TRUE(Tree(app) == Tree(package) && ModeOf(app + "/ui") == ModeOf(package + "/ui"))
            << command;
    }
}

TEST_F(ServiceTest, StopsTheClientGentlyAndThenForciblyAndNoProcessThatInheritedItsNumber)
{
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::tuple<pid_t, pid_t, int>> all;
    for (const auto &[program, before, written, signal] :
         {std::tuple(app + "/client", ":", "1 minute ago", SIGTERM),
          {app + "/stubborn", "trap : TERM", "1 minute ago", SIGKILL},
          {Path("another"), ":", "1 second ago", SIGTERM},
          {Path("stranger"), ":", "1 minute ago", SIGUSR1}}) {
        const pid_t client = StartClient(program, before);
        const std::string base = Path("base-" + std::to_string(client));
        WriteFile(base + "/ui.pid", "pid=" + std::to_string(client));
        Shell("touch -d '" + std::string(written) + "' '" + base + "/ui.pid'");
        UIPathManager::getInstance()->setPath(path_key::kUserBrimlock,
                                              QString::fromStdString(base));
        all.emplace_back(client, Spawn([this] { return service.StopService(), 0; }), signal);
    }
    kill(std::get<0>(all.back()),
         Wait(std::get<1>(all.back())) == 0 ? SIGUSR1 : SIGKILL); // which was left alone
    for (const auto &[client, stop, signal] : all) {
        EXPECT_EQ(Wait(client), 128 + signal);
        EXPECT_TRUE(signal == SIGUSR1 || Wait(stop) == 0);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5))
        << "before the last is killed";
    service.StopService(); // the last one, which is gone
    EXPECT_TRUE(Logged("left alone\n") == 1 && Logged("kill:") == 0) << Log();
}

TEST_F(ServiceTest, SignalsNothingButAPositiveProcessId)
{
    const pid_t bystander = StartClient(Path("bystander"));
    const std::string pid = std::to_string(bystander);
    // Without root's powers, in a process group of its own, and -1 last: a fault must not end the
    // session.
    for (const std::string &text :
         {"-" + pid, std::to_string((1LL << 32) - bystander), std::string("0"), std::string("abc"),
          "1\nPID=" + pid + " 2", "\nkey=" + pid, std::string("4294967296"),
          std::string("4294967295"), std::string("-1")}) {
        GivenPid(text);
        ASSERT_EQ(
            InChild([this] { return setsid(), BecomeUnprivileged(), service.StopService(), 0; }), 0)
            << text;
        ASSERT_EQ(waitpid(bystander, nullptr, WNOHANG), 0) << text;
    }
    EXPECT_EQ(
        InChild([this] { return GivenPid(std::to_string(getpid())), service.StopService(), 0; }), 0)
        << "itself";
    GivenPid(pid);
    Shell("rm base/app/ui");
    EXPECT_EQ(service.HandlePackageUpgrade(), 0);
    EXPECT_EQ(kill(bystander, SIGKILL) + Wait(bystander), 128 + SIGKILL)
        << "no copy that it could be the client of";
}

TEST_F(ServiceTest, APackageThatChangesWhileItIsCopiedIsNotInstalled)
{
    const auto old = Tree(Path("base"));
    for (const std::string change :
         {"touch larkspire/new", "rm larkspire/lib/.deep/data", "touch larkspire/lib/.deep/data",
          "cp larkspire/ui x; mv x larkspire/ui", "cp larkspire/INFO ..",
          "cp -r larkspire x; mv larkspire y; mv x larkspire"}) {
        // The copying waits for the gate's other end, and that for the change.
        Shell("cd opt/package; mkfifo larkspire/gate; timeout 30 sh -c 'exec 3>larkspire/gate; " +
              change + "' & true");
        EXPECT_EQ(service.PrepareUserEnv(), -1) << change;
        EXPECT_EQ(Tree(Path("base")), old) << change;
        Shell("rm -rf opt; . '" BRIMLOCK_TESTS "/make-clients.sh'");
    }
    Shell("test $(grep -c '\\[ERROR\\].*: Failed to extract package, rollback to old "
          "installation$' log) = 6");
    EXPECT_EQ(service.PrepareUserEnv(), 0) << "at rest";
}

TEST_F(ServiceTest, ThePredecessorGoesWhateverBecomesOfItsData)
{
    Shell("mkdir -p old/app/x old/data; echo 1 >old/data/db");
    service.RemoveAgedFolders();
    EXPECT_EQ(Tree(Path("old")), (std::set<std::string>{"data", "data/db=1\n"}));
    service.MigrateService();
    Shell("test ! -e old; mkdir -p old/data; echo 2 >old/data/db");
    service.MigrateService();
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
