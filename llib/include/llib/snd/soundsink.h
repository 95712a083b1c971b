// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sound sinks: the pushed end of a chain (a file encoder, a cache item, the player's feed).
//
// Contract of every sink: Write(buffer, frames) takes `frames` interleaved frames at the sink's
// own rate and channel count and adds them to the frames written. A sink that cannot write
// marks itself failed and from then on ignores data; frames already written stay written. Sinks
// that write files finish them (trailers, headers) when their last reference goes, so a caller
// completes a file by dropping its handle. One thread writes a sink at a time.
//
// LSoundSink is the value handle, shaped like LSoundSource: never empty (a default or closed
// handle holds a failed LSoundSinkError), made by LMakeSink<T>(...), counted by a plain 16-bit
// counter.

#include "llib/snd/soundbase.h"

#include <cstdint>
#include <utility>

class LSoundSink;

class LSoundSinkBase {
public:
    // 0 channels become 1 and the sink starts failed.
    LSoundSinkBase(int sampleRateHz, unsigned char channels);
    virtual ~LSoundSinkBase();
    LSoundSinkBase(LSoundSinkBase const&) = delete;
    LSoundSinkBase& operator=(LSoundSinkBase const&) = delete;

    virtual void Write(float const* buffer, long long frames) = 0;
    // Positions a sink that supports random access; others ignore it.
    virtual void Seek(long long frame);
    // Completes what the sink writes (a file's final header, an item's information) and says
    // whether all of it reached its place. Releasing the sink does the same without a caller to
    // tell, so a save that must know asks here first. Later calls repeat the answer.
    [[nodiscard]] virtual bool Finish() { return !IsFailed(); }

    [[nodiscard]] long long GetFramesWritten() const { return m_framesWritten; }
    [[nodiscard]] int GetSampleRate() const { return m_sampleRate; }
    [[nodiscard]] unsigned char GetChannels() const { return m_channels; }
    [[nodiscard]] bool IsFailed() const { return (m_flags & kFailedBit) != 0; }

protected:
    void SetFailed() { m_flags |= kFailedBit; }
    void AddFramesWritten(long long frames) { m_framesWritten += frames; }

private:
    friend class LSoundSink;
    static constexpr unsigned char kFailedBit = 1;

    long long m_framesWritten = 0;
    int m_sampleRate;
    unsigned char m_channels;
    unsigned char m_flags = 0;
    std::uint16_t m_references = 0;
};

// The placeholder behind an empty handle: 44100 Hz, mono, failed; ignores what it is given.
class LSoundSinkError final : public LSoundSinkBase {
public:
    LSoundSinkError();
    void Write(float const* buffer, long long frames) override;
};

// A sink that only counts what it is given: for measuring a chain or draining it.
class LSoundSinkStubBase : public LSoundSinkBase {
public:
    LSoundSinkStubBase(int sampleRateHz, unsigned char channels)
        : LSoundSinkBase(sampleRateHz, channels) {}
    void Write(float const* buffer, long long frames) override;
};

class LSoundSink {
public:
    LSoundSink();
    LSoundSink(LSoundSink const& other);
    LSoundSink& operator=(LSoundSink const& other);
    ~LSoundSink();

    LSoundSinkBase* operator->() const { return m_object; }
    LSoundSinkBase& operator*() const { return *m_object; }
    [[nodiscard]] LSoundSinkBase* Get() const { return m_object; }
    template <class T>
    [[nodiscard]] T* GetAs() const {
        return dynamic_cast<T*>(m_object);
    }
    void Close();
    [[nodiscard]] std::uint16_t GetReferenceCount() const { return m_object->m_references; }

    static LSoundSink Adopt(LSoundSinkBase* object) { return LSoundSink(object); }

private:
    explicit LSoundSink(LSoundSinkBase* object);

    LSoundSinkBase* m_object;
};

template <class T, class... Args>
[[nodiscard]] LSoundSink LMakeSink(Args&&... args) {
    return LSoundSink::Adopt(new T(std::forward<Args>(args)...));
}
