#ifndef BRIMLOCK_FCT_QT_QT_SINGLE_APPLICATION_H
#define BRIMLOCK_FCT_QT_QT_SINGLE_APPLICATION_H

#include <utility>
#include <vector>

#include <QApplication>

// Sets the environment variables that Qt reads while an application object is constructed:
// - The platform is the one that the user has chosen or the session offers. If it does not work, Qt uses a platform
//   without a display instead of aborting. Without `wantsDisplay` it uses only that one.
// - Qt loads no theme, style or input method that communicates with the desktop by itself: if the desktop does not
//   answer, these end the process or wait forever.
// - No warning of Qt is fatal (QT_FATAL_WARNINGS, QT_FATAL_CRITICALS), now or later.
// RestoreEnvironment() restores the variables for the programs that this process starts. A base class, so that it is
// constructed before QApplication.
class QtEnvironment
{
protected:
    explicit QtEnvironment(bool wantsDisplay);
    void RestoreEnvironment() const;

private:
    void Set(const char *name, const QByteArray &value);

    std::vector<std::pair<const char *, QByteArray>> original; // null: was not set
};

// A QApplication of which only one process per user should run. It also starts without a display; its windows are then
// not visible.
class QtSingleApplication : private QtEnvironment, public QApplication
{
public:
    // Without GUIenabled no display is used.
    QtSingleApplication(int &argc, char **argv, bool GUIenabled = true);

    // Closes the instance socket. The kernel closes it too when the process ends.
    ~QtSingleApplication() override;

    // Whether another process of the same user runs that has got false here. Binds the user's instance socket if no
    // other process has it. Of several that ask at the same time exactly one gets false. When neither the socket nor
    // the list of processes can be used, it is false: a launcher that runs twice does less harm than one that never
    // runs.
    bool isRunning();

private:
    int instanceSocket = -1; // -1: not bound
};

#endif
