#include "launcher/launcher.h"

#include <QProgressBar>
#include <QPushButton>

#include "fct-qt/qt-single-application.h"
#include "fct-qt/ui-path-manager.h"
#include "launcher/language.h"
#include "launcher/strings/str-table.h"
#include "service/linux/linux-service.h"
#include "tests/support.h"

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
        for (const auto &[key, path] : {std::pair("root_resource_path", "opt"),
                                        {"user_brimlock_path", "base"},
                                        {"user_brimlock_app_path", "base/app"},
                                        {"user_larkspire_path", "old"},
                                        {"user_brimlock_resource_path", "base/app"},
                                        {"user_brimlock_ui_path", "base/app/ui"}}) {
            UIPathManager::getInstance()->setPath(key, QString::fromStdString(Path(path)));
        }
        WriteFile(Path("opt/INFO"), "[Version]\nbuild_version=1001\n");
        WriteFile(Path("new/package/start-stop"), "#!/bin/sh\necho new $1 >" + Path("started") + "\n", 0755);
        WriteFile(Path("base/app/package/start-stop"), "#!/bin/sh\necho old $1 >" + Path("started") + "\n",
                  0755);
        Shell("touch new/ui base/app/ui; mkdir opt/package");
        launcher = std::make_unique<Launcher>(std::make_unique<ExtractingService>());
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            dialog = dialog != nullptr ? dialog : qobject_cast<ProcessingProgressDialog *>(widget);
        }
    }

    std::unique_ptr<Launcher> launcher;
    ProcessingProgressDialog *dialog = nullptr;
};
} // namespace

TEST_F(LauncherTest, TheWindowCountsInPercentAndCannotBeCancelled)
{
    EXPECT_FALSE(dialog->isVisible());
    launcher->ShowMsgBox();
    EXPECT_EQ(dialog->windowFlags() & ~Qt::WindowType_Mask, Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    EXPECT_FALSE(dialog->isModal());
    EXPECT_TRUE(dialog->findChildren<QPushButton *>().isEmpty());
    for (const auto &[done, percent] : {std::pair(1, 33), {2, 66}, {3, 100}}) {
        launcher->UpdateProgress(3, done);
        EXPECT_EQ(dialog->value(), percent);
    }
    dialog->close();
    dialog->reject();
    EXPECT_TRUE(dialog->isVisible());
}

TEST_F(LauncherTest, AnUpgradeByExtractionReachesTheWindowAndTheClient)
{
    std::vector<int> values;
    QObject::connect(dialog->findChild<QProgressBar *>(), &QProgressBar::valueChanged,
                     [&values](int value) { values.push_back(value); });
    Shell("cd new; tar -czf ../opt/package/larkspire.vpk ui package");
    launcher->Run();
    launcher->Start();
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(values, (std::vector<int>{33, 66, 100}));
    EXPECT_EQ(dialog->labelText(), "Brimlock Client is ready.");
    EXPECT_FALSE(dialog->isVisible());
    EXPECT_EQ(Tree(Path("base/app")), Tree(Path("new")));
    EXPECT_EQ(ReadFile(Path("started")), "new start\n");
}

TEST_F(LauncherTest, AFailedExtractionRollsBackAndStartsTheOldClient)
{
    const auto old = Tree(Path("base"));
    Shell("cd new; ln ui hardlink; tar -czf ../opt/package/larkspire.vpk ui hardlink");
    launcher->Run();
    launcher->Start();
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(Tree(Path("base")), old);
    EXPECT_EQ(ReadFile(Path("started")), "old start\n");
    EXPECT_EQ(Logged("Failed to upgrade package\n"), 1);
}

TEST_F(LauncherTest, TextsAndFontFollowTheLanguage)
{
    for (const auto &[locale, family, name] :
         {std::tuple("th_TH.UTF-8", "Microsoft Sans Serif", "ไคลเอ็นต์ Brimlock"),
          {"ja_JP", "Arial", "Brimlock クライアント"},
          {"fi_FI", "Arial", "Brimlock Client"}}) {
        setenv("LC_ALL", locale, 1);
        initializeLanguage(*static_cast<QtSingleApplication *>(qApp));
        EXPECT_EQ(QApplication::font().toString().section(',', 0, 1), QString(family) + ",9");
        EXPECT_EQ(ProcessingProgressDialog().windowTitle().toStdString(), name);
    }
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
