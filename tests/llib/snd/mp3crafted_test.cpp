// SPDX-License-Identifier: GPL-3.0-or-later
// MP3 coding tools lame never writes (intensity stereo, mixed blocks, subblock gains, preflag,
// scfsi reuse) in streams crafted by a small layer III writer, decoded by us and by mpg123.
//
// The writer keeps to what both decoders must read alike: no big values (every line sits in the
// count1 region, coded with table B), no bit reservoir, frames large enough for any granule.

#include "llib/snd/mp3decode.h"
#include "llib/snd/mp3file.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

// The bounds mp3file_test holds lame's files to.
double const kMaxRms = std::ldexp(1.0, -15) / std::sqrt(12.0);
double const kMaxError = std::ldexp(1.0, -14);

int const kFrames = 40;

class BitWriter {
public:
    void Put(unsigned value, int bits) {
        for (int i = bits - 1; i >= 0; --i) {
            if (m_bits % 8 == 0) {
                m_bytes.push_back(0);
            }
            m_bytes.back() |= static_cast<unsigned char>(((value >> i) & 1u) << (7 - m_bits % 8));
            ++m_bits;
        }
    }
    void Append(BitWriter const& other) {
        for (int i = 0; i < other.m_bits; ++i) {
            Put(other.m_bytes[static_cast<std::size_t>(i / 8)] >> (7 - i % 8), 1);
        }
    }
    [[nodiscard]] int Bits() const { return m_bits; }
    [[nodiscard]] std::vector<unsigned char> const& Bytes() const { return m_bytes; }

private:
    std::vector<unsigned char> m_bytes;
    int m_bits = 0;
};

struct CraftCase {
    char const* name;
    int version;  // 1, 2, or 25 for MPEG-2.5
    int rateBits; // the header's sampling frequency field
    int modeExt;  // joint stereo (1 intensity, 2 mid/side, 3 both); -1 plain stereo
    bool shortBlocks;
    bool mixed;
    bool scfsi;   // MPEG-1 long blocks: the second granule reuses random scale factor groups
    bool illegal; // the intensity positions include the illegal one
};

void PrintTo(CraftCase const& c, std::ostream* os) {
    *os << c.name;
}

// MPEG-2 scale factors per slen group, by slen table, then long / short / mixed blocks.
constexpr int kLsfSlots[4][3][4] = {
    {{6, 5, 5, 5}, {9, 9, 9, 9}, {6, 9, 9, 9}},
    {{6, 5, 7, 3}, {9, 9, 12, 6}, {6, 9, 12, 6}},
    {{11, 10, 0, 0}, {18, 18, 0, 0}, {15, 18, 0, 0}},
    {{7, 7, 7, 0}, {12, 12, 12, 0}, {6, 15, 12, 0}}, // the right channel of intensity stereo
};
constexpr int kSlen1[16] = {0, 0, 0, 0, 3, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4};
constexpr int kSlen2[16] = {0, 1, 2, 3, 0, 1, 2, 3, 1, 2, 3, 1, 2, 3, 2, 3};
constexpr int kRates[9] = {44100, 48000, 32000, 22050, 24000, 16000, 11025, 12000, 8000};

class Crafter {
public:
    explicit Crafter(CraftCase const& c) : m_c(c), m_rng(Seed(c.name)) {}

    // The whole stream, or nothing when a granule would not fit its frame.
    std::vector<unsigned char> Stream() {
        int const rateIndex = (m_c.version == 1 ? 0 : m_c.version == 2 ? 3 : 6) + m_c.rateBits;
        int const frameBytes = (m_lsf ? 72 * 160000 : 144 * 320000) / kRates[rateIndex];
        std::vector<unsigned char> out;
        for (int f = 0; f < kFrames; ++f) {
            BitWriter side;
            BitWriter main;
            side.Put(0x7FF, 11);
            side.Put(m_c.version == 1 ? 3 : m_c.version == 2 ? 2 : 0, 2);
            side.Put(0x3, 3);                                      // layer III, no CRC
            side.Put(14, 4);                                       // 320 or 160 kbit/s
            side.Put(static_cast<unsigned>(m_c.rateBits) << 2, 4); // no padding
            side.Put(m_c.modeExt < 0 ? 0 : 4 + static_cast<unsigned>(m_c.modeExt), 4);
            side.Put(0, 4);
            side.Put(0, m_lsf ? 10 : 12); // main_data_begin and private bits
            for (int ch = 0; ch < 2 && !m_lsf; ++ch) {
                m_scfsi[ch] = m_c.scfsi ? Uniform(0, 15) : 0;
                side.Put(static_cast<unsigned>(m_scfsi[ch]), 4);
            }
            for (int gr = 0; gr < (m_lsf ? 1 : 2); ++gr) {
                for (int ch = 0; ch < 2; ++ch) {
                    Granule(gr, ch, rateIndex, side, main);
                }
            }
            if (side.Bits() / 8 + (main.Bits() + 7) / 8 > frameBytes) {
                return {};
            }
            std::size_t const start = out.size();
            out.insert(out.end(), side.Bytes().begin(), side.Bytes().end());
            out.insert(out.end(), main.Bytes().begin(), main.Bytes().end());
            out.resize(start + static_cast<std::size_t>(frameBytes), 0);
        }
        return out;
    }

private:
    static unsigned Seed(char const* name) {
        unsigned h = 2166136261u;
        for (; *name != 0; ++name) {
            h = (h ^ static_cast<unsigned char>(*name)) * 16777619u;
        }
        return h;
    }
    int Uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(m_rng); }

    // One granule of one channel: its side information and its main data (scale factors, then
    // the count1 quadruples up to the last nonzero line).
    void Granule(int gr, int ch, int rateIndex, BitWriter& side, BitWriter& main) {
        bool const intensity = ch == 1 && m_c.modeExt > 0 && (m_c.modeExt & 1) != 0;
        int const kind = m_c.shortBlocks ? (m_c.mixed ? 2 : 1) : 0;
        std::vector<int> slens;
        int compress = 0;
        if (!m_lsf) {
            // The right channel's positions need three bits to reach the illegal 7; none goes
            // above it, where mpg123 would carry on with the tangent.
            compress = intensity ? (Uniform(0, 1) != 0 ? 13 : 15) : Uniform(0, 15);
            int const s1 = kSlen1[compress];
            int const s2 = kSlen2[compress];
            if (m_c.shortBlocks) {
                slens.assign(m_c.mixed ? 17 : 18, s1);
                slens.insert(slens.end(), 18, s2);
            }
            for (int g = 0; g < 4 && !m_c.shortBlocks; ++g) {
                if (gr == 0 || ((m_scfsi[ch] >> (3 - g)) & 1) == 0) {
                    slens.insert(slens.end(), g == 0 ? 6 : 5, g < 2 ? s1 : s2);
                }
            }
        } else {
            int slen[4] = {};
            int table = 3;
            if (intensity) {
                // We take a band's largest value as the illegal position, mpg123 takes 7 at
                // any slen: they agree at slen 3, and at slen 4 the values avoid 7 and 15.
                int const s = m_c.illegal ? 3 : 4;
                slen[0] = slen[1] = slen[2] = s;
                compress = 2 * (s * 36 + s * 6 + s) + Uniform(0, 1);
            } else {
                table = Uniform(0, 2);
                slen[0] = Uniform(0, table == 2 ? 3 : 4);
                slen[1] = Uniform(0, table == 2 ? 2 : 4);
                slen[2] = table < 2 ? Uniform(0, 3) : 0;
                slen[3] = table == 0 ? Uniform(0, 3) : 0;
                compress = table == 0   ? (slen[0] * 5 + slen[1]) << 4 | slen[2] << 2 | slen[3]
                           : table == 1 ? 400 + ((slen[0] * 5 + slen[1]) << 2 | slen[2])
                                        : 500 + slen[0] * 3 + slen[1];
            }
            for (int g = 0; g < 4; ++g) {
                slens.insert(slens.end(), static_cast<std::size_t>(kLsfSlots[table][kind][g]),
                             slen[g]);
            }
        }
        BitWriter data;
        for (int len : slens) {
            int v = Uniform(0, std::min(3, (1 << len) - 1));
            if (intensity) {
                v = m_lsf && len == 4 ? Uniform(0, 13) : Uniform(0, m_c.illegal ? 7 : 6);
                v += m_lsf && len == 4 && v >= 7 ? 1 : 0;
            }
            data.Put(static_cast<unsigned>(v), len);
        }
        std::vector<int> const x = Spectrum(intensity, rateIndex);
        int last = 576;
        while (last > 0 && x[static_cast<std::size_t>(last - 1)] == 0) {
            --last;
        }
        for (int i = 0; i < last; i += 4) {
            unsigned code = 0;
            for (int k = 0; k < 4; ++k) {
                code = code * 2 + (x[static_cast<std::size_t>(i + k)] != 0 ? 1 : 0);
            }
            data.Put(15 - code, 4);
            for (int k = 0; k < 4; ++k) {
                if (x[static_cast<std::size_t>(i + k)] != 0) {
                    data.Put(x[static_cast<std::size_t>(i + k)] < 0 ? 1 : 0, 1);
                }
            }
        }
        side.Put(static_cast<unsigned>(data.Bits()), 12);
        side.Put(0, 9); // big_values
        side.Put(static_cast<unsigned>(Uniform(186, 194)), 8);
        side.Put(static_cast<unsigned>(compress), m_lsf ? 9 : 4);
        side.Put(m_c.shortBlocks ? 1 : 0, 1);
        if (m_c.shortBlocks) {
            side.Put(2, 2);
            side.Put(m_c.mixed ? 1 : 0, 1);
            side.Put(0, 10); // table_select
            for (int w = 0; w < 3; ++w) {
                side.Put(static_cast<unsigned>(Uniform(0, 2)), 3);
            }
        } else {
            side.Put(0, 22); // table_select and region counts
        }
        side.Put(static_cast<unsigned>(Uniform(0, m_lsf ? 1 : 3)), m_lsf ? 1 : 2); // preflag, scale
        side.Put(1, 1);                                                            // count1 table B
        main.Append(data);
    }

    // Random lines of -1, 0 and 1 in bitstream order. The right channel of intensity stereo is
    // zero above a random band (per window in short blocks), so the bands above are intensity
    // coded. In a mixed block its short windows are at times all zero, the one case where the
    // long part's upper bands are intensity coded too.
    std::vector<int> Spectrum(bool intensity, int rateIndex) {
        llib::detail::LMP3LookupTables const& t = llib::detail::GetMp3LookUpTable();
        std::uint16_t const* longBands = t.sfbLong[rateIndex];
        std::uint16_t const* shortBands = t.sfbShort[rateIndex];
        int const mixedBands = m_lsf ? 6 : 8;
        int const longLines = !m_c.shortBlocks ? 576 : m_c.mixed ? longBands[mixedBands] : 0;
        int longCut = 576;
        int shortCut[3] = {13, 13, 13};
        if (intensity) {
            bool const shortsZero = m_c.mixed && Uniform(0, 1) != 0;
            longCut = !m_c.shortBlocks ? longBands[Uniform(1, 12)]
                      : m_c.mixed      ? longBands[Uniform(0, mixedBands)]
                                       : 576;
            for (int& cut : shortCut) {
                cut = shortsZero ? 0 : Uniform(0, 8);
            }
        }
        int const end = Uniform(288, 576);
        std::vector<int> x(576, 0);
        auto put = [&](int line, bool allowed) {
            if (allowed && line < end && Uniform(0, 1) != 0) {
                x[static_cast<std::size_t>(line)] = Uniform(0, 1) != 0 ? 1 : -1;
            }
        };
        for (int i = 0; i < longLines; ++i) {
            put(i, i < longCut);
        }
        int line = longLines;
        for (int b = m_c.mixed ? 3 : 0; b < 13 && m_c.shortBlocks; ++b) {
            for (int w = 0; w < 3; ++w) {
                for (int i = shortBands[b]; i < shortBands[b + 1]; ++i) {
                    put(line++, b < shortCut[w]);
                }
            }
        }
        return x;
    }

    CraftCase m_c;
    std::mt19937 m_rng;
    bool m_lsf = m_c.version != 1;
    int m_scfsi[2] = {};
};

class CraftedStream : public LTempDirTest, public ::testing::WithParamInterface<CraftCase> {};

TEST_P(CraftedStream, DecodesAsMpg123DecodesIt) {
    TESSEL_REQUIRE_TOOL("mpg123");
    CraftCase const& c = GetParam();
    std::vector<unsigned char> const stream = Crafter(c).Stream();
    ASSERT_FALSE(stream.empty()) << "a granule outgrew its frame";
    std::string const path = PathOf("crafted.mp3");
    ASSERT_TRUE(WriteFileBytes(path, stream.data(), stream.size()));

    std::vector<float> const want = DecodeWithMpg123(path, PathOf("mpg123.raw"));

    LSoundSource source = LMP3File::OpenSource(path.c_str(), false);
    ASSERT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    ASSERT_EQ(source->GetChannels(), 2u);
    std::vector<float> const got = ReadAll(source, 1000);
    EXPECT_EQ(LMP3File::GetLostFrames(source), 0);
    // Without an Info tag neither decoder trims: every frame's samples come out.
    std::size_t const samples = static_cast<std::size_t>(kFrames) * (c.version == 1 ? 1152 : 576);
    EXPECT_EQ(want.size(), 2 * samples);
    ASSERT_EQ(got.size(), want.size());

    double level[2] = {};
    for (std::size_t i = 0; i < want.size(); ++i) {
        level[i % 2] += static_cast<double>(want[i]) * want[i];
    }
    auto const [rms, max] = CompareSamples(got.data(), want.data(), got.size());
    char text[64];
    std::snprintf(text, sizeof text, "%.3g", rms);
    RecordProperty("rms", text);
    std::snprintf(text, sizeof text, "%.3g", max);
    RecordProperty("max", text);
    // Both channels carry sound, so silence from two decoders that reject the stream fails.
    for (double l : level) {
        EXPECT_GT(std::sqrt(l / static_cast<double>(samples)), 0.01);
    }
    EXPECT_LT(rms, kMaxRms);
    EXPECT_LE(max, kMaxError);
}

INSTANTIATE_TEST_SUITE_P(
    MP3Crafted, CraftedStream,
    ::testing::Values(
        // name, version, rate field, mode extension, short, mixed, scfsi, illegal positions.
        // No MPEG-2 mixed block with intensity: mpg123 finds its positions as if the long part
        // had MPEG-1's eight bands.
        CraftCase{"Mpeg1LongIntensity", 1, 1, 1, false, false, true, false},
        CraftCase{"Mpeg1LongIntensityMidSideIllegal", 1, 1, 3, false, false, true, true},
        CraftCase{"Mpeg1ShortIntensity", 1, 1, 1, true, false, false, false},
        CraftCase{"Mpeg1ShortIntensityMidSideIllegal", 1, 1, 3, true, false, false, true},
        CraftCase{"Mpeg1Mixed", 1, 1, -1, true, true, false, false},
        CraftCase{"Mpeg1MixedIntensityIllegal", 1, 1, 1, true, true, false, true},
        CraftCase{"Mpeg1MixedIntensityMidSide", 1, 1, 3, true, true, false, false},
        CraftCase{"Mpeg1ScfsiMidSide", 1, 1, 2, false, false, true, false},
        CraftCase{"Mpeg2LongIntensity", 2, 1, 1, false, false, false, false},
        CraftCase{"Mpeg2LongIntensityMidSideIllegal", 2, 1, 3, false, false, false, true},
        CraftCase{"Mpeg2ShortIntensity", 2, 1, 1, true, false, false, false},
        CraftCase{"Mpeg2ShortIntensityIllegal", 2, 1, 1, true, false, false, true},
        CraftCase{"Mpeg2MixedMidSide", 2, 1, 2, true, true, false, false},
        CraftCase{"Mpeg25MixedAt11k", 25, 0, -1, true, true, false, false},
        // At 8 kHz the six long bands of a mixed block reach 72 lines, past the two subbands
        // that take the long transform.
        CraftCase{"Mpeg25MixedAt8k", 25, 2, -1, true, true, false, false}),
    [](::testing::TestParamInfo<CraftCase> const& p) { return std::string(p.param.name); });

} // namespace
