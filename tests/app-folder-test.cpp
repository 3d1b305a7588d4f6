// How the user's copy is replaced, and how an upgrade that was interrupted is finished or undone.

#include "tests/install-support.h"

namespace
{
// The copying waits at a FIFO in the package, where the next of `changes` is made to the package.
class GatedService : public LinuxService
{
public:
    int CopyPackage() override
    {
        const std::string change = attempts < changes.size() ? changes[attempts] : ":";
        ++attempts;
        const std::string command = "cd '" + folder +
                                    "'; timeout 30 sh -c 'exec 3>$(echo larkspire/gate*); " +
                                    change + "' &";
        EXPECT_EQ(system(command.c_str()), 0);
        return LinuxService::CopyPackage();
    }

    std::string folder;
    std::vector<std::string> changes;
    size_t attempts = 0;
};

class AppFolderTest : public InstallTest
{
protected:
    AppFolderTest() { GivenClients(); }

    // A user's copy, build 1000, and a newer shipped client, as they are named in an install.
    void GivenClients()
    {
        const QString program = QString::fromStdString(app + "/bin/brimlock-ui");
        UIPathManager::getInstance()->setPath(path_key::kUserBrimlockUi, program);
        Shell("rm -rf base opt; ui=bin/brimlock-ui; . '" BRIMLOCK_TESTS "/make-clients.sh'");
    }

    // `words`: state, backup, trusted.
    void GivenJournal(const std::string &words)
    {
        std::istringstream in(words);
        std::string text = "format=1\n";
        std::string value;
        for (const char *key : {"state=", "backup=", "trusted="}) {
            in >> value;
            text += key + value + "\n";
        }
        WriteFile(journal, text);
    }

    // The build of the app folder, the names in the user's folder, and the values in the journal.
    std::string Found() const
    {
        const std::string info = ReadFile(app + "/INFO");
        const size_t build = info.rfind('=');
        std::string found = (build == std::string::npos ? "none" : info.substr(build + 1)) + ":";
        std::set<std::string> names;
        for (const auto &entry : fs::directory_iterator(base)) {
            names.insert(entry.path().filename());
        }
        for (const std::string &name : names) {
            found += " " + name;
        }
        if (fs::is_regular_file(fs::symlink_status(journal))) {
            std::istringstream lines(ReadFile(journal));
            std::string line;
            for (std::getline(lines, line); std::getline(lines, line);) {
                found += " " + line.substr(line.find('=') + 1);
            }
        }
        return found;
    }

    // One start, as the worker makes it; the start script aside.
    std::string Start()
    {
        LinuxService service;
        const bool mayUpgrade = service.OpenUserFolder();
        service.PreUpgrade();
        const bool isNeeded = service.IsNeedUpgrade();
        const int result = mayUpgrade && isNeeded ? service.HandlePackageUpgrade() : 0;
        service.CloseUserFolder();
        return (mayUpgrade ? "" : "refused ") + std::string(isNeeded ? "needed " : "") +
               (result == 0 ? "" : "failed ") + Found();
    }

    const std::string base = Path("base");
    const std::string journal = base + "/upgrade.journal";
};
} // namespace

TEST_F(AppFolderTest, AStartFinishesOrUndoesWhatEachRecordOfTheJournalTells)
{
    const struct {
        const char *prepare;  // in the user's folder
        const char *recorded; // as for GivenJournal()
        const char *expected;
    } cases[] = {
#include "tests/journal-cases.inc"
    };
    for (const auto &c : cases) {
        GivenClients();
        Shell("sed -i s/1001/1000/ opt/INFO");
        Shell(std::string("NEW=../opt/package/larkspire; cd base; ") + c.prepare);
        if (*c.recorded != '\0') {
            GivenJournal(c.recorded);
        }
        LinuxService service;
        const bool isOpened = service.OpenUserFolder();
        service.PreUpgrade();
        const bool isDue = service.IsNeedUpgrade();
        service.CloseUserFolder();
        EXPECT_EQ((isOpened ? "" : "refused ") + std::string(isDue ? "due " : "") + Found(),
                  c.expected)
            << c.prepare << " | " << c.recorded;
    }
}

TEST_F(AppFolderTest, AnUpgradeRemovesTheBackupsAndLeavesNothingOpen)
{
    Shell("mkdir -p base/app_tmp/left base/app_tmp1/left base/app_tmp5/left");
    Shell("ln -s INFO opt/package/larkspire/link; touch base/upgrade.journal_new");
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    EXPECT_EQ(Start(), "needed 1001: app app_tmp5");
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
    EXPECT_EQ(Tree(app), Tree(package)) << "a link is copied as what it points to";
    Shell("test -x base/app/bin/brimlock-ui; test ! -L base/app/link");
}

TEST_F(AppFolderTest, AFailedInstallKeepsWhatIsThereForTheNextStart)
{
    Shell("ln -s nowhere opt/package/larkspire/broken; mkdir kept; mv base/app kept");
    EXPECT_EQ(Start(), "needed failed none: app upgrade.journal copying none yes");
    EXPECT_EQ(Logged("Failed to extract package, and no old installation to rollback\n"), 1);
    Shell("rm -r base/app; mv kept/app base; cp base/app/INFO opt"); // a person puts a copy there
    EXPECT_EQ(Start(), "needed failed 1000: app upgrade.journal due none no");
    EXPECT_EQ(Start(), "needed failed 1000: app upgrade.journal due none no");
    Shell("rm opt/package/larkspire/broken");
    EXPECT_EQ(Start(), "needed 1001: app");
}

TEST_F(AppFolderTest, WhatCannotBeWrittenOrMovedChangesNothing)
{
    Shell("for n in '' 1 2 3 4 5 6 7 8 9; do mkdir -p base/app_tmp$n/left; done");
    const auto before = Tree(base);
    EXPECT_EQ(Start().substr(0, 14), "needed failed ");
    EXPECT_EQ(Tree(base), before);
    EXPECT_EQ(Logged("failed to backup app from '"), 11);
    GivenJournal("due none no");
    EXPECT_EQ(Start().substr(0, 14), "needed failed ");
    EXPECT_EQ(ReadFile(journal), "format=1\nstate=due\nbackup=none\ntrusted=no\n");
    Shell("rm -r base/app_tmp* base/upgrade.journal; mkdir -p base/upgrade.journal_new/left");
    EXPECT_EQ(Start(), "needed failed 1000: app upgrade.journal_new");
    EXPECT_EQ(Logged("cannot write '" + journal + "', no upgrade: "), 1) << Log();
}

TEST_F(AppFolderTest, APartialCopyThatCannotBeRemovedIsNeverInTheWay)
{
    Shell("mv base/app base/app_tmp; mkdir -p base/app/locked; touch base/app/locked/file");
    Shell("chmod 777 base; test $(id -u) != 0 || chown -R 65534 base; chmod 500 base/app/locked");
    Shell("test $(id -u) != 0 || chown root base/app/locked/file base/app/locked");
    GivenJournal("copying 0 yes");
    chmod(journal.c_str(), 0666);
    EXPECT_EQ(InChild([this] {
                  BecomeUnprivileged();
                  EXPECT_EQ(Start(), "needed 1001: app app_discarded");
                  return HasFailure();
              }),
              0);
    Shell("chmod 700 base/app_discarded/locked");
    EXPECT_EQ(Start(), "1001: app");
}

TEST_F(AppFolderTest, TheLockIsPrivateAndTheJournalReadable)
{
    const mode_t old = umask(0277);
    LinuxService service;
    EXPECT_TRUE(service.OpenUserFolder());
    EXPECT_EQ(ModeOf(base + "/upgrade.lock"), 0600);
    Shell("ln -s nowhere opt/package/larkspire/broken; rm -r base/app");
    umask(0077);
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(ModeOf(journal), 0644);
    umask(old);
    service.CloseUserFolder();
    EXPECT_FALSE(fs::exists(base + "/upgrade.lock"));
    WriteFile(base + "/upgrade.lock", "a person's\n");
    EXPECT_TRUE(service.OpenUserFolder());
    service.CloseUserFolder();
    EXPECT_EQ(ReadFile(base + "/upgrade.lock"), "a person's\n");
}

TEST_F(AppFolderTest, TheClientIsStoppedBeforeItsFolderIsTouched)
{
    for (const auto &[recorded, found] : {std::pair("copying 0 yes", "1001: app ui.pid"),
                                          {"copying none yes", "needed 1001: app ui.pid"}}) {
        Shell("rm -rf base/app/bin base/app_tmp; cp -r opt/package/larkspire base/app_tmp");
        GivenJournal(recorded);
        WriteFile(app + "/client",
                  "#!/bin/sh\n: >'" + Path("ready") + "'\nwhile sleep 0.1; do :; done\n", 0755);
        const std::string client = app + "/client";
        const pid_t process = Spawn([&] { return execl(client.c_str(), client.c_str(), nullptr); });
        Shell("timeout 30 sh -c 'until [ -e ready ]; do sleep 0.01; done'; rm ready");
        WriteFile(base + "/ui.pid", "pid=" + std::to_string(process) + "\n");
        const pid_t launcher = Spawn([&, expected = found] { return Start() != expected; });
        EXPECT_EQ(Wait(process), 128 + SIGTERM) << recorded;
        EXPECT_EQ(Wait(launcher), 0) << recorded;
    }
}

TEST_F(AppFolderTest, APackageThatChangesWhileItIsCopiedIsCopiedAgain)
{
    // The gate must not be the first entry that is read.
    Shell("cd opt/package/larkspire; mkfifo gate; touch 1 2 3 4 5 6 7 8 9 10 11 12;"
          "until [ $(ls -U | head -n 1 | cut -c 1-4) != gate ]; do mv gate* gate$RANDOM; done");
    GatedService service;
    service.folder = Path("opt/package");
    for (const std::string change : {"touch larkspire/new", "touch larkspire/*", "touch ../INFO",
                                     "touch new", "mv larkspire x; cp -a x larkspire; rm -r x"}) {
        service.changes = {change};
        service.attempts = 0;
        EXPECT_EQ(service.PrepareUserEnv(), 0) << change;
        EXPECT_EQ(service.attempts, 2) << change;
        Shell("diff -r -x 'gate*' base/app opt/package/larkspire");
    }
    Shell("sed -i s/1000/999/ base/app/INFO");
    const auto old = Tree(app);
    service.changes = {"touch larkspire/a", "touch larkspire/b", "touch larkspire/c"};
    service.attempts = 0;
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(service.attempts, 3);
    EXPECT_EQ(Tree(app), old);
}

TEST_F(AppFolderTest, TwoFailuresOfACopyCountAsSuccess)
{
    LinuxService service;
    Shell("mkdir -p from/a from/locked; touch from/a/file from/locked/file; chmod 0 from/locked");
    const auto copy = [&] {
        return BecomeUnprivileged(), service.FSCopyPath(Path("from"), Path("to"));
    };
    EXPECT_EQ(InChild(copy), 0);
    EXPECT_EQ(Tree(Path("to")), (std::set<std::string>{"a", "a/file=", "locked"}));
    EXPECT_EQ(Logged("failed to create handle  for src '" + Path("from/locked") + "' failed\n"), 1);
    Shell("cd opt/package; rm -r larkspire; echo file >larkspire");
    EXPECT_EQ(service.PrepareUserEnv(), 0) << "a package that is a single file";
    EXPECT_EQ(ReadFile(app), "file\n");
    EXPECT_EQ(service.FSCopyPath(package, Path("no/such/folder")), 0);
}
