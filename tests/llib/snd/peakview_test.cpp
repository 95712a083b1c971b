// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/peakview.h"

#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace {

constexpr float kCodeStep = 1.0f / 4134.916f; // one ".grf" code in full scale
constexpr long long kGroup = kLSoundCacheGrfFrames;

// The frames a column shows, as GetColumns promises: those whose start lies in its range, and
// when there is none, the frame the range lies inside.
struct Frames {
    long long first;
    long long end;
};

Frames ColumnFrames(double start, double framesPerColumn, long long c) {
    double const x0 = start + static_cast<double>(c) * framesPerColumn;
    double const x1 = start + static_cast<double>(c + 1) * framesPerColumn;
    auto const first = static_cast<long long>(std::ceil(x0));
    auto const end = static_cast<long long>(std::ceil(x1));
    auto const inside = static_cast<long long>(std::floor(x0));
    return first < end ? Frames{first, end} : Frames{inside, inside + 1};
}

// Reports the first few columns further than `tolerance` from the expected ones. Silence must
// be exactly {0, 0}: a zero code is exact, so anything else there is a misplaced peak.
void ExpectColumnsNear(std::vector<LPeakColumn> const& actual,
                       std::vector<LPeakColumn> const& expected, float tolerance,
                       std::string const& what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    int bad = 0;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        LPeakColumn const& a = actual[i];
        LPeakColumn const& e = expected[i];
        float const t = e.min == 0.0f && e.max == 0.0f ? 0.0f : tolerance;
        if (!(std::fabs(a.min - e.min) <= t && std::fabs(a.max - e.max) <= t) && ++bad <= 5) {
            ADD_FAILURE() << what << ", entry " << i << ": " << a.min << " .. " << a.max
                          << ", expected " << e.min << " .. " << e.max;
        }
    }
    EXPECT_EQ(bad, 0) << what;
}

// ".grf" records of one channel: each group's max code and min code.
struct GroupCodes {
    std::vector<std::uint16_t> max;
    std::vector<std::uint16_t> min;
};

// Low codes everywhere with spikes of differing heights every few groups, so that a column's
// peak names the exact groups it took: a range one record too wide or too narrow picks another.
GroupCodes SpikyCodes(long long groups, long long from, std::uint16_t floor) {
    GroupCodes codes;
    for (long long g = from; g < from + groups; ++g) {
        auto const h = static_cast<std::uint16_t>(floor + (g * 7919) % 97);
        codes.max.push_back(g % 337 == 5 ? static_cast<std::uint16_t>(200 + (g * 31) % 3800) : h);
        codes.min.push_back(g % 211 == 9 ? static_cast<std::uint16_t>(300 + (g * 17) % 3500) : h);
    }
    return codes;
}

struct Zoom {
    double framesPerColumn;
    double start;
    int columns;           // 0: enough to pass the end of the document
    unsigned channels = 2; // of the edited document

    [[nodiscard]] bool FromPeaks() const {
        return framesPerColumn >= static_cast<double>(kLSoundCacheGrfFrames);
    }
};

void PrintTo(Zoom const& zoom, std::ostream* os) {
    *os << zoom.framesPerColumn << " frames a column from " << zoom.start << ", " << zoom.channels
        << " channels";
}

LCutListAudio OneSegment(unsigned short item, long long frames, unsigned char channels = 1) {
    LCutListAudio list;
    list.SetChannels(channels);
    list.AppendSegment(LCutListSegment(item, 0, frames));
    return list;
}

class PeakViewTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(Dir() + "/cache");
    }
    void TearDown() override {
        LPeakView::ReleaseSummaries(); // they hold the test's files open
        for (unsigned short item : m_items) {
            LSoundCache::DecRef(item);
        }
        LTempDirTest::TearDown();
    }

    // The zoom's columns, or enough to pass the end of `list` by three.
    static int Columns(LCutListAudio const& list, Zoom const& zoom) {
        double const rest = static_cast<double>(list.GetLengthFrames()) - zoom.start;
        return zoom.columns > 0 ? zoom.columns
                                : static_cast<int>(std::ceil(rest / zoom.framesPerColumn)) + 3;
    }
    // GetColumns of `list` at `zoom` into m_out.
    [[nodiscard]] bool Draw(LCutListAudio const& list, Zoom const& zoom) {
        return m_view.GetColumns(list, zoom.start, zoom.framesPerColumn, Columns(list, zoom),
                                 m_out);
    }

    // A new item holding `samples` (interleaved), written through the cache's own sink so its
    // ".grf" is what recording or decoding makes. The test owns its first reference.
    unsigned short AddItem(std::vector<float> samples, unsigned char channels) {
        unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
        EXPECT_LE(item, kLSoundCacheItemLast);
        {
            LSoundSink sink = LMakeSink<LSoundCacheSink>(item, 44100, channels);
            sink->Write(samples.data(), static_cast<long long>(samples.size() / channels));
            EXPECT_FALSE(sink->IsFailed());
        }
        m_items.push_back(item);
        m_samples[item] = std::move(samples);
        return item;
    }

    // A mono item of `frames` frames made cheaply: a real item of one frame whose ".aud" is then
    // stretched to a sparse file and whose ".grf" is replaced by `codes`.
    unsigned short AddPeakItem(GroupCodes const& codes, long long frames) {
        unsigned short const item = AddItem({0.0f}, 1);
        m_samples.erase(item);
        std::string const aud = LSoundCache::GetFilePath(item, kLSoundCacheExtAud);
        EXPECT_EQ(truncate(aud.c_str(), frames * 4), 0);
        EXPECT_TRUE(WriteCodes(item, codes, O_TRUNC));
        return item;
    }

    static bool WriteCodes(unsigned short item, GroupCodes const& codes, int mode) {
        std::vector<unsigned char> bytes;
        for (std::size_t g = 0; g < codes.max.size(); ++g) {
            for (std::uint16_t const code : {codes.max[g], codes.min[g]}) {
                bytes.push_back(static_cast<unsigned char>(code & 0xff));
                bytes.push_back(static_cast<unsigned char>(code >> 8));
            }
        }
        std::string const path = LSoundCache::GetFilePath(item, kLSoundCacheExtGrf);
        int const fd = open(path.c_str(), O_WRONLY | O_CREAT | mode, 0644);
        bool const ok =
            fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
        return close(fd) == 0 && ok;
    }

    // The columns straight from the samples: each column's frames through the segments, each
    // segment's item frames times its gain, silence where the item holds none. With whole
    // groups (columns of 256 frames or more) each item range widens to the groups it touches
    // and the column reaches 0, as peak records do.
    std::vector<LPeakColumn> Reference(LCutListAudio const& list, Zoom const& zoom) const {
        bool const wholeGroups = zoom.FromPeaks();
        int const columns = Columns(list, zoom);
        unsigned const channels = list.GetChannels();
        float const inf = std::numeric_limits<float>::infinity();
        std::vector<LPeakColumn> out(static_cast<std::size_t>(columns) * channels);
        for (int c = 0; c < columns; ++c) {
            Frames const f = ColumnFrames(zoom.start, zoom.framesPerColumn, c);
            std::vector<float> high(channels, wholeGroups ? 0.0f : -inf);
            std::vector<float> low(channels, wholeGroups ? 0.0f : inf);
            long long at = 0;
            for (LCutListSegment const& segment : list.GetSegments()) {
                long long const a = std::max(f.first, at);
                long long const b = std::min(f.end, at + segment.GetLengthFrames());
                long long itemFirst = a - at + segment.GetOffsetFrames();
                long long itemEnd = b - at + segment.GetOffsetFrames();
                at += segment.GetLengthFrames();
                if (a >= b) {
                    continue;
                }
                if (wholeGroups) {
                    itemFirst = itemFirst / kGroup * kGroup;
                    itemEnd = (itemEnd + kGroup - 1) / kGroup * kGroup;
                }
                auto const found = m_samples.find(segment.GetItem());
                for (long long i = itemFirst; i < itemEnd; ++i) {
                    for (unsigned ch = 0; ch < channels; ++ch) {
                        std::size_t const index = static_cast<std::size_t>(i) * channels + ch;
                        bool const held = found != m_samples.end() && index < found->second.size();
                        float const v = (held ? found->second[index] : 0.0f) * segment.GetGain();
                        high[ch] = std::max(high[ch], v);
                        low[ch] = std::min(low[ch], v);
                    }
                }
            }
            for (unsigned ch = 0; ch < channels; ++ch) {
                if (low[ch] <= high[ch]) {
                    out[ch * static_cast<std::size_t>(columns) + c] = {low[ch], high[ch]};
                }
            }
        }
        return out;
    }

    // The columns of a single segment over a whole peak item, from the codes it was given.
    static std::vector<LPeakColumn> CodeReference(GroupCodes const& codes, long long length,
                                                  Zoom const& zoom) {
        int const columns = zoom.columns;
        std::vector<LPeakColumn> out(static_cast<std::size_t>(columns));
        for (int c = 0; c < columns; ++c) {
            Frames const f = ColumnFrames(zoom.start, zoom.framesPerColumn, c);
            long long const first = std::max(f.first, 0LL);
            long long const end = std::min(f.end, length);
            std::uint16_t high = 0;
            std::uint16_t low = 0;
            for (long long g = first / kGroup; first < end && g <= (end - 1) / kGroup; ++g) {
                if (g < static_cast<long long>(codes.max.size())) {
                    high = std::max(high, codes.max[static_cast<std::size_t>(g)]);
                    low = std::max(low, codes.min[static_cast<std::size_t>(g)]);
                }
            }
            out[static_cast<std::size_t>(c)] = {-low * kCodeStep, high * kCodeStep};
        }
        return out;
    }

    // Draws `list`, a single segment over a whole peak item, at each zoom against its codes.
    void ExpectCodeColumns(LCutListAudio const& list, GroupCodes const& codes, long long length,
                           std::vector<Zoom> const& zooms, std::string const& when) {
        for (Zoom const& zoom : zooms) {
            ASSERT_TRUE(Draw(list, zoom));
            ExpectColumnsNear(m_out, CodeReference(codes, length, zoom), kCodeStep,
                              when + "zoom " + std::to_string(zoom.framesPerColumn));
        }
    }

    std::vector<unsigned short> m_items;
    std::map<unsigned short, std::vector<float>> m_samples;
    LPeakView m_view;
    std::vector<LPeakColumn> m_out;
};

// Noise under a slow swell, so that neighbouring wide columns peak differently.
std::vector<float> SwellingNoise(unsigned channels, long long frames, std::uint32_t seed) {
    std::vector<float> samples = MakeNoise(channels, frames, 1.0, seed);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        auto const frame = static_cast<double>(i / channels);
        samples[i] *= static_cast<float>(0.1 + 0.8 * std::fabs(std::sin(frame / 5000.0)));
    }
    return samples;
}

class PeakViewZoomTest : public PeakViewTest, public testing::WithParamInterface<Zoom> {
protected:
    // Draws `list` at the zoom twice and holds both to the samples. Peak records stand for a
    // value within half a code, which a segment's gain scales by up to `gainBound`.
    void ExpectDrawnFromTheSamples(LCutListAudio const& list, float gainBound) {
        Zoom const zoom = GetParam();
        ASSERT_TRUE(Draw(list, zoom));
        ExpectColumnsNear(m_out, Reference(list, zoom),
                          zoom.FromPeaks() ? gainBound * kCodeStep : 0.0f, "first call");
        // A second call, served from the kept summaries and reused buffers, draws the same.
        std::vector<LPeakColumn> again;
        ASSERT_TRUE(
            m_view.GetColumns(list, zoom.start, zoom.framesPerColumn, Columns(list, zoom), again));
        ExpectColumnsNear(again, m_out, 0.0f, "second call");
    }
};

using PeakViewImpulse = PeakViewZoomTest;

// One-frame impulses in silence show in the column holding them and, from peaks, no farther
// than their group: the exact zeros around them pin each column's ends.
TEST_P(PeakViewImpulse, ShowsInTheColumnHoldingItAndNoFartherThanItsGroup) {
    // The segment starts 100 frames into the item, so the document's frames and the item's
    // groups do not line up; 355 and 356 fall either side of a 256-frame column's end.
    constexpr long long kItemFrames = 300000;
    std::vector<float> samples(kItemFrames * 2, 0.0f);
    for (long long const at : {100, 355, 356, 70101, 131171, 299999}) {
        samples[static_cast<std::size_t>(at * 2)] = 0.75f;
        samples[static_cast<std::size_t>(at * 2 + 1)] = -0.5f;
    }
    LCutListAudio list;
    list.SetChannels(2);
    list.AppendSegment(LCutListSegment(AddItem(std::move(samples), 2), 100, kItemFrames - 100));
    ExpectDrawnFromTheSamples(list, 1.0f);
}

INSTANTIATE_TEST_SUITE_P(PeakView, PeakViewImpulse,
                         testing::Values(Zoom{0.25, -2.6, 1200}, Zoom{0.4, 0.0, 1000},
                                         Zoom{1.0, 69990.0, 2000}, Zoom{1.5, 3.3, 0},
                                         Zoom{7.3, 0.0, 0}, Zoom{255.9, 0.0, 0},
                                         Zoom{256.0, -100.0, 0}, Zoom{300.5, 17.2, 0},
                                         Zoom{1024.0, 0.0, 0}, Zoom{5000.0, 1000.5, 0},
                                         Zoom{70000.0, 0.0, 0}));

using PeakViewEdited = PeakViewZoomTest;

TEST_P(PeakViewEdited, MatchesTheSamplesThroughSegmentsGainsAndCuts) {
    auto const channels = static_cast<unsigned char>(GetParam().channels);
    unsigned short const a = AddItem(SwellingNoise(channels, 300000, 7), channels);
    unsigned short const b = AddItem(MakeSine(44100, channels, 3.0, 0.9, 200000), channels);
    LCutListAudio list;
    list.SetChannels(channels);
    list.AppendSegment(LCutListSegment(a, 1000, 119000));
    list.AppendSegment(LCutListSegment(b, 5000, 145000, 0.5f));
    list.AppendSegment(LCutListSegment(kLSoundCacheItemNone, 0, 3000));
    list.AppendSegment(LCutListSegment(a, 200000, 90000, -2.0f));
    list.AppendSegment(LCutListSegment(b, 0, 40000));
    list.EfDelete(116000, 130000); // across the first join
    list.EfDelete(60000, 61234);   // in the middle of the first segment
    ASSERT_EQ(list.GetSegmentCount(), 6u);
    ExpectDrawnFromTheSamples(list, 2.0f);
}

INSTANTIATE_TEST_SUITE_P(PeakView, PeakViewEdited,
                         testing::Values(Zoom{0.3, 114566.5, 1400}, Zoom{1.0, 114000.0, 2000},
                                         Zoom{2.5, 59000.0, 1000, 3}, Zoom{100.0, -1234.5, 0, 1},
                                         Zoom{255.0, 0.0, 0}, Zoom{256.0, 0.0, 0},
                                         Zoom{333.3, 50.25, 0, 1}, Zoom{4096.0, -3000.0, 0, 3},
                                         Zoom{20000.0, 0.0, 0}));
TEST_F(PeakViewTest, WideColumnsComeFromTheCoarseLevelsAndTheirEndsFromTheRecords) {
    constexpr long long kGroups = 250000; // 64 million frames, about 24 minutes
    constexpr long long kFrames = kGroups * kGroup;
    GroupCodes codes = SpikyCodes(kGroups, 0, 1);
    unsigned short const item = AddPeakItem(codes, kFrames);
    LCutListAudio const list = OneSegment(item, kFrames);
    ExpectCodeColumns(list, codes, kFrames,
                      {Zoom{1048576.0, 0.0, 64}, Zoom{999983.0, 1000.5, 66},
                       Zoom{16777216.0, 0.0, 4}, Zoom{5000.5, 32000000.0, 300}},
                      "");

    // A column of 2^20 frames starting on a multiple of 2^20 is one third-level record: change
    // a group inside it on disk, leaving the file's size and time alone, and that column still
    // shows the summary while narrow columns, which read the records, show the change.
    std::string const grf = LSoundCache::GetFilePath(item, kLSoundCacheExtGrf);
    struct stat before {};
    ASSERT_EQ(stat(grf.c_str(), &before), 0);
    constexpr long long kPoked = 10 * 4096 + 2000;
    codes.max[kPoked] = 9000;
    ASSERT_TRUE(WriteCodes(item, codes, O_TRUNC));
    timespec const times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, grf.c_str(), times, 0), 0);
    ASSERT_TRUE(Draw(list, {1048576.0, 0.0, 64}));
    EXPECT_LT(m_out[10].max, 4000 * kCodeStep);
    ASSERT_TRUE(Draw(list, {1024.0, kPoked * kGroup - 1024 * 10.0, 20}));
    EXPECT_NEAR(m_out[10].max, 9000 * kCodeStep, kCodeStep);
    // Once the file's time says it changed, the summary is built again.
    timespec const later[2] = {before.st_atim, {before.st_mtim.tv_sec + 5, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, grf.c_str(), later, 0), 0);
    ASSERT_TRUE(Draw(list, {1048576.0, 0.0, 64}));
    EXPECT_NEAR(m_out[10].max, 9000 * kCodeStep, kCodeStep);
}

TEST_F(PeakViewTest, AGrowingPeakFileShowsWhatWasAppended) {
    // As while recording: the segment already covers frames whose records are not written yet.
    constexpr long long kFirst = 100003; // not a whole number of first-level records
    constexpr long long kLater = 50000;
    constexpr long long kFrames = (kFirst + kLater) * kGroup;
    GroupCodes const first = SpikyCodes(kFirst, 0, 1);
    unsigned short const item = AddPeakItem(first, kFrames);
    LCutListAudio const list = OneSegment(item, kFrames);
    // The fourth zoom's column 10 is exactly the first-level record that was partial before.
    std::vector<Zoom> const zooms = {Zoom{4194304.0, 0.0, 10}, Zoom{300000.3, 1000.5, 132},
                                     Zoom{4096.0, (kFirst / 16 - 10) * 4096.0, 20},
                                     Zoom{2000.0, (kFirst - 30) * kGroup + 7.0, 40}};
    ExpectCodeColumns(list, first, kFrames, zooms, "before growing, ");
    GroupCodes const later = SpikyCodes(kLater, kFirst, 1000);
    ASSERT_TRUE(WriteCodes(item, later, O_APPEND));
    GroupCodes all = first;
    all.max.insert(all.max.end(), later.max.begin(), later.max.end());
    all.min.insert(all.min.end(), later.min.begin(), later.min.end());
    ExpectCodeColumns(list, all, kFrames, zooms, "after growing, ");
}

TEST_F(PeakViewTest, AReusedItemNumberShowsItsNewPeaks) {
    constexpr long long kFrames = 100000;
    unsigned short const first = AddItem(MakeSine(44100, 2, 50.0, 0.25, kFrames), 2);
    ASSERT_TRUE(Draw(OneSegment(first, kFrames, 2), {kFrames / 2.0, 0.0, 2}));
    EXPECT_NEAR(m_out[0].max, 0.25f, kCodeStep);
    // The last reference goes: the files are deleted and the number is free again. Made again
    // within one tick of a coarse file clock, the new ".grf" has the old one's size and time.
    std::string const grf = LSoundCache::GetFilePath(first, kLSoundCacheExtGrf);
    struct stat old {};
    ASSERT_EQ(stat(grf.c_str(), &old), 0);
    m_items.clear();
    LSoundCache::DecRef(first);
    ASSERT_FALSE(LSoundCacheItemIsValid(first));
    unsigned short const second = AddItem(MakeSine(44100, 2, 50.0, 0.75, kFrames), 2);
    ASSERT_EQ(second, first);
    timespec const times[2] = {old.st_atim, old.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, grf.c_str(), times, 0), 0);
    LCutListAudio const list = OneSegment(second, kFrames, 2);
    for (double const framesPerColumn : {kFrames / 2.0, 4096.0}) {
        ASSERT_TRUE(Draw(list, {framesPerColumn, 0.0, 2}));
        EXPECT_NEAR(m_out[0].max, 0.75f, kCodeStep) << framesPerColumn;
        EXPECT_NEAR(m_out[2].min, -0.75f, kCodeStep) << framesPerColumn;
    }
}

TEST_F(PeakViewTest, MissingFilesFailAfterFillingTheColumnsBeforeThem) {
    constexpr long long kFrames = 50000;
    unsigned short const a = AddItem(SwellingNoise(1, kFrames, 3), 1);
    unsigned short const b = AddItem(SwellingNoise(1, kFrames, 4), 1);
    LCutListAudio list;
    list.AppendSegment(LCutListSegment(a, 0, kFrames));
    list.AppendSegment(LCutListSegment(b, 0, kFrames));
    // Peak columns of 1000 frames from 0 (the join is at column 50), then sample columns of 10
    // frames around the join (at column 1000, chunks of reading away from any column's edge).
    for (Zoom const zoom : {Zoom{1000.0, 0.0, 100}, Zoom{10.0, kFrames - 10000.0, 2000}}) {
        bool const peaks = zoom.FromPeaks();
        ASSERT_EQ(
            unlink(LSoundCache::GetFilePath(b, peaks ? kLSoundCacheExtGrf : kLSoundCacheExtAud)
                       .c_str()),
            0);
        EXPECT_FALSE(Draw(list, zoom));
        std::vector<LPeakColumn> expected = Reference(list, zoom);
        for (int c = 0; c < zoom.columns; ++c) {
            if (ColumnFrames(zoom.start, zoom.framesPerColumn, c).end > kFrames) {
                expected[static_cast<std::size_t>(c)] = LPeakColumn{};
            }
        }
        ExpectColumnsNear(m_out, expected, peaks ? kCodeStep : 0.0f,
                          "zoom " + std::to_string(zoom.framesPerColumn));
        // What is in view decides: the first item alone still draws.
        EXPECT_TRUE(Draw(list, {zoom.framesPerColumn, 0.0, 20}));
    }
}

TEST_F(PeakViewTest, ExtremeViewsGiveEmptyColumnsWithoutFailing) {
    unsigned short const item = AddItem(SwellingNoise(1, 20000, 5), 1);
    LCutListAudio const list = OneSegment(item, 20000);
    m_out.resize(5);
    EXPECT_TRUE(m_view.GetColumns(list, 0.0, 10.0, 0, m_out));
    EXPECT_TRUE(m_out.empty());
    double const nan = std::numeric_limits<double>::quiet_NaN();
    double const inf = std::numeric_limits<double>::infinity();
    for (Zoom const zoom :
         {Zoom{0.0, 0.0, 3}, Zoom{-3.0, 0.0, 3}, Zoom{nan, 0.0, 3}, Zoom{inf, 0.0, 3},
          Zoom{10.0, nan, 3}, Zoom{1e6, 1e300, 3}, Zoom{1.0, -1e300, 3}, Zoom{1e299, -1e300, 3}}) {
        ASSERT_TRUE(Draw(list, zoom));
        ExpectColumnsNear(m_out, std::vector<LPeakColumn>(3), 0.0f, testing::PrintToString(zoom));
    }
    // One column wider than any document holds all of it.
    ASSERT_TRUE(Draw(list, {1e18, 0.0, 2}));
    std::vector<float> const& samples = m_samples[item];
    EXPECT_NEAR(m_out[0].max, *std::max_element(samples.begin(), samples.end()), kCodeStep);
    EXPECT_NEAR(m_out[0].min, *std::min_element(samples.begin(), samples.end()), kCodeStep);
}

} // namespace
