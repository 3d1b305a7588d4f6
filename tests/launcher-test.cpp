#include "launcher/launcher.h"

#include <algorithm>
#include <cmath>

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include "fct-qt/qt-single-application.h"
#include "launcher/language.h"
#include "tests/install-support.h"

namespace
{
// The service with the archive as its way to install.
class ExtractingService : public LinuxService
{
public:
    int CopyPackage() override { return ExtractPackage(); }
};

class LauncherTest : public InstallTest
{
protected:
    LauncherTest()
    {
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            dialog = dialog != nullptr ? dialog : qobject_cast<ProcessingProgressDialog *>(widget);
        }
    }

    void RunWithPackage(const std::string &pack)
    {
        Shell("cd opt/package/larkspire; " + pack);
        launcher->Run();
        launcher->Start();
        EXPECT_EQ(QApplication::exec(), 0);
    }

    const std::unique_ptr<Launcher> launcher = std::make_unique<Launcher>(std::make_unique<ExtractingService>());
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
    dialog->close(); // what the window manager asks for
    EXPECT_TRUE(dialog->isVisible());
}

TEST_F(LauncherTest, TheLabelIsReadableUnderEveryPalette)
{
    const auto luminance = [](QRgb pixel) { return std::pow(qGray(pixel) / 255.0, 2.2) + 0.05; };
    const QPalette original = QApplication::palette();
    for (const auto theme : {Qt::white, Qt::black}) {
        QApplication::setPalette(QPalette(theme));
        ProcessingProgressDialog fresh;
        for (ProcessingProgressDialog *window : {dialog, &fresh}) {
            window->setLabelText("Something else");
            const QImage label = window->grab(window->findChild<QLabel *>()->geometry()).toImage();
            const auto *pixels = reinterpret_cast<const QRgb *>(label.constBits());
            const auto [dark, light] = std::minmax_element(pixels, pixels + label.sizeInBytes() / sizeof(QRgb),
                                                           [](QRgb a, QRgb b) { return qGray(a) < qGray(b); });
            EXPECT_GT(luminance(*light) / luminance(*dark), 7) << "contrast, theme " << theme;
        }
    }
    QApplication::setPalette(original);
}

TEST_F(LauncherTest, AnUpgradeByExtractionReachesTheWindowAndTheClient)
{
    std::vector<int> values;
    QObject::connect(dialog->findChild<QProgressBar *>(), &QProgressBar::valueChanged,
                     [&values](int value) { values.push_back(value); });
    RunWithPackage("rm -r lib empty; tar -czf ../larkspire.vpk ui package");
    EXPECT_EQ(values, (std::vector<int>{33, 66, 100}));
    EXPECT_EQ(dialog->labelText(), "Brimlock Client is ready.");
    EXPECT_FALSE(dialog->isVisible());
    Shell("rm opt/package/larkspire/INFO");
    EXPECT_EQ(Tree(app), Tree(package));
    EXPECT_EQ(ReadFile(Path("started")), "1001 start\n");
}

TEST_F(LauncherTest, AFailedExtractionRollsBackAndStartsTheOldClient)
{
    const auto old = Tree(Path("base"));
    RunWithPackage("ln ui hardlink; tar -czf ../larkspire.vpk ui hardlink");
    EXPECT_EQ(Tree(Path("base")), old);
    EXPECT_EQ(ReadFile(Path("started")), "1000 start\n");
    EXPECT_EQ(Logged("Failed to upgrade package\n"), 1);
}

TEST_F(LauncherTest, TextsAndFontFollowTheLanguage)
{
    for (const auto &[locale, font, name] : {std::tuple("th_TH.UTF-8", "Microsoft Sans Serif,9,", "ไคลเอ็นต์ Brimlock"),
                                             {"fi_FI", "Arial,9,", "Brimlock Client"}}) {
        setenv("LC_ALL", locale, 1);
        initializeLanguage(*static_cast<QtSingleApplication *>(qApp));
        EXPECT_TRUE(QApplication::font().toString().startsWith(font)) << locale;
        EXPECT_EQ(ProcessingProgressDialog().windowTitle().toStdString(), name);
    }
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    unsetenv("LANGUAGE"); // the developer's
    setenv("LC_ALL", "C", 1);
    QtSingleApplication app(argc, argv, true);
    initializeLanguage(app);
    return RUN_ALL_TESTS();
}
