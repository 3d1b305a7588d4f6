#ifndef BRIMLOCK_FCT_QT_QT_SINGLE_APPLICATION_H
#define BRIMLOCK_FCT_QT_QT_SINGLE_APPLICATION_H

#include <QApplication>

// A QApplication of which one process per user is meant to run. It also starts where there is no display: its
// windows are then never seen.
class QtSingleApplication : public QApplication
{
public:
    // Takes the user's lock when it is free. Without GUIenabled no display is looked for.
    QtSingleApplication(int &argc, char **argv, bool GUIenabled = true);

    // Drops the lock. The kernel drops it too, however the process ends.
    ~QtSingleApplication() override;

    // Whether another such process of the same user is alive. When none is, this process now holds the lock,
    // and of several that ask at the same instant exactly one is told so. False, too, where no lock can be
    // made at all: a launcher that runs twice does less harm than one that never runs.
    bool isRunning();

private:
    int m_lock = -1; // the descriptor that holds the lock
};

#endif
