#ifndef BRIMLOCK_LAUNCHER_NOTIFY_NOTIFY_ADAPTER_H
#define BRIMLOCK_LAUNCHER_NOTIFY_NOTIFY_ADAPTER_H

#include <QObject>
#include <QString>

// Relays progress and label text from code that does not know the window. Its functions may be called from any thread;
// the slots of the receivers are called on the receivers' threads.
class Notify_Adapter : public QObject
{
    Q_OBJECT
public:
    static Notify_Adapter *GetInstance();

    // `total` must not be 0.
    void UpdateProgress(int total, int done);
    void UpdateDialogText(QString text);

signals:
    void sigUpdateProgress(int total, int done);
    void sigUpdateDialogText(QString text);

private:
    Notify_Adapter() = default;
};

#endif
