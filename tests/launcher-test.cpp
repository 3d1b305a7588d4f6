#include "launcher/launcher.h"

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include "fct-qt/qt-single-application.h"
#include "fct-qt/ui-path-manager.h"
#include "launcher/language.h"
#include "launcher/notify/notify-adapter.h"
#include "launcher/strings/str-table.h"
#include "service/linux/linux-service.h"
#include "tests/support.h"
#include "tests/x-server.h"

namespace
{
// The service with the archive as its way to install.
class ExtractingService : public LinuxService
{
public:
    int CopyPackage() override { return ExtractPackage(); }
};

class LauncherTest : public ScratchTest
{
protected:
    LauncherTest()
    {
        StartLog();
        const std::pair<const char *, std::string> paths[] = {
            {"root_resource_path", Path("opt")},
            {"user_brimlock_path", Path("home")},
            {"user_brimlock_app_path", Path("home/app")},
            {"user_brimlock_resource_path", Path("home/app")},
            {"user_brimlock_ui_path", Path("home/app/bin/brimlock-ui")},
            {"user_larkspire_path", Path("home/old")},
        };
        for (const auto &[key, path] : paths) {
            UIPathManager::getInstance()->setPath(key, QString::fromStdString(path));
        }
        WriteFile(Path("opt/INFO"), "[Version]\nbuild_version=1001\n");
        WriteFile(Path("package/bin/brimlock-ui"), "new");
        WriteFile(Path("package/package/start-stop"), "#!/bin/sh\necho $1 >'" + Path("started") + "'\n",
                  0755);
        WriteFile(Path("home/app/bin/brimlock-ui"), "old");
    }

    void Pack(const std::string &options)
    {
        const std::string pack = "cd '" + Path("package") + "' && mkdir -p ../opt/package && " +
                                 "tar -czf ../opt/package/larkspire.vpk " + options;
        ASSERT_EQ(system(pack.c_str()), 0);
    }

    static ProcessingProgressDialog *Dialog()
    {
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            if (auto *dialog = qobject_cast<ProcessingProgressDialog *>(widget)) {
                return dialog;
            }
        }
        return nullptr;
    }
};
} // namespace

TEST_F(LauncherTest, TheWindowCountsInPercentAndCannotBeCancelled)
{
    Launcher launcher(std::make_unique<ExtractingService>());
    ProcessingProgressDialog *dialog = Dialog();
    ASSERT_NE(dialog, nullptr);
    EXPECT_FALSE(dialog->isVisible());
    launcher.ShowMsgBox();
    EXPECT_EQ(dialog->windowTitle(), "Brimlock Client");
    EXPECT_EQ(dialog->width(), 400);
    EXPECT_EQ(dialog->windowFlags() & ~Qt::WindowType_Mask, Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    EXPECT_FALSE(dialog->isModal());
    EXPECT_EQ(dialog->findChildren<QPushButton *>().size(), 0);
    EXPECT_EQ(dialog->labelText(), "Brimlock Client is initializing...");
    EXPECT_EQ(dialog->font().pointSize(), 9);

    const std::pair<int, int> percents[] = {{1, 33}, {2, 66}, {3, 100}};
    for (const auto &[done, percent] : percents) {
        launcher.UpdateProgress(3, done);
        EXPECT_EQ(dialog->value(), percent);
        EXPECT_TRUE(dialog->isVisible());
    }
    dialog->close();
    dialog->reject();
    EXPECT_TRUE(dialog->isVisible());
}

TEST_F(LauncherTest, AnUpgradeByExtractionShowsEveryStepAndStartsTheClient)
{
    Pack("bin package"); // four entries
    Launcher launcher(std::make_unique<ExtractingService>());
    std::vector<int> values;
    QObject::connect(Dialog()->findChild<QProgressBar *>(), &QProgressBar::valueChanged,
                     [&values](int value) { values.push_back(value); });
    std::vector<QString> labels;
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateDialogText, &launcher,
                     [&labels](const QString &text) { labels.push_back(text); });
    launcher.Run();
    launcher.Start();
    EXPECT_EQ(QApplication::exec(), 0);

    EXPECT_EQ(values, (std::vector<int>{25, 50, 75, 100}));
    EXPECT_EQ(labels.size(), 1u);
    EXPECT_EQ(Dialog()->labelText(), "Brimlock Client is ready.");
    EXPECT_FALSE(Dialog()->isVisible());
    EXPECT_EQ(Tree(Path("home/app")), Tree(Path("package")));
    EXPECT_EQ(ReadFile(Path("started")), "start\n");
}

TEST_F(LauncherTest, AFailedExtractionRollsBackAndStartsTheOldClient)
{
    WriteFile(Path("home/app/package/start-stop"), "#!/bin/sh\necho old >'" + Path("started") + "'\n", 0755);
    const std::vector<std::string> old = Tree(Path("home/app"));
    ASSERT_EQ(
        system(("ln '" + Path("package/bin/brimlock-ui") + "' '" + Path("package/hardlink") + "'").c_str()),
        0);
    Pack("bin hardlink");
    Launcher launcher(std::make_unique<ExtractingService>());
    launcher.Run();
    launcher.Start();
    EXPECT_EQ(QApplication::exec(), 0);

    EXPECT_EQ(Tree(Path("home/app")), old);
    EXPECT_FALSE(fs::exists(Path("home/app_tmp")));
    EXPECT_EQ(ReadFile(Path("started")), "old\n");
    EXPECT_EQ(CountOf(Log(), "Failed to upgrade package\n"), 1u);
    EXPECT_EQ(Dialog()->labelText(), "Brimlock Client is initializing...");
}

TEST_F(LauncherTest, ALauncherThatGoesFirstLetsItsWorkerFinish)
{
    Pack("bin package");
    {
        Launcher launcher(std::make_unique<ExtractingService>());
        launcher.Run();
        launcher.Start();
        while (!fs::exists(Path("home/app_tmp")) && !fs::exists(Path("started"))) {
            usleep(100);
        }
    }
    EXPECT_EQ(ReadFile(Path("started")), "start\n");
    EXPECT_EQ(Tree(Path("home/app")), Tree(Path("package")));
}

TEST_F(LauncherTest, TheFontFollowsTheLanguage)
{
    auto &app = *static_cast<QtSingleApplication *>(qApp);
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"th_TH.UTF-8", "Microsoft Sans Serif", "ไคลเอ็นต์ Brimlock"},
        {"ja_JP.UTF-8", "Arial", "Brimlock クライアント"},
        {"fi_FI.UTF-8", "Arial", "Brimlock Client"},
    };
    for (const auto &[locale, family, name] : cases) {
        setenv("LC_ALL", locale, 1);
        initializeLanguage(app);
        EXPECT_EQ(QApplication::font().family(), family);
        EXPECT_EQ(QApplication::font().pointSize(), 9);
        EXPECT_EQ(StrTable::LoadStr(StrTable::CLIENT_NAME).toStdString(), name);
    }
    setenv("LC_ALL", "C", 1);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const XServer server;
    setenv("LC_ALL", "C", 1);
    QtSingleApplication app(argc, argv, true);
    initializeLanguage(app);
    return RUN_ALL_TESTS();
}
