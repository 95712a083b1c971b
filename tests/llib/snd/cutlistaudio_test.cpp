// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/cutlistaudio.h"

#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <map>
#include <numeric>
#include <random>
#include <vector>

namespace {

// Every sample of every item names its item and frame, exactly in float, and none is zero, so
// silence and misplaced frames both show.
float ItemValue(int itemIndex, long long frame, unsigned channel) {
    return static_cast<float>((itemIndex + 1) * 4096 + frame * 2 + channel + 1) / 1048576.0f;
}

class CutListTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(Dir() + "/cache");
    }
    void TearDown() override {
        for (unsigned short item : m_items) {
            LSoundCache::DecRef(item);
        }
        LTempDirTest::TearDown();
    }

    // A new item holding `samples` (interleaved; ItemValue ones when empty), written straight
    // through the cache's sink so the values arrive unchanged. The test owns its first reference.
    unsigned short MakeItem(long long frames, unsigned char channels = 1,
                            std::vector<float> samples = {}) {
        if (samples.empty()) {
            for (long long i = 0; i < frames * channels; ++i) {
                samples.push_back(ItemValue(static_cast<int>(m_items.size()), i / channels,
                                            static_cast<unsigned>(i % channels)));
            }
        }
        unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
        EXPECT_LE(item, kLSoundCacheItemLast);
        {
            LSoundSink sink = LMakeSink<LSoundCacheSink>(item, 44100, channels);
            sink->Write(samples.data(), frames);
            EXPECT_FALSE(sink->IsFailed());
        }
        m_items.push_back(item);
        m_samples[item] = std::move(samples);
        return item;
    }

    // What `list` should read as: each segment's frames of its item times its gain, and silence
    // wherever the item holds no frame (or is not in m_samples).
    std::vector<float> Expected(LCutListAudio const& list) const {
        std::vector<float> out;
        long long const channels = list.GetChannels();
        for (LCutListSegment const& segment : list.GetSegments()) {
            auto const found = m_samples.find(segment.GetItem());
            for (long long i = segment.GetOffsetFrames() * channels;
                 i < (segment.GetOffsetFrames() + segment.GetLengthFrames()) * channels; ++i) {
                bool const held = found != m_samples.end() && i >= 0 &&
                                  i < static_cast<long long>(found->second.size());
                out.push_back(held ? found->second[static_cast<std::size_t>(i)] * segment.GetGain()
                                   : 0.0f);
            }
        }
        return out;
    }

    static std::vector<float> Read(LCutListAudio const& list, long long chunkFrames = 4096) {
        LSoundSource source = list.OpenSource();
        EXPECT_TRUE(source->IsOk());
        return ReadAll(source, chunkFrames);
    }

    std::vector<unsigned short> m_items;
    std::map<unsigned short, std::vector<float>> m_samples;
};

// What a cut list should read as, kept as plain mono samples.
struct Model {
    std::vector<float> s;

    long long Size() const { return static_cast<long long>(s.size()); }
    void Insert(long long pos, std::vector<float> const& clip) {
        if (!clip.empty()) {
            s.resize(static_cast<std::size_t>(std::max(pos, Size())), 0.0f);
            s.insert(s.begin() + std::max(pos, 0LL), clip.begin(), clip.end());
        }
    }
    void Delete(long long start, long long end) {
        start = std::max(start, 0LL);
        end = std::min(end, Size());
        if (start < end) {
            s.erase(s.begin() + start, s.begin() + end);
        }
    }
    std::vector<float> Copy(long long start, long long end) const {
        std::vector<float> out;
        for (long long i = start; i < end; ++i) {
            out.push_back(i >= 0 && i < Size() ? s[static_cast<std::size_t>(i)] : 0.0f);
        }
        return out;
    }
};

void ExpectWellFormed(LCutListAudio const& list) {
    long long sum = 0;
    for (LCutListSegment const& segment : list.GetSegments()) {
        EXPECT_GE(segment.GetLengthFrames(), 1);
        sum += segment.GetLengthFrames();
    }
    EXPECT_EQ(sum, list.GetLengthFrames());
}

} // namespace

TEST_F(CutListTest, RandomEditSequencesReadLikeAPlainArray) {
    std::mt19937 random(20240611);
    constexpr long long kItemFrames = 300;
    unsigned short items[3];
    for (unsigned short& item : items) {
        item = MakeItem(kItemFrames);
    }
    float const gains[] = {1.0f, 1.0f, 0.5f, -2.0f};
    auto pick = [&](long long lo, long long hi) {
        return std::uniform_int_distribution<long long>(lo, hi)(random);
    };
    // A list of a few random segments, silence too.
    auto randomList = [&](int maxSegments) {
        LCutListAudio list;
        for (long long k = pick(0, maxSegments); k > 0; --k) {
            long long const length = pick(1, 60);
            unsigned short const item = pick(0, 5) == 0 ? kLSoundCacheItemNone : items[pick(0, 2)];
            list.AppendSegment(
                LCutListSegment(item, pick(0, kItemFrames - length), length, gains[pick(0, 3)]));
        }
        return list;
    };
    // Boundaries, insides, both ends and beyond them.
    auto position = [&](LCutListAudio const& list) -> long long {
        long long const n = list.GetLengthFrames();
        switch (pick(0, 5)) {
        case 0: {
            long long at = 0;
            long long stop = pick(0, static_cast<long long>(list.GetSegmentCount()));
            for (LCutListSegment const* s = list.GetHead(); s != nullptr && stop-- > 0;
                 s = s->GetNext()) {
                at += s->GetLengthFrames();
            }
            return at;
        }
        case 1:
            return -pick(1, 40);
        case 2:
            return n + pick(0, 40);
        case 3:
            return pick(0, 1) == 0 ? 0 : n;
        default:
            return pick(0, std::max(n, 1LL));
        }
    };

    for (int sequence = 0; sequence < 2500; ++sequence) {
        LCutListAudio list = randomList(8);
        Model model{Expected(list)};
        for (long long step = pick(1, 10); step > 0; --step) {
            long long a = position(list);
            long long b = position(list);
            if (pick(0, 4) != 0 && a > b) {
                std::swap(a, b); // mostly well-ordered ranges, sometimes reversed ones
            }
            int op = static_cast<int>(pick(0, 7));
            if (list.GetLengthFrames() > 3000 && (op == 0 || op == 5 || op == 7)) {
                op = 1; // keep repeated growth from making the reads slow
            }
            switch (op) {
            case 0: {
                LCutListAudio const clip = randomList(4);
                list.EfInsert(a, clip);
                model.Insert(a, Expected(clip));
                break;
            }
            case 1:
                list.EfDelete(a, b);
                model.Delete(a, b);
                break;
            case 2: {
                long long const frames = pick(-3, 50); // before the start only the rest goes in
                list.EfInsertSilence(a, frames);
                model.Insert(std::max(a, 0LL),
                             std::vector<float>(std::max(frames + std::min(a, 0LL), 0LL), 0.0f));
                break;
            }
            case 3: {
                LCutListAudio out;
                list.EfCopy(a, b, out);
                if (b >= a) {
                    EXPECT_EQ(Read(out), model.Copy(a, b));
                    ExpectWellFormed(out);
                }
                break;
            }
            case 4:
                list.EfTrim(a, b);
                model.Delete(0, a);
                model.Delete(b - a, model.Size());
                break;
            case 5: {
                unsigned long const count = static_cast<unsigned long>(pick(0, 3));
                list.EfRepeatLoop(a, b, count);
                std::vector<float> const loop = model.Copy(a, b);
                for (unsigned long i = 0; i < count; ++i) {
                    model.Insert(a, loop);
                }
                break;
            }
            case 6: // copying into itself replaces the list by the range
                list.EfCopy(a, b, list);
                if (b >= a) {
                    model.s = model.Copy(a, b);
                }
                break;
            default:
                list.EfInsert(a, list); // the list pasted into itself
                model.Insert(a, std::vector<float>(model.s));
                break;
            }
            ASSERT_EQ(list.GetLengthFrames(), model.Size())
                << "sequence " << sequence << " op " << op << " a " << a << " b " << b;
            ExpectWellFormed(list);
            ASSERT_EQ(Read(list, pick(1, 97)), model.s) << "sequence " << sequence << " op " << op;
        }
        // A copy reads the same and takes its own references.
        LCutListAudio const copy = list;
        EXPECT_EQ(Read(copy), model.s);
    }
    // Every segment of every list is gone: only the test's own references remain.
    for (unsigned short item : items) {
        EXPECT_EQ(LSoundCache::GetRefCount(item), 1);
    }
}

// The model check sees only what a list reads as; these pin the segments themselves.
TEST_F(CutListTest, SegmentsStayMinimalAndWithinTheLengthBound) {
    unsigned short const item = MakeItem(100);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 0));  // dropped
    list.AppendSegment(LCutListSegment(item, 0, -4)); // dropped
    list.AppendSegment(LCutListSegment(item, 0, 60));
    list.EfInsertSilence(100, 10); // one segment covers the gap and the silence
    ASSERT_EQ(list.GetSegmentCount(), 2u);
    EXPECT_EQ(list.GetSegments().GetTail()->GetLengthFrames(), 50);
    LCutListAudio untouched = list;
    list.EfCopy(5, 4, untouched); // a reversed range leaves the output alone
    EXPECT_EQ(untouched.GetSegmentCount(), 2u);
    list.Clear();

    list.EfInsertSilence(kLCutListMaxFrames - 10, 5);
    EXPECT_EQ(list.GetLengthFrames(), kLCutListMaxFrames - 5);
    list.EfInsertSilence(0, 6); // would pass the bound: nothing
    EXPECT_EQ(list.GetLengthFrames(), kLCutListMaxFrames - 5);
    list.EfInsertSilence(-(1LL << 62), 1LL << 62); // clamped, no overflow
    list.EfRepeatLoop(0, 2, 1000000000UL);         // only as many copies as fit
    EXPECT_EQ(list.GetLengthFrames(), kLCutListMaxFrames - 1);
    list.EfDelete(LLONG_MIN, LLONG_MAX);
    EXPECT_EQ(list.GetLengthFrames(), 0);
}

// The model check's closing reference count catches a reference lost or leaked by an edit; these
// are the holders it does not exercise.
TEST_F(CutListTest, EverySegmentHoldsExactlyOneReference) {
    unsigned short const item = MakeItem(100);
    auto refs = [&] { return LSoundCache::GetRefCount(item); };
    {
        LCutListAudio list;
        list.AppendSegment(LCutListSegment(item, 0, 100));
        list.EfInsertSilence(40, 5); // splits the segment
        {
            LCutListAudio copy(list);
            LCutListAudio assigned;
            assigned = copy;
            LCutListAudio moved(std::move(assigned));
            EXPECT_EQ(refs(), 7);
        }
        EXPECT_EQ(refs(), 3);
        // A source keeps what it reads alive after the list is gone.
        std::vector<float> const want = Expected(list);
        LSoundSource source = list.OpenSource();
        list.Clear();
        EXPECT_EQ(refs(), 3);
        EXPECT_EQ(ReadAll(source), want);
        list.SetSingleCutListSegment(LCutListSegment(item, 5, 10), 48000, 1);
        list.SetSingleCutListSegment(*list.GetHead(), 48000, 1); // its own segment
        EXPECT_EQ(list.GetHead()->GetOffsetFrames(), 5);
        EXPECT_EQ(list.GetLengthFrames(), 10);
        EXPECT_EQ(refs(), 4);
    }
    EXPECT_EQ(refs(), 1);
}

TEST_F(CutListTest, SourceReadsTheSameInAnyChunkSizeAndAfterAnySeek) {
    unsigned short const a = MakeItem(70000, 2);
    unsigned short const b = MakeItem(500, 2);
    unsigned short const gone = MakeItem(100, 2);
    ASSERT_EQ(std::remove(LSoundCache::GetFilePath(gone, kLSoundCacheExtAud).c_str()), 0);
    m_samples.erase(gone); // a missing item reads as silence
    LCutListAudio list;
    list.SetChannels(2);
    // Silence, gains, and item ranges partly or wholly before or past their item.
    for (LCutListSegment const& segment :
         {LCutListSegment(a, 100, 40000), LCutListSegment(kLSoundCacheItemNone, 0, 300),
          LCutListSegment(b, 0, 500, 0.5f), LCutListSegment(a, 60000, 9000, -2.0f),
          LCutListSegment(b, 400, 200), LCutListSegment(gone, 0, 10), LCutListSegment(b, -5, 10),
          LCutListSegment(b, -30, 10), LCutListSegment(b, 520, 10)}) {
        list.AppendSegment(segment);
    }
    std::vector<float> const expected = Expected(list);
    // Small reads come from the read-ahead block, large ones straight from the item.
    for (long long chunk : {1LL, 7LL, 512LL, 4095LL, 65537LL}) {
        EXPECT_EQ(Read(list, chunk), expected) << "chunk " << chunk;
    }
    LSoundSource source = list.OpenSource();
    long long const end = list.GetLengthFrames();
    EXPECT_EQ(source->GetEndSample(), end);
    std::mt19937 random(7);
    for (int i = 0; i < 300; ++i) {
        long long const at = std::uniform_int_distribution<long long>(-600, end + 600)(random);
        long long const frames = std::uniform_int_distribution<long long>(1, 1500)(random);
        std::vector<float> want;
        for (long long s = at * 2; s < (at + frames) * 2; ++s) {
            want.push_back(s >= 0 && s < end * 2 ? expected[static_cast<std::size_t>(s)] : 0.0f);
        }
        source->Seek(at);
        std::vector<float> got(want.size());
        source->Read(got.data(), frames);
        ASSERT_EQ(source->GetPositionSample(), at + frames);
        ASSERT_EQ(got, want) << "seek " << at;
    }
    // Over a format it cannot read the source is in error and reads silence.
    list.SetChannels(0);
    source = list.OpenSource();
    EXPECT_FALSE(source->IsOk());
    EXPECT_EQ(ReadAll(source), std::vector<float>(static_cast<std::size_t>(end), 0.0f));
}

TEST_F(CutListTest, PeaksComeFromTheItemsGroupsScaledByGain) {
    // Item groups with known peaks: group g peaks at +(g+1)/256 and -(g+1)/512.
    constexpr int kGroups = 80;
    std::vector<float> samples(kGroups * 256, 0.0f);
    for (int g = 0; g < kGroups; ++g) {
        samples[static_cast<std::size_t>(g * 256 + 10)] = static_cast<float>(g + 1) / 256.0f;
        samples[static_cast<std::size_t>(g * 256 + 200)] = -static_cast<float>(g + 1) / 512.0f;
    }
    unsigned short const item = MakeItem(kGroups * 256, 1, samples);
    auto code = [](int g, bool max) {
        return LSoundCacheGrfCode(static_cast<float>(g + 1) / (max ? 256.0f : 512.0f));
    };
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 256, 256 * 40)); // groups 1 to 40, aligned
    list.AppendSegment(LCutListSegment(kLSoundCacheItemNone, 0, 512));
    list.AppendSegment(LCutListSegment(item, 128, 512, -0.5f)); // straddles groups 0 to 2
    // [128, 640) of the item takes groups 0 and 1, then 1 and 2; a negative gain turns them over.
    auto scaled = [](std::uint16_t c) { return static_cast<std::uint16_t>(c * 0.5); };
    std::vector<LCutListGrfFrame> want;
    for (int g = 1; g <= 40; ++g) {
        want.push_back({code(g, true), code(g, false)});
    }
    want.resize(42); // the silence
    for (int g : {1, 2}) {
        want.push_back({scaled(code(g, false)), scaled(code(g, true))});
    }
    std::vector<LCutListGrfFrame> peaks;
    ASSERT_TRUE(list.GrfBufferGet(peaks, 0, list.GetLengthFrames()));
    EXPECT_EQ(peaks, want);
    // A range starting inside a group takes the groups its frames touch.
    ASSERT_TRUE(list.GrfBufferGet(peaks, 100, 256));
    EXPECT_EQ(peaks, (std::vector<LCutListGrfFrame>{{code(2, true), code(2, false)}}));
    // An item without its peak file ends the peaks at the group it starts in.
    unsigned short const noPeaks = MakeItem(1024);
    ASSERT_EQ(std::remove(LSoundCache::GetFilePath(noPeaks, kLSoundCacheExtGrf).c_str()), 0);
    list.AppendSegment(LCutListSegment(noPeaks, 0, 512));
    EXPECT_FALSE(list.GrfBufferGet(peaks, 0, list.GetLengthFrames()));
    EXPECT_EQ(peaks, want);
}

TEST_F(CutListTest, ZeroCrossSnapFindsTheNearestSignChange) {
    // Positive up to frame 40, negative from 41 to 69, an exact zero at 70, positive after.
    std::vector<float> samples(100);
    for (int i = 0; i < 100; ++i) {
        samples[static_cast<std::size_t>(i)] = i <= 40 ? 0.5f : (i < 70 ? -0.25f : 0.75f);
    }
    samples[70] = 0.0f;
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(MakeItem(100, 1, samples), 0, 100));
    EXPECT_EQ(list.ZeroCrossCutpointFind(45, 10), 41);
    EXPECT_EQ(list.ZeroCrossCutpointFind(60, 15), 70);
    EXPECT_EQ(list.ZeroCrossCutpointFind(20, 10), 20); // none in reach
    EXPECT_EQ(list.PositionSnap(66, LCutListSnap::kZeroCross), 70);
    EXPECT_EQ(list.PositionSnap(66, LCutListSnap::kNone), 66);
}

TEST_F(CutListTest, SinkLinksWhatIsCommittedAtItsPosition) {
    unsigned short const item = MakeItem(100);
    std::vector<float> const& a = m_samples[item];
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 100));
    std::vector<float> recorded(60);
    std::iota(recorded.begin(), recorded.end(), 1.0f);
    // The item with the first `frames` recorded ones at frame 50.
    auto spliced = [&](std::size_t frames) {
        std::vector<float> out(a.begin(), a.begin() + 50);
        out.insert(out.end(), recorded.begin(), recorded.begin() + frames);
        out.insert(out.end(), a.begin() + 50, a.end());
        return out;
    };
    unsigned short written = kLSoundCacheItemNone;
    {
        LSoundSink sink = list.OpenSink(44100, 1, "Recording", 50);
        auto* const cutSink = sink.GetAs<LCutListAudioSink>();
        ASSERT_NE(cutSink, nullptr);
        ASSERT_FALSE(sink->IsFailed());
        written = cutSink->GetItem();
        sink->Write(recorded.data(), 30);
        cutSink->CommitUpTo(20);
        cutSink->CommitUpTo(10);            // commits never go back
        EXPECT_EQ(Read(list), spliced(20)); // playable before the item is finished
        sink->Write(recorded.data() + 30, 30);
        cutSink->CommitUpTo(1000); // clamped to what was written
        EXPECT_EQ(cutSink->GetCommittedFrames(), 60);
    }
    EXPECT_EQ(Read(list), spliced(60));
    EXPECT_EQ(LSoundCache::GetRefCount(written), 2); // the two committed pieces
    list.Clear();
    EXPECT_FALSE(LSoundCacheItemIsValid(written)); // nothing else wanted it

    // An empty list takes the sink's format; releasing the sink commits everything.
    {
        LSoundSink sink = list.OpenSink(8000, 2, "Recording");
        std::vector<float> const stereo(20, 0.25f);
        sink->Write(stereo.data(), 10);
    }
    EXPECT_EQ(list.GetSampleRate(), 8000);
    EXPECT_EQ(list.GetChannels(), 2);
    EXPECT_EQ(Read(list), std::vector<float>(20, 0.25f));
}
