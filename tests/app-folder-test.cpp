// How the user's copy is replaced, and how an upgrade that was interrupted is finished or undone.

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include "launcher/launcher.h"
#include "tests/install-support.h"

namespace
{
const std::string kTenBackups = "tmp tmp1 tmp2 tmp3 tmp4 tmp5 tmp6 tmp7 tmp8 tmp9";
const std::string kTenDiscarded =
    "discarded discarded1 discarded2 discarded3 discarded4 discarded5 discarded6 discarded7 "
    "discarded8 discarded9";

// From now on no file in this process grows beyond the size of a record with this state.
void LimitFilesToRecord(const std::string &state)
{
    signal(SIGXFSZ, SIG_IGN);
    const auto size = ("format=1\nstate=" + state + "\nbackup=0\ntrusted=yes\n").size();
    const rlimit limit = {size, RLIM_INFINITY};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

// Mounts an overlay on `folder` for this process alone, with an upper layer of this size.
void MountOverlay(const std::string &folder, const std::string &upper, const std::string &room)
{
    const uid_t user = getuid();
    const gid_t group = getgid();
    const bool isRoot = user == 0;
    EXPECT_EQ(unshare(isRoot ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), 0);
    if (!isRoot) { // may mount in its own user namespace
        std::ofstream("/proc/self/uid_map") << user << " " << user << " 1";
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/gid_map") << group << " " << group << " 1";
    }
    EXPECT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    EXPECT_EQ(mount("tmpfs", upper.c_str(), "tmpfs", 0, ("size=" + room).c_str()), 0);
    fs::create_directories(upper + "/work");
    fs::create_directory(upper + "/files");
    chmod((upper + "/files").c_str(), 0777);
    const std::string layers = "lowerdir=" + folder + ",upperdir=" + upper +
                               "/files,workdir=" + upper + "/work" + (isRoot ? "" : ",userxattr");
    EXPECT_EQ(mount("overlay", folder.c_str(), "overlay", 0, layers.c_str()), 0);
    if (!isRoot) { // permissions must restrict it again
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        const __user_cap_data_struct none[2] = {};
        EXPECT_EQ(syscall(SYS_capset, &header, none), 0);
    }
}

// The service of a start.
class TestedService : public LinuxService
{
public:
    using LinuxService::app_path;

    bool IsNeedUpgrade() override
    {
        decision = LinuxService::IsNeedUpgrade() ? "refused" : "";
        return !decision.empty();
    }

    int HandlePackageUpgrade() override
    {
        decision = "tried";
        const int result = upgrades ? LinuxService::HandlePackageUpgrade() : -1;
        decision = !upgrades ? "tried" : result == 0 ? "done" : "failed";
        return result;
    }

    int CopyPackage() override
    {
        ++copies;
        beforeCopy();
        const int result = LinuxService::CopyPackage();
        afterCopy();
        return result;
    }

    bool upgrades = true;
    std::string decision;
    int copies = 0;
    std::function<void()> beforeCopy = [] {};
    std::function<void()> afterCopy = [] {};
};

class AppFolderTest : public InstallTest
{
protected:
    AppFolderTest() { GivenClients(); }

    // A user's copy, build 1000, and a newer shipped client, as they are named in an install.
    // Then executes the commands in the user's folder, which an ordinary user owns.
    void GivenClients(const std::string &prepare = ":", const std::string &recorded = "")
    {
        const QString program = QString::fromStdString(app + "/bin/brimlock-ui");
        UIPathManager::getInstance()->setPath(path_key::kUserBrimlockUi, program);
        const std::string journal = "printf 'format=1\nstate=%s\nbackup=%s\ntrusted=%s\n' " +
                                    recorded + " >upgrade.journal\n";
        Shell("chmod -R u+rwX .; rm -rf base opt started; ui=bin/brimlock-ui; . '" BRIMLOCK_TESTS
              "/make-clients.sh'; touch base/app/old; chmod 777 .; cd base\n"
              "NEW=../opt/package/larkspire BREAK=spoil\n"
              // A link that cannot be copied, and that the folder lists after INFO.
              "spoil() (cd $NEW; ln -s nowhere x; until ls -U | grep -m 1 '[Ix]' | grep I; do"
              "  mv x* x$((n += 1)); mv INFO I; mv I INFO; done)\n"
              "ten() { for n in '' 1 2 3 4 5 6 7 8 9; do mkdir -p app_$1$n/left; done; }\n" +
              (recorded.empty() ? "" : journal) + prepare +
              "\ntest $(id -u) != 0 || chown -hR 65534:65534 .");
    }

    // The build in the app folder, the other names in the user's folder, and the journal.
    std::string Found() const
    {
        return Shell(
            "cd base; chmod u+rwX . upgrade.journal || true; build=$(sed -n s/build_version=//p "
            "app/INFO || echo none);"
            "names=$(ls -d app/old || true; ls | grep -vx -e app -e upgrade.journal || true);"
            "names=$(echo $names | sed 's/app_//g');"
            "[ ! -e upgrade.journal ] || journal=damaged;"
            "[ ! -f upgrade.journal ] || [ $(wc -l <upgrade.journal) != 4 ] ||"
            "  journal=$(sed 1d upgrade.journal | cut -d = -f 2 | xargs);"
            "printf '%s' \"$build | $names | ${journal-}\"");
    }

    // Makes a run of the worker. Returns what it has decided, and Found() afterwards.
    std::string Start(std::unique_ptr<TestedService> service = std::make_unique<TestedService>())
    {
        const std::string decision = Run(std::move(service));
        return decision + " | " + Found();
    }

    // The same by an ordinary user in another process, which `prepare` changes before.
    std::string StartAsUser(const std::function<void()> &prepare,
                            std::unique_ptr<TestedService> service, int status = 0)
    {
        const auto start = [&, hasFailed = HasFailure()] {
            BecomeUnprivileged();
            prepare();
            WriteFile(Path("decided"), Run(std::move(service)));
            return HasFailure() && !hasFailed;
        };
        Shell("rm -f decided");
        EXPECT_EQ(InChild(start), status);
        return ReadFile(Path("decided")) + " | " + Found();
    }

private:
    static std::string Run(std::unique_ptr<TestedService> service)
    {
        const TestedService &tested = *service;
        Worker worker(std::move(service));
        worker.HandleServicce();
        return tested.decision;
    }
};
} // namespace

TEST_F(AppFolderTest, AStartFinishesOrUndoesWhatEachRecordOfTheJournalTells)
{
    const struct {
        const char *prepare, *recorded;
        std::string decision, build, names, journal;
    } cases[] = {
#include "tests/journal-cases.inc"
    };
    for (const auto &c : cases) {
        GivenClients("rm app/old; " + std::string(c.prepare), c.recorded);
        Shell("sed -i s/1001/1000/ opt/INFO");
        auto service = std::make_unique<TestedService>();
        service->upgrades = false;
        EXPECT_EQ(StartAsUser([] {}, std::move(service)),
                  c.decision + " | " + c.build + " | " + c.names + " | " + c.journal)
            << c.prepare << ", journal: " << c.recorded;
    }
}

TEST_F(AppFolderTest, AnUpgradeSucceedsOrRestoresTheOldCopy)
{
    const struct {
        const char *prepare, *recorded;
        unsigned int call, error;
        std::string decision, build, names, journal;
    } cases[] = {
#include "tests/upgrade-cases.inc"
    };
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    for (const auto &c : cases) {
        GivenClients(c.prepare, c.recorded);
        EXPECT_EQ(StartAsUser([&] { Filter(c.call, SECCOMP_RET_ERRNO | c.error); },
                              std::make_unique<TestedService>()),
                  c.decision + " | " + c.build + " | " + c.names + " | " + c.journal)
            << c.prepare << ", journal: " << c.recorded << ", call " << c.call;
    }
    EXPECT_EQ(Logged("at max retries, exiting\n"), 2);
    EXPECT_EQ(Logged("cannot write '"), 3);
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
}

TEST_F(AppFolderTest, AFolderThatCannotBeRenamedIsCopied)
{
    const struct {
        const char *prepare, *recorded;
        std::string room, decision, build, names, journal;
    } cases[] = {
#include "tests/overlay-cases.inc"
    };
    // The old copy, except for a FIFO, which is not copied.
    const std::string list = "(cd $(dirname base/*/old); find . ! -type p -printf '%P %m %l\n' |"
                             " sort; find . -type f | sort | xargs cat || true) >";
    for (const auto &c : cases) {
        GivenClients("cd app; ln -s nowhere link; mkdir -m 750 lib; mkfifo pipe; cd ..\n" +
                         std::string(c.prepare),
                     c.recorded);
        Shell(list + "before");
        Shell("mkdir -p upper");
        const auto start = [&, hasFailed = HasFailure()] {
            MountOverlay(Path("base"), Path("upper"), c.room);
            const std::string found = StartAsUser([] {}, std::make_unique<TestedService>());
            EXPECT_EQ(found, c.decision + " | " + c.build + " | " + c.names + " | " + c.journal);
            Shell(list + "after; [ " + c.decision + " = done ] || diff before after");
            return HasFailure() && !hasFailed;
        };
        EXPECT_EQ(InChild(start), 0) << c.prepare << ", journal: " << c.recorded;
    }
    EXPECT_EQ(Logged("failed to backup app from"), 55);
}

TEST_F(AppFolderTest, TheJournalIsAheadOfEachStep)
{
    struct {
        std::string when; // the moment from which something fails
        std::function<void()> atStart, afterCopy;
        std::string found, next; // after this start, and after another one
    } cases[] = {
        {"the record COPYING has no room", [] { LimitFilesToRecord("moving"); }, [] {},
         "failed | 1000 | app/old | ", "done | 1001 |  | "},
        {"the record INSTALLED has no room", [] {}, [] { LimitFilesToRecord("copying"); },
         "done | 1001 |  | ", " | 1001 |  | "},
        {"the quota is exceeded by the flush", [] {},
         [] { Filter(SYS_fsync, SECCOMP_RET_ERRNO | EDQUOT); },
         "failed | 1000 | app/old | copying 0 yes", "done | 1001 |  | "},
        {"the quota is exceeded by the record INSTALLED", [] {},
         [] { Filter(SYS_rename, SECCOMP_RET_ERRNO | EDQUOT); },
         "failed | none | tmp | copying 0 yes", "done | 1001 |  | "},
        {"the user's folder becomes read-only", [] {},
         [this] { EXPECT_EQ(chmod(Path("base").c_str(), 0555), 0); },
         "failed | 1001 | tmp upgrade.lock | copying 0 yes", "done | 1001 |  | "},
        {"a kill when the backup is removed", [] {},
         [] { Filter(SYS_rmdir, SECCOMP_RET_KILL_PROCESS); },
         " | 1001 | tmp upgrade.lock | installed 0 yes", " | 1001 |  | "},
    };
    for (const auto &c : cases) {
        GivenClients();
        auto service = std::make_unique<TestedService>();
        service->afterCopy = c.afterCopy;
        const bool isKilled = c.found.front() == ' ';
        EXPECT_EQ(StartAsUser(c.atStart, std::move(service), isKilled ? 128 + SIGSYS : 0), c.found)
            << c.when;
        EXPECT_EQ(StartAsUser([] {}, std::make_unique<TestedService>()), c.next) << c.when;
    }
}

TEST_F(AppFolderTest, TheWorkerRecoversBeforeItReadsTheVersions)
{
    GivenClients("mv app app_tmp; cp -r $NEW app", "copying 0 yes");
    EXPECT_EQ(Start(), "done | 1001 |  | ");
    EXPECT_EQ(ReadFile(Path("started")), "1001 start\n");
}

TEST_F(AppFolderTest, ASecondLauncherWaitsForTheFirst)
{
    const pid_t first = Spawn([this] {
        TestedService service;
        service.OpenUserFolder();
        WriteFile(Path("locked"), "");
        usleep(300000);
        const bool isOld = ReadFile(app + "/INFO").find("1000") != std::string::npos;
        return isOld && service.PrepareUserEnv() == 0 ? 0 : 1;
    });
    Shell("timeout 30 sh -c 'until [ -e locked ]; do sleep 0.01; done'");
    EXPECT_EQ(Start(), " | 1001 |  | ");
    EXPECT_EQ(Wait(first), 0) << "nothing changed while it held the lock";
}

TEST_F(AppFolderTest, OneProcessAtATimeHoldsTheLock)
{
    pid_t processes[4];
    for (pid_t &process : processes) {
        process = Spawn([this] {
            const time_t end = time(nullptr) + 2;
            bool isHeldTwice = false;
            while (time(nullptr) < end) {
                UserFolderLock lock;
                while (lock.Acquire(Path("base"), std::chrono::seconds(0)) != lock.HELD) {
                }
                isHeldTwice |= mkdir(Path("holder").c_str(), 0700) != 0;
                rmdir(Path("holder").c_str());
            }
            return isHeldTwice;
        });
    }
    for (const pid_t process : processes) {
        EXPECT_EQ(Wait(process), 0);
    }
}

TEST_F(AppFolderTest, TheLockIsPrivateAndTheJournalReadable)
{
    GivenClients("rm -r app; $BREAK; touch upgrade.lock; chmod 666 upgrade.lock");
    // When root starts it, both belong to the folder's owner all the same.
    Shell("test $(id -u) != 0 || chown -R 1234:5678 base; touch before");
    for (const mode_t mask : {0077, 0277}) {
        TestedService service;
        umask(mask);
        EXPECT_TRUE(service.OpenUserFolder());
        EXPECT_EQ(service.PrepareUserEnv(), -1);
        umask(022);
        EXPECT_EQ(Shell("cd base; stat -c %a upgrade.lock upgrade.journal | xargs;"
                        "stat -c %u:%g . upgrade.journal upgrade.lock | uniq | wc -l"),
                  (getuid() == 0 && mask == 0077 ? "666 644\n1\n" : "600 644\n1\n"));
        service.CloseUserFolder();
        EXPECT_EQ(Shell("rm -rf base/app; ls base"), "upgrade.journal\n");
    }
    WriteFile(Path("base/upgrade.lock"), "mine");
    TestedService().OpenUserFolder();
    EXPECT_EQ(ReadFile(Path("base/upgrade.lock")), "mine");
}

TEST_F(AppFolderTest, TheClientIsStoppedBeforeItsFolderIsTouched)
{
    for (const auto &[prepare, recorded, found] :
         {std::tuple("rm -r app/bin; cp -r $NEW app_tmp", "copying 0 yes", " | 1001 | ui.pid | "),
          {"rm -r app/bin", "due none no", "done | 1001 | ui.pid | "},
          {"rm app/INFO", "copying none yes", "done | 1001 | ui.pid | "}}) {
        GivenClients(prepare, recorded);
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

TEST_F(AppFolderTest, WithoutAnOldCopyAPackageThatChangesIsCopiedAgain)
{
    // The copying waits at a FIFO in the package. The FIFO must not be the first entry that is
    // read. What a link points to counts.
    Shell("mv opt/INFO real; ln -s ../real opt/INFO; cd opt/package/larkspire; mkfifo gate; touch"
          " $(seq 12); n=0; until ls -U | head -n 1 | grep -v gate; do mv gate* gate$((n=n+1)); "
          "done");
    const auto upgrade = [this](const std::string &change, int changes) {
        TestedService service;
        service.beforeCopy = [&] {
            const std::string wait = "cd '" + Path("opt/package") + "'; timeout 30 sh -c 'exec 3>";
            const std::string now = service.copies > changes ? ":" : change;
            EXPECT_EQ(system((wait + "$(echo larkspire/gate*); " + now + "' &").c_str()), 0);
        };
        const int result = service.PrepareUserEnv();
        return std::to_string(result) + " " + std::to_string(service.copies);
    };
    for (const std::string change :
         {"rm larkspire/3", "touch larkspire/*", "chmod 600 larkspire/gate*", "touch ../INFO",
          "touch new", "mv larkspire x; cp -a x larkspire; rm -r x"}) {
        Shell("rm -r base/app; touch opt/package/larkspire/3");
        EXPECT_EQ(upgrade(change, 1), "0 2") << change;
        Shell("diff -r -x 'gate*' base/app opt/package/larkspire");
    }
    const auto old = Tree(app);
    EXPECT_EQ(upgrade("touch larkspire/a", 1), "-1 1") << "with an old copy";
    EXPECT_EQ(Tree(app), old);
    Shell("rm -r base/app");
    EXPECT_EQ(upgrade("touch larkspire/$(date +%N)", 9), "-1 3");
}

TEST_F(AppFolderTest, OnlyAChangeOfThePackageCountsAsOne)
{
    // Neither the app folder nor a new user's folder in a folder above the package,
    UIPathManager *const paths = UIPathManager::getInstance();
    for (const char *const place : {"opt/app", "opt/home/app", "opt/package/app"}) {
        paths->setPath(path_key::kUserBrimlockApp, QString::fromStdString(Path(place)));
        EXPECT_EQ(TestedService().PrepareUserEnv(), 0) << place;
    }
    paths->setPath(path_key::kUserBrimlockApp, QString::fromStdString(app));
    // nor too few file descriptors.
    for (rlim_t files = 4; files < 24; ++files) {
        Shell("rm -rf base/app");
        const auto install = [files] {
            const rlimit limit = {files, files};
            return setrlimit(RLIMIT_NOFILE, &limit) != 0 || TestedService().PrepareUserEnv() > 0;
        };
        EXPECT_EQ(InChild(install), 0) << files;
    }
    EXPECT_EQ(Logged("has changed while it was copied\n"), 0);
}

TEST_F(AppFolderTest, ARecoveryCountsForItsPathAndForOneUpgrade)
{
    GivenClients("$BREAK; mv app app_tmp3; cp -r app_tmp3 app_tmp", "copying 3 yes");
    TestedService service;
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(Found(), "1000 | app/old tmp | ") << "has recovered without OpenUserFolder()";

    GivenClients("mkdir -p upgrade.journal/left");
    for (int call = 0; call < 3; ++call) {
        EXPECT_FALSE(service.OpenUserFolder());
        EXPECT_EQ(Logged("is a folder, which is left alone"), 1);
    }
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(Logged("is a folder, which is left alone"), 2) << "one line for each refusal";

    service.app_path = Path("other/app");
    Shell("mkdir other");
    EXPECT_EQ(service.PrepareUserEnv(), 0) << "another path";
    EXPECT_TRUE(service.OpenUserFolder());
    EXPECT_TRUE(service.OpenUserFolder());
    EXPECT_EQ(Shell("ls -A other base/upgrade.journal"),
              "base/upgrade.journal:\nleft\n\nother:\nupgrade.lock\n");
}

TEST_F(AppFolderTest, WithoutAUsersFolderTheCopyingIsTried)
{
    Shell("rm -r base; touch base");
    EXPECT_EQ(TestedService().PrepareUserEnv(), -1);
    Shell("rm base; ln -s nowhere/below base");
    EXPECT_EQ(TestedService().PrepareUserEnv(), -1);
    EXPECT_EQ(Logged("copy package:'"), 2);
    EXPECT_EQ(Logged("no old installation to rollback\n"), 2);
}
