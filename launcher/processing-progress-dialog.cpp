#include "launcher/processing-progress-dialog.h"

#include <QApplication>
#include <QCloseEvent>
#include <QIcon>

#include "fct-qt/dpi-info.h"
#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"

namespace
{
constexpr double kWidthAtScaleOne = 400.0;
constexpr int kPercent = 100;
} // namespace

ProcessingProgressDialog::ProcessingProgressDialog() : QProgressDialog(nullptr, Qt::WindowFlags())
{
    const QFont font = QApplication::font();
    const QString icon = UIPathManager::getInstance()->getPath(QStringLiteral("root_resource_path")) +
                         QStringLiteral("/images/ico_72_larkspire.png");
    const QString clientName = StrTable::LoadStr(StrTable::CLIENT_NAME);

    setWindowTitle(clientName);
    setWindowIcon(QIcon(icon));
    setWindowFlags(Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    setValue(0);
    setRange(0, kPercent);
    setLabelText(StrTable::LoadStr(StrTable::CLIENT_INITIALIZING).arg(clientName, 0, QLatin1Char(' ')));
    setFont(font);
    // Whoever shows the dialog by itself gets it modal; Launcher, which has no other window, undoes it.
    setModal(true);
    setWindowModality(Qt::WindowModal);
    setFixedWidth(static_cast<int>(DPIinfo::getInstance()->getDPI() * kWidthAtScaleOne));
    setStyleSheet(DPIinfo::getInstance()->getScaledStyleSheet(
        QStringLiteral("QProgressDialog { background-color: WhiteSmoke; vertical-align: middle; }")));
}

void ProcessingProgressDialog::closeEvent(QCloseEvent *event)
{
    event->ignore();
}
