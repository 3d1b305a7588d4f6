#include <memory>
#include <mutex>
#include <thread>

#include <QGuiApplication>

#include "fct-qt/dpi-info.h"
#include "fct-qt/qt-single-application.h"
#include "fct-qt/veltrano-locale.h"
#include "tests/support.h"

namespace
{
// Runs the body with an application object. Only ever in a child process: a process has one at most.
template <typename Body>
int WithApplication(const Body &body, bool guiEnabled = false)
{
    int argc = 1;
    char name[] = "test";
    char *argv[] = {name, nullptr};
    QtSingleApplication app(argc, argv, guiEnabled);
    return body(app);
}

bool AnotherRuns()
{
    return InChild(
               [] { return WithApplication([](QtSingleApplication &app) { return app.isRunning(); }); }) == 1;
}

// A launcher that has started a client and lives until the test kills it.
class Holder
{
public:
    Holder()
    {
        int ready[2];
        if (pipe(ready) != 0 || (pid = fork()) < 0) {
            abort();
        }
        if (pid == 0) {
            WithApplication([&ready](QtSingleApplication &app) {
                const bool first = !app.isRunning();
                FILE *const started = popen("sleep 60 >/dev/null & echo $!", "r");
                int answer[] = {0, first};
                return fscanf(started, "%d", answer) + write(ready[1], answer, sizeof answer) + pause();
            });
        }
        int answer[2] = {};
        (void)!read(ready[0], answer, sizeof answer);
        client = answer[0];
        isFirst = answer[1];
    }
    ~Holder()
    {
        Kill();
        kill(client, SIGKILL);
    }
    void Kill()
    {
        kill(pid, SIGKILL);
        Wait(pid);
    }

    pid_t pid = 0;
    pid_t client = 0;
    int isFirst = 0;
};
} // namespace

TEST(SingleApplicationTest, EveryLauncherOfAUserMeetsTheSameLock)
{
    Holder first;
    ASSERT_TRUE(first.isFirst);
    for (const char *variable :
         {"XDG_RUNTIME_DIR", "TMPDIR", "HOME", "XDG_DATA_HOME", "XDG_CURRENT_DESKTOP", "USER"}) {
        const char *old = getenv(variable);
        const std::string kept = old != nullptr ? old : "";
        for (const char *value : {"/nonexistent", "/dev/shm", ""}) {
            setenv(variable, value, 1);
            EXPECT_TRUE(AnotherRuns()) << variable << "=" << value;
        }
        setenv(variable, kept.c_str(), 1);
    }
    const std::string lock = "/tmp/.veltrano-brimlock-launcher-" + std::to_string(getuid()) + ".lock";
    EXPECT_EQ(ModeOf(lock), 0600u) << "another user can neither see nor hold it";
    EXPECT_TRUE(getuid() != 0 || InChild([] { return BecomeUnprivileged(), AnotherRuns(); }) == 0);

    first.Kill();
    EXPECT_EQ(kill(first.client, 0), 0);
    EXPECT_FALSE(AnotherRuns()) << "neither a killed launcher nor what it has started blocks the next one";
}

TEST(SingleApplicationTest, OfManyStartedAtOnceExactlyOneGoesOn)
{
    std::mutex mutex;
    std::vector<std::unique_ptr<Holder>> holders;
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; ++i) {
        threads.emplace_back([&] {
            auto holder = std::make_unique<Holder>();
            const std::lock_guard<std::mutex> lock(mutex);
            holders.push_back(std::move(holder));
        });
    }
    int winners = 0;
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const auto &holder : holders) {
        winners += holder->isFirst;
    }
    EXPECT_EQ(winners, 1);
}

TEST(SingleApplicationTest, StartsWithoutADisplayAndPassesNoChoiceOfPlatformOn)
{
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("QT_QPA_PLATFORM");
    for (const char *display : {"", ":987"}) {
        setenv("DISPLAY", display, 1);
        const auto body = [](QtSingleApplication &) {
            return QGuiApplication::platformName() == "offscreen" && getenv("QT_QPA_PLATFORM") == nullptr;
        };
        EXPECT_EQ(InChild([&body] { return WithApplication(body, true); }), 1) << display;
    }
}

TEST(DpiTest, ScalesLengthsInPixelsAndNothingElse)
{
    // clang-format off
    const std::tuple<const char *, double, const char *, const char *> cases[] = {
        {"96", 1.0, "a { margin: 3px; }", "a { margin: 3px; }"},
        {"144", 1.5, "margin: 4px 7px;top:-10px;font: 9pt; x: .5px", "margin: 6px 11px;top:-15px;font: 9pt; x: 1px"},
        {"120", 1.25, "#a4px url(x/8px.png) b8px 8pxx 8px", "#a4px url(x/8px.png) b8px 8pxx 10px"},
        {"48", 0.5, "border: 1px; margin: 0px", "border: 1px; margin: 0px"}};
    // clang-format on
    for (const auto &[dpi, factor, sheet, scaled] : cases) {
        setenv("QT_FONT_DPI", dpi, 1);
        const auto body = [factor = factor, sheet = sheet, scaled = scaled](QtSingleApplication &) {
            const DPIinfo *info = DPIinfo::getInstance();
            return info->getDPI() == factor && info->getScaledStyleSheet(sheet) == scaled;
        };
        EXPECT_EQ(InChild([&body] { return WithApplication(body); }), 1) << sheet;
    }
}

TEST(LocaleTest, TheLanguageFollowsTheDesktop)
{
    const struct {
        const char *values[4];
        const char *expected;
    } cases[] = {
#include "tests/locale-cases.inc"
    };
    const char *const variables[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
    for (const auto &c : cases) {
        for (int i = 0; i < 4; ++i) {
            c.values[i] == std::string("-") ? unsetenv(variables[i]) : setenv(variables[i], c.values[i], 1);
        }
        EXPECT_EQ(VeltranoLocale::getInstance()->getDefaultLanguage(), c.expected)
            << c.values[0] << " " << c.values[3];
    }
}
