// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LProgressDialog: the progress display of every long operation on the desktop. The operation
// runs on a worker thread (LProcessThread) while the main thread keeps serving events, so the
// windows repaint and timers run; the dialog shows the operation's two status lines and its
// progress and offers Cancel, which asks the operation to stop at its next poll.
//
// To avoid a flash for short work, the dialog appears only once the work has run for
// kShowAfterMs; until then user input is held back (the work may be changing a document), other
// events are served. Once shown, the dialog is application-modal for the same reason. Run returns
// when the worker has ended; the worker's notification pipe wakes the main thread.
//
// LProcessDialog<X> runs `Process(LProcessInterface&, X&)` this way, as the editor's effect and
// file operations expect.

#include "llib/gen/process.h"

#include <QDialog>

#include <functional>
#include <string>

class QLabel;
class QProgressBar;
class QPushButton;

using LProcessWork = std::function<LProcessResult(LProcessInterface&)>;

// The data object of a plain function run as an operation.
struct LProcessFunctionData {
    LProcessWork const* work = nullptr;
};
LProcessResult Process(LProcessInterface& process, LProcessFunctionData& data);

class LProgressDialog : public QDialog {
    Q_OBJECT
public:
    static constexpr int kShowAfterMs = 300;

    LProgressDialog(QWidget* parent, QString const& title);
    ~LProgressDialog() override;

    // Runs `work` on a worker thread under this dialog; returns its result when it has ended.
    LProcessResult Run(LProcessWork const& work);
    // The operation's last error message (after Run).
    [[nodiscard]] std::string GetError() const { return m_error; }
    // Whether the dialog was on screen at some time during the last Run.
    [[nodiscard]] bool WasShown() const { return m_wasShown; }

    // The dialog that is running an operation now, or null (tests press its Cancel).
    [[nodiscard]] static LProgressDialog* GetRunning() { return s_running; }
    // Asks the running operation to stop, as the Cancel button does.
    void Cancel();
    [[nodiscard]] QPushButton* GetCancelButton() const { return m_cancel; }

protected:
    void reject() override; // Escape and the window's close button cancel too
    void closeEvent(QCloseEvent* event) override;

protected:
    // Runs Process(interface, data) on a worker thread under this dialog; kFailed when no thread
    // could be started.
    template <class X>
    LProcessResult RunData(X& work) {
        LProcessThread<X> thread;
        if (!thread.Start(work)) {
            m_error = "The operation could not be started.";
            return LProcessResult::kFailed;
        }
        WaitFor(thread.GetInterface(), thread.GetNotifyFd(), [&thread] { return thread.IsDone(); });
        LProcessResult const result = thread.Wait();
        m_error = thread.GetInterface().GetError();
        return result;
    }

private:
    // Serves events until the work has ended, showing the dialog after kShowAfterMs.
    void WaitFor(LProcessInterfaceBasic& state, int notifyFd, std::function<bool()> const& isDone);
    void Refresh(LProcessInterfaceBasic& state);

    QLabel* m_title = nullptr;
    QLabel* m_detail = nullptr;
    QProgressBar* m_bar = nullptr;
    QPushButton* m_cancel = nullptr;
    LProcessInterfaceBasic* m_state = nullptr;
    std::string m_error;
    bool m_wasShown = false;
    static LProgressDialog* s_running;
};

template <class X>
class LProcessDialog : public LProgressDialog {
public:
    using LProgressDialog::LProgressDialog;

    // Runs Process(interface, data) under the dialog and returns its result.
    LProcessResult MainFunction(X& work) { return RunData(work); }
};
