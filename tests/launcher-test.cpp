#include "launcher/launcher.h"

#include <future>
#include <thread>

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include "fct-qt/qt-single-application.h"
#include "launcher/language.h"
#include "launcher/run-keeper.h"
#include "tests/install-support.h"

namespace
{
// Installs from the archive if there is one.
class ExtractingService : public LinuxService
{
public:
    int CopyPackage() override
    {
        return fs::exists(archive) ? ExtractPackage() : LinuxService::CopyPackage();
    }
    const std::string archive = RegisteredPath(path_key::kRootResource, "/package/larkspire.vpk");
};

// The launcher's window. There is no other.
ProcessingProgressDialog *Window()
{
    ProcessingProgressDialog *window = nullptr;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        auto *const found = qobject_cast<ProcessingProgressDialog *>(widget);
        window = found != nullptr ? found : window;
    }
    return window;
}

using LauncherTest = InstallTest;
} // namespace

TEST_F(LauncherTest, TheWindowIsNotModalAndCannotBeClosed)
{
    const std::pair<const char *, const char *> properties[] = {
#include "tests/window-cases.inc"
    };
    Launcher launcher;
    ProcessingProgressDialog *const dialog = Window();
    for (const auto &[name, value] : properties) {
        EXPECT_EQ(dialog->property(name).toString().toStdString(), value) << name;
    }
    Shell("mkdir opt/images");
    const QString icon = QString::fromStdString(Path("opt/images/ico_72_larkspire.png"));
    QImage(7, 7, QImage::Format_RGB32).save(icon);
    EXPECT_EQ(ProcessingProgressDialog().windowIcon().actualSize(QSize(9, 9)).width(), 7);
    EXPECT_EQ(dialog->windowFlags() & ~Qt::WindowType_Mask,
              Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    EXPECT_EQ(dialog->findChildren<QPushButton *>().size(), 0);
    launcher.ShowMsgBox();
    dialog->close(); // as the window manager requests it
    EXPECT_TRUE(dialog->isVisible());
}

TEST_F(LauncherTest, TheLabelIsBlackAlsoUnderADarkTheme)
{
    QApplication::setPalette(QPalette(Qt::black));
    const ProcessingProgressDialog window;
    const QPalette palette = window.findChild<QLabel *>()->palette();
    EXPECT_EQ(palette.color(QPalette::WindowText).name().toStdString(), "#000000");
    QApplication::setPalette(QPalette());
}

TEST_F(LauncherTest, AStartReachesTheWindowAndTheClient)
{
    const std::tuple<const char *, std::string, const char *> cases[] = {
#include "tests/window-start-cases.inc"
    };
    for (const auto &[pack, expected, started] : cases) {
        Launcher launcher(std::make_unique<ExtractingService>());
        ProcessingProgressDialog *const dialog = Window();
        std::string shown;
        const auto note = [&](int value) {
            shown += dialog->isVisible() ? "" : "hidden: ";
            shown += std::to_string(value) + " " + dialog->labelText().toStdString() + "\n";
        };
        QObject::connect(dialog->findChild<QProgressBar *>(), &QProgressBar::valueChanged, note);
        Shell("rm -rf base opt started; . '" BRIMLOCK_TESTS "/make-clients.sh';"
              "cd opt/package/larkspire; " +
              std::string(pack));
        launcher.Run();
        launcher.Start();
        EXPECT_EQ(QApplication::exec(), 0);
        EXPECT_FALSE(dialog->isVisible());
        EXPECT_EQ(shown + dialog->labelText().toStdString(), expected) << pack;
        EXPECT_EQ(ReadFile(Path("started")), started) << pack;
    }
}

static int OverflowStack(int depth)
{
    volatile char page[4096] = "";
    return depth < 0 ? 0 : OverflowStack(depth + 1) + page[0];
}

TEST(RunKeeperTest, AStackOverflowOfTheGuiThreadDoesNotEndTheRun)
{
    const auto overflowDuringRun = [] {
        const RunKeeper keeper;
        std::promise<void> begins;
        std::thread([&begins] {
            RunKeeper::RunBegins();
            begins.set_value();
            usleep(100000);
            RunKeeper::RunEnds();
        }).detach();
        begins.get_future().wait();
        return OverflowStack(0);
    };
    EXPECT_EQ(InChild(overflowDuringRun), 0);
}

TEST(RunKeeperTest, GivesTheDisplayTenSecondsAndTheEndOfTheProcessThree)
{
    const auto secondsLeft = [](bool makesRun) {
        return InChild([&] {
            static const RunKeeper keeper;
            if (makesRun) {
                RunKeeper::RunBegins();
                RunKeeper::RunEnds();
            }
            return static_cast<int>(alarm(0)); // rounded to the nearest second
        });
    };
    EXPECT_EQ(secondsLeft(false), 10);
    EXPECT_EQ(secondsLeft(true), 3);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QtSingleApplication app(argc, argv, true);
    initializeLanguage(app);
    return RUN_ALL_TESTS();
}
