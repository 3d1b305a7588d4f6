#include "launcher/launcher.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include "launcher/notify/notify-adapter.h"
#include "launcher/run-keeper.h"
#include "launcher/strings/str-table.h"
#include "log/log.h"
#include "service/linux/linux-service.h"

namespace
{
const std::string kComponent = "launcher_debug";
} // namespace

Worker::Worker() : Worker(std::make_unique<LinuxService>()) {}

Worker::Worker(std::unique_ptr<Service> upgradeService)
    : handlerThread(std::make_unique<HandlerThread>()), service(std::move(upgradeService))
{
    moveToThread(handlerThread.get());
}

Worker::~Worker()
{
    QuitThread();
    JoinThread();
    handlerThread.reset();
    service.reset();
}

void Worker::StartThread()
{
    handlerThread->start(QThread::InheritPriority);
}

void Worker::QuitThread()
{
    handlerThread->quit();
}

void Worker::JoinThread()
{
    handlerThread->wait();
}

bool Worker::HasThread() const
{
    return handlerThread->isRunning();
}

void Worker::HandleServicce()
{
    RunKeeper::RunBegins();
    LOGGER_DEBUG(kComponent, "running\n");
    const bool mayUpgrade = service->OpenUserFolder();
    service->PreUpgrade();
    if (!service->IsNeedUpgrade()) {
        LOGGER_DEBUG(kComponent, "no need to upgrade\n");
    } else {
        bool isUpgraded = false;
        if (mayUpgrade) {
            emit sigShowMsg();
            isUpgraded = service->HandlePackageUpgrade() == 0;
        }
        if (isUpgraded) {
            emit sigUpdateProgress(ProcessingProgressDialog::kWhole, ProcessingProgressDialog::kWhole);
            emit sigSetLabelText(StrTable::WithClientName(StrTable::CLIENT_READY));
        } else {
            // Also when the upgrade was not tried: administrators find the users with an old copy by this line.
            LOGGER_ERROR(kComponent, "Failed to upgrade package\n");
        }
    }
    service->RemoveAgedFolders();
    service->PostUpgrade();
    service->CloseUserFolder();
    LOGGER_DEBUG(kComponent, "done\n");
    RunKeeper::RunEnds();
    emit sigServiceDone();
}

Launcher::Launcher() : Launcher(std::make_unique<LinuxService>()) {}

Launcher::Launcher(std::unique_ptr<Service> upgradeService)
    : dialog(std::make_unique<ProcessingProgressDialog>()), worker(std::make_unique<Worker>(std::move(upgradeService)))
{
    dialog->setCancelButton(nullptr);
    dialog->setAutoReset(false);
    // The dialog's constructor makes it modal. There is no other window that it could block.
    dialog->setModal(false);
    // Only LaunchDone() ends the program, even if the window is closed from outside.
    QGuiApplication::setQuitOnLastWindowClosed(false);

    connect(this, &Launcher::sigStart, worker.get(), &Worker::HandleServicce);
    connect(worker.get(), &Worker::sigShowMsg, this, &Launcher::ShowMsgBox);
    connect(worker.get(), &Worker::sigServiceDone, this, &Launcher::LaunchDone);
    connect(worker.get(), &Worker::sigUpdateProgress, this, &Launcher::UpdateProgress);
    connect(worker.get(), &Worker::sigSetLabelText, this, &Launcher::SetLabelText);
    connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateProgress, this, &Launcher::UpdateProgress);
    connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateDialogText, this, &Launcher::SetLabelText);
}

void Launcher::Run()
{
    worker->StartThread();
    if (!worker->HasThread()) {
        // No thread could be created, so signals queued for it are never delivered. Let the GUI thread do the work.
        connect(
            this, &Launcher::sigStart, this, [this] { worker->HandleServicce(); }, Qt::QueuedConnection);
    }
}

void Launcher::Start()
{
    emit sigStart();
}

void Launcher::LaunchDone()
{
    dialog->setValue(ProcessingProgressDialog::kWhole);
    dialog->hide();
    worker->QuitThread();
    worker->JoinThread();
    QCoreApplication::quit();
}

void Launcher::UpdateProgress(int total, int done)
{
    dialog->setValue(done * ProcessingProgressDialog::kWhole / total);
}

void Launcher::SetLabelText(const QString &text)
{
    dialog->setLabelText(text);
}

void Launcher::ShowMsgBox()
{
    dialog->show();
}
