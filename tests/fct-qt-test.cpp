#include <QGuiApplication>

#include "fct-qt/dpi-info.h"
#include "fct-qt/qt-single-application.h"
#include "fct-qt/veltrano-locale.h"
#include "tests/support.h"

namespace
{
// What the body returns with an application object, in a child process: a process has one at most.
int InApplication(bool guiEnabled, const std::function<bool()> &body)
{
    return InChild([&] {
        int argc = 1;
        char name[] = "test";
        char *argv[] = {name, nullptr};
        const QtSingleApplication app(argc, argv, guiEnabled);
        return body();
    });
}
} // namespace

TEST(SingleApplicationTest, StartsWithoutADisplayAndPassesNoChoiceOfPlatformOn)
{
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("QT_QPA_PLATFORM");
    for (const char *display : {"", ":987"}) {
        setenv("DISPLAY", display, 1);
        const auto isUnseen = [] {
            return QGuiApplication::platformName() == "offscreen" && !getenv("QT_QPA_PLATFORM");
        };
        EXPECT_EQ(InApplication(true, isUnseen), 1) << display;
    }
}

TEST(DpiTest, ScalesLengthsInPixelsAndNothingElse)
{
    setenv("QT_FONT_DPI", "144", 1);
    const auto isScaled = [] {
        return DPIinfo::getInstance()->getDPI() == 1.5 &&
               DPIinfo::getInstance()->getScaledStyleSheet(
                   "a#a4px { m: 4px -7.5px .1px 0px; f: 9pt; u: url(8px.png) }") ==
                   "a#a4px { m: 6px -11px 1px 0px; f: 9pt; u: url(8px.png) }";
    };
    EXPECT_EQ(InApplication(false, isScaled), 1);
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
        EXPECT_EQ(VeltranoLocale::getInstance()->getDefaultLanguage(), c.expected) << c.values[0] << " " << c.values[3];
    }
}
