#include "launcher/processing-progress-dialog.h"

#include <QApplication>
#include <QCloseEvent>
#include <QIcon>
#include <QLabel>

#include "fct-qt/dpi-info.h"
#include "fct-qt/path-keys.h"
#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"

namespace
{
constexpr double kWidthAtScaleOne = 400.0;
} // namespace

ProcessingProgressDialog::ProcessingProgressDialog() : QProgressDialog(nullptr, Qt::WindowFlags())
{
    const QFont font = QApplication::font();
    const QString icon = UIPathManager::getInstance()->getPath(QLatin1String(path_key::kRootResource)) +
                         QStringLiteral("/images/ico_72_larkspire.png");

    setWindowTitle(StrTable::LoadStr(StrTable::CLIENT_NAME));
    setWindowIcon(QIcon(icon));
    setWindowFlags(Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    setValue(0);
    setRange(0, kWhole);
    setLabelText(StrTable::WithClientName(StrTable::CLIENT_INITIALIZING));
    setFont(font);
    // Modal by default. Launcher, which has no other window, changes that.
    setModal(true);
    setWindowModality(Qt::WindowModal);
    setFixedWidth(static_cast<int>(DPIinfo::getInstance()->getDPI() * kWidthAtScaleOne));
    setStyleSheet(DPIinfo::getInstance()->getScaledStyleSheet(
        QStringLiteral("QProgressDialog { background-color: WhiteSmoke; vertical-align: middle; }")));
    // The style sheet sets a light background. In a dark desktop theme the text would be white on it.
    QLabel *label = findChild<QLabel *>();
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, Qt::black);
    label->setPalette(palette);
}

void ProcessingProgressDialog::closeEvent(QCloseEvent *event)
{
    event->ignore();
}
