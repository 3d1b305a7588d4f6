#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <QDir>
#include <QTextCodec>
#include <pwd.h>
#include <unistd.h>

#include "fct-qt/path-keys.h"
#include "fct-qt/qt-single-application.h"
#include "fct-qt/ui-path-manager.h"
#include "launcher/language.h"
#include "launcher/launcher.h"
#include "launcher/run-keeper.h"
#include "launcher/strings/str-table.h"
#include "log/log.h"
#include "service/cloud-service.h"

namespace
{
const std::string kComponent = "launcher_debug";
constexpr int kRotateCount = 50;
constexpr char kHelp[] =
    "Usage: brimlock-launcher [--help | --version]\n"
    "Upgrades your copy of the Brimlock Client if needed, and starts it. See brimlock-launcher(1).\n";
constexpr char kVersion[] = "brimlock-launcher " BRIMLOCK_VERSION "\n";

QString RegisteredPath(const char *key)
{
    return UIPathManager::getInstance()->getPath(QLatin1String(key));
}

void initialize_resources()
{
    setlocale(LC_ALL, "");
    // Paths are UTF-8 in every locale, also in "C".
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    qInitResources_texts();
}

void initializeDrivePaths()
{
    // The resource path of the user's copy is the app folder itself, because its version file lies there. The
    // predecessor has only these two keys on purpose: LogStartMarker() logs its other keys as empty paths, as log
    // readers expect.
    const std::pair<const char *, const char *> userPaths[] = {
        {path_key::kUserBrimlock, "/.Brimlock"},
        {path_key::kUserBrimlockApp, "/.Brimlock/Brimlock.app"},
        {path_key::kUserBrimlockResource, "/.Brimlock/Brimlock.app"},
        {path_key::kUserBrimlockData, "/.Brimlock/data"},
        {path_key::kUserBrimlockWorkingDir, "/.Brimlock/Brimlock.app/bin"},
        {path_key::kUserBrimlockUi, "/.Brimlock/Brimlock.app/bin/brimlock-ui"},
        {path_key::kUserLarkspire, "/.Larkspire"},
        {path_key::kUserLarkspireResource, "/.Larkspire/Larkspire.app"},
    };
    UIPathManager *paths = UIPathManager::getInstance();
    for (const auto &[key, suffix] : userPaths) {
        paths->setPath(QLatin1String(key), QDir::cleanPath(Service::GetUserInstallPath() + QLatin1String(suffix)));
    }
    paths->setPath(QLatin1String(path_key::kRootResource),
                   QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/..")));
}

// Logs seven lines by which log readers recognise a start. A line shows only the first character of a path, because
// "%s" gets a wide string; it shows nothing for a key that is not set. Log readers expect both.
void LogStartMarker()
{
    for (const char *key : {path_key::kUserLarkspire, path_key::kUserLarkspireApp, path_key::kUserLarkspireResource,
                            path_key::kUserLarkspireData, path_key::kUserLarkspireWorkingDir,
                            path_key::kUserLarkspireDriveUi, path_key::kRootResource}) {
        LOGGER_INFO(kComponent, ">>> %s = %s\n", key,
                    reinterpret_cast<const char *>(RegisteredPath(key).toStdWString().c_str()));
    }
}

void initialize_logger()
{
    const std::string levelFile = (RegisteredPath(path_key::kRootResource) + "/log/launcher.debug").toStdString();
    const QString folder = RegisteredPath(path_key::kUserBrimlock) + "/log";
    if (!QDir().mkpath(folder)) { // unlike FSMKDir(), it logs nothing
        return;                   // without Initialize(), the logger writes errors and warnings to standard error
    }
    Logger::Initialize(Logger::TYPE_FILE, folder.toStdString() + "/launcher.log", levelFile, kRotateCount,
                       Logger::SCOPE_THREAD);
    LogStartMarker();
    if (Logger::LevelsUnreadable()) {
        LOGGER_WARNING(kComponent, "no log levels read from '%s': unreadable or a malformed line\n", levelFile.c_str());
    }
}

// Sets HOME from the user's account when it is missing or empty. Otherwise the launcher would look for the user's files
// under "/". The client inherits the variable.
void initialize_home()
{
    const passwd *account = qEnvironmentVariableIsEmpty("HOME") ? getpwuid(getuid()) : nullptr;
    if (account != nullptr) {
        setenv("HOME", account->pw_dir, 1);
    }
}

// Prints Qt's messages, except the one at each start without XDG_RUNTIME_DIR, which concerns nobody.
void PrintQtMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (!text.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set"))) {
        fprintf(stderr, "%s\n", qPrintable(qFormatLogMessage(type, context, text)));
    }
}
} // namespace

int main(int argc, char **argv)
{
    // All other arguments are ignored.
    for (const auto &[option, text] : {std::pair("--help", kHelp), std::pair("--version", kVersion)}) {
        if (argc == 2 && strcmp(argv[1], option) == 0) {
            fputs(text, stdout);
            return 0;
        }
    }
    thread_local RunKeeper keeper;
    qInstallMessageHandler(PrintQtMessage);
    initialize_home();
    argc = qMin(argc, 1); // Qt must not interpret the arguments either
    QtSingleApplication app(argc, argv, keeper.MayUseDisplay());
    QGuiApplication::setDesktopFileName(QStringLiteral("brimlock-launcher")); // groups the window under its menu entry
    initialize_resources();
    initializeDrivePaths();
    initialize_logger();
    if (!keeper.MayUseDisplay()) {
        LOGGER_WARNING(kComponent, "the display or the desktop failed or did not answer, no window is shown\n");
    }
    if (app.isRunning()) {
        LOGGER_DEBUG(kComponent, "app has already launched, return\n");
        RunKeeper::RunEnds(); // This process makes no run. Without this call, ~RunKeeper() would start over.
        return 0;
    }
    initializeLanguage(app);

    auto launcher = std::make_unique<Launcher>();
    launcher->Run();
    launcher->Start();
    do {
        QApplication::exec();
    } while (!RunKeeper::IsRunOver()); // a session manager may also end the event loop
    return 0;
}
