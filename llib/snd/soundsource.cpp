// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundsource.h"

#include "llib/unix/thread.h"

#include <cassert>
#include <cstring>

char const* LSoundSourceErrorCodeText(LSoundSourceErrorCode code) {
    switch (code) {
    case LSoundSourceErrorCode::kNone:
        return "no error";
    case LSoundSourceErrorCode::kNoSource:
        return "no source";
    case LSoundSourceErrorCode::kInputError:
        return "the input of this source is in error";
    case LSoundSourceErrorCode::kCorrupt:
        return "the audio is corrupt or malformed";
    case LSoundSourceErrorCode::kCannotOpen:
        return "the file could not be opened";
    case LSoundSourceErrorCode::kUnsupported:
        return "the format is not supported";
    case LSoundSourceErrorCode::kEncrypted:
        return "the file is encrypted";
    case LSoundSourceErrorCode::kCodecRequired:
        return "a codec that is not installed is required";
    }
    return "unknown error";
}

LSoundSourceBase::LSoundSourceBase(int sampleRateHz, unsigned char channels)
    : m_sampleRate(sampleRateHz), m_channels(channels) {
    if (m_sampleRate < 1) {
        m_sampleRate = 44100;
        m_error = LSoundSourceErrorCode::kCorrupt;
    }
    if (m_channels == 0) {
        m_channels = 1;
        m_error = LSoundSourceErrorCode::kCorrupt;
    }
    llib::detail::LiveCountAdd(LSoundLiveKind::kSource, 1);
}

LSoundSourceBase::~LSoundSourceBase() {
    llib::detail::LiveCountAdd(LSoundLiveKind::kSource, -1);
}

void LSoundSourceBase::Seek(long long frame) {
    (void)frame;
}

long LSoundSourceBase::ControlMessage(int id, long* value) {
    (void)id;
    (void)value;
    return 0;
}

long long LSoundSourceBase::AdjustRelativeOffset(long long offset, long long reference) {
    (void)reference;
    return offset;
}

bool LSoundSourceBase::IsStreaming() const {
    return false;
}

void LSoundSourceBase::WaitForStreamingData(int ms) {
    LSleepMs(ms);
}

LSoundSourceError::LSoundSourceError(LSoundSourceErrorCode code, int sampleRateHz,
                                     unsigned char channels)
    : LSoundSourceBase(sampleRateHz, channels) {
    SetError(code);
}

void LSoundSourceError::Read(float* buffer, long long frames) {
    if (buffer != nullptr && frames > 0) {
        std::memset(buffer, 0, static_cast<std::size_t>(frames) * GetChannels() * sizeof(float));
    }
}

LSoundSource::LSoundSource() : LSoundSource(new LSoundSourceError()) {}

LSoundSource::LSoundSource(LSoundSourceBase* object) : m_object(object) {
    ++m_object->m_references;
}

LSoundSource::LSoundSource(LSoundSource const& other) : m_object(other.m_object) {
    assert(m_object->m_references < 0xFFFF);
    ++m_object->m_references;
}

LSoundSource& LSoundSource::operator=(LSoundSource const& other) {
    // Reference the new object before releasing the old one, so self-assignment is harmless.
    LSoundSourceBase* const old = m_object;
    m_object = other.m_object;
    assert(m_object->m_references < 0xFFFF);
    ++m_object->m_references;
    if (--old->m_references == 0) {
        delete old;
    }
    return *this;
}

LSoundSource::~LSoundSource() {
    if (--m_object->m_references == 0) {
        delete m_object;
    }
}

void LSoundSource::Close() {
    *this = LSoundSource();
}

LSoundSource LMakeErrorSource(LSoundSourceErrorCode code) {
    return LMakeSource<LSoundSourceError>(code);
}
