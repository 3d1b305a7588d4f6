// bare-dialog SCRIPT ICON: a minimal Qt program that creates the launcher's dialog, runs the start script and ends.

#include <QApplication>
#include <QFont>
#include <QIcon>
#include <QProcess>
#include <QProgressDialog>
#include <QTimer>

int main(int argc, char **argv)
{
    const QApplication app(argc, argv);
    const QStringList arguments = QApplication::arguments();
    QApplication::setFont(QFont(QStringLiteral("Arial"), 9));
    QProgressDialog dialog;
    dialog.setWindowTitle(QStringLiteral("Brimlock Client"));
    dialog.setWindowIcon(QIcon(arguments.at(2)));
    dialog.setWindowFlags(Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    dialog.setValue(0);
    dialog.setRange(0, 100);
    dialog.setLabelText(QStringLiteral("Brimlock Client is initializing..."));
    dialog.setFont(QApplication::font());
    dialog.setCancelButton(nullptr);
    dialog.setFixedWidth(400);
    dialog.setStyleSheet(QStringLiteral("QProgressDialog { background-color: WhiteSmoke; vertical-align: middle; }"));
    QTimer started;
    QObject::connect(&started, &QTimer::timeout, [&] {
        QProcess::execute(arguments.at(1), {QStringLiteral("start")});
        QCoreApplication::quit();
    });
    started.start();
    return QApplication::exec();
}
