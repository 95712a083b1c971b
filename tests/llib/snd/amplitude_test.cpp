// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/amplitude.h"

#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <numbers>
#include <utility>
#include <vector>

namespace {

using Fade = std::pair<long long, float>;
using Pan = std::pair<long long, int>;

LSPEnvelope MakeEnvelope(LEnvelopeShape shape, std::initializer_list<Fade> points) {
    LSPEnvelope envelope;
    envelope.SetShape(shape);
    for (Fade const& p : points) {
        envelope.AddPoint(p.first, p.second);
    }
    return envelope;
}

LSPPan MakePan(std::initializer_list<Pan> points) {
    LSPPan pan;
    for (Pan const& p : points) {
        pan.AddPoint(p.first, static_cast<signed char>(p.second));
    }
    return pan;
}

template <class Point>
std::vector<Point> Sorted(std::initializer_list<Point> points) {
    std::vector<Point> out(points);
    std::stable_sort(out.begin(), out.end(),
                     [](Point const& a, Point const& b) { return a.first < b.first; });
    return out;
}

// The index of the first point after `frame`.
template <class Point>
std::size_t FirstAfter(std::vector<Point> const& points, long long frame) {
    std::size_t i = 0;
    while (i < points.size() && points[i].first <= frame) {
        ++i;
    }
    return i;
}

// The gain of `frame` between `a` and `b`, each shape from its definition. The linear one is
// exact every kExactFrames frames from the segment's start and adds float steps in between.
double ReferenceGain(LEnvelopeShape shape, Fade a, Fade b, long long frame) {
    double const length = static_cast<double>(b.first - a.first);
    double const swing = static_cast<double>(b.second) - static_cast<double>(a.second);
    double const q = static_cast<double>(frame);
    double const from = static_cast<double>(a.first);
    double const to = static_cast<double>(b.first);
    bool const rising = swing > 0.0;
    switch (shape) {
    case LEnvelopeShape::kLinear: {
        long long const every = LSRCEnvelope::kExactFrames;
        long long const into = ((frame - a.first) % every + every) % every;
        float gain = static_cast<float>(
            a.second + swing * static_cast<double>(frame - into - a.first) / length);
        float const step = static_cast<float>(swing / length);
        for (long long i = 0; i < into; ++i) {
            gain += step;
        }
        return gain;
    }
    case LEnvelopeShape::kLogarithmic:
        return rising ? a.second + swing * std::log2((q - from) / length + 1.0)
                      : b.second - swing * std::log2((to - q) / length + 1.0);
    case LEnvelopeShape::kExponential:
        return rising ? a.second + swing * std::exp(4.0 * (q - from) / length - 4.0)
                      : b.second - swing * std::exp(4.0 * (to - q) / length - 4.0);
    case LEnvelopeShape::kSinusoidal:
        return rising ? a.second + swing * std::sin((q - from) * std::numbers::pi / (2.0 * length))
                      : b.second - swing * std::sin((to - q) * std::numbers::pi / (2.0 * length));
    }
    return 1.0;
}

std::vector<float> ReferenceEnvelope(std::vector<float> samples, unsigned channels,
                                     LEnvelopeShape shape, std::vector<Fade> const& points) {
    long long const frames = static_cast<long long>(samples.size() / channels);
    for (long long q = 0; q < frames; ++q) {
        std::size_t const next = FirstAfter(points, q);
        if (next == points.size()) {
            continue;
        }
        Fade const a = next == 0 ? Fade{0, 1.0f} : points[next - 1];
        float const g = static_cast<float>(ReferenceGain(shape, a, points[next], q));
        for (unsigned c = 0; c < channels; ++c) {
            samples[static_cast<std::size_t>(q * channels + c)] *= g;
        }
    }
    return samples;
}

// Each frame's left and right gain from the pan line, with the library's cosine and sine.
std::vector<float> ReferencePan(std::vector<float> samples, std::vector<Pan> const& points) {
    auto angle = [](int pan) {
        return (std::clamp(pan, -100, 100) + 100) * std::numbers::pi / 400.0;
    };
    long long const frames = static_cast<long long>(samples.size() / 2);
    for (long long q = 0; q < frames; ++q) {
        std::size_t const next = FirstAfter(points, q);
        if (next == 0 || next == points.size()) {
            continue;
        }
        Pan const a = points[next - 1];
        Pan const b = points[next];
        double const theta = angle(a.second) + static_cast<double>(q - a.first) *
                                                   (angle(b.second) - angle(a.second)) /
                                                   static_cast<double>(b.first - a.first);
        samples[static_cast<std::size_t>(2 * q)] *= static_cast<float>(std::cos(theta));
        samples[static_cast<std::size_t>(2 * q + 1)] *= static_cast<float>(std::sin(theta));
    }
    return samples;
}

// The output read in blocks of 1, 7 and 8192 frames must be the same bit for bit, and so must a
// read that seeks to `seekFrame` from before it and from after it; returns the whole output.
template <class Open>
std::vector<float> ReadInEveryWay(Open open, long long seekFrame) {
    LSoundSource whole = open();
    std::vector<float> const out = ReadAll(whole, 8192);
    for (long long block : {1LL, 7LL}) {
        LSoundSource s = open();
        EXPECT_EQ(ReadAll(s, block), out) << "blocks of " << block;
    }
    for (long long stray : {seekFrame / 3, seekFrame + 5000}) {
        LSoundSource s = open();
        (void)ReadAll(s, 4096, stray);
        s->Seek(seekFrame);
        std::vector<float> const tail = ReadAll(s, 1000);
        std::size_t const skip = static_cast<std::size_t>(seekFrame) * s->GetChannels();
        EXPECT_TRUE(tail.size() + skip == out.size() &&
                    std::equal(tail.begin(), tail.end(), out.begin() + static_cast<long>(skip)))
            << "after a seek to " << seekFrame << " from " << stray;
    }
    return out;
}

void ExpectNear(std::vector<float> const& got, std::vector<float> const& expected,
                float tolerance) {
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        ASSERT_NEAR(got[i], expected[i], tolerance) << "sample " << i;
    }
}

class EnvelopeShapes : public testing::TestWithParam<LEnvelopeShape> {};

} // namespace

TEST_P(EnvelopeShapes, EveryFrameFollowsTheShapeWhateverTheReads) {
    LEnvelopeShape const shape = GetParam();
    // Before the first point (ramp from unity), rising, falling past 1, two points on one frame
    // (the later one wins), a level that stays, and the unchanged tail after the last point.
    std::initializer_list<Fade> const points = {{3000, 0.25f},  {9000, 1.5f}, {9000, 0.75f},
                                                {12000, 0.75f}, {2000, 0.5f}, {15500, 0.0f}};
    std::vector<float> const input = MakeSine(44100, 2, 441.0, 0.9, 18000);
    std::vector<float> const out = ReadInEveryWay(
        [&] {
            LSoundSource in = MakeBufferSource(44100, 2, input);
            return MakeEnvelope(shape, points).OpenSource(in);
        },
        5123);
    std::vector<float> const expected = ReferenceEnvelope(input, 2, shape, Sorted(points));
    if (shape == LEnvelopeShape::kLinear) {
        EXPECT_EQ(out, expected);
    } else {
        ExpectNear(out, expected, 1e-6f);
    }
}

INSTANTIATE_TEST_SUITE_P(Amplitude, EnvelopeShapes,
                         testing::Values(LEnvelopeShape::kLinear, LEnvelopeShape::kLogarithmic,
                                         LEnvelopeShape::kExponential,
                                         LEnvelopeShape::kSinusoidal));

TEST(AmplitudeEnvelope, LinearFadeKeepsItsStepsOverLongReadsOfManyChannels) {
    // Five channels take the multiply loop for any channel count; one 100000-frame segment read
    // in one go crosses hundreds of exact frames.
    std::vector<float> const input = MakeNoise(5, 100000, 1.0, 7);
    std::initializer_list<Fade> const points = {{0, 1.0f}, {100000, 0.0f}};
    LSoundSource in = MakeBufferSource(8000, 5, input);
    LSoundSource s = MakeEnvelope(LEnvelopeShape::kLinear, points).OpenSource(in);
    EXPECT_EQ(ReadAll(s, 100000),
              ReferenceEnvelope(input, 5, LEnvelopeShape::kLinear, Sorted(points)));
}

TEST(AmplitudeEnvelope, OnePointRampsFromUnityThenLeavesTheRestAlone) {
    std::vector<float> const input = MakeSine(8000, 1, 100.0, 1.0, 2000);
    std::vector<float> ones(2000, 1.0f);
    LSPEnvelope const envelope = MakeEnvelope(LEnvelopeShape::kLinear, {{1000, 0.0f}});
    LSoundSource gains = MakeBufferSource(8000, 1, ones);
    gains = envelope.GetNewCopy()->OpenSource(gains);
    std::vector<float> const g = ReadAll(gains, 300);
    EXPECT_EQ(g[0], 1.0f);
    // The float steps between exact frames drift by a few millionths at most.
    EXPECT_NEAR(g[500], 0.5f, 1e-5f);
    EXPECT_NEAR(g[999], 0.001f, 1e-5f);
    for (std::size_t f = 1; f < 1000; ++f) {
        ASSERT_LT(g[f], g[f - 1]) << f;
    }
    LSoundSource in = MakeBufferSource(8000, 1, input);
    LSoundSource s = envelope.GetNewCopy()->OpenSource(in);
    std::vector<float> const out = ReadAll(s, 300);
    EXPECT_TRUE(std::equal(out.begin() + 1000, out.end(), input.begin() + 1000));
}

TEST(AmplitudeEnvelope, CurvesMeetTheirValuesAtSegmentStartMiddleAndEnd) {
    struct Case {
        LEnvelopeShape shape;
        float from;
        float to;
        long long frame; // of a 100-frame segment
        double expected;
    };
    using enum LEnvelopeShape;
    Case const cases[] = {
        // The exponential curve jumps at the quiet end of a segment: rising, its first frame is
        // already e^-4 of the swing up; falling, it starts at the level and stops short of 0.
        {kExponential, 0.0f, 1.0f, 0, std::exp(-4.0)},
        {kExponential, 0.0f, 1.0f, 50, std::exp(-2.0)},
        {kExponential, 1.0f, 0.0f, 0, 1.0},
        {kExponential, 1.0f, 0.0f, 99, std::exp(-3.96)},
        {kLogarithmic, 0.0f, 1.0f, 0, 0.0},
        {kLogarithmic, 0.0f, 1.0f, 50, std::log2(1.5)},
        {kLogarithmic, 0.0f, 1.0f, 99, std::log2(1.99)},
        {kLogarithmic, 1.0f, 0.0f, 0, 1.0},
        {kLogarithmic, 1.0f, 0.0f, 50, std::log2(1.5)},
        {kLogarithmic, 1.0f, 0.0f, 99, std::log2(1.01)},
        {kSinusoidal, 0.0f, 1.0f, 0, 0.0},
        {kSinusoidal, 0.0f, 1.0f, 50, std::sqrt(0.5)},
        {kSinusoidal, 0.0f, 1.0f, 99, std::sin(0.99 * std::numbers::pi / 2.0)},
        {kSinusoidal, 1.0f, 0.0f, 0, 1.0},
        {kSinusoidal, 1.0f, 0.0f, 99, std::sin(0.01 * std::numbers::pi / 2.0)},
        {kLinear, 0.5f, 1.0f, 0, 0.5},
        {kLinear, 0.5f, 1.0f, 50, 0.75},
        {kLinear, 1.0f, 0.5f, 99, 0.505},
    };
    for (Case const& c : cases) {
        LSoundSource in = MakeBufferSource(1000, 1, std::vector<float>(200, 1.0f));
        LSoundSource s = MakeEnvelope(c.shape, {{0, c.from}, {100, c.to}}).OpenSource(in);
        std::vector<float> const g = ReadAll(s, 64);
        EXPECT_NEAR(g[static_cast<std::size_t>(c.frame)], c.expected, 1e-6)
            << static_cast<unsigned>(c.shape) << " " << c.from << " -> " << c.to << " at "
            << c.frame;
        EXPECT_EQ(g[100], 1.0f) << "after the last point";
    }
}

TEST(AmplitudeEnvelope, UnknownShapeHandsBackTheInputItself) {
    LSoundSource in = MakeBufferSource(1000, 1, std::vector<float>(10, 1.0f));
    LSPEnvelope envelope = MakeEnvelope(static_cast<LEnvelopeShape>(4), {{5, 0.0f}});
    std::uint16_t const before = in.GetReferenceCount();
    LSoundSource s = envelope.OpenSource(in);
    EXPECT_EQ(s.Get(), in.Get());
    EXPECT_EQ(in.GetReferenceCount(), before + 1);
}

TEST(AmplitudeEnvelope, PointsStayInOrderAndTheSourceKeepsItsOwnCopy) {
    auto envelope = std::make_unique<LSPEnvelope>();
    envelope->SetShape(LEnvelopeShape::kSinusoidal);
    for (long long p : {50LL, 10LL, 90LL, 10LL, 30LL}) {
        envelope->AddPoint(p, static_cast<float>(p) / 100.0f);
    }
    envelope->AddPoint(10, 0.0f); // after the other two at 10
    std::vector<Fade> listed;
    for (LFadePoint const& p : envelope->GetPoints()) {
        listed.emplace_back(p.position, p.level);
    }
    std::vector<Fade> const ordered = {{10, 0.1f}, {10, 0.1f}, {10, 0.0f},
                                       {30, 0.3f}, {50, 0.5f}, {90, 0.9f}};
    EXPECT_EQ(listed, ordered);

    std::vector<float> const input = MakeNoise(1, 100, 1.0, 3);
    LSoundSource in = MakeBufferSource(1000, 1, input);
    std::unique_ptr<LSoundProcess> copy = envelope->GetNewCopy();
    LSoundSource s = copy->OpenSource(in);
    // Neither a change to the effect nor its end may reach a source already made.
    envelope->AddPoint(20, 4.0f);
    envelope.reset();
    copy.reset();
    EXPECT_EQ(ReadAll(s, 9), ReferenceEnvelope(input, 1, LEnvelopeShape::kSinusoidal, ordered));
}

TEST(AmplitudePan, EveryFrameFollowsTheAngleLineWhateverTheReads) {
    // Unchanged before the first point, a sweep from left to right (which reads of 7 frames
    // and the seek cross mid-line), a jump to the centre, a hold, a sweep to half right longer
    // than the float steps' span, then unchanged again after the last point.
    std::initializer_list<Pan> const points = {
        {500, -100}, {4000, 100}, {4000, 0}, {6000, 0}, {16000, 50}};
    std::vector<float> const input = MakeNoise(2, 18000, 1.0, 11);
    std::vector<float> const out = ReadInEveryWay(
        [&] {
            LSoundSource in = MakeBufferSource(44100, 2, input);
            return MakePan(points).OpenSource(in);
        },
        2345);
    // The angle's float steps and the float product leave a couple of roundings at full scale.
    ExpectNear(out, ReferencePan(input, Sorted(points)), 3e-7f);
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 1000, input.begin()));
    EXPECT_TRUE(std::equal(out.begin() + 32000, out.end(), input.begin() + 32000));
}

TEST(AmplitudePan, FixedPansScaleTheChannelsByTheirAngle) {
    struct Case {
        int pan;
        float left;
        float right;
    };
    float const centre = static_cast<float>(std::cos(std::numbers::pi / 4.0));
    // A hard pan leaves one side exactly as it was and silences the other; beyond the range is
    // clamped.
    Case const cases[] = {{0, centre, centre},
                          {-100, 1.0f, 0.0f},
                          {100, 0.0f, 1.0f},
                          {-128, 1.0f, 0.0f},
                          {127, 0.0f, 1.0f}};
    for (Case const& c : cases) {
        LSoundSource in = MakeBufferSource(1000, 2, std::vector<float>(2 * 300, 1.0f));
        LList<LPanPoint> points;
        points.AddTail(std::make_unique<LPanPoint>(0, static_cast<signed char>(c.pan)));
        points.AddTail(std::make_unique<LPanPoint>(200, static_cast<signed char>(c.pan)));
        LSoundSource s = LSPPan(points).OpenSource(in);
        std::vector<float> const g = ReadAll(s, 64);
        float const tolerance = c.left == 0.0f || c.right == 0.0f ? 0.0f : 1e-7f; // hard: exact
        for (std::size_t f = 0; f < 200; ++f) {
            ASSERT_NEAR(g[2 * f], c.left, tolerance) << c.pan << " frame " << f;
            ASSERT_NEAR(g[2 * f + 1], c.right, tolerance) << c.pan << " frame " << f;
        }
        EXPECT_EQ(g[2 * 200], 1.0f) << "after the last point";
    }
}

TEST(AmplitudePan, InputsThatAreNotStereoPassUnchanged) {
    for (unsigned char channels : {1, 3}) {
        std::vector<float> const input = MakeNoise(channels, 500, 1.0, channels);
        LSoundSource in = MakeBufferSource(1000, channels, input);
        LSoundSource s = MakePan({{0, -100}, {400, 60}}).GetNewCopy()->OpenSource(in);
        EXPECT_EQ(ReadAll(s, 33), input) << static_cast<int>(channels);
    }
}

TEST(AmplitudeReverse, BlocksRunBackwardsThenSilence) {
    LSoundSource in = LMakeSource<LTestStaircaseSource>(1000, 2, 10);
    LSoundSource s = LMakeSource<LSRCReverse>(in);
    EXPECT_EQ(s->GetPositionSample(), 10) << "made over a source at its start";
    s->Seek(0);
    EXPECT_EQ(in->GetPositionSample(), 10);
    std::vector<float> got;
    std::vector<long long> positions;
    for (int block = 0; block < 3; ++block) {
        std::vector<float> b(2 * 4, -1.0f);
        s->Read(b.data(), 4);
        got.insert(got.end(), b.begin(), b.end());
        positions.push_back(s->GetPositionSample());
    }
    std::vector<float> expected;
    for (long long frame : {9, 8, 7, 6, 5, 4, 3, 2, 1, 0}) {
        expected.push_back(StaircaseValue(frame, 0));
        expected.push_back(StaircaseValue(frame, 1));
    }
    expected.resize(2 * 12, 0.0f);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(positions, (std::vector<long long>{4, 8, 10}));
}

TEST(AmplitudeReverse, SeekAndPositionMirrorTheWrappedTimeline) {
    std::vector<float> const input = MakeNoise(3, 1000, 1.0, 5);
    std::vector<float> reversed;
    for (long long f = 999; f >= 0; --f) {
        auto const at = input.begin() + f * 3;
        reversed.insert(reversed.end(), at, at + 3);
    }
    std::vector<float> const out = ReadInEveryWay(
        [&] {
            LSoundSource in = MakeBufferSource(1000, 3, input);
            LSoundSource s = LMakeSource<LSRCReverse>(in);
            s->Seek(0);
            return s;
        },
        401);
    EXPECT_EQ(out, reversed);

    LSoundSource in = MakeBufferSource(1000, 3, input);
    LSoundSource s = LMakeSource<LSRCReverse>(in);
    s->Seek(250);
    EXPECT_EQ(in->GetPositionSample(), 750);
    EXPECT_EQ(s->GetPositionSample(), 250);
    EXPECT_EQ(s->GetEndSample(), 1000);
    in->Seek(100);
    EXPECT_EQ(s->GetPositionSample(), 900);
}

TEST(AmplitudeOffset, PositionsAndSeeksMoveByTheOffset) {
    for (long long offset : {1000LL, -30LL}) {
        LSoundSource in = LMakeSource<LTestStaircaseSource>(1000, 1, 100);
        LSoundSource s = LMakeSource<LSRCOffset>(in, offset);
        EXPECT_EQ(s->GetPositionSample(), offset);
        EXPECT_EQ(s->GetEndSample(), 100 + offset);
        s->Seek(offset + 50);
        EXPECT_EQ(in->GetPositionSample(), 50);
        float v[2] = {};
        s->Read(v, 2);
        EXPECT_EQ(v[0], StaircaseValue(50, 0)) << offset;
        EXPECT_EQ(v[1], StaircaseValue(51, 0)) << offset;
        EXPECT_EQ(s->GetPositionSample(), offset + 52);
    }
}
