// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/process.h"

#include "llib/gen/stringlong.h"

#include <cstdarg>

void LProcessInterface::SetErrorF(char const* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    LStrVPrintf(text, sizeof text, format, args);
    va_end(args);
    SetError(text);
}

void LProcessInterface::SetStatusF(int line, char const* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    LStrVPrintf(text, sizeof text, format, args);
    va_end(args);
    SetStatus(text, line);
}

bool LProcessInterfaceBasic::ProcessWait(unsigned ms) {
    (void)m_stopSignal.Wait(ms);
    return IsToStop();
}

bool LProcessInterfaceBasic::ProcessWaitSignal(LSignalObjectRef signal, unsigned ms) {
    LSignalObjectGroup group;
    group.Add(signal);
    return group.WaitAny(ms, m_stopSignal.GetFd()) == 0;
}

int LProcessInterfaceBasic::ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned ms) {
    int const index = group.WaitAny(ms, m_stopSignal.GetFd());
    return index >= 0 ? index : -1;
}

void LProcessInterfaceBasic::SetError(char const* message) {
    LMutexLock lock(m_mutex);
    m_error = message != nullptr ? message : "";
}

void LProcessInterfaceBasic::SetStatus(char const* text, int line) {
    if (line < 0 || line > 1) {
        return;
    }
    LMutexLock lock(m_mutex);
    m_status[line] = text != nullptr ? text : "";
}

void LProcessInterfaceBasic::RequestStop() {
    m_stop.store(true, std::memory_order_release);
    m_stopSignal.Set();
}

void LProcessInterfaceBasic::ClearStop() {
    m_stop.store(false, std::memory_order_release);
    m_stopSignal.Reset();
}

std::string LProcessInterfaceBasic::GetError() const {
    LMutexLock lock(m_mutex);
    return m_error;
}

std::string LProcessInterfaceBasic::GetStatus(int line) const {
    if (line < 0 || line > 1) {
        return {};
    }
    LMutexLock lock(m_mutex);
    return m_status[line];
}
