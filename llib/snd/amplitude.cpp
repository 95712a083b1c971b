// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/amplitude.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <utility>

namespace {

// The level before the first fade point: unchanged audio at the start of the timeline.
LFadePoint const kEnvelopeStart(0, 1.0f);

constexpr float kHalfPi = static_cast<float>(std::numbers::pi / 2.0);

// The pan angle is exact this often and stepped in float in between: few enough steps that
// their rounding stays far below audibility, and a frame index that fits an int, which the
// vectoriser converts to float in whole registers.
constexpr long long kPanFrames = 4096;

long long FloorMod(long long value, long long divisor) {
    long long const r = value % divisor;
    return r < 0 ? r + divisor : r;
}

template <class Point>
std::vector<Point> SortedCopy(LList<Point> const& points) {
    std::vector<Point> out;
    out.reserve(points.GetCount());
    for (Point const& p : points) {
        out.push_back(p);
    }
    std::stable_sort(out.begin(), out.end(),
                     [](Point const& a, Point const& b) { return a.position < b.position; });
    return out;
}

// The index of the first point after `frame`. `cursor` is that index for the last frame looked
// up; reads usually move on within one segment or into the next, so the cursor is kept while it
// still fits and searched for afresh only after a crossing or a jump (a Seek, or any move of the
// wrapped source behind this one's back).
template <class Point>
std::size_t NextPointAfter(std::vector<Point> const& points, std::size_t cursor, long long frame) {
    bool const fits = (cursor == 0 || points[cursor - 1].position <= frame) &&
                      (cursor == points.size() || points[cursor].position > frame);
    if (fits) {
        return cursor;
    }
    auto const after = std::upper_bound(points.begin(), points.end(), frame,
                                        [](long long f, Point const& p) { return f < p.position; });
    return static_cast<std::size_t>(after - points.begin());
}

template <class Point>
void InsertInOrder(LList<Point>& list, std::unique_ptr<Point> point) {
    Point* tail = list.GetTail();
    if (tail == nullptr || tail->position <= point->position) {
        list.AddTail(std::move(point));
        return;
    }
    Point* after = nullptr;
    for (Point* p = list.GetHead(); p != nullptr && p->position <= point->position;
         p = p->GetNext()) {
        after = p;
    }
    list.InsertAfter(after, std::move(point));
}

template <class Point>
void CopyList(LList<Point> const& from, LList<Point>& to) {
    for (Point const& p : from) {
        to.AddTail(std::make_unique<Point>(p));
    }
}

// Multiplies each frame by its gain. Mono and stereo get loops of their own so the vectoriser
// sees a fixed stride.
void ScaleFrames(std::span<float> samples, std::span<float const> gains, unsigned channels) {
    std::size_t const frames = gains.size();
    float* const s = samples.data();
    float const* const g = gains.data();
    if (channels == 1) {
        for (std::size_t f = 0; f < frames; ++f) {
            s[f] *= g[f];
        }
    } else if (channels == 2) {
        for (std::size_t f = 0; f < frames; ++f) {
            s[2 * f] *= g[f];
            s[2 * f + 1] *= g[f];
        }
    } else {
        for (std::size_t f = 0; f < frames; ++f) {
            for (unsigned c = 0; c < channels; ++c) {
                s[f * channels + c] *= g[f];
            }
        }
    }
}

// sin(x) for x in [0, pi/2] as a polynomial the vectoriser can take whole (the library calls
// keep a loop scalar). The Taylor series to x^15 is within 1e-11 there, and evaluated in double
// it rounds to the float sine: exactly 0 at 0 and exactly 1 at pi/2, so a hard pan leaves one
// channel as it was and silences the other.
inline float QuarterSine(float angle) {
    double const x = angle;
    double const x2 = x * x;
    double p = -1.0 / 1307674368000.0;
    p = p * x2 + 1.0 / 6227020800.0;
    p = p * x2 - 1.0 / 39916800.0;
    p = p * x2 + 1.0 / 362880.0;
    p = p * x2 - 1.0 / 5040.0;
    p = p * x2 + 1.0 / 120.0;
    p = p * x2 - 1.0 / 6.0;
    p = p * x2 + 1.0;
    return static_cast<float>(p * x);
}

// Scales interleaved stereo frames by the cosine and sine of an angle that is `anchor` plus
// `step` for each frame after the anchor; the first frame here is `firstIndex` frames after it.
// The angle is not clamped to the quarter circle: its ends are exact and the float steps in
// between stray from the line by far less than one step, so it cannot leave the circle by more
// than a rounding, and a clamp would keep the loop from vectorising.
void PanStereo(std::span<float> samples, float anchor, float step, int firstIndex) {
    int const frames = static_cast<int>(samples.size() / 2);
    float* const s = samples.data();
    for (int f = 0; f < frames; ++f) {
        float const a = anchor + static_cast<float>(firstIndex + f) * step;
        // The cosine is the sine from the other end; pi/2 - a is exact past the centre, so the
        // centre scales both channels alike.
        s[2 * f] *= QuarterSine(kHalfPi - a);
        s[2 * f + 1] *= QuarterSine(a);
    }
}

double PanAngle(signed char pan) {
    int const clamped = std::clamp(static_cast<int>(pan), -100, 100);
    return static_cast<double>(clamped + 100) * std::numbers::pi / 400.0;
}

// Scales `frames` frames from timeline frame `first` by curve(frame), evaluated in double for
// each frame: the curves are not worth approximating, and they are rarely long.
template <class Curve>
void ScaleByCurve(float* buffer, unsigned channels, long long first, long long frames,
                  Curve curve) {
    for (long long f = 0; f < frames; ++f) {
        float const g = static_cast<float>(curve(static_cast<double>(first + f)));
        for (unsigned c = 0; c < channels; ++c) {
            buffer[f * channels + c] *= g;
        }
    }
}

// Scales a segment by a curve `shape` over 0..1 of the distance from its quiet end: a rising
// segment leaves its start along the curve, a falling one reaches its end along it mirrored,
// so each shape sounds the same fading in as fading out.
template <class Shape>
void ScaleByShape(float* buffer, unsigned channels, LFadePoint const& from, LFadePoint const& to,
                  long long first, long long frames, Shape shape) {
    if (to.position == from.position) {
        return;
    }
    double const fromFrame = static_cast<double>(from.position);
    double const toFrame = static_cast<double>(to.position);
    double const lengthFrames = toFrame - fromFrame;
    double const fromLevel = from.level;
    double const toLevel = to.level;
    double const swing = toLevel - fromLevel;
    if (swing > 0.0) {
        ScaleByCurve(buffer, channels, first, frames, [&](double q) {
            return fromLevel + swing * shape((q - fromFrame) / lengthFrames);
        });
    } else {
        ScaleByCurve(buffer, channels, first, frames, [&](double q) {
            return toLevel - swing * shape((toFrame - q) / lengthFrames);
        });
    }
}

} // namespace

LSRCEnvelope::LSRCEnvelope(LSoundSource const& input, LList<LFadePoint> const& points)
    : LSoundProcessBase(input), m_points(SortedCopy(points)) {}

void LSRCEnvelope::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const channels = GetChannels();
    while (frames > 0) {
        long long const at = m_input->GetPositionSample();
        m_next = NextPointAfter(m_points, m_next, at);
        if (m_next == m_points.size()) {
            m_input->Read(buffer, frames);
            return;
        }
        LFadePoint const& from = m_next == 0 ? kEnvelopeStart : m_points[m_next - 1];
        LFadePoint const& to = m_points[m_next];
        long long const n = std::min(to.position - at, frames);
        m_input->Read(buffer, n);
        ApplyEnvelope(buffer, from, to, n);
        buffer += n * channels;
        frames -= n;
    }
}

void LSRCEnvelope::ApplyEnvelope(float* buffer, LFadePoint const& from, LFadePoint const& to,
                                 long long frames) {
    long long const lengthFrames = to.position - from.position;
    if (lengthFrames == 0) {
        return;
    }
    double const swing = static_cast<double>(to.level) - static_cast<double>(from.level);
    auto exact = [&](long long frame) {
        return static_cast<float>(from.level + swing * static_cast<double>(frame - from.position) /
                                                   static_cast<double>(lengthFrames));
    };
    // The gain is exact in double at the segment's start and every kExactFrames frames after
    // it; in between it adds a float step frame after frame, which makes a long fade cheap and
    // keeps the drift of the adds below -90 dB. The exact frames are fixed on the timeline, not
    // where reads happen to begin, so any read sizes and seeks give the same output bit for bit.
    // The chain of adds cannot be vectorised; the multiply pass can.
    float const step = static_cast<float>(swing / static_cast<double>(lengthFrames));
    long long const first = GetPositionSample() - frames;
    long long const last = first + frames;
    bool carried = m_carry.from == &from && m_carry.to == &to && m_carry.frame == first;
    float gain = m_carry.gain;
    unsigned const channels = GetChannels();
    for (long long at = first; at < last;) {
        long long const into = FloorMod(at - from.position, kExactFrames);
        if (into == 0) {
            gain = exact(at);
        } else if (!carried) {
            // A read that starts where the last one did not end: replay the adds from the
            // exact frame before it.
            gain = exact(at - into);
            for (long long f = 0; f < into; ++f) {
                gain += step;
            }
        }
        carried = true;
        std::size_t const n = static_cast<std::size_t>(std::min(kExactFrames - into, last - at));
        for (std::size_t f = 0; f < n; ++f) {
            m_gains[f] = gain;
            gain += step;
        }
        ScaleFrames(std::span<float>(buffer + (at - first) * channels, n * channels),
                    std::span<float const>(m_gains.data(), n), channels);
        at += static_cast<long long>(n);
    }
    m_carry = Carry{&from, &to, last, gain};
}

void LSRCEnvelopeLogarithmic::ApplyEnvelope(float* buffer, LFadePoint const& from,
                                            LFadePoint const& to, long long frames) {
    ScaleByShape(buffer, GetChannels(), from, to, GetPositionSample() - frames, frames,
                 [](double t) { return std::log2(t + 1.0); });
}

// Deliberately not continuous: e^-4 of the swing is already there at the quiet end.
void LSRCEnvelopeExponential::ApplyEnvelope(float* buffer, LFadePoint const& from,
                                            LFadePoint const& to, long long frames) {
    ScaleByShape(buffer, GetChannels(), from, to, GetPositionSample() - frames, frames,
                 [](double t) { return std::exp(4.0 * t - 4.0); });
}

void LSRCEnvelopeSinusoidal::ApplyEnvelope(float* buffer, LFadePoint const& from,
                                           LFadePoint const& to, long long frames) {
    ScaleByShape(buffer, GetChannels(), from, to, GetPositionSample() - frames, frames,
                 [](double t) { return std::sin(t * std::numbers::pi / 2.0); });
}

LSPEnvelope::LSPEnvelope(LSPEnvelope const& other) : LSoundProcess(other), m_shape(other.m_shape) {
    CopyList(other.m_points, m_points);
}

LSoundSource LSPEnvelope::OpenSource(LSoundSource& input) {
    switch (m_shape) {
    case LEnvelopeShape::kLinear:
        return LMakeSource<LSRCEnvelope>(input, m_points);
    case LEnvelopeShape::kLogarithmic:
        return LMakeSource<LSRCEnvelopeLogarithmic>(input, m_points);
    case LEnvelopeShape::kExponential:
        return LMakeSource<LSRCEnvelopeExponential>(input, m_points);
    case LEnvelopeShape::kSinusoidal:
        return LMakeSource<LSRCEnvelopeSinusoidal>(input, m_points);
    }
    // A shape from a newer or damaged record: leave the audio alone rather than guess.
    return input;
}

void LSPEnvelope::GetName(char* name) const {
    LStrCopy(name, kLMaxText, "Envelope");
}

void LSPEnvelope::AddPoint(long long position, float level) {
    InsertInOrder(m_points, std::make_unique<LFadePoint>(position, level));
}

LSRCPan::LSRCPan(LSoundSource const& input, LList<LPanPoint> const& points)
    : LSoundProcessBase(input), m_points(SortedCopy(points)) {}

void LSRCPan::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    long long at = m_input->GetPositionSample();
    m_input->Read(buffer, frames);
    if (GetChannels() != 2) {
        return;
    }
    while (frames > 0) {
        m_next = NextPointAfter(m_points, m_next, at);
        if (m_next == m_points.size()) {
            return;
        }
        LPanPoint const& to = m_points[m_next];
        long long const n = std::min(to.position - at, frames);
        if (m_next > 0) {
            LPanPoint const& from = m_points[m_next - 1];
            double const fromAngle = PanAngle(from.pan);
            // The step is the same for every frame of the segment, whatever the reads.
            double const step =
                (PanAngle(to.pan) - fromAngle) / static_cast<double>(to.position - from.position);
            for (long long done = 0; done < n;) {
                // The angle is exact at the segment's start and every kPanFrames frames after
                // it, fixed on the timeline so read sizes and seeks never change the output,
                // and float steps from there never drift far.
                long long const into = FloorMod(at + done - from.position, kPanFrames);
                long long const m = std::min(n - done, kPanFrames - into);
                double const anchor =
                    fromAngle + static_cast<double>(at + done - into - from.position) * step;
                PanStereo(std::span<float>(buffer + 2 * done, static_cast<std::size_t>(2 * m)),
                          static_cast<float>(anchor), static_cast<float>(step),
                          static_cast<int>(into));
                done += m;
            }
        }
        buffer += 2 * n;
        at += n;
        frames -= n;
    }
}

LSPPan::LSPPan(LList<LPanPoint> const& points) {
    CopyList(points, m_points);
}

LSPPan::LSPPan(LSPPan const& other) : LSoundProcess(other) {
    CopyList(other.m_points, m_points);
}

LSoundSource LSPPan::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCPan>(input, m_points);
}

void LSPPan::GetName(char* name) const {
    LStrCopy(name, kLMaxText, "Pan");
}

void LSPPan::AddPoint(long long position, signed char pan) {
    InsertInOrder(m_points, std::make_unique<LPanPoint>(position, pan));
}

LSRCReverse::LSRCReverse(LSoundSource const& input) : LSoundProcessBase(input) {}

void LSRCReverse::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    // The block ends where the wrapped source stands and runs back from there.
    long long const blockEnd = m_input->GetPositionSample();
    long long const start = std::max(blockEnd - frames, 0LL);
    long long const have = std::max(blockEnd - start, 0LL);
    m_input->Seek(start);
    m_input->Read(buffer, have);
    m_input->Seek(start);
    // The block is reversed where it was read: no scratch to size for the largest read.
    unsigned const channels = GetChannels();
    for (long long lo = 0, hi = have - 1; lo < hi; ++lo, --hi) {
        std::swap_ranges(buffer + lo * channels, buffer + (lo + 1) * channels,
                         buffer + hi * channels);
    }
    std::fill(buffer + have * channels, buffer + frames * channels, 0.0f);
}

long long LSRCReverse::GetPositionSample() const {
    return m_input->GetEndSample() - m_input->GetPositionSample();
}

void LSRCReverse::Seek(long long frame) {
    m_input->Seek(m_input->GetEndSample() - frame);
}

LSRCOffset::LSRCOffset(LSoundSource const& input, long long offsetFrames)
    : LSoundProcessBase(input), m_offsetFrames(offsetFrames) {}

void LSRCOffset::Read(float* buffer, long long frames) {
    m_input->Read(buffer, frames);
}

long long LSRCOffset::GetPositionSample() const {
    return m_input->GetPositionSample() + m_offsetFrames;
}

long long LSRCOffset::GetEndSample() const {
    return m_input->GetEndSample() + m_offsetFrames;
}

void LSRCOffset::Seek(long long frame) {
    m_input->Seek(frame - m_offsetFrames);
}

LSRCDCOffset::LSRCDCOffset(LSoundSource const& input, std::vector<float> offsets)
    : LSoundProcessBase(input), m_offsets(std::move(offsets)) {
    m_offsets.resize(GetChannels(), 0.0f);
}

void LSRCDCOffset::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    m_input->Read(buffer, frames);
    std::size_t const channels = m_offsets.size();
    float const* const offsets = m_offsets.data();
    if (channels == 2) {
        // The common case in a form the vectoriser takes: pairs of values.
        float const left = offsets[0];
        float const right = offsets[1];
        for (long long f = 0; f < frames; ++f) {
            buffer[2 * f] += left;
            buffer[2 * f + 1] += right;
        }
        return;
    }
    for (long long f = 0; f < frames; ++f) {
        for (std::size_t c = 0; c < channels; ++c) {
            buffer[static_cast<std::size_t>(f) * channels + c] += offsets[c];
        }
    }
}
