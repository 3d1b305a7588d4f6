#include <array>

#include "fct-qt/dpi-info.h"
#include "fct-qt/qt-single-application.h"
#include "fct-qt/veltrano-locale.h"
#include "tests/support.h"

namespace
{
// Sets the variables to the values of a table's row; "-": unsets it.
void SetEnvironment(const char *const *names, const std::array<const char *, 4> &values)
{
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] == std::string("-") ? unsetenv(names[i]) : setenv(names[i], values[i], 1);
    }
}

struct Environment : QtEnvironment {
    explicit Environment(bool wantsDisplay) : QtEnvironment(wantsDisplay) {}
    ~Environment() { RestoreEnvironment(); }
};
} // namespace

TEST(DpiTest, ScalesLengthsInPixelsAndNothingElse)
{
    int argc = 1;
    char name[] = "test";
    char *argv[] = {name, nullptr};
    setenv("QT_FONT_DPI", "144", 1);
    const QtSingleApplication app(argc, argv, false);
    EXPECT_EQ(DPIinfo::getInstance()->getDPI(), 1.5);
    const char *const sheet = "a#a4px { m: 4px -7.5px .1px 0px; f: 9pt; u: url(8px.png) }";
    EXPECT_EQ(DPIinfo::getInstance()->getScaledStyleSheet(sheet).toStdString(),
              "a#a4px { m: 6px -11px 1px 0px; f: 9pt; u: url(8px.png) }");
}

TEST(PlatformTest, QtSeesThePlatformsThatTheSessionOffersAndNoOtherDesktopThanKde)
{
    const char *const names[] = {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY",
                                 "XDG_CURRENT_DESKTOP"};
    const std::pair<std::array<const char *, 4>, const char *> cases[] = {
#include "tests/platform-cases.inc"
    };
    const auto seen = [](const char *name) { return std::string(qgetenv(name)); };
    setenv("DESKTOP_SESSION", "session", 1);
    for (const auto &[values, expected] : cases) {
        SetEnvironment(names, values);
        const Environment environment(true);
        EXPECT_EQ(seen(names[0]) + " " + seen(names[3]) + " " + seen("DESKTOP_SESSION"), expected);
        EXPECT_EQ(seen("QT_QPA_PLATFORMTHEME"), "");
        EXPECT_EQ(seen("QT_STYLE_OVERRIDE"), "");
        EXPECT_EQ(seen("QT_IM_MODULE"), "none");
    }
}

TEST(LocaleTest, TheLanguageFollowsTheDesktop)
{
    const char *const names[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
    const std::pair<std::array<const char *, 4>, const char *> cases[] = {
#include "tests/locale-cases.inc"
    };
    for (const auto &[values, expected] : cases) {
        SetEnvironment(names, values);
        EXPECT_EQ(VeltranoLocale::getInstance()->getDefaultLanguage().toStdString(), expected)
            << testing::PrintToString(values);
    }
}
