#ifndef BRIMLOCK_LAUNCHER_LAUNCHER_H
#define BRIMLOCK_LAUNCHER_LAUNCHER_H

#include <memory>

#include <QObject>
#include <QThread>

#include "launcher/processing-progress-dialog.h"
#include "service/cloud-service.h"

// The thread that the upgrade runs on: an event loop for the worker's slot.
class HandlerThread : public QThread
{
    Q_OBJECT
protected:
    void run() override { exec(); }
};

// Brings the user's copy up to date and starts the client, on a thread of its own.
class Worker : public QObject
{
    Q_OBJECT
public:
    Worker();

    // With another way to upgrade than the system's own.
    explicit Worker(std::unique_ptr<Service> upgradeService);

    // Ends and joins the thread if it still runs: an upgrade in progress is finished first.
    ~Worker() override;

    void StartThread();
    void QuitThread();
    void JoinThread();

    // Whether the thread runs.
    bool HasThread() const;

signals:
    void sigServiceDone();
    void sigShowMsg();
    void sigUpdateProgress(int total, int done);
    void sigSetLabelText(const QString &text);

public slots:
    // (Connected to by this name, misspelt as it is.) One run, from the look at the versions to the start of
    // the client. Ends with sigServiceDone().
    void HandleServicce();

private:
    // Deleted in this order: the thread's last slot call may still use the service.
    std::unique_ptr<HandlerThread> handlerThread;
    std::unique_ptr<Service> service;
};

// Wires the worker to the progress window, on the GUI thread, and ends the program when the worker is done.
class Launcher : public QObject
{
    Q_OBJECT
public:
    Launcher();
    explicit Launcher(std::unique_ptr<Service> upgradeService);
    ~Launcher() override;

    // Starts the thread. Start() then starts the run: on the thread or, where none can be made, in the event loop.
    void Run();
    void Start();

signals:
    void sigStart();

public slots:
    // Hides the window, ends the worker's thread and quits the event loop.
    void LaunchDone();

    // Shows done * 100 / total percent. `total` must not be 0.
    void UpdateProgress(int total, int done);
    void SetLabelText(const QString &text);

    // Shows the progress window.
    void ShowMsgBox();

private:
    // Deleted in this order: while the worker ends it may still report to the window.
    std::unique_ptr<Worker> worker;
    std::unique_ptr<ProcessingProgressDialog> dialog;
};

#endif
