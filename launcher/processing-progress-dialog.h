#ifndef BRIMLOCK_LAUNCHER_PROCESSING_PROGRESS_DIALOG_H
#define BRIMLOCK_LAUNCHER_PROCESSING_PROGRESS_DIALOG_H

#include <QProgressDialog>

// The only window of the launcher: a one-line label and a bar in percent. It is hidden after construction. The user
// cannot close it, because an upgrade cannot be cancelled.
class ProcessingProgressDialog : public QProgressDialog
{
    Q_OBJECT
public:
    static constexpr int kWhole = 100; // percent

    ProcessingProgressDialog();

    // Called for Escape. Does nothing.
    void reject() override {}

protected:
    // Refuses the window manager's request to close the window.
    void closeEvent(QCloseEvent *event) override;
};

#endif
