// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/qt/progressdialog.h"

#include <QApplication>
#include <QCloseEvent>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

LProgressDialog* LProgressDialog::s_running = nullptr;

LProcessResult Process(LProcessInterface& process, LProcessFunctionData& data) {
    return (*data.work)(process);
}

LProgressDialog::LProgressDialog(QWidget* parent, QString const& title) : QDialog(parent) {
    setWindowTitle(title);
    setWindowModality(Qt::ApplicationModal);
    auto* layout = new QVBoxLayout(this);
    m_title = new QLabel(title, this);
    m_detail = new QLabel(this);
    m_bar = new QProgressBar(this);
    m_bar->setRange(0, 1000);
    m_cancel = new QPushButton(tr("Cancel"), this);
    connect(m_cancel, &QPushButton::clicked, this, &LProgressDialog::Cancel);
    layout->addWidget(m_title);
    layout->addWidget(m_detail);
    layout->addWidget(m_bar);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(m_cancel);
    layout->addLayout(buttons);
    setMinimumWidth(420);
}

LProgressDialog::~LProgressDialog() = default;

LProcessResult LProgressDialog::Run(LProcessWork const& work) {
    LProcessFunctionData function{&work};
    return RunData(function);
}

void LProgressDialog::Cancel() {
    if (m_state != nullptr) {
        m_state->RequestStop();
        m_cancel->setEnabled(false);
        m_detail->setText(tr("Stopping..."));
    }
}

void LProgressDialog::reject() {
    Cancel();
}

void LProgressDialog::closeEvent(QCloseEvent* event) {
    // The dialog goes when the work has ended, not before.
    Cancel();
    event->ignore();
}

void LProgressDialog::Refresh(LProcessInterfaceBasic& state) {
    std::string const title = state.GetStatus(0);
    if (!title.empty()) {
        m_title->setText(QString::fromStdString(title));
    }
    if (!state.IsToStop()) {
        m_detail->setText(QString::fromStdString(state.GetStatus(1)));
    }
    double const fraction = state.GetProgress();
    m_bar->setValue(static_cast<int>(std::lround(std::clamp(fraction, 0.0, 1.0) * 1000.0)));
}

void LProgressDialog::WaitFor(LProcessInterfaceBasic& state, int notifyFd,
                              std::function<bool()> const& isDone) {
    LProgressDialog* const outer = s_running;
    s_running = this;
    m_state = &state;
    m_wasShown = false;
    m_cancel->setEnabled(true);

    QEventLoop loop;
    QSocketNotifier notifier(notifyFd, QSocketNotifier::Read);
    connect(&notifier, &QSocketNotifier::activated, &loop, &QEventLoop::quit);
    QTimer refresh;
    connect(&refresh, &QTimer::timeout, this, [this, &state] { Refresh(state); });
    refresh.start(50);

    // Held-back input first: the work may be changing the document the window shows.
    QElapsedTimer clock;
    clock.start();
    QTimer wake;
    wake.setSingleShot(true);
    connect(&wake, &QTimer::timeout, &loop, &QEventLoop::quit);
    wake.start(kShowAfterMs);
    if (!isDone()) {
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    }
    if (!isDone()) {
        Refresh(state);
        show();
        m_wasShown = true;
        while (!isDone()) {
            loop.exec();
        }
        hide();
    }
    m_state = nullptr;
    s_running = outer;
}
