#include "launcher/launcher.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include "fct-qt/qt-single-application.h"
#include "launcher/language.h"
#include "tests/install-support.h"

namespace
{
// The service with the archive, where there is one, as its way to install.
class ExtractingService : public LinuxService
{
public:
    int CopyPackage() override
    {
        return fs::exists(archive) ? ExtractPackage() : LinuxService::CopyPackage();
    }
    const std::string archive = RegisteredPath(path_key::kRootResource, "/package/larkspire.vpk");
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

    const std::unique_ptr<Launcher> launcher =
        std::make_unique<Launcher>(std::make_unique<ExtractingService>());
    ProcessingProgressDialog *dialog = nullptr;
};

class RunTest : public LauncherTest, public testing::WithParamInterface<std::array<const char *, 3>>
{
};
} // namespace

TEST_F(LauncherTest, TheWindowCountsInPercentAndCannotBeCancelled)
{
    const std::pair<const char *, QVariant> properties[] = {
#include "tests/window-cases.inc"
    };
    for (const auto &[name, value] : properties) {
        EXPECT_EQ(dialog->property(name), value) << name;
    }
    Shell("mkdir opt/images");
    QImage(7, 7, QImage::Format_RGB32)
        .save(QString::fromStdString(Path("opt/images/ico_72_larkspire.png")));
    EXPECT_EQ(ProcessingProgressDialog().windowIcon().availableSizes(),
              QList<QSize>({QSize(7, 7)}));
    EXPECT_EQ(dialog->windowFlags() & ~Qt::WindowType_Mask,
              Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    EXPECT_TRUE(dialog->findChildren<QPushButton *>().isEmpty());
    launcher->ShowMsgBox();
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
            const auto [dark, light] =
                std::minmax_element(pixels, pixels + label.sizeInBytes() / sizeof(QRgb),
                                    [](QRgb a, QRgb b) { return qGray(a) < qGray(b); });
            EXPECT_GT(luminance(*light) / luminance(*dark), 7) << "contrast, theme " << theme;
        }
    }
    QApplication::setPalette(original);
}

TEST_P(RunTest, ReachesTheWindowAndTheClient)
{
    const auto &[pack, expected, started] = GetParam();
    std::string shown;
    QObject::connect(
        dialog->findChild<QProgressBar *>(), &QProgressBar::valueChanged, [&](int value) {
            shown += (dialog->isVisible() ? "" : "hidden: ") + std::to_string(value) + " ";
            shown += dialog->labelText().toStdString() + "\n";
        });
    Shell(std::string("cd opt/package/larkspire; ") + pack);
    launcher->Run();
    launcher->Start();
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_FALSE(dialog->isVisible());
    EXPECT_EQ(shown + dialog->labelText().toStdString(), expected);
    EXPECT_EQ(ReadFile(Path("started")), started);
}

constexpr std::array<const char *, 3> kRuns[] = {
#include "tests/window-runs.inc"
};
INSTANTIATE_TEST_SUITE_P(Runs, RunTest, testing::ValuesIn(kRuns));

TEST_F(LauncherTest, TextsAndFontFollowTheLanguage)
{
    for (const auto &[locale, font, name] :
         {std::tuple("th_TH.UTF-8", "Microsoft Sans Serif,9,", "ไคลเอ็นต์ Brimlock"),
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
    unsetenv("QT_QPA_PLATFORM");
    setenv("LC_ALL", "C", 1);
    QtSingleApplication app(argc, argv, true);
    initializeLanguage(app);
    return RUN_ALL_TESTS();
}
