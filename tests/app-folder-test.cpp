// How the user's copy is replaced, and how an upgrade that was interrupted is finished or undone.

#include <cstddef>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include "tests/install-support.h"

namespace
{
// From now on this system call fails with this error in this process. No call has the number -1.
int FailCalls(unsigned int call, unsigned int error)
{
    sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program = {4, filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0;
}

// The copying waits at a FIFO in the package, where the next of `changes` is made to the package.
class GatedService : public LinuxService
{
public:
    int CopyPackage() override
    {
        const std::string change = attempts < changes.size() ? changes[attempts] : ":";
        ++attempts;
        const std::string opener = "exec 3>$(echo larkspire/gate*); " + change;
        EXPECT_EQ(system(("cd '" + folder + "'; timeout 30 sh -c '" + opener + "' &").c_str()), 0);
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
    int GivenClients()
    {
        const QString program = QString::fromStdString(app + "/bin/brimlock-ui");
        UIPathManager::getInstance()->setPath(path_key::kUserBrimlockUi, program);
        Shell("chmod -R u+rwX .; rm -rf base opt; ui=bin/brimlock-ui; . '" BRIMLOCK_TESTS
              "/make-clients.sh'");
        return 0;
    }

    // `words`: state, backup, trusted.
    int GivenJournal(const std::string &words) const
    {
        Shell("printf 'format=1\nstate=%s\nbackup=%s\ntrusted=%s\n' " + words +
              " >base/upgrade.journal");
        return 0;
    }

    // The build of the app folder, the names in the user's folder, and the values in the journal.
    std::string Found() const
    {
        return Shell(
            "cd base; build=$(sed -n s/build_version=//p app/INFO || echo none);"
            "[ -L upgrade.journal ] || [ ! -f upgrade.journal ] || record=upgrade.journal;"
            "set -- $build: $(ls) $(sed 1d $record </dev/null | cut -d = -f 2); printf %s \"$*\"");
    }

    // What the worker does under the lock. Returns what it decided, in words.
    std::string Decide(bool upgrades)
    {
        LinuxService service;
        const bool mayUpgrade = service.OpenUserFolder();
        service.PreUpgrade();
        const bool isNeeded = service.IsNeedUpgrade();
        const bool isUpgraded =
            upgrades && mayUpgrade && isNeeded && service.HandlePackageUpgrade() == 0;
        service.CloseUserFolder();
        return (mayUpgrade ? "" : "refused ") + std::string(isNeeded ? "needed " : "") +
               (isUpgraded ? "done " : "");
    }

    // The same in full, and Found() afterwards.
    std::string Start() { return Decide(true).append(Found()); }
};
} // namespace

TEST_F(AppFolderTest, AStartFinishesOrUndoesWhatEachRecordOfTheJournalTells)
{
    const struct {
        const char *prepare;  // in the user's folder
        const char *recorded; // as for GivenJournal()
        const char *expected;
        bool upgrades = false;
        unsigned int call = -1U; // fails with this error
        unsigned int error = 0;
    } cases[] = {
#include "tests/journal-cases.inc"
    };
    for (const auto &c : cases) {
        GivenClients();
        Shell("sed -i s/1001/1000/ opt/INFO");
        if (*c.recorded != '\0') {
            GivenJournal(c.recorded);
        }
        Shell(std::string("NEW=../opt/package/larkspire; cd base; ") + c.prepare +
              "\ntest $(id -u) != 0 || chown -hR 65534 .");
        const auto start = [&] {
            BecomeUnprivileged();
            const int failed = FailCalls(c.call, c.error);
            return WriteFile(Path("decided"), Decide(c.upgrades)), failed;
        };
        EXPECT_EQ(InChild(start), 0);
        EXPECT_EQ(ReadFile(Path("decided")) + Found(), c.expected) << c.prepare << c.recorded;
    }
}

TEST_F(AppFolderTest, StartsOneAfterTheOtherDoWhatIsPromised)
{
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    LinuxService service;
    ExpectResults({
#include "tests/app-folder-cases.inc"
    });
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
}

TEST_F(AppFolderTest, ASecondLauncherWaitsForTheFirst)
{
    const pid_t first = Spawn([this] {
        LinuxService service;
        service.OpenUserFolder();
        WriteFile(Path("locked"), "");
        usleep(300000);
        return CountOf(ReadFile(app + "/INFO"), "1000") - 1;
    });
    Shell("timeout 30 sh -c 'until [ -e locked ]; do sleep 0.01; done'");
    EXPECT_EQ(Start(), "needed done 1001: app");
    EXPECT_EQ(Wait(first), 0) << "nothing changed while it held the lock";
}

TEST_F(AppFolderTest, TheClientIsStoppedBeforeItsFolderIsTouched)
{
    for (const auto &[recorded, found] : {std::pair("copying 0 yes", "1001: app ui.pid"),
                                          {"copying none yes", "needed done 1001: app ui.pid"}}) {
        Shell("rm -rf base/app/bin base/app_tmp; cp -r opt/package/larkspire base/app_tmp");
        GivenJournal(recorded);
        const std::string client = app + "/client";
        const std::string script = "#!/bin/sh\ntrap 'test -e \"$0\"; exit $?' TERM\n: >'" +
                                   Path("ready") + "'\nwhile sleep 0.1; do :; done\n";
        WriteFile(client, script, 0755);
        const pid_t process = Spawn([&] { return execl(client.c_str(), client.c_str(), nullptr); });
        Shell("timeout 30 sh -c 'until [ -e ready ]; do sleep 0.01; done'; rm ready");
        WriteFile(Path("base/ui.pid"), "pid=" + std::to_string(process) + "\n");
        const pid_t launcher = Spawn([&, expected = found] { return Start() != expected; });
        EXPECT_EQ(Wait(process), 0) << recorded << ": its folder was still there";
        EXPECT_EQ(Wait(launcher), 0) << recorded;
    }
}

TEST_F(AppFolderTest, APackageThatChangesWhileItIsCopiedIsCopiedAgain)
{
    // What a link points to counts. The gate must not be the first entry that is read.
    Shell("mv opt/INFO real; ln -s ../real opt/INFO; cd opt/package/larkspire; mkfifo gate; touch"
          " $(seq 12); n=0; until ls -U | head -n 1 | grep -v gate; do mv gate* gate$((n=n+1)); "
          "done");
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
