// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSoundProcessBase: the base of every transforming source (LSRC...). It holds one reference to
// the source it wraps and forwards every operation it does not define itself (Seek, positions,
// ControlMessage, streaming) to it, so releasing the outermost source of a chain releases the
// whole chain. It copies the input's rate, channel count and level bound; a wrapper over an
// input in error takes kInputError. Read is the subclass's; it must not allocate.
//
// LSoundProcess: the settings side of an effect (LSP...). It holds plain settings, no audio
// state, and OpenSource builds a source that processes an input with a copy of them, so the
// effect may be changed or deleted while that source lives. Effects sit on intrusive lists.

#include "llib/gen/list.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/soundsource.h"

#include <memory>

class LSoundProcessBase : public LSoundSourceBase {
public:
    explicit LSoundProcessBase(LSoundSource const& input);
    // For sources whose output format differs from the input's (converters).
    LSoundProcessBase(LSoundSource const& input, int sampleRateHz, unsigned char channels);

    void Seek(long long frame) override;
    [[nodiscard]] long long GetPositionSample() const override;
    [[nodiscard]] long long GetEndSample() const override;
    long ControlMessage(int id, long* value) override;
    [[nodiscard]] long long AdjustRelativeOffset(long long offset, long long reference) override;
    [[nodiscard]] bool IsStreaming() const override;
    void WaitForStreamingData(int ms) override;

    [[nodiscard]] LSoundSource const& GetInput() const { return m_input; }

protected:
    LSoundSource m_input;
};

class LSoundProcess : public LListLink<LSoundProcess> {
public:
    LSoundProcess() = default;
    virtual ~LSoundProcess() = default;

    // A new source reading `input` through this effect.
    [[nodiscard]] virtual LSoundSource OpenSource(LSoundSource& input) = 0;
    // The display name into a caller buffer of kLMaxText characters.
    virtual void GetName(char* name) const;
    [[nodiscard]] virtual int GetSoundProcessType() const { return 0; }
    // A copy with the same settings, or null for effects that cannot be copied.
    [[nodiscard]] virtual std::unique_ptr<LSoundProcess> GetNewCopy() const { return nullptr; }
    [[nodiscard]] virtual bool IsValid() const { return true; }

    [[nodiscard]] bool IsBypassed() const { return m_bypass; }
    void SetBypassed(bool bypass) { m_bypass = bypass; }

protected:
    LSoundProcess(LSoundProcess const&) = default;
    LSoundProcess& operator=(LSoundProcess const&) = default;

private:
    bool m_bypass = false;
};
