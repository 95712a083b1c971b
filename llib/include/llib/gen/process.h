// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Long operations. Each is a free function `LProcessResult Process(LProcessInterface&, X&)` over
// a data object X; it reports status, progress and errors through the interface and polls
// IsToStop between blocks of work. A progress dialog (desktop) or LProcessThread (a worker
// thread) runs it. IsToStop is the one call that must be answerable on the worker while the
// owner asks for a stop; everything else is called on the thread running the operation.

#include "llib/unix/fd.h"
#include "llib/unix/signalobject.h"
#include "llib/unix/thread.h"

#include <atomic>
#include <string>

enum class LProcessResult : int { kCompleted = 0, kStopped = 1, kFailed = 2 };

class LProcessInterface {
public:
    virtual ~LProcessInterface() = default;

    // True once the user or the caller has asked the operation to stop.
    [[nodiscard]] virtual bool IsToStop() = 0;
    // Waits `ms` milliseconds unless a stop arrives first; true when it ended by a stop.
    virtual bool ProcessWait(unsigned ms) = 0;
    // Waits for `signal` or the time-out; true when the signal is set (false on time-out or stop).
    virtual bool ProcessWaitSignal(LSignalObjectRef signal, unsigned ms) = 0;
    // Waits for any object of `group`; its index, or -1 on time-out or stop.
    virtual int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned ms) = 0;
    virtual bool ProcessWaitUntilStopped() { return ProcessWait(kLWaitForever); }
    virtual bool ProcessWaitSignalForever(LSignalObjectRef signal) {
        return ProcessWaitSignal(signal, kLWaitForever);
    }
    virtual int ProcessWaitSignalObjectGroupForever(LSignalObjectGroup& group) {
        return ProcessWaitSignalObjectGroup(group, kLWaitForever);
    }
    // The message shown when the operation fails.
    virtual void SetError(char const* message) { (void)message; }
    // Status line `line`: 0 carries the operation's title, 1 the detail under it.
    virtual void SetStatus(char const* text, int line) {
        (void)text;
        (void)line;
    }
    // Fraction done, 0.0 to 1.0.
    virtual void SetProgress(double fraction) { (void)fraction; }
    virtual void SetProgressIndeterminateOn() {}
    virtual void SetProgressIndeterminateOff() {}

    void SetErrorF(char const* format, ...) __attribute__((format(printf, 2, 3)));
    void SetStatusF(int line, char const* format, ...) __attribute__((format(printf, 3, 4)));
};

// Passes every call on to another interface; wrappers override what they need to watch.
class LProcessInterfaceForward : public LProcessInterface {
public:
    explicit LProcessInterfaceForward(LProcessInterface& outer) : m_outer(outer) {}
    [[nodiscard]] bool IsToStop() override { return m_outer.IsToStop(); }
    bool ProcessWait(unsigned ms) override { return m_outer.ProcessWait(ms); }
    bool ProcessWaitSignal(LSignalObjectRef signal, unsigned ms) override {
        return m_outer.ProcessWaitSignal(signal, ms);
    }
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned ms) override {
        return m_outer.ProcessWaitSignalObjectGroup(group, ms);
    }
    void SetError(char const* message) override { m_outer.SetError(message); }
    void SetStatus(char const* text, int line) override { m_outer.SetStatus(text, line); }
    void SetProgress(double fraction) override { m_outer.SetProgress(fraction); }
    void SetProgressIndeterminateOn() override { m_outer.SetProgressIndeterminateOn(); }
    void SetProgressIndeterminateOff() override { m_outer.SetProgressIndeterminateOff(); }

private:
    LProcessInterface& m_outer;
};

// A process interface whose stop flag any thread may raise; it keeps the last error, status
// lines and progress for whoever runs the operation (the command line, a worker thread).
class LProcessInterfaceBasic : public LProcessInterface {
public:
    [[nodiscard]] bool IsToStop() override { return m_stop.load(std::memory_order_acquire); }
    bool ProcessWait(unsigned ms) override;
    bool ProcessWaitSignal(LSignalObjectRef signal, unsigned ms) override;
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned ms) override;
    void SetError(char const* message) override;
    void SetStatus(char const* text, int line) override;
    void SetProgress(double fraction) override {
        m_progress.store(fraction, std::memory_order_relaxed);
    }

    // Safe from any thread.
    void RequestStop();
    // Takes a stop request back so the interface can serve another run; only while none runs.
    void ClearStop();
    [[nodiscard]] double GetProgress() const { return m_progress.load(std::memory_order_relaxed); }
    [[nodiscard]] std::string GetError() const;
    [[nodiscard]] std::string GetStatus(int line) const;

private:
    std::atomic<bool> m_stop{false};
    std::atomic<double> m_progress{0.0};
    LSignalObject m_stopSignal;
    mutable LMutex m_mutex;
    std::string m_error;
    std::string m_status[2];
};

// Runs `Process(interface, data)` on a worker thread. When the operation ends the worker writes
// the single byte 1 to a notification pipe, whose read end the owner can watch (GetNotifyFd)
// alongside its other events. The data object must outlive the run; the owner takes any source
// and sink references it needs before Start, so the worker never shares a count with it.
template <class X>
class LProcessThread {
public:
    LProcessThread() = default;
    ~LProcessThread() {
        RequestStop();
        m_thread.Join();
    }
    LProcessThread(LProcessThread const&) = delete;
    LProcessThread& operator=(LProcessThread const&) = delete;

    // False when a run is in progress or the pipe or the thread cannot be made.
    [[nodiscard]] bool Start(X& data) {
        if (m_thread.IsStarted()) {
            return false;
        }
        if (!LMakePipe(m_notifyRead, m_notifyWrite)) {
            return false;
        }
        // A stop asked of the previous run must not end this one before it begins.
        m_interface.ClearStop();
        m_done.store(false);
        return m_thread.Start([this, &data] {
            LProcessResult const result = Process(m_interface, data);
            m_result.store(result);
            m_done.store(true, std::memory_order_release);
            unsigned char const one = 1;
            (void)m_notifyWrite.WriteAll(&one, 1);
        });
    }

    void RequestStop() { m_interface.RequestStop(); }
    [[nodiscard]] int GetNotifyFd() const { return m_notifyRead.Get(); }
    [[nodiscard]] bool IsDone() const { return m_done.load(std::memory_order_acquire); }
    // Joins the worker and returns its result (kFailed when nothing ran).
    LProcessResult Wait() {
        m_thread.Join();
        return m_result.load();
    }
    [[nodiscard]] LProcessInterfaceBasic& GetInterface() { return m_interface; }

private:
    LProcessInterfaceBasic m_interface;
    LFileDescriptor m_notifyRead;
    LFileDescriptor m_notifyWrite;
    std::atomic<LProcessResult> m_result{LProcessResult::kFailed};
    std::atomic<bool> m_done{false};
    LThread m_thread;
};
