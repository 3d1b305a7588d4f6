// benchmarks PREFIX HOME DISK [FOLDER...]: compares the launcher and its parts with well-known programs that do the
// same work, and prints the rows of a table of ratios. PREFIX is an installation of the launcher without the client,
// HOME an empty folder; both are in memory. DISK is an empty folder on a disk. Each FOLDER is an empty one on a file
// system of the type that is its name. The measured times are printed to standard error.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#define SPDLOG_ACTIVE_LEVEL SPDLOG_LEVEL_DEBUG
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include "fct-qt/path-keys.h"
#include "fct-qt/ui-path-manager.h"
#include "fileop/file-op.h"
#include "launcher/strings/str-table.h"
#include "log/log.h"
#include "service/linux/linux-service.h"

namespace
{
namespace fs = std::filesystem;

const std::string kComponent = "service_debug";
constexpr int kFilesPerFolder = 250;

void Require(bool holds, const std::string &what)
{
    if (!holds) {
        fprintf(stderr, "benchmarks: %s\n", what.c_str());
        exit(1);
    }
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// What each side needed in each round, in seconds or KiB.
struct Pair {
    std::vector<double> ours;
    std::vector<double> theirs;

    double Ratio() const
    {
        std::vector<double> ratios;
        for (size_t i = 0; i < ours.size(); ++i) {
            ratios.push_back(ours[i] / theirs[i]);
        }
        return Median(ratios);
    }

    void Print(const char *work, const char *against, const char *toReach) const
    {
        printf("| %s | %s | %.2f | %s |\n", work, against, Ratio(), toReach);
        fflush(stdout);
        fprintf(stderr, "%s: median %.6g, against %.6g, of %zu\n", work, Median(ours), Median(theirs), ours.size());
    }
};

double Seconds(const std::function<void()> &work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Runs both sides one after the other. In every other round the other side is first.
void Measure(Pair &pair, int round, const std::function<void()> &ours, const std::function<void()> &theirs)
{
    if (round % 2 != 0) {
        pair.theirs.push_back(Seconds(theirs));
    }
    pair.ours.push_back(Seconds(ours));
    if (round % 2 == 0) {
        pair.theirs.push_back(Seconds(theirs));
    }
}

// Runs the program to its end. Returns its peak memory in KiB.
long Run(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command) {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    rusage usage = {};
    Require(posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0 &&
                wait4(child, &status, 0, &usage) == child && status == 0,
            command[0] + " failed");
    return usage.ru_maxrss;
}

// Creates files whose content is cut from a real program, so that they compress like one.
void MakeTree(const fs::path &folder, int files, size_t size)
{
    std::ifstream self("/proc/self/exe");
    std::string program{std::istreambuf_iterator<char>(self), {}};
    while (program.size() < size) {
        program += program;
    }
    const size_t cuts = program.size() / size;
    for (int i = 0; i < files; ++i) {
        const fs::path parent = folder / std::to_string(i / kFilesPerFolder);
        fs::create_directories(parent);
        std::ofstream(parent / std::to_string(i)).write(&program[i % cuts * size], static_cast<std::streamsize>(size));
    }
}

void WriteFile(const fs::path &path, const std::string &text)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
    fs::permissions(path, fs::perms(0755));
}

// A client without a payload.
void MakeClient(const fs::path &folder, const std::string &build)
{
    WriteFile(folder / "INFO", "[Version]\nbuild_version=" + build + "\n");
    WriteFile(folder / "bin/brimlock-ui", "");
    WriteFile(folder / "package/start-stop", "#!/bin/sh\necho started >>\"$HOME/started\"\n");
}

void Copy(const fs::path &from, const fs::path &to)
{
    Require(LinuxService().FSCopyPath(from, to) == 0, "the copy failed");
}

// Starts with nothing to do: the user's copy is current. Both sides run the same start script; its time is subtracted.
void MeasureStart(const fs::path &prefix, const fs::path &home)
{
    const std::string launcher = prefix / "bin/launcher";
    const std::string script = home / ".Brimlock/Brimlock.app/package/start-stop";
    const std::string icon = prefix / "images/ico_72_larkspire.png";
    constexpr int kRounds = 101;
    MakeClient(home / ".Brimlock/Brimlock.app", "2");
    WriteFile(prefix / "INFO", "[Version]\nbuild_version=2\n");

    Pair all;
    Pair withoutGl;
    for (int round = 0; round < kRounds; ++round) {
        const double start = Seconds([&] { Run({script, "start"}); });
        Measure(
            all, round, [&] { Run({launcher}); },
            [&] {
                Run({BARE_DIALOG, script, icon});
            });
        setenv("QT_XCB_GL_INTEGRATION", "none", 1);
        withoutGl.theirs.push_back(Seconds([&] { Run({BARE_DIALOG, script, icon}); }) - start);
        unsetenv("QT_XCB_GL_INTEGRATION");
        all.ours.back() -= start;
        all.theirs.back() -= start;
        withoutGl.ours.push_back(all.ours.back());
    }
    // A launcher that finds another one of this user ends at once, without the script.
    Require(fs::file_size(home / "started") == 4 * kRounds * sizeof "started", "a start script did not run");
    all.Print("start with nothing to do, less the start script", "a bare Qt program with the same dialog", "≤ 1.10");
    withoutGl.Print("the same", "the same program without OpenGL", "≤ 1.05");
    fs::remove_all(home / ".Brimlock");
}

// Copies a package into the folder `target`.
using Copier = std::function<void(const fs::path &package, const fs::path &target)>;

void CopyWithCp(const fs::path &package, const fs::path &target)
{
    Run({"cp", "-r", package, target});
}

void CopyWithCpAndFlush(const fs::path &package, const fs::path &target)
{
    CopyWithCp(package, target);
    Run({"sync", "-f", target});
}

// An installation of the launcher and a home, for whole upgrades. The old client has no payload, because removal has
// its own row.
class Installation
{
public:
    Installation(fs::path installedPrefix, fs::path homeFolder)
        : prefix(std::move(installedPrefix)), home(std::move(homeFolder))
    {
        WriteFile(prefix / "INFO", "[Version]\nbuild_version=2\n");
        setenv("HOME", home.c_str(), 1);
    }

    ~Installation()
    {
        fs::remove_all(prefix / "package");
        fs::remove_all(home);
    }

    Installation(const Installation &) = delete;
    Installation &operator=(const Installation &) = delete;

    fs::path MakePackage(const std::string &name, int files, size_t size) const
    {
        const fs::path package = prefix / "package" / name;
        MakeTree(package / "payload", files, size);
        MakeClient(package, "2");
        return package;
    }

    void ResetHome() const
    {
        fs::remove_all(app);
        MakeClient(app, "1");
        Run({"sync", "-f", home});
    }

    // To be called after ResetHome(). Returns the peak memory in KiB.
    double Upgrade(const fs::path &package) const
    {
        const fs::path shipped = prefix / "package/larkspire";
        fs::rename(package, shipped);
        const long kib = Run({launcher});
        fs::rename(shipped, package);
        Require(fs::exists(app / "payload") && !fs::exists(app.string() + "_tmp"), "no upgrade");
        return static_cast<double>(kib);
    }

    // Upgrades, less the time of a start with nothing to do, against copies of the same package.
    Pair Compare(const fs::path &package, const Copier &copy, int rounds) const
    {
        ResetHome();
        Upgrade(package); // so that the first start has nothing to do
        Pair upgrades;
        for (int round = 0; round < rounds; ++round) {
            const double start = Seconds([&] { Run({launcher}); });
            ResetHome();
            Measure(
                upgrades, round, [&] { Upgrade(package); }, [&] { copy(package, home / "copy"); });
            upgrades.ours.back() -= start;
            fs::remove_all(home / "copy");
        }
        return upgrades;
    }

private:
    fs::path prefix;
    fs::path home;
    fs::path launcher = prefix / "bin/launcher";
    fs::path app = home / ".Brimlock/Brimlock.app";
};

void MeasureUpgradeInMemory(const fs::path &prefix, const fs::path &home)
{
    const Installation installation(prefix, home);
    const fs::path small = installation.MakePackage("small", 100, 100'000);
    const fs::path large = installation.MakePackage("large", 3000, 100'000);
    const fs::path many = installation.MakePackage("many", 50'000, 2'000);

    installation.Compare(many, CopyWithCp, 9)
        .Print("whole upgrade less the start, 50,000 files of 2 kB, in memory", "`cp -r`", "≤ 1.02");

    Pair memory;
    for (int round = 0; round < 11; ++round) {
        installation.ResetHome();
        memory.ours.push_back(installation.Upgrade(large));
        installation.ResetHome();
        memory.theirs.push_back(installation.Upgrade(small));
    }
    memory.Print("peak memory of an upgrade, 300 MB", "the same, 10 MB", "≤ 1.05");
}

// `folder` is an empty folder on a file system of this type. A copy shares its blocks there, if possible; cp then
// reads nothing, and the launcher reads all.
void MeasureUpgradeOnDisk(const fs::path &prefix, const fs::path &folder, const std::string &type)
{
    fs::copy(prefix, folder / "prefix", fs::copy_options::recursive);
    const Installation installation(folder / "prefix", folder / "home");
    const auto print = [&](const std::string &files, const Pair &pair, const char *toReach) {
        pair.Print(
            ("whole upgrade less the start, 300 MB in " + files + ", on " + (type == "xfs" ? "XFS" : type)).c_str(),
            "`cp -r` and `sync -f`", toReach);
    };
    const fs::path files = installation.MakePackage("files", 3000, 100'000);
    print("3,000 files", installation.Compare(files, CopyWithCpAndFlush, 11), type == "ext4" ? "≤ 1.15" : "≤ 1.50");
    fs::remove_all(files);
    const fs::path large = installation.MakePackage("large", 60, 5'000'000);
    print("60 files", installation.Compare(large, CopyWithCpAndFlush, 11), type == "ext4" ? "≤ 1.30" : "–");
}

void MeasureSmallFiles(const fs::path &memory, const fs::path &disk)
{
    constexpr int kMany = 50'000;
    constexpr int kFew = 1'000;
    constexpr size_t kBytes = 2'000;
    MakeTree(memory / "many", kMany, kBytes);
    MakeTree(memory / "few", kFew, kBytes);

    Pair copies;
    Pair perFile;
    Pair removals;
    for (int round = 0; round < 9; ++round) {
        Measure(
            copies, round, [&] { Copy(memory / "many", memory / "ours"); },
            [&] {
                Run({"cp", "-r", memory / "many", memory / "theirs"});
            });
        perFile.ours.push_back(copies.ours.back() / kMany);
        perFile.theirs.push_back(Seconds([&] { Copy(memory / "few", memory / "ours-few"); }) / kFew);
        Measure(
            removals, round, [&] { Require(FSRemove(memory / "ours", false) == 0, "the removal failed"); },
            [&] {
                Run({"rm", "-rf", memory / "theirs"});
            });
        fs::remove_all(memory / "ours-few");
    }
    copies.Print("`FSCopyPath` alone, 50,000 files of 2 kB, in memory", "`cp -r`", "≤ 0.90");
    perFile.Print("time per file, 50,000 files", "the same, 1,000 files", "≤ 1.10");
    removals.Print("removal of 50,000 files, in memory", "`rm -rf`", "≤ 1.10");

    // Remove nothing between the rounds: the disk would discard the blocks while the next side is measured.
    Pair flushed;
    MakeTree(disk / "many", kMany, kBytes);
    Run({"sync", "-f", disk});
    for (int round = 0; round < 7; ++round) {
        const std::string number = std::to_string(round);
        Measure(
            flushed, round,
            [&] {
                Copy(disk / "many", disk / ("ours" + number));
                Run({"sync", "-f", disk});
            },
            [&] {
                Run({"cp", "-r", disk / "many", disk / ("theirs" + number)});
                Run({"sync", "-f", disk});
            });
    }
    flushed.Print("50,000 files of 2 kB, all of it on disk", "`cp -r` and `sync -f`", "≤ 1.10");
}

void MeasureArchive(const fs::path &prefix, const fs::path &memory)
{
    MakeTree(memory / "payload", 500, 100'000);
    fs::create_directories(prefix / "package");
    Run({"bsdtar", "-czf", prefix / "package/larkspire.vpk", "-C", memory, "payload"});
    StrTable::InitStrTable();
    UIPathManager::getInstance()->setPath(path_key::kRootResource, QString::fromStdString(prefix));
    UIPathManager::getInstance()->setPath(path_key::kUserBrimlockApp, QString::fromStdString(memory / "ours"));

    Pair extractions;
    for (int round = 0; round < 9; ++round) {
        fs::create_directory(memory / "theirs");
        Measure(
            extractions, round, [&] { Require(LinuxService().ExtractPackage() == 0, "the extraction failed"); },
            [&] {
                Run({"sh", "-c", "exec bsdtar -tf \"$0\" >/dev/null", prefix / "package/larkspire.vpk"});
                Run({"bsdtar", "-xf", prefix / "package/larkspire.vpk", "-C", memory / "theirs"});
            });
        fs::remove_all(memory / "ours");
        fs::remove_all(memory / "theirs");
    }
    extractions.Print("`ExtractPackage` of a `.tar.gz`, 50 MB in 500 files", "`bsdtar -t` and `bsdtar -x`", "≤ 1.00");
}

void MeasureLog(const fs::path &memory)
{
    constexpr int kLines = 50'000;
    constexpr int kUnloggedLines = 5'000'000;
    constexpr size_t kRotateBytes = 5 << 20;
    Logger::Initialize(Logger::TYPE_FILE, memory / "ours.log", "", 50, Logger::SCOPE_THREAD);
    const auto theirs = spdlog::rotating_logger_mt("spdlog", memory / "theirs.log", kRotateBytes, 49);
    theirs->set_level(spdlog::level::err);
    theirs->flush_on(spdlog::level::err);
    theirs->set_pattern("%Y-%m-%dT%H:%M:%S (%5P:%5t) [%l] %s(%#): %v");

    Pair written;
    Pair unlogged;
    for (int round = 0; round < 15; ++round) {
        Measure(
            written, round,
            [] {
                for (int i = 0; i < kLines; ++i) {
                    LOGGER_ERROR(kComponent, "copy from '%s' to '%s'\n", "/a", "/b");
                }
            },
            [&] {
                for (int i = 0; i < kLines; ++i) {
                    SPDLOG_LOGGER_ERROR(theirs, "copy from '{}' to '{}'", "/a", "/b");
                }
            });
        Measure(
            unlogged, round,
            [] {
                for (int i = 0; i < kUnloggedLines; ++i) {
                    LOGGER_DEBUG(kComponent, "copy from '%s' to '%s'\n", "/a", "/b");
                }
            },
            [&] {
                for (int i = 0; i < kUnloggedLines; ++i) {
                    SPDLOG_LOGGER_DEBUG(theirs, "copy from '{}' to '{}'", "/a", "/b");
                }
            });
    }
    Logger::Destroy();
    written.Print("a line that is written and flushed", "spdlog, rotating sink, flush per line", "≤ 1.00");
    unlogged.Print("a line that is not logged", "spdlog below its level", "≤ 0.60");
}
} // namespace

int main(int argc, char **argv)
{
    Require(argc >= 4, "usage: benchmarks PREFIX HOME DISK [FOLDER...]");
    const fs::path prefix = argv[1];
    const fs::path home = argv[2];
    printf("| work | against | ratio | to reach |\n|---|---|---|---|\n");
    MeasureStart(prefix, home);
    for (int i = 4; i < argc; ++i) {
        MeasureUpgradeOnDisk(prefix, argv[i], fs::path(argv[i]).filename());
    }
    MeasureUpgradeInMemory(prefix, home);
    MeasureSmallFiles(home, argv[3]);
    MeasureArchive(prefix, home);
    MeasureLog(home);
}
