// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sound sources: the pulled end of every audio chain. A decoder, the cut list, a converter and
// every effect is a source; an effect wraps the source beneath it.
//
// Contract of every source:
// - Read(buffer, frames) always delivers exactly `frames` interleaved frames at the source's
//   rate and channel count and advances the position by `frames`. Where material runs out or a
//   decoder fails, the rest is silence: a source never returns short. `frames` <= 0 or a null
//   buffer does nothing. Callers learn the end from GetEndSample and errors from GetError.
// - Positions are frame indices at the source's own rate, signed 64-bit.
// - One thread drives a chain at a time; nothing here is thread-safe. Read should not allocate
//   or lock: scratch buffers are sized once.
//
// LSoundSource is the value handle: copying adds a reference, destruction releases one, and it
// is never empty: a default or closed handle holds a fresh LSoundSourceError placeholder.
// Sources are made only by LMakeSource<T>(...). The count is a plain 16-bit counter; a worker
// thread takes its references before it starts.

#include "llib/snd/soundbase.h"

#include <cstdint>
#include <utility>

enum class LSoundSourceErrorCode : std::uint8_t {
    kNone = 0,
    kNoSource = 1,      // the placeholder of a handle without a source
    kInputError = 2,    // a transforming source built over an input in error
    kCorrupt = 3,       // invalid description or malformed file
    kCannotOpen = 4,    // the file could not be opened
    kUnsupported = 5,   // the format is not supported
    kEncrypted = 6,     // the file is encrypted
    kCodecRequired = 7, // a codec that is not installed is needed
};

// A short English description of a code, for logs and the command line. The messages the editor
// shows for failed opens are built by the format dispatch, which knows the file.
[[nodiscard]] char const* LSoundSourceErrorCodeText(LSoundSourceErrorCode code);

class LSoundSource;

class LSoundSourceBase {
public:
    // A rate below 1 becomes 44100 and 0 channels become 1; both mark the source kCorrupt.
    LSoundSourceBase(int sampleRateHz, unsigned char channels);
    virtual ~LSoundSourceBase();
    LSoundSourceBase(LSoundSourceBase const&) = delete;
    LSoundSourceBase& operator=(LSoundSourceBase const&) = delete;

    virtual void Read(float* buffer, long long frames) = 0;
    // The frame the next Read delivers first.
    [[nodiscard]] virtual long long GetPositionSample() const = 0;
    // The frame just past the last one (the length, for a source starting at 0).
    [[nodiscard]] virtual long long GetEndSample() const = 0;
    // Sets the next frame to read; sources that cannot seek ignore it.
    virtual void Seek(long long frame);
    // Extension channel: returns non-zero when `id` was handled. Known ids: 1 and 6 position
    // translation (speed change), 5 and 6 looping, 4 look-ahead frames and 7 "level was
    // reduced since the last ask" (peak limiter). Unknown ids are forwarded by wrappers.
    virtual long ControlMessage(int id, long* value);
    // Maps a frame offset through the source (effects whose output is offset from their input).
    [[nodiscard]] virtual long long AdjustRelativeOffset(long long offset, long long reference);
    // True while the end may still grow (a recording being written).
    [[nodiscard]] virtual bool IsStreaming() const;
    // Blocks up to `ms` while more data arrives; by default just sleeps that long.
    virtual void WaitForStreamingData(int ms);

    [[nodiscard]] int GetSampleRate() const { return m_sampleRate; }
    [[nodiscard]] unsigned char GetChannels() const { return m_channels; }
    // The largest magnitude the samples may reach: 16.0 unless the source knows better.
    [[nodiscard]] float GetMaxMagnitude() const { return m_maxMagnitude; }
    [[nodiscard]] LSoundSourceErrorCode GetError() const { return m_error; }
    [[nodiscard]] bool IsOk() const { return m_error == LSoundSourceErrorCode::kNone; }
    [[nodiscard]] long long GetRemainingFrames() const {
        long long const left = GetEndSample() - GetPositionSample();
        return left > 0 ? left : 0;
    }

protected:
    void SetError(LSoundSourceErrorCode code) { m_error = code; }
    void SetMaxMagnitude(float value) { m_maxMagnitude = value; }

private:
    friend class LSoundSource;

    int m_sampleRate;
    unsigned char m_channels;
    float m_maxMagnitude = 16.0f;
    LSoundSourceErrorCode m_error = LSoundSourceErrorCode::kNone;
    std::uint16_t m_references = 0;
};

// The placeholder behind an empty handle: 11025 Hz, mono, error kNoSource, reads silence.
class LSoundSourceError final : public LSoundSourceBase {
public:
    explicit LSoundSourceError(LSoundSourceErrorCode code = LSoundSourceErrorCode::kNoSource,
                               int sampleRateHz = 11025, unsigned char channels = 1);
    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return 0; }
    [[nodiscard]] long long GetEndSample() const override { return 0; }
};

class LSoundSource {
public:
    LSoundSource();
    LSoundSource(LSoundSource const& other);
    LSoundSource& operator=(LSoundSource const& other);
    ~LSoundSource();

    LSoundSourceBase* operator->() const { return m_object; }
    LSoundSourceBase& operator*() const { return *m_object; }
    [[nodiscard]] LSoundSourceBase* Get() const { return m_object; }
    // The object as its concrete type, or null.
    template <class T>
    [[nodiscard]] T* GetAs() const {
        return dynamic_cast<T*>(m_object);
    }
    // Releases the source and holds a fresh placeholder.
    void Close();
    [[nodiscard]] std::uint16_t GetReferenceCount() const { return m_object->m_references; }

    // Adopts a newly made object (its count is 0). Used by LMakeSource and error makers.
    static LSoundSource Adopt(LSoundSourceBase* object) { return LSoundSource(object); }

private:
    explicit LSoundSource(LSoundSourceBase* object);

    LSoundSourceBase* m_object;
};

template <class T, class... Args>
[[nodiscard]] LSoundSource LMakeSource(Args&&... args) {
    return LSoundSource::Adopt(new T(std::forward<Args>(args)...));
}

// A handle to a placeholder carrying `code` (how a failed open is returned).
[[nodiscard]] LSoundSource LMakeErrorSource(LSoundSourceErrorCode code);
