#include "fct-qt/dpi-info.h"
#include "fct-qt/qt-single-application.h"
#include "fct-qt/veltrano-locale.h"
#include "tests/support.h"

TEST(QtSingleApplicationTest, NoMessageOfQtIsFatal)
{
    setenv("QT_FATAL_CRITICALS", "1", 1);
    const auto complain = [] {
        int argc = 0;
        const QtSingleApplication app(argc, nullptr, false);
        qCritical("a message");
        return qgetenv("QT_FATAL_CRITICALS") == "1" ? 0 : 1; // which the client sees
    };
    EXPECT_EQ(InChild(complain), 0);
    unsetenv("QT_FATAL_CRITICALS");
}

TEST(DpiTest, ScalesLengthsInPixelsAndNothingElse)
{
    int argc = 1;
    char name[] = "test";
    char *argv[] = {name, nullptr};
    setenv("QT_FONT_DPI", "144", 1);
    const QtSingleApplication app(argc, argv, false);
    EXPECT_EQ(DPIinfo::getInstance()->getDPI(), 1.5);
    EXPECT_EQ(DPIinfo::getInstance()->getScaledStyleSheet("a#a4px { m: 4px -7.5px .1px 0px; f: 9pt; u: url(8px.png) }"),
              "a#a4px { m: 6px -11px 1px 0px; f: 9pt; u: url(8px.png) }");
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
