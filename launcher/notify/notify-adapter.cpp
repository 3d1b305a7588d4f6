#include "launcher/notify/notify-adapter.h"

Notify_Adapter *Notify_Adapter::GetInstance()
{
    static Notify_Adapter instance;
    return &instance;
}

void Notify_Adapter::UpdateProgress(int total, int done)
{
    emit sigUpdateProgress(total, done);
}

void Notify_Adapter::UpdateDialogText(QString text)
{
    emit sigUpdateDialogText(text);
}
