// What logging and copying cost, each beside a well-known tool that does the same in the same run. Compare the lines
// of a pair; a number by itself says nothing.

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <benchmark/benchmark.h>
#include <syslog.h>

#include "log/log.h"
#include "service/linux/linux-service.h"

namespace
{
namespace fs = std::filesystem;

fs::path Scratch()
{
    static const fs::path folder = [] {
        std::string name = "/tmp/brimlock-benchmark-XXXXXX";
        return fs::path(mkdtemp(name.data()));
    }();
    return folder;
}

void LineNotLogged(benchmark::State &state)
{
    for (auto _ : state) {
        LOGGER_DEBUG("service_debug", "copy from '%s' to '%s'\n", "/a", "/b");
    }
}
BENCHMARK(LineNotLogged);

void LineNotLoggedBySyslog(benchmark::State &state)
{
    setlogmask(LOG_UPTO(LOG_ERR));
    for (auto _ : state) {
        syslog(LOG_DEBUG, "copy from '%s' to '%s'\n", "/a", "/b");
    }
}
BENCHMARK(LineNotLoggedBySyslog);

void LineLogged(benchmark::State &state)
{
    Logger::Initialize(Logger::TYPE_FILE, Scratch() / "log", "", 50, Logger::SCOPE_THREAD);
    for (auto _ : state) {
        LOGGER_ERROR("service_debug", "copy from '%s' to '%s'\n", "/a", "/b");
    }
}
BENCHMARK(LineLogged);

void LineWrittenAndFlushedByStdio(benchmark::State &state)
{
    FILE *file = fopen((Scratch() / "stdio").c_str(), "a");
    for (auto _ : state) {
        fprintf(file, "2026-01-01T00:00:00 (%5d:%5d) [ERROR] %s(%d): copy from '%s' to '%s'\n", getpid(), 1, "file", 1,
                "/a", "/b");
        fflush(file);
    }
    fclose(file);
}
BENCHMARK(LineWrittenAndFlushedByStdio);

// 500 files of 20 kB in 50 folders.
fs::path Package()
{
    static const fs::path package = [] {
        const fs::path folder = Scratch() / "package";
        for (int i = 0; i < 500; ++i) {
            const fs::path parent = folder / std::to_string(i % 50);
            fs::create_directories(parent);
            std::ofstream(parent / std::to_string(i)) << std::string(20000, 'x');
        }
        return folder;
    }();
    return package;
}

void CopyTree(benchmark::State &state)
{
    LinuxService service;
    for (auto _ : state) {
        service.FSCopyPath(Package(), Scratch() / "copy");
        state.PauseTiming();
        fs::remove_all(Scratch() / "copy");
        state.ResumeTiming();
    }
}
BENCHMARK(CopyTree)->UseRealTime();

void CopyTreeByCp(benchmark::State &state)
{
    const std::string command = "cp -r " + Package().string() + " " + (Scratch() / "copy").string();
    for (auto _ : state) {
        benchmark::DoNotOptimize(system(command.c_str()));
        state.PauseTiming();
        fs::remove_all(Scratch() / "copy");
        state.ResumeTiming();
    }
}
BENCHMARK(CopyTreeByCp)->UseRealTime();
} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    fs::remove_all(Scratch());
}
