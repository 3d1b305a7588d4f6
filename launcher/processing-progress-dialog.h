#ifndef BRIMLOCK_LAUNCHER_PROCESSING_PROGRESS_DIALOG_H
#define BRIMLOCK_LAUNCHER_PROCESSING_PROGRESS_DIALOG_H

#include <QProgressDialog>

// The launcher's only window: a bar in percent under a one-line label. It is built hidden. Nobody but the
// program closes it, because what it shows cannot be cancelled half-way.
class ProcessingProgressDialog : public QProgressDialog
{
    Q_OBJECT
public:
    static constexpr int kWhole = 100; // percent

    ProcessingProgressDialog();

    // Escape asks for this; nothing happens.
    void reject() override {}

protected:
    // The window manager's request to close, by button, menu or key; refused.
    void closeEvent(QCloseEvent *event) override;
};

#endif
