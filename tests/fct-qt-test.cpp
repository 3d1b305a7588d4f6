#include <csignal>
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
constexpr int kAlone = 10;
constexpr int kSecond = 11;

// Runs the body with an application object. Only ever in a child process: a process has one at most.
int WithApplication(const std::function<int(QtSingleApplication &)> &body, bool guiEnabled = false)
{
    int argc = 1;
    char name[] = "test";
    char *argv[] = {name, nullptr};
    QtSingleApplication app(argc, argv, guiEnabled);
    return body(app);
}

int InApplication(const std::function<int(QtSingleApplication &)> &body)
{
    return InChild([&body] { return WithApplication(body); });
}

int Answer(QtSingleApplication &app)
{
    return app.isRunning() ? kSecond : kAlone;
}

// A launcher that lives until the test kills it.
class Holder
{
public:
    explicit Holder(const std::function<void()> &whenFirst = [] {})
    {
        if (pipe(ready) != 0 || (pid = fork()) < 0) {
            abort();
        }
        if (pid == 0) {
            WithApplication([&](QtSingleApplication &app) {
                const char answer = static_cast<char>(Answer(app));
                whenFirst();
                (void)!write(ready[1], &answer, 1);
                for (;;) {
                    pause();
                }
                return 0;
            });
        }
        char answer = 0;
        (void)!read(ready[0], &answer, 1);
        isFirst = answer == kAlone;
    }
    ~Holder() { Kill(); }

    void Kill()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            close(ready[0]);
            close(ready[1]);
        }
        pid = 0;
    }

    bool isFirst = false;

private:
    int ready[2];
    pid_t pid = 0;
};
} // namespace

TEST(SingleApplicationTest, EveryLauncherOfAUserMeetsTheSameLockWhateverItsEnvironment)
{
    Holder first;
    ASSERT_TRUE(first.isFirst);
    for (const char *variable :
         {"XDG_RUNTIME_DIR", "TMPDIR", "HOME", "XDG_DATA_HOME", "XDG_CURRENT_DESKTOP", "USER"}) {
        for (const char *value : {"/nonexistent", "/dev/shm", ""}) {
            EXPECT_EQ(InChild([&] {
                          setenv(variable, value, 1);
                          return WithApplication(Answer);
                      }),
                      kSecond)
                << variable << "=" << value;
        }
    }
    // Another user neither meets that lock nor can open its file; an ordinary user cannot become one.
    if (getuid() == 0) {
        EXPECT_EQ(InChild([] {
                      BecomeUnprivileged();
                      return WithApplication(Answer);
                  }),
                  kAlone);
    }
    struct stat info = {};
    const std::string path = "/tmp/.veltrano-brimlock-launcher-" + std::to_string(getuid()) + ".lock";
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    first.Kill();
    EXPECT_EQ(InApplication(Answer), kAlone) << "a killed launcher blocks nobody";
}

TEST(SingleApplicationTest, WhatItStartsDoesNotInheritTheLock)
{
    pid_t client = 0;
    int pids[2];
    ASSERT_EQ(pipe(pids), 0);
    Holder first([&] {
        client = fork();
        if (client == 0) {
            execlp("sleep", "sleep", "60", nullptr);
            _exit(127);
        }
        (void)!write(pids[1], &client, sizeof client);
        usleep(200 * 1000); // past the exec
    });
    ASSERT_EQ(read(pids[0], &client, sizeof client), static_cast<ssize_t>(sizeof client));
    first.Kill();
    EXPECT_EQ(kill(client, 0), 0);
    EXPECT_EQ(InApplication(Answer), kAlone);
    kill(client, SIGKILL);
}

TEST(SingleApplicationTest, OfManyStartedAtOnceExactlyOneGoesOn)
{
    int winners = 0;
    std::vector<std::unique_ptr<Holder>> holders;
    std::vector<std::thread> threads;
    std::mutex mutex;
    for (int i = 0; i < 12; ++i) {
        threads.emplace_back([&] {
            auto holder = std::make_unique<Holder>();
            const std::lock_guard<std::mutex> lock(mutex);
            winners += holder->isFirst ? 1 : 0;
            holders.push_back(std::move(holder));
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(winners, 1);
}

TEST(SingleApplicationTest, StartsWithoutADisplayAndPassesNoChoiceOfPlatformOn)
{
    for (const char *display : {"", ":987"}) {
        setenv("DISPLAY", display, 1);
        unsetenv("WAYLAND_DISPLAY");
        unsetenv("QT_QPA_PLATFORM");
        EXPECT_EQ(InChild([] {
                      const auto choice = [](QtSingleApplication &) {
                          return QGuiApplication::platformName() == "offscreen" && !getenv("QT_QPA_PLATFORM");
                      };
                      return WithApplication(choice, true);
                  }),
                  1)
            << display;
    }
}

TEST(DpiTest, ScalesLengthsInPixelsAndNothingElse)
{
    const struct {
        const char *dpi;
        double factor;
        const char *sheet;
        const char *scaled;
    } cases[] = {
        {"96", 1.0, "a { margin: 3px; }", "a { margin: 3px; }"},
        {"144", 1.5, "margin: 4px 7px;top:-10px", "margin: 6px 11px;top:-15px"},
        {"144", 1.5, "font: 9pt; border: .5px; x: 1.5px; y: 0px", "font: 9pt; border: 1px; x: 2px; y: 0px"},
        {"120", 1.25, "#a4px url(x/8px.png) b8px 8pxx 8px", "#a4px url(x/8px.png) b8px 8pxx 10px"},
        {"48", 0.5, "border: 1px", "border: 1px"},
    };
    for (const auto &c : cases) {
        setenv("QT_FONT_DPI", c.dpi, 1);
        EXPECT_EQ(InApplication([&c](QtSingleApplication &) {
                      const DPIinfo *info = DPIinfo::getInstance();
                      return info->getDPI() == c.factor && info->getScaledStyleSheet(c.sheet) == c.scaled;
                  }),
                  1)
            << c.sheet;
    }
    unsetenv("QT_FONT_DPI");
    EXPECT_EQ(DPIinfo::getInstance()->getDPI(), 1.0);
}

TEST(LocaleTest, TheLanguageFollowsTheDesktop)
{
    // LANGUAGE, LC_ALL, LC_MESSAGES, LANG; "-" is unset.
    const struct {
        const char *values[4];
        const char *expected;
    } cases[] = {
        {{"-", "-", "-", "-"}, "enu"},
        {{"de", "-", "-", "-"}, "enu"},
        {{"de", "C", "-", "fr_FR"}, "enu"},
        {{"de", "-", "-", "C.UTF-8"}, "ger"},
        {{"-", "-", "-", "de_AT.UTF-8@euro"}, "ger"},
        {{"", "", "it_IT", "fr_FR"}, "ita"},
        {{"-", "sv_SE", "it_IT", "fr_FR"}, "sve"},
        {{"ca:eu:hu:de", "-", "-", "fr_FR"}, "hun"},
        {{"ca", "-", "-", "cs_CZ"}, "csy"},
        {{"ca:en_GB:de", "-", "-", "de_DE"}, "enu"},
        {{"fi", "-", "-", "fi_FI"}, "enu"},
        {{"nonsense:::", "-", "-", "da_DK"}, "dan"},
        {{"-", "-", "-", "zh_CN"}, "chs"},
        {{"-", "-", "-", "zh_SG.GB2312"}, "chs"},
        {{"zh_Hant", "-", "-", "en_US"}, "cht"},
        {{"zh-Hans-HK", "-", "-", "en_US"}, "chs"},
        {{"-", "-", "-", "zh_TW"}, "cht"},
        {{"-", "-", "-", "zh_HK.UTF-8"}, "cht"},
        {{"-", "-", "-", "zh_MO"}, "cht"},
        {{"zh", "-", "-", "en_US"}, "chs"},
        {{"-", "-", "-", "pt_BR"}, "ptb"},
        {{"-", "-", "-", "pt_PT"}, "ptg"},
        {{"-", "-", "-", "pt_AO"}, "ptg"},
        {{"-", "-", "-", "nb_NO"}, "nor"},
        {{"-", "-", "-", "nn_NO"}, "nor"},
        {{"no", "-", "-", "en_US"}, "nor"},
        {{"-", "-", "-", "ja_JP"}, "jpn"},
        {{"-", "-", "-", "ko_KR"}, "krn"},
        {{"-", "-", "-", "nl_BE"}, "nld"},
        {{"-", "-", "-", "pl_PL"}, "plk"},
        {{"-", "-", "-", "ru_UA"}, "rus"},
        {{"-", "-", "-", "es_MX"}, "spn"},
        {{"-", "-", "-", "th_TH"}, "tha"},
        {{"-", "-", "-", "tr_TR"}, "trk"},
        {{"-", "-", "-", "fr_CA"}, "fre"},
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
