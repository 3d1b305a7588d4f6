#ifndef BRIMLOCK_LAUNCHER_LAUNCHER_H
#define BRIMLOCK_LAUNCHER_LAUNCHER_H

#include <memory>

#include <QObject>
#include <QThread>

#include "launcher/processing-progress-dialog.h"
#include "service/cloud-service.h"

// The worker thread. Its event loop calls the worker's slot.
class HandlerThread : public QThread
{
    Q_OBJECT
protected:
    void run() override { exec(); } // as QThread does; part of the fixed interface
};

// Upgrades the user's copy if needed and starts the client, on its own thread.
class Worker : public QObject
{
    Q_OBJECT
public:
    Worker();

    // With another service than LinuxService.
    explicit Worker(std::unique_ptr<Service> upgradeService);

    // Waits until a call of HandleServicce() has returned, and ends and joins the thread.
    ~Worker() override;

    void StartThread();
    void QuitThread();
    void JoinThread();

    // Whether the thread is running. False after StartThread() if no thread could be created.
    bool HasThread() const;

signals:
    void sigServiceDone();
    void sigShowMsg();
    void sigUpdateProgress(int total, int done);
    void sigSetLabelText(const QString &text);

public slots:
    // Compares the versions, upgrades the user's copy if needed, starts the client, and emits sigServiceDone() as its
    // last act. Callers connect to this name, so the spelling stays.
    void HandleServicce();

private:
    // The destructor deletes the thread first: until it has ended, it may use the service.
    std::unique_ptr<HandlerThread> handlerThread;
    std::unique_ptr<Service> service;
};

// Connects the worker to the progress window and ends the event loop when the worker is done. Lives on the GUI thread.
class Launcher : public QObject
{
    Q_OBJECT
public:
    Launcher();
    explicit Launcher(std::unique_ptr<Service> upgradeService);

    // Run() starts the worker's thread. Start() then makes that thread call HandleServicce() or, if it could not be
    // created, the GUI thread, from its event loop.
    void Run();
    void Start();

signals:
    void sigStart();

public slots:
    // Hides the window, waits for the end of the worker's thread and quits the event loop.
    void LaunchDone();

    // Sets the bar to done * 100 / total percent, rounded down. `total` must not be 0.
    void UpdateProgress(int total, int done);
    void SetLabelText(const QString &text);

    // Shows the progress window.
    void ShowMsgBox();

private:
    // The worker is destroyed first: until its thread has ended, it may send signals to the window.
    std::unique_ptr<ProcessingProgressDialog> dialog;
    std::unique_ptr<Worker> worker;
};

#endif
