// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundsink.h"

#include <cassert>

LSoundSinkBase::LSoundSinkBase(int sampleRateHz, unsigned char channels)
    : m_sampleRate(sampleRateHz), m_channels(channels) {
    if (m_channels == 0) {
        m_channels = 1;
        SetFailed();
    }
    llib::detail::LiveCountAdd(LSoundLiveKind::kSink, 1);
}

LSoundSinkBase::~LSoundSinkBase() {
    llib::detail::LiveCountAdd(LSoundLiveKind::kSink, -1);
}

void LSoundSinkBase::Seek(long long frame) {
    (void)frame;
}

LSoundSinkError::LSoundSinkError() : LSoundSinkBase(44100, 1) {
    SetFailed();
}

void LSoundSinkError::Write(float const* buffer, long long frames) {
    (void)buffer;
    (void)frames;
}

void LSoundSinkStubBase::Write(float const* buffer, long long frames) {
    (void)buffer;
    if (frames > 0 && !IsFailed()) {
        AddFramesWritten(frames);
    }
}

LSoundSink::LSoundSink() : LSoundSink(new LSoundSinkError()) {}

LSoundSink::LSoundSink(LSoundSinkBase* object) : m_object(object) {
    ++m_object->m_references;
}

LSoundSink::LSoundSink(LSoundSink const& other) : m_object(other.m_object) {
    assert(m_object->m_references < 0xFFFF);
    ++m_object->m_references;
}

LSoundSink& LSoundSink::operator=(LSoundSink const& other) {
    LSoundSinkBase* const old = m_object;
    m_object = other.m_object;
    assert(m_object->m_references < 0xFFFF);
    ++m_object->m_references;
    if (--old->m_references == 0) {
        delete old;
    }
    return *this;
}

LSoundSink::~LSoundSink() {
    if (--m_object->m_references == 0) {
        delete m_object;
    }
}

void LSoundSink::Close() {
    *this = LSoundSink();
}
