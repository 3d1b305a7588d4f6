#ifndef BRIMLOCK_FCT_QT_QT_SINGLE_APPLICATION_H
#define BRIMLOCK_FCT_QT_QT_SINGLE_APPLICATION_H

#include <utility>
#include <vector>

#include <QApplication>

// What the environment tells Qt of the platform, for the time in which an application object is built. Constructed, it
// lets Qt try what the user has chosen or the session offers and then a platform without a display, instead of
// aborting; without wantsDisplay only the latter. It keeps away themes, styles and input methods that talk to the
// desktop on their own: they end the process, or wait for ever, when it does not answer. PutBack() gives the variables
// back as they were, for the programs that this one starts.
class PlatformChoice
{
protected:
    explicit PlatformChoice(bool wantsDisplay);
    void PutBack() const;

private:
    void Set(const char *name, const QByteArray &value);

    std::vector<std::pair<const char *, QByteArray>> own; // null: not set
};

// A QApplication of which one process per user is meant to run. It also starts where there is no display: its
// windows are then never seen.
class QtSingleApplication : private PlatformChoice, public QApplication
{
public:
    // Takes the user's guard when it is free. Without GUIenabled no display is looked for.
    QtSingleApplication(int &argc, char **argv, bool GUIenabled = true);

    // Drops the guard. The kernel drops it too, however the process ends.
    ~QtSingleApplication() override;

    // Whether another such process of the same user is alive. When none is, this process now holds the guard, and of
    // several that ask at the same instant exactly one is told so. False, too, where no guard can be had at all: a
    // launcher that runs twice does less harm than one that never runs.
    bool isRunning();

private:
    bool TakeGuard();
    void DropGuard();

    std::vector<int> guard; // the sockets that hold the user's names
};

#endif
