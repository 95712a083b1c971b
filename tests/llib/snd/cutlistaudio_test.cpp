// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/cutlistaudio.h"

#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
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

    // A new item holding `samples` (interleaved), written straight through the cache's sink so
    // the values arrive unchanged. The test owns the item's first reference.
    unsigned short MakeItem(std::vector<float> const& samples, unsigned char channels = 1) {
        unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
        EXPECT_LE(item, kLSoundCacheItemLast);
        {
            LSoundSink sink = LMakeSink<LSoundCacheSink>(item, 44100, channels);
            sink->Write(samples.data(), static_cast<long long>(samples.size() / channels));
            EXPECT_FALSE(sink->IsFailed());
        }
        m_items.push_back(item);
        return item;
    }
    // Item number `index` of `frames` frames with ItemValue samples; returns its samples.
    unsigned short MakeValueItem(int index, long long frames, std::vector<float>& samples,
                                 unsigned char channels = 1) {
        samples.clear();
        for (long long f = 0; f < frames; ++f) {
            for (unsigned c = 0; c < channels; ++c) {
                samples.push_back(ItemValue(index, f, c));
            }
        }
        return MakeItem(samples, channels);
    }

    static std::vector<float> Read(LCutListAudio const& list, long long chunkFrames = 4096) {
        LSoundSource source = list.OpenSource();
        EXPECT_TRUE(source->IsOk());
        return ReadAll(source, chunkFrames);
    }

    std::vector<unsigned short> m_items;
};

// What a cut list should read as, kept as plain mono samples.
struct Model {
    std::vector<float> s;

    long long Size() const { return static_cast<long long>(s.size()); }
    void Insert(long long pos, std::vector<float> const& clip) {
        if (clip.empty()) {
            return;
        }
        if (pos > Size()) {
            s.resize(static_cast<std::size_t>(pos), 0.0f);
        }
        pos = std::max(pos, 0LL);
        s.insert(s.begin() + pos, clip.begin(), clip.end());
    }
    void Delete(long long start, long long end) {
        if (start > end || end < 0 || start == end) {
            return;
        }
        start = std::max(start, 0LL);
        end = std::min(end, Size());
        if (start < end) {
            s.erase(s.begin() + start, s.begin() + end);
        }
    }
    void InsertSilence(long long pos, long long frames) {
        if (pos < 0) {
            if (-pos >= frames) {
                return;
            }
            frames += pos;
            pos = 0;
        }
        if (frames < 1) {
            return;
        }
        Insert(pos, std::vector<float>(static_cast<std::size_t>(frames), 0.0f));
    }
    std::vector<float> Copy(long long start, long long end) const {
        std::vector<float> out;
        for (long long i = start; i < end; ++i) {
            out.push_back(i >= 0 && i < Size() ? s[static_cast<std::size_t>(i)] : 0.0f);
        }
        return out;
    }
    void Trim(long long start, long long end) {
        if (start >= 1) {
            Delete(0, start);
        }
        Delete(end - start, Size());
    }
    void RepeatLoop(long long start, long long end, unsigned long count) {
        if (count == 0 || end <= start) {
            return;
        }
        std::vector<float> const loop = Copy(start, end);
        for (unsigned long i = 0; i < count; ++i) {
            Insert(start, loop);
        }
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
    constexpr int kItems = 3;
    constexpr long long kItemFrames = 300;
    std::vector<float> itemSamples[kItems];
    unsigned short items[kItems];
    for (int i = 0; i < kItems; ++i) {
        items[i] = MakeValueItem(i, kItemFrames, itemSamples[i]);
    }
    float const gains[] = {1.0f, 1.0f, 0.5f, -2.0f};
    auto pick = [&](long long lo, long long hi) {
        return std::uniform_int_distribution<long long>(lo, hi)(random);
    };
    // A list of a few random segments (silence too) and its model.
    auto randomList = [&](LCutListAudio& list, Model& model, int maxSegments) {
        int const count = static_cast<int>(pick(0, maxSegments));
        for (int k = 0; k < count; ++k) {
            long long const length = pick(1, 60);
            if (pick(0, 5) == 0) {
                list.AppendSegment(LCutListSegment(kLSoundCacheItemNone, 0, length));
                model.s.insert(model.s.end(), static_cast<std::size_t>(length), 0.0f);
                continue;
            }
            int const i = static_cast<int>(pick(0, kItems - 1));
            long long const offset = pick(0, kItemFrames - length);
            float const gain = gains[pick(0, 3)];
            list.AppendSegment(LCutListSegment(items[i], offset, length, gain));
            for (long long f = 0; f < length; ++f) {
                model.s.push_back(itemSamples[i][static_cast<std::size_t>(offset + f)] * gain);
            }
        }
    };
    // Boundaries, insides, both ends and beyond them.
    auto position = [&](LCutListAudio const& list) -> long long {
        long long const n = list.GetLengthFrames();
        switch (pick(0, 5)) {
        case 0: {
            long long at = 0;
            long long const stop = pick(0, static_cast<long long>(list.GetSegmentCount()));
            long long k = 0;
            for (LCutListSegment const& segment : list.GetSegments()) {
                if (k++ == stop) {
                    break;
                }
                at += segment.GetLengthFrames();
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

    int const kSequences = 2500;
    long long edits = 0;
    for (int sequence = 0; sequence < kSequences; ++sequence) {
        LCutListAudio list;
        Model model;
        randomList(list, model, 8);
        int const steps = static_cast<int>(pick(1, 10));
        for (int step = 0; step < steps; ++step) {
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
                LCutListAudio clip;
                Model clipModel;
                randomList(clip, clipModel, 4);
                list.EfInsert(a, clip);
                model.Insert(a, clipModel.s);
                break;
            }
            case 1:
                list.EfDelete(a, b);
                model.Delete(a, b);
                break;
            case 2: {
                long long const frames = pick(-3, 50);
                list.EfInsertSilence(a, frames);
                model.InsertSilence(a, frames);
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
                model.Trim(a, b);
                break;
            case 5: {
                unsigned long const count = static_cast<unsigned long>(pick(0, 3));
                list.EfRepeatLoop(a, b, count);
                model.RepeatLoop(a, b, count);
                break;
            }
            case 6:
                // Copying into itself replaces the list by the range.
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
            ++edits;
            ASSERT_EQ(list.GetLengthFrames(), model.Size())
                << "sequence " << sequence << " step " << step << " op " << op << " a " << a
                << " b " << b;
            ExpectWellFormed(list);
            ASSERT_EQ(Read(list, pick(1, 97)), model.s)
                << "sequence " << sequence << " step " << step << " op " << op;
        }
        // A copy reads the same and takes its own references.
        LCutListAudio const copy = list;
        EXPECT_EQ(Read(copy), model.s);
    }
    EXPECT_GT(edits, kSequences * 4);
    // Every segment of every list is gone: only the test's own references remain.
    for (unsigned short item : items) {
        EXPECT_EQ(LSoundCache::GetRefCount(item), 1);
    }
}

TEST_F(CutListTest, InsertSilenceFollowsTheNegativeAndPastTheEndRules) {
    std::vector<float> samples;
    unsigned short const item = MakeValueItem(0, 60, samples);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 60));

    list.EfInsertSilence(-10, 5);
    EXPECT_EQ(list.GetLengthFrames(), 60);
    EXPECT_EQ(list.GetSegmentCount(), 1u);

    list.EfInsertSilence(-5, 5); // shortened to nothing
    EXPECT_EQ(list.GetLengthFrames(), 60);

    list.EfInsertSilence(-3, 5);
    ASSERT_EQ(list.GetLengthFrames(), 62);
    EXPECT_TRUE(list.GetHead()->IsSilence());
    EXPECT_EQ(list.GetHead()->GetLengthFrames(), 2);

    list.EfDelete(0, 2);
    list.EfInsertSilence(100, 10);
    EXPECT_EQ(list.GetLengthFrames(), 110);
    ASSERT_EQ(list.GetSegmentCount(), 2u);
    EXPECT_TRUE(list.GetSegments().GetTail()->IsSilence());
    EXPECT_EQ(list.GetSegments().GetTail()->GetLengthFrames(), 50);
}

TEST_F(CutListTest, CopyBeyondBothEndsPadsWithSilence) {
    std::vector<float> samples;
    unsigned short const item = MakeValueItem(0, 3, samples);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 3));
    LCutListAudio out;
    list.EfCopy(-5, 5, out);
    std::vector<float> expected(5, 0.0f);
    expected.insert(expected.end(), samples.begin(), samples.end());
    expected.insert(expected.end(), 2, 0.0f);
    EXPECT_EQ(Read(out), expected);

    LCutListAudio untouched;
    untouched.AppendSegment(LCutListSegment(item, 1, 1));
    list.EfCopy(5, 4, untouched); // a reversed range leaves the output alone
    EXPECT_EQ(untouched.GetLengthFrames(), 1);
}

TEST_F(CutListTest, DeleteOfAnEmptyOrReversedRangeChangesNothing) {
    std::vector<float> samples;
    unsigned short const item = MakeValueItem(0, 100, samples);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 10, 50));
    for (auto const& range :
         {std::pair<long long, long long>{20, 20}, {30, 10}, {-20, -1}, {50, 60}, {70, 90}}) {
        list.EfDelete(range.first, range.second);
        ASSERT_EQ(list.GetSegmentCount(), 1u);
        EXPECT_EQ(list.GetHead()->GetOffsetFrames(), 10);
        EXPECT_EQ(list.GetHead()->GetLengthFrames(), 50);
    }
    EXPECT_EQ(LSoundCache::GetRefCount(item), 2);
}

TEST_F(CutListTest, EverySegmentHoldsExactlyOneReference) {
    std::vector<float> samples;
    unsigned short const item = MakeValueItem(0, 100, samples);
    {
        LCutListAudio list;
        list.AppendSegment(LCutListSegment(item, 0, 100));
        EXPECT_EQ(LSoundCache::GetRefCount(item), 2);
        list.EfInsertSilence(40, 5); // splits the segment
        EXPECT_EQ(LSoundCache::GetRefCount(item), 3);
        list.EfDelete(45, 105); // drops the second half
        EXPECT_EQ(LSoundCache::GetRefCount(item), 2);
        {
            LCutListAudio copy(list);
            LCutListAudio assigned;
            assigned = copy;
            EXPECT_EQ(LSoundCache::GetRefCount(item), 4);
            LCutListAudio moved(std::move(assigned));
            EXPECT_EQ(LSoundCache::GetRefCount(item), 4);
        }
        EXPECT_EQ(LSoundCache::GetRefCount(item), 2);
        // A source keeps what it reads alive after the list is gone.
        LSoundSource source = list.OpenSource();
        list.Clear();
        EXPECT_EQ(LSoundCache::GetRefCount(item), 2);
        std::vector<float> const read = ReadAll(source);
        ASSERT_EQ(read.size(), 45u);
        EXPECT_EQ(read[39], samples[39]);
        EXPECT_EQ(read[40], 0.0f);
        list.SetSingleCutListSegment(LCutListSegment(item, 5, 10), 48000, 1);
        EXPECT_EQ(list.GetLengthFrames(), 10);
        EXPECT_EQ(list.GetSampleRate(), 48000);
        list.SetSingleCutListSegment(*list.GetHead(), 48000, 1); // its own segment
        EXPECT_EQ(list.GetHead()->GetOffsetFrames(), 5);
        EXPECT_EQ(LSoundCache::GetRefCount(item), 3);
    }
    EXPECT_EQ(LSoundCache::GetRefCount(item), 1);
}

TEST_F(CutListTest, EditsNeverLeaveEmptySegments) {
    std::vector<float> samples;
    unsigned short const item = MakeValueItem(0, 100, samples);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 0));  // dropped
    list.AppendSegment(LCutListSegment(item, 0, -4)); // dropped
    EXPECT_EQ(list.GetSegmentCount(), 0u);
    list.AppendSegment(LCutListSegment(item, 0, 10));
    list.AppendSegment(LCutListSegment(item, 20, 10));
    list.EfInsert(10, LCutListAudio()); // an empty insert changes nothing, even past the end
    list.EfInsert(50, LCutListAudio());
    list.EfRepeatLoop(3, 3, 5);
    EXPECT_EQ(list.GetSegmentCount(), 2u);
    list.EfDelete(0, 10); // exactly the first segment
    ASSERT_EQ(list.GetSegmentCount(), 1u);
    EXPECT_EQ(list.GetHead()->GetOffsetFrames(), 20);
    list.EfTrim(0, 0);
    EXPECT_EQ(list.GetSegmentCount(), 0u);
    EXPECT_EQ(list.GetLengthFrames(), 0);
}

TEST_F(CutListTest, EditsPastTheLengthBoundDoNothing) {
    LCutListAudio list;
    list.EfInsertSilence(kLCutListMaxFrames - 10, 5);
    EXPECT_EQ(list.GetLengthFrames(), kLCutListMaxFrames - 5);
    list.EfInsertSilence(0, 6);
    EXPECT_EQ(list.GetLengthFrames(), kLCutListMaxFrames - 5);
    list.EfInsertSilence(-(1LL << 62), 1LL << 62); // clamped, no overflow
    list.EfRepeatLoop(0, 2, 1000000000UL);         // only as many copies as fit
    EXPECT_EQ(list.GetLengthFrames(), kLCutListMaxFrames - 1);
    list.EfDelete(LLONG_MIN, LLONG_MAX);
    EXPECT_EQ(list.GetLengthFrames(), 0);
}

TEST_F(CutListTest, SourceReadsTheSameInAnyChunkSizeAndAfterAnySeek) {
    std::vector<float> a;
    std::vector<float> b;
    unsigned short const itemA = MakeValueItem(0, 70000, a, 2);
    unsigned short const itemB = MakeValueItem(1, 500, b, 2);
    LCutListAudio list;
    list.SetChannels(2);
    list.AppendSegment(LCutListSegment(itemA, 100, 40000));
    list.AppendSegment(LCutListSegment(kLSoundCacheItemNone, 0, 300));
    list.AppendSegment(LCutListSegment(itemB, 0, 500, 0.5f));
    list.AppendSegment(LCutListSegment(itemA, 60000, 9000, -2.0f));
    list.AppendSegment(LCutListSegment(itemB, 400, 200)); // runs 100 frames past its item
    std::vector<float> expected;
    auto add = [&](std::vector<float> const& s, long long offset, long long frames, float gain) {
        for (long long i = offset * 2; i < (offset + frames) * 2; ++i) {
            expected.push_back(i < static_cast<long long>(s.size())
                                   ? s[static_cast<std::size_t>(i)] * gain
                                   : 0.0f);
        }
    };
    add(a, 100, 40000, 1.0f);
    expected.insert(expected.end(), 600, 0.0f);
    add(b, 0, 500, 0.5f);
    add(a, 60000, 9000, -2.0f);
    add(b, 400, 200, 1.0f);
    for (long long chunk : {1LL, 7LL, 4095LL, 65537LL}) {
        EXPECT_EQ(Read(list, chunk), expected) << "chunk " << chunk;
    }
    LSoundSource source = list.OpenSource();
    EXPECT_EQ(source->GetEndSample(), list.GetLengthFrames());
    std::mt19937 random(7);
    long long const end = list.GetLengthFrames();
    for (int i = 0; i < 300; ++i) {
        long long const at = std::uniform_int_distribution<long long>(-600, end + 600)(random);
        long long const frames = std::uniform_int_distribution<long long>(1, 1500)(random);
        source->Seek(at);
        std::vector<float> got(static_cast<std::size_t>(frames) * 2);
        source->Read(got.data(), frames);
        ASSERT_EQ(source->GetPositionSample(), at + frames);
        for (long long f = 0; f < frames; ++f) {
            long long const frame = at + f;
            for (int c = 0; c < 2; ++c) {
                float const want = frame >= 0 && frame < end
                                       ? expected[static_cast<std::size_t>(frame * 2 + c)]
                                       : 0.0f;
                ASSERT_EQ(got[static_cast<std::size_t>(f * 2 + c)], want)
                    << "seek " << at << " frame " << frame;
            }
        }
    }
}

TEST_F(CutListTest, SegmentOfAMissingItemReadsAsSilence) {
    std::vector<float> a;
    std::vector<float> b;
    unsigned short const itemA = MakeValueItem(0, 100, a);
    unsigned short const itemB = MakeValueItem(1, 100, b);
    ASSERT_EQ(std::remove(LSoundCache::GetFilePath(itemB, kLSoundCacheExtAud).c_str()), 0);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(itemA, 0, 10));
    list.AppendSegment(LCutListSegment(itemB, 0, 10));
    list.AppendSegment(LCutListSegment(itemA, -5, 10));  // partly before its item's start
    list.AppendSegment(LCutListSegment(itemA, -30, 10)); // wholly before it
    list.AppendSegment(LCutListSegment(itemA, 95, 10));  // partly past its end
    list.AppendSegment(LCutListSegment(itemA, 130, 10)); // wholly past it
    std::vector<float> expected(a.begin(), a.begin() + 10);
    expected.insert(expected.end(), 15, 0.0f);
    expected.insert(expected.end(), a.begin(), a.begin() + 5);
    expected.insert(expected.end(), 10, 0.0f);
    expected.insert(expected.end(), a.begin() + 95, a.end());
    expected.insert(expected.end(), 15, 0.0f);
    EXPECT_EQ(Read(list), expected);
}

TEST_F(CutListTest, SourceOverAnInvalidFormatIsInErrorAndSilent) {
    LCutListAudio list;
    list.SetChannels(0);
    list.EfInsertSilence(0, 10);
    LSoundSource source = list.OpenSource();
    EXPECT_FALSE(source->IsOk());
    std::vector<float> const read = ReadAll(source);
    EXPECT_EQ(read, std::vector<float>(10, 0.0f));
}

TEST_F(CutListTest, PeaksComeFromTheItemsGroupsScaledByGain) {
    // Item groups with known peaks: group g peaks at +(g+1)/16 and -(g+1)/32.
    constexpr int kGroups = 80;
    std::vector<float> samples(kGroups * 256, 0.0f);
    for (int g = 0; g < kGroups; ++g) {
        samples[static_cast<std::size_t>(g * 256 + 10)] = static_cast<float>(g + 1) / 256.0f;
        samples[static_cast<std::size_t>(g * 256 + 200)] = -static_cast<float>(g + 1) / 512.0f;
    }
    unsigned short const item = MakeItem(samples);
    auto code = [](int g, bool max) {
        return LSoundCacheGrfCode(max ? static_cast<float>(g + 1) / 256.0f
                                      : static_cast<float>(g + 1) / 512.0f);
    };
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 256, 256 * 40)); // groups 1 to 40, aligned
    list.AppendSegment(LCutListSegment(kLSoundCacheItemNone, 0, 512));
    list.AppendSegment(LCutListSegment(item, 128, 512, -0.5f)); // straddles groups 0 to 2
    std::vector<LCutListGrfFrame> peaks;
    ASSERT_TRUE(list.GrfBufferGet(peaks, 0, list.GetLengthFrames()));
    ASSERT_EQ(peaks.size(), 44u);
    for (int g = 0; g < 40; ++g) {
        EXPECT_EQ(peaks[static_cast<std::size_t>(g)],
                  (LCutListGrfFrame{code(g + 1, true), code(g + 1, false)}))
            << g;
    }
    EXPECT_EQ(peaks[40], LCutListGrfFrame{});
    EXPECT_EQ(peaks[41], LCutListGrfFrame{});
    // [128, 384) of the item touches groups 0 and 1; a negative gain turns them over.
    auto scaled = [](std::uint16_t c) { return static_cast<std::uint16_t>(c * 0.5); };
    EXPECT_EQ(peaks[42].max, scaled(code(1, false)));
    EXPECT_EQ(peaks[42].min, scaled(code(1, true)));
    EXPECT_EQ(peaks[43].max, scaled(code(2, false)));
    // A range starting inside a group takes the groups its frames touch.
    ASSERT_TRUE(list.GrfBufferGet(peaks, 100, 256));
    ASSERT_EQ(peaks.size(), 1u);
    EXPECT_EQ(peaks[0].max, code(2, true));
}

TEST_F(CutListTest, PeaksStopAtAnItemWithoutPeakFile) {
    std::vector<float> a;
    std::vector<float> b;
    unsigned short const itemA = MakeValueItem(0, 1024, a);
    unsigned short const itemB = MakeValueItem(1, 1024, b);
    ASSERT_EQ(std::remove(LSoundCache::GetFilePath(itemB, kLSoundCacheExtGrf).c_str()), 0);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(itemA, 0, 512));
    list.AppendSegment(LCutListSegment(itemB, 0, 512));
    std::vector<LCutListGrfFrame> peaks;
    EXPECT_FALSE(list.GrfBufferGet(peaks, 0, 1024));
    ASSERT_EQ(peaks.size(), 2u);
    EXPECT_NE(peaks[1].max, 0);
}

TEST_F(CutListTest, ZeroCrossSnapFindsTheNearestSignChange) {
    // Positive up to frame 40, negative from 41 to 69, an exact zero at 70, positive after.
    std::vector<float> samples(100);
    for (int i = 0; i < 100; ++i) {
        samples[static_cast<std::size_t>(i)] = i <= 40 ? 0.5f : (i < 70 ? -0.25f : 0.75f);
    }
    samples[70] = 0.0f;
    unsigned short const item = MakeItem(samples);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 100));
    EXPECT_EQ(list.ZeroCrossCutpointFind(45, 10), 41);
    EXPECT_EQ(list.ZeroCrossCutpointFind(60, 15), 70);
    EXPECT_EQ(list.ZeroCrossCutpointFind(20, 10), 20); // none in reach
    EXPECT_EQ(list.PositionSnap(66, LCutListSnap::kZeroCross), 70);
    EXPECT_EQ(list.PositionSnap(66, LCutListSnap::kNone), 66);
}

TEST_F(CutListTest, SinkLinksWhatIsCommittedAtItsPosition) {
    std::vector<float> a;
    unsigned short const item = MakeValueItem(0, 100, a);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(item, 0, 100));
    std::vector<float> recorded(60);
    for (int i = 0; i < 60; ++i) {
        recorded[static_cast<std::size_t>(i)] = ItemValue(5, i, 0);
    }
    unsigned short written = kLSoundCacheItemNone;
    {
        LSoundSink sink = list.OpenSink(44100, 1, "Recording", 50);
        auto* const cutSink = sink.GetAs<LCutListAudioSink>();
        ASSERT_NE(cutSink, nullptr);
        ASSERT_FALSE(sink->IsFailed());
        written = cutSink->GetItem();
        sink->Write(recorded.data(), 30);
        cutSink->CommitUpTo(20);
        cutSink->CommitUpTo(10); // commits never go back
        EXPECT_EQ(list.GetLengthFrames(), 120);
        std::vector<float> expected(a.begin(), a.begin() + 50);
        expected.insert(expected.end(), recorded.begin(), recorded.begin() + 20);
        expected.insert(expected.end(), a.begin() + 50, a.end());
        EXPECT_EQ(Read(list), expected); // playable before the item is finished
        sink->Write(recorded.data() + 30, 30);
        cutSink->CommitUpTo(1000); // clamped to what was written
        EXPECT_EQ(cutSink->GetCommittedFrames(), 60);
    }
    std::vector<float> expected(a.begin(), a.begin() + 50);
    expected.insert(expected.end(), recorded.begin(), recorded.end());
    expected.insert(expected.end(), a.begin() + 50, a.end());
    EXPECT_EQ(Read(list), expected);
    EXPECT_TRUE(LSoundCacheItemIsValid(written));
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
