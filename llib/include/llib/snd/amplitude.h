// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sources that change the level of their input along its timeline, or the timeline itself.
//
// LSPEnvelope / LSRCEnvelope...: a volume line of fade points (frame of the wrapped source's
// timeline, level factor). Between two points the level follows the effect's shape; before the
// first point it moves from 1.0 at frame 0 to that point's level; after the last point the audio
// passes unchanged. The curves other than the linear one rise or fall away from the quiet end
// of a segment; the exponential one is not continuous at its points (a rising segment starts
// about 1.8 % of its swing above its first level) and that is kept on purpose.
//
// LSPPan / LSRCPan: a pan line of points from -100 (full left) to +100 (full right) for stereo
// input. Between two points the pan angle moves linearly and the channels are scaled by its
// cosine and sine, so the centre leaves both at 0.7071 and the summed power stays constant.
// Before the first point and after the last the audio passes unchanged, and so does every
// input that is not stereo: there is no left and right to balance.
//
// LSRCReverse: the wrapped source played backwards; its frame p is the wrapped frame end - 1 - p.
// Reading past its end (the wrapped frame 0) gives silence and leaves the position at the end.
//
// LSRCOffset: the wrapped source moved later on the timeline by a number of frames.
//
// Every source copies the points it needs when it is made, so the effect may change or go
// away while the source lives. One thread drives each source, as for every source; Read
// allocates nothing. An input in error gives the wrapper kInputError, and reads of it stay the
// silence the input gives.

#include "llib/gen/list.h"
#include "llib/snd/soundprocess.h"

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

class LFadePoint final : public LListLink<LFadePoint> {
public:
    LFadePoint(long long positionFrame, float levelFactor)
        : position(positionFrame), level(levelFactor) {}

    long long position; // frame of the wrapped source's timeline
    float level;        // factor, 1.0 = unchanged
};

enum class LEnvelopeShape : unsigned {
    kLinear = 0,
    kLogarithmic = 1,
    kExponential = 2,
    kSinusoidal = 3,
};

// Linear between the points. The curved shapes derive from it and only replace ApplyEnvelope.
class LSRCEnvelope : public LSoundProcessBase {
public:
    // The points are copied and put in ascending order of position (a stable sort, so points
    // sharing a position keep their order and the last one wins).
    LSRCEnvelope(LSoundSource const& input, LList<LFadePoint> const& points);

    // The linear gain is computed exactly at the segment's start and every this many frames
    // after it, and stepped in float in between.
    static constexpr long long kExactFrames = 256;

    void Read(float* buffer, long long frames) final;

protected:
    // Scales the `frames` frames at `buffer`, just read and ending at the current position,
    // which lie between `from` and `to` (from.position <= frame < to.position).
    virtual void ApplyEnvelope(float* buffer, LFadePoint const& from, LFadePoint const& to,
                               long long frames);

private:
    // Where the last linear run ended, so the next one continues its float steps.
    struct Carry {
        LFadePoint const* from = nullptr;
        LFadePoint const* to = nullptr;
        long long frame = 0;
        float gain = 1.0f;
    };

    std::vector<LFadePoint> m_points;
    std::size_t m_next = 0; // the first point after the last position read from
    Carry m_carry;
    std::array<float, kExactFrames> m_gains{};
};

class LSRCEnvelopeLogarithmic final : public LSRCEnvelope {
public:
    using LSRCEnvelope::LSRCEnvelope;

protected:
    void ApplyEnvelope(float* buffer, LFadePoint const& from, LFadePoint const& to,
                       long long frames) override;
};

class LSRCEnvelopeExponential final : public LSRCEnvelope {
public:
    using LSRCEnvelope::LSRCEnvelope;

protected:
    void ApplyEnvelope(float* buffer, LFadePoint const& from, LFadePoint const& to,
                       long long frames) override;
};

class LSRCEnvelopeSinusoidal final : public LSRCEnvelope {
public:
    using LSRCEnvelope::LSRCEnvelope;

protected:
    void ApplyEnvelope(float* buffer, LFadePoint const& from, LFadePoint const& to,
                       long long frames) override;
};

class LSPEnvelope final : public LSoundProcess {
public:
    LSPEnvelope() = default;
    LSPEnvelope(LSPEnvelope const& other);
    LSPEnvelope& operator=(LSPEnvelope const&) = delete;

    // A source of the shape's class, or `input` itself when the shape is none of the known.
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    void GetName(char* name) const override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPEnvelope>(*this);
    }

    // Inserts after every point at or before `position`, keeping the list ascending.
    void AddPoint(long long position, float level);
    [[nodiscard]] LList<LFadePoint> const& GetPoints() const { return m_points; }
    [[nodiscard]] LEnvelopeShape GetShape() const { return m_shape; }
    void SetShape(LEnvelopeShape shape) { m_shape = shape; }

private:
    LList<LFadePoint> m_points;
    LEnvelopeShape m_shape = LEnvelopeShape::kLinear;
};

class LPanPoint final : public LListLink<LPanPoint> {
public:
    LPanPoint(long long positionFrame, signed char panValue)
        : position(positionFrame), pan(panValue) {}

    long long position; // frame of the wrapped source's timeline
    signed char pan;    // -100 full left .. +100 full right; values beyond are clamped
};

class LSRCPan final : public LSoundProcessBase {
public:
    // The points are copied and put in ascending order of position, as for the envelope.
    LSRCPan(LSoundSource const& input, LList<LPanPoint> const& points);

    void Read(float* buffer, long long frames) override;

private:
    std::vector<LPanPoint> m_points;
    std::size_t m_next = 0; // the first point after the last position read from
};

class LSPPan final : public LSoundProcess {
public:
    LSPPan() = default;
    explicit LSPPan(LList<LPanPoint> const& points);
    LSPPan(LSPPan const& other);
    LSPPan& operator=(LSPPan const&) = delete;

    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    void GetName(char* name) const override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPPan>(*this);
    }

    // Inserts after every point at or before `position`, keeping the list ascending.
    void AddPoint(long long position, signed char pan);
    [[nodiscard]] LList<LPanPoint> const& GetPoints() const { return m_points; }

private:
    LList<LPanPoint> m_points;
};

class LSRCReverse final : public LSoundProcessBase {
public:
    explicit LSRCReverse(LSoundSource const& input);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override;
    void Seek(long long frame) override;
};

class LSRCOffset final : public LSoundProcessBase {
public:
    LSRCOffset(LSoundSource const& input, long long offsetFrames);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override;
    [[nodiscard]] long long GetEndSample() const override;
    void Seek(long long frame) override;

private:
    long long m_offsetFrames;
};

// Adds a constant to every value of each channel (`offsets[c]` to channel c; channels beyond the
// list unchanged): DC offset correction adds minus each channel's mean.
class LSRCDCOffset final : public LSoundProcessBase {
public:
    LSRCDCOffset(LSoundSource const& input, std::vector<float> offsets);

    void Read(float* buffer, long long frames) override;

private:
    std::vector<float> m_offsets; // one per channel of the input
};
