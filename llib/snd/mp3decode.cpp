// SPDX-License-Identifier: GPL-3.0-or-later
// The layer III frame decoder and the polyphase synthesis.
#include "mp3decode.h"

#include "simdclones.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace llib::detail {

namespace {

// The transforms run as AVX2/FMA or AVX-512 clones where the machine has them.

// Four floats as one value, the width every x86-64 machine has in registers.
using LMP3Vec4 = float __attribute__((vector_size(16)));

LLIB_SIMD_INLINE void LMP3Load4(LMP3Vec4& v, float const* p) {
    std::memcpy(&v, p, sizeof v);
}

LLIB_SIMD_INLINE void LMP3Store4(float* p, LMP3Vec4 const& v) {
    std::memcpy(p, &v, sizeof v);
}

// MSB-first reads from a buffer padded with at least 8 readable bytes past its end.
inline std::uint64_t Window(unsigned char const* data, int bitPos) {
    std::uint64_t v = 0;
    std::memcpy(&v, data + (bitPos >> 3), 8);
    if constexpr (std::endian::native == std::endian::little) {
        v = __builtin_bswap64(v);
    }
    return v << (bitPos & 7);
}

inline int Bits(unsigned char const* data, int& bitPos, int n) {
    if (n == 0) {
        return 0;
    }
    int const v = static_cast<int>(Window(data, bitPos) >> (64 - n));
    bitPos += n;
    return v;
}

// Side information is read from a copy padded with zeros, so reads past it are harmless.
struct SideReader {
    unsigned char bytes[48] = {};
    int pos = 0;
    int Get(int n) { return Bits(bytes, pos, n); }
};

constexpr int kSlen[2][16] = {{0, 0, 0, 0, 3, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4},
                              {0, 1, 2, 3, 0, 1, 2, 3, 1, 2, 3, 1, 2, 3, 2, 3}};
constexpr int kPretab[22] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 3, 3, 3, 2, 0};
// Scale factors per group for MPEG-2 and 2.5, by slen table, then long / short / mixed blocks.
constexpr std::uint8_t kLsfBands[6][3][4] = {
    {{6, 5, 5, 5}, {9, 9, 9, 9}, {6, 9, 9, 9}},
    {{6, 5, 7, 3}, {9, 9, 12, 6}, {6, 9, 12, 6}},
    {{11, 10, 0, 0}, {18, 18, 0, 0}, {15, 18, 0, 0}},
    {{7, 7, 7, 0}, {12, 12, 12, 0}, {6, 15, 12, 0}},
    {{6, 6, 6, 3}, {12, 9, 9, 6}, {6, 12, 9, 6}},
    {{8, 8, 5, 0}, {15, 12, 9, 0}, {6, 18, 9, 0}},
};

// The scale factors of one granule and channel. `isLimit` is the largest value a band's
// scale factor can take; for intensity stereo in MPEG-2 it marks an illegal position.
struct Scalefactors {
    int longSf[22] = {};
    int shortSf[13][3] = {};
    int longLimit[22] = {};
    int shortLimit[13][3] = {};
};

bool IsShort(LMP3GranuleInfo const& g) {
    return g.windowSwitching && g.blockType == 2;
}

// The number of long bands before the short ones in a mixed block, and the first short band.
constexpr int kMixedLongBandsMpeg1 = 8;
constexpr int kMixedLongBandsLsf = 6;
constexpr int kMixedFirstShort = 3;

void ReadScalefactorsMpeg1(unsigned char const* data, int& pos, LMP3GranuleInfo const& g,
                           int const* scfsi, int gr, Scalefactors& sf) {
    int const slen1 = kSlen[0][g.scalefacCompress];
    int const slen2 = kSlen[1][g.scalefacCompress];
    if (IsShort(g)) {
        int first = 0;
        if (g.mixedBlock) {
            for (int b = 0; b < kMixedLongBandsMpeg1; ++b) {
                sf.longSf[b] = Bits(data, pos, slen1);
                sf.longLimit[b] = (1 << slen1) - 1;
            }
            first = kMixedFirstShort;
        }
        for (int b = first; b < 12; ++b) {
            int const len = b < 6 ? slen1 : slen2;
            for (int w = 0; w < 3; ++w) {
                sf.shortSf[b][w] = Bits(data, pos, len);
                sf.shortLimit[b][w] = (1 << len) - 1;
            }
        }
        for (int w = 0; w < 3; ++w) {
            sf.shortSf[12][w] = 0;
        }
        return;
    }
    constexpr int kGroupStart[5] = {0, 6, 11, 16, 21};
    for (int group = 0; group < 4; ++group) {
        int const len = group < 2 ? slen1 : slen2;
        bool const keep = gr == 1 && scfsi[group] != 0;
        for (int b = kGroupStart[group]; b < kGroupStart[group + 1]; ++b) {
            if (!keep) {
                sf.longSf[b] = Bits(data, pos, len);
            }
            sf.longLimit[b] = (1 << len) - 1;
        }
    }
    sf.longSf[21] = 0;
}

// MPEG-2 and 2.5: `intensityRight` selects the slen tables of a right channel in intensity
// stereo. Returns the preflag the scale factor compression implies.
bool ReadScalefactorsLsf(unsigned char const* data, int& pos, LMP3GranuleInfo const& g,
                         bool intensityRight, Scalefactors& sf) {
    int slen[4] = {};
    int table = 0;
    bool preflag = false;
    int c = g.scalefacCompress;
    if (!intensityRight) {
        if (c < 400) {
            slen[0] = (c >> 4) / 5;
            slen[1] = (c >> 4) % 5;
            slen[2] = (c & 15) >> 2;
            slen[3] = c & 3;
        } else if (c < 500) {
            c -= 400;
            slen[0] = (c >> 2) / 5;
            slen[1] = (c >> 2) % 5;
            slen[2] = c & 3;
            table = 1;
        } else {
            c -= 500;
            slen[0] = c / 3;
            slen[1] = c % 3;
            table = 2;
            preflag = true;
        }
    } else {
        c >>= 1;
        if (c < 180) {
            slen[0] = c / 36;
            slen[1] = (c % 36) / 6;
            slen[2] = (c % 36) % 6;
            table = 3;
        } else if (c < 244) {
            c -= 180;
            slen[0] = (c % 64) >> 4;
            slen[1] = (c % 16) >> 2;
            slen[2] = c % 4;
            table = 4;
        } else {
            c -= 244;
            slen[0] = c / 3;
            slen[1] = c % 3;
            table = 5;
        }
    }
    int const kind = IsShort(g) ? (g.mixedBlock ? 2 : 1) : 0;
    // Walk the slots in bitstream order: long bands, then short bands by window.
    int longBand = 0;
    int shortBand = 0;
    int window = 0;
    int const longBands = kind == 0 ? 21 : kind == 2 ? kMixedLongBandsLsf : 0;
    if (kind == 2) {
        shortBand = kMixedFirstShort;
    }
    for (int group = 0; group < 4; ++group) {
        int const len = slen[group];
        for (int i = 0; i < kLsfBands[table][kind][group]; ++i) {
            int const v = Bits(data, pos, len);
            int const limit = (1 << len) - 1;
            if (longBand < longBands) {
                sf.longSf[longBand] = v;
                sf.longLimit[longBand] = limit;
                ++longBand;
            } else if (shortBand < 13) {
                sf.shortSf[shortBand][window] = v;
                sf.shortLimit[shortBand][window] = limit;
                if (++window == 3) {
                    window = 0;
                    ++shortBand;
                }
            }
        }
    }
    for (int b = longBand; b < 22; ++b) {
        sf.longSf[b] = 0;
        sf.longLimit[b] = 0;
    }
    for (int b = shortBand; b < 13; ++b) {
        for (int w = (b == shortBand ? window : 0); w < 3; ++w) {
            sf.shortSf[b][w] = 0;
            sf.shortLimit[b][w] = 0;
        }
    }
    return preflag;
}

// Reads one Huffman code from the top of `w` (which holds at least 57 valid bits), shifting it
// out and adding its length to `used`.
LLIB_SIMD_INLINE std::uint32_t DecodeCode(LMP3LookupTables::Huffman const& h, std::uint64_t& w,
                                          int& used) {
    int bits = h.rootBits;
    std::uint32_t e = h.lut[w >> (64 - bits)];
    while ((e & 0x80000000u) != 0) {
        used += bits;
        w <<= bits;
        bits = static_cast<int>((e >> 24) & 15);
        e = h.lut[(e & 0xFFFFFFu) + (w >> (64 - bits))];
    }
    int const length = static_cast<int>((e >> 16) & 31);
    used += length;
    w <<= length;
    return e;
}

// The requantised value of Huffman magnitude `v` with the sign bit on top of `w` (read only
// when `v` is nonzero; pow43[0] is 0).
LLIB_SIMD_INLINE float Requantised(LMP3LookupTables const& t, int v, float gain, std::uint64_t& w,
                                   int& used) {
    // Branch-free: whether a sign bit follows is as unpredictable as the data.
    int const nonzero = v != 0 ? 1 : 0;
    std::uint32_t const sign = static_cast<std::uint32_t>(w >> 63) << 31 & -nonzero;
    w <<= nonzero;
    used += nonzero;
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(t.pow43[v] * gain) ^ sign);
}

// Each line's gain, 2^(quarter steps / 4), in bitstream order (short bands window by window).
void FillGains(LMP3LookupTables const& t, int rateIndex, bool lsf, LMP3GranuleInfo const& g,
               Scalefactors const& sf, float* gains) {
    int const shift = g.scalefacScale ? 2 : 1;
    int const base = g.globalGain - 210 + 400;
    auto gainOf = [&](int quarterSteps) {
        int const i = std::clamp(base - quarterSteps, 0, 511);
        return t.pow2Quarter[i];
    };
    std::uint16_t const* longBands = t.sfbLong[rateIndex];
    std::uint16_t const* shortBands = t.sfbShort[rateIndex];
    int line = 0;
    int const longEnd =
        IsShort(g) ? (g.mixedBlock ? longBands[lsf ? kMixedLongBandsLsf : kMixedLongBandsMpeg1] : 0)
                   : 576;
    for (int b = 0; b < 22 && line < longEnd; ++b) {
        int const pre = g.preflag ? kPretab[b] : 0;
        int const stop = longBands[b + 1];
        std::fill(gains + line, gains + stop, gainOf(2 * shift * (sf.longSf[b] + pre)));
        line = stop;
    }
    if (IsShort(g)) {
        for (int b = g.mixedBlock ? kMixedFirstShort : 0; b < 13 && line < 576; ++b) {
            int const width = shortBands[b + 1] - shortBands[b];
            for (int w = 0; w < 3 && line < 576; ++w) {
                int const stop = std::min(line + width, 576);
                std::fill(gains + line, gains + stop,
                          gainOf(8 * g.subblockGain[w] + 2 * shift * sf.shortSf[b][w]));
                line = stop;
            }
        }
    }
    std::fill(gains + line, gains + 576, 0.0f);
}

// Huffman decoding and requantisation of one granule and channel into `xr` (all 576 lines);
// returns the index past the last nonzero line, or -1 when the data runs past `end` or uses a
// table the standard leaves unused. Each code with its linbits and signs is read from one 64-bit
// window: at most 19 + 2 * (13 + 1) bits, inside the 57 a window always holds.
int DecodeLines(LMP3LookupTables const& t, unsigned char const* data, int pos, int end,
                LMP3GranuleInfo const& g, float const* gains, float* xr) {
    int const bigEnd = g.bigValues * 2;
    int i = 0;
    for (int region = 0; region < 3; ++region) {
        int const regionEnd = std::min(bigEnd, region == 0   ? g.region1Start
                                               : region == 1 ? g.region2Start
                                                             : 576);
        if (i >= regionEnd) {
            continue;
        }
        int const n = g.tableSelect[region];
        LMP3LookupTables::Huffman const& h = t.pairs[n];
        if (n == 0) {
            std::fill(xr + i, xr + regionEnd, 0.0f);
            i = regionEnd;
            continue;
        }
        if (h.lut == nullptr) {
            return -1;
        }
        int const linbits = h.linbits;
        for (; i < regionEnd; i += 2) {
            std::uint64_t w = Window(data, pos);
            int used = 0;
            std::uint32_t const e = DecodeCode(h, w, used);
            int x = static_cast<int>((e >> 8) & 0xFF);
            int y = static_cast<int>(e & 0xFF);
            if (linbits != 0 && x == 15) {
                x += static_cast<int>(w >> (64 - linbits));
                w <<= linbits;
                used += linbits;
            }
            xr[i] = Requantised(t, x, gains[i], w, used);
            if (linbits != 0 && y == 15) {
                y += static_cast<int>(w >> (64 - linbits));
                w <<= linbits;
                used += linbits;
            }
            xr[i + 1] = Requantised(t, y, gains[i + 1], w, used);
            pos += used;
        }
        if (pos > end) {
            return -1;
        }
    }
    // The count1 region: quadruples of -1, 0, 1 until the granule's bits run out. A quadruple
    // that would end past them is not part of the data.
    while (i + 4 <= 576 && pos < end) {
        std::uint64_t w = Window(data, pos);
        int used = 0;
        int code = 0;
        if (g.count1TableB) {
            code = 15 - static_cast<int>(w >> 60);
            w <<= 4;
            used = 4;
        } else {
            code = static_cast<int>((DecodeCode(t.quadA, w, used) >> 8) & 0xFF);
        }
        float q[4];
        for (int k = 0; k < 4; ++k) {
            q[k] = Requantised(t, (code >> (3 - k)) & 1, gains[i + k], w, used);
        }
        if (pos + used > end) {
            break;
        }
        pos += used;
        std::memcpy(xr + i, q, sizeof q);
        i += 4;
    }
    std::fill(xr + i, xr + 576, 0.0f);
    while (i > 0 && xr[i - 1] == 0.0f) {
        --i;
    }
    return i;
}

} // namespace

// ---- Side information ----

bool LMP3ReadSideInfo(unsigned char const* data, LMP3FrameHeader const& header,
                      LMP3SideInfo& side) {
    LMP3LookupTables const& t = GetMp3LookUpTable();
    SideReader r;
    int const bytes = header.GetSideInfoBytes();
    std::memcpy(r.bytes, data, static_cast<std::size_t>(bytes));
    bool const lsf = header.version != LMP3FrameHeader::kMpeg1;
    int const channels = header.GetChannels();
    int const granules = lsf ? 1 : 2;
    side.mainDataBegin = r.Get(lsf ? 8 : 9);
    r.Get(lsf ? (channels == 1 ? 1 : 2) : (channels == 1 ? 5 : 3));
    if (!lsf) {
        for (int ch = 0; ch < channels; ++ch) {
            for (int& s : side.scfsi[ch]) {
                s = r.Get(1);
            }
        }
    }
    std::uint16_t const* longBands = t.sfbLong[header.sampleRateIndex];
    std::uint16_t const* shortBands = t.sfbShort[header.sampleRateIndex];
    for (int gr = 0; gr < granules; ++gr) {
        for (int ch = 0; ch < channels; ++ch) {
            LMP3GranuleInfo& g = side.granule[gr][ch];
            g.part23Length = r.Get(12);
            g.bigValues = r.Get(9);
            g.globalGain = r.Get(8);
            g.scalefacCompress = r.Get(lsf ? 9 : 4);
            g.windowSwitching = r.Get(1) != 0;
            if (g.bigValues > 288) {
                return false;
            }
            if (g.windowSwitching) {
                g.blockType = r.Get(2);
                g.mixedBlock = r.Get(1) != 0;
                g.tableSelect[0] = r.Get(5);
                g.tableSelect[1] = r.Get(5);
                g.tableSelect[2] = 0;
                for (int& s : g.subblockGain) {
                    s = r.Get(3);
                }
                if (g.blockType == 0) {
                    return false;
                }
                if (g.blockType == 2 && !g.mixedBlock) {
                    g.region1Start = 3 * shortBands[3];
                } else {
                    g.region1Start = longBands[8];
                }
                g.region2Start = 576;
            } else {
                g.blockType = 0;
                g.mixedBlock = false;
                for (int& s : g.tableSelect) {
                    s = r.Get(5);
                }
                g.subblockGain[0] = g.subblockGain[1] = g.subblockGain[2] = 0;
                int const region0 = r.Get(4);
                int const region1 = r.Get(3);
                g.region1Start = longBands[std::min(region0 + 1, 22)];
                g.region2Start = longBands[std::min(region0 + region1 + 2, 22)];
            }
            g.preflag = lsf ? false : r.Get(1) != 0;
            g.scalefacScale = r.Get(1) != 0;
            g.count1TableB = r.Get(1) != 0;
        }
    }
    return true;
}

// ---- Polyphase synthesis ----

namespace {

// X[n] = sum over k of in[k] cos(pi (2k + 1) n / 2N), by halving (even outputs from the sums,
// odd ones from the scaled differences). `c` holds 1 / (2 cos(pi (2k + 1) / 2N)) for this N
// followed by the smaller sizes' factors.
template <int N>
LLIB_SIMD_INLINE void Dct2(float const* in, float* out, float const* c) {
    if constexpr (N == 1) {
        out[0] = in[0];
    } else {
        constexpr int H = N / 2;
        float a[H];
        float b[H];
        for (int k = 0; k < H; ++k) {
            a[k] = in[k] + in[N - 1 - k];
            b[k] = (in[k] - in[N - 1 - k]) * c[k];
        }
        float ea[H];
        float eb[H];
        Dct2<H>(a, ea, c + H);
        Dct2<H>(b, eb, c + H);
        for (int m = 0; m < H - 1; ++m) {
            out[2 * m] = ea[m];
            out[2 * m + 1] = eb[m] + eb[m + 1];
        }
        out[N - 2] = ea[H - 1];
        out[N - 1] = eb[H - 1];
    }
}

} // namespace

void LMP3PolyphaseSynth::Reset() {
    std::memset(m_v, 0, sizeof m_v);
    m_slot = 0;
}

void LMP3PolyphaseSynth::MatrixMultiplyNoOpt(float const* in32, float* v64) {
    double const pi = 3.14159265358979323846;
    for (int i = 0; i < 64; ++i) {
        double sum = 0.0;
        for (int k = 0; k < 32; ++k) {
            sum += std::cos((16 + i) * (2 * k + 1) * pi / 64) * in32[k];
        }
        v64[i] = static_cast<float>(sum);
    }
}

namespace {

LLIB_SIMD_CLONES
void SynthesiseSlots(float (*ring)[64], int& slot, float const* window, float const* dctCos,
                     float const* in, int slots, float* out) {
    for (int s = 0; s < slots; ++s) {
        float x[32];
        Dct2<32>(in + 32 * s, x, dctCos);
        slot = (slot - 1) & 15;
        float* v = ring[slot];
        // The matrixed vector from the cosine transform: V[i] = X[16 + i] for i < 16, 0 at 16,
        // -X[48 - i] up to 47, -X[0] at 48 and -X[i - 48] above.
        for (int j = 0; j < 16; ++j) {
            v[j] = x[16 + j];
            v[32 + j] = -x[16 - j];
        }
        v[16] = 0.0f;
        v[48] = -x[0];
        for (int j = 17; j < 32; ++j) {
            v[j] = -x[48 - j];
            v[32 + j] = -x[j - 16];
        }
        float acc[32] = {};
        for (int i = 0; i < 8; ++i) {
            float const* a = ring[(slot + 2 * i) & 15];
            float const* b = ring[(slot + 2 * i + 1) & 15] + 32;
            float const* da = window + 64 * i;
            float const* db = da + 32;
            for (int j = 0; j < 32; ++j) {
                acc[j] += a[j] * da[j] + b[j] * db[j];
            }
        }
        std::memcpy(out + 32 * s, acc, sizeof acc);
    }
}

} // namespace

void LMP3PolyphaseSynth::Synthesise(float const* in, int slots, float* out) {
    LMP3LookupTables const& t = GetMp3LookUpTable();
    SynthesiseSlots(m_v, m_slot, t.synthWindow, t.dctCos, in, slots, out);
}

// ---- The frame decoder ----

LMP3FrameDecoder::LMP3FrameDecoder() {
    LMP3LookupTables::InitTables();
}

void LMP3FrameDecoder::Reset() {
    m_reservoirBytes = 0;
    std::memset(m_overlap, 0, sizeof m_overlap);
    std::memset(m_scalefactors, 0, sizeof m_scalefactors);
    m_synth[0].Reset();
    m_synth[1].Reset();
}

int LMP3FrameDecoder::GetMainDataBytes(int bytes, LMP3FrameHeader const& header) {
    return bytes - 4 - (header.crc ? 2 : 0) - header.GetSideInfoBytes();
}

bool LMP3FrameDecoder::FeedReservoir(unsigned char const* frame, int bytes,
                                     LMP3FrameHeader const& header) {
    int const mainBytes = GetMainDataBytes(bytes, header);
    if (mainBytes < 0) {
        return false;
    }
    unsigned char const* main = frame + (bytes - mainBytes);
    if (mainBytes >= kReservoirBytes) {
        std::memcpy(m_reservoir, main + (mainBytes - kReservoirBytes), kReservoirBytes);
        m_reservoirBytes = kReservoirBytes;
        return true;
    }
    int const keep = std::min(m_reservoirBytes, kReservoirBytes - mainBytes);
    std::memmove(m_reservoir, m_reservoir + (m_reservoirBytes - keep),
                 static_cast<std::size_t>(keep));
    std::memcpy(m_reservoir + keep, main, static_cast<std::size_t>(mainBytes));
    m_reservoirBytes = keep + mainBytes;
    return true;
}

void LMP3FrameDecoder::Silence(LMP3FrameHeader const& header, float* out) {
    std::size_t const n = static_cast<std::size_t>(header.GetFrameSamples()) * header.GetChannels();
    std::fill(out, out + n, 0.0f);
    std::memset(m_overlap, 0, sizeof m_overlap);
    m_synth[0].Reset();
    m_synth[1].Reset();
}

bool LMP3FrameDecoder::DecodeFrame(unsigned char const* frame, int bytes,
                                   LMP3FrameHeader const& header, float* out) {
    int const mainBytes = GetMainDataBytes(bytes, header);
    if (mainBytes < 0 || header.layer != 3) {
        Silence(header, out);
        return false;
    }
    LMP3SideInfo side;
    bool ok = LMP3ReadSideInfo(frame + 4 + (header.crc ? 2 : 0), header, side);
    ok = ok && side.mainDataBegin <= m_reservoirBytes;
    if (ok) {
        // This frame's main data: the reservoir's last main_data_begin bytes, then its own.
        int const begin = side.mainDataBegin;
        std::memcpy(m_main, m_reservoir + (m_reservoirBytes - begin),
                    static_cast<std::size_t>(begin));
        std::memcpy(m_main + begin, frame + (bytes - mainBytes),
                    static_cast<std::size_t>(mainBytes));
        std::memset(m_main + begin + mainBytes, 0, 16);
        int const total = begin + mainBytes;
        int bitPos = 0;
        int const granules = header.version == LMP3FrameHeader::kMpeg1 ? 2 : 1;
        int const channels = header.GetChannels();
        if (channels == 1) {
            // A stream that turns mono for a while must not bring back the second channel's old
            // filter state when it turns stereo again: a decode after a seek would not have it.
            std::memset(m_overlap[1], 0, sizeof m_overlap[1]);
            m_synth[1].Reset();
        }
        int const slotSamples = 576 * channels;
        for (int gr = 0; ok && gr < granules; ++gr) {
            ok = DecodeGranule(header, side, gr, m_main, total, bitPos, out + gr * slotSamples);
        }
    }
    (void)FeedReservoir(frame, bytes, header);
    if (!ok) {
        Silence(header, out);
    }
    return ok;
}

struct LMP3FrameDecoder::Channel {
    Scalefactors sf;
    int count = 0;
};

namespace {

// Stereo processing in bitstream order: mid/side and intensity, band by band.
void ApplyStereo(LMP3LookupTables const& t, LMP3FrameHeader const& header, LMP3GranuleInfo const& g,
                 Scalefactors const& right, float* l, float* r, int* counts) {
    bool const ms = header.mode == LMP3FrameHeader::kJointStereo && (header.modeExtension & 2);
    bool const is = header.mode == LMP3FrameHeader::kJointStereo && (header.modeExtension & 1);
    bool const lsf = header.version != LMP3FrameHeader::kMpeg1;
    int const rate = header.sampleRateIndex;
    float const invSqrt2 = 0.70710678118654752f;
    auto midSide = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            float const m = l[i];
            float const s = r[i];
            l[i] = (m + s) * invSqrt2;
            r[i] = (m - s) * invSqrt2;
        }
    };
    int const bound = std::max(counts[0], counts[1]);
    if (!is) {
        if (ms) {
            midSide(0, bound);
            counts[0] = counts[1] = bound;
        }
        return;
    }
    // Intensity: a band is coded so when it lies above the right channel's last nonzero line
    // (per window for short blocks) and its position is legal.
    int const intensityScale = g.scalefacCompress & 1;
    auto intensity = [&](int from, int to, int pos, int limit) -> bool {
        if (lsf ? pos == limit : pos >= 7) {
            return false;
        }
        float kl = 0.0f;
        float kr = 0.0f;
        if (lsf) {
            kl = t.lsfIntensity[intensityScale][pos][0];
            kr = t.lsfIntensity[intensityScale][pos][1];
        } else {
            kl = t.isRatio[pos][0];
            kr = t.isRatio[pos][1];
        }
        for (int i = from; i < to; ++i) {
            float const v = l[i];
            l[i] = v * kl;
            r[i] = v * kr;
        }
        return true;
    };
    auto plain = [&](int from, int to) {
        if (ms) {
            midSide(from, to);
        }
    };
    std::uint16_t const* longBands = t.sfbLong[rate];
    std::uint16_t const* shortBands = t.sfbShort[rate];
    int const rightCount = counts[1];
    if (!IsShort(g)) {
        int firstIs = 0;
        while (firstIs < 22 && longBands[firstIs] < rightCount) {
            ++firstIs;
        }
        if (firstIs > 0 && longBands[firstIs] > rightCount && firstIs < 22) {
            // the band holding the last nonzero line is not intensity coded
        }
        for (int b = 0; b < 22; ++b) {
            int const from = longBands[b];
            int const to = longBands[b + 1];
            int const sb = b == 21 ? 20 : b;
            if (b < firstIs || from >= 576 ||
                !intensity(from, to, right.longSf[sb], right.longLimit[sb])) {
                plain(from, to);
            }
        }
        counts[0] = counts[1] = 576;
        return;
    }
    // Short (and mixed) blocks: find, per window, the last short band with a nonzero right line.
    int const firstShort = g.mixedBlock ? kMixedFirstShort : 0;
    int const longLines =
        g.mixedBlock ? longBands[lsf ? kMixedLongBandsLsf : kMixedLongBandsMpeg1] : 0;
    int lastNonzero[3] = {-1, -1, -1};
    bool shortNonzero = false;
    int line = longLines;
    for (int b = firstShort; b < 13; ++b) {
        int const width = shortBands[b + 1] - shortBands[b];
        for (int w = 0; w < 3; ++w) {
            for (int i = 0; i < width; ++i) {
                if (r[line + i] != 0.0f) {
                    lastNonzero[w] = b;
                    shortNonzero = true;
                }
            }
            line += width;
        }
    }
    if (g.mixedBlock) {
        int firstIs = 0;
        while (firstIs < 22 && longBands[firstIs] < std::min(rightCount, longLines)) {
            ++firstIs;
        }
        int const longBandCount = lsf ? kMixedLongBandsLsf : kMixedLongBandsMpeg1;
        for (int b = 0; b < longBandCount; ++b) {
            int const from = longBands[b];
            int const to = longBands[b + 1];
            if (shortNonzero || b < firstIs ||
                !intensity(from, to, right.longSf[b], right.longLimit[b])) {
                plain(from, to);
            }
        }
    }
    line = longLines;
    for (int b = firstShort; b < 13; ++b) {
        int const width = shortBands[b + 1] - shortBands[b];
        for (int w = 0; w < 3; ++w) {
            int const sb = b == 12 ? 11 : b;
            if (b <= lastNonzero[w] ||
                !intensity(line, line + width, right.shortSf[sb][w], right.shortLimit[sb][w])) {
                plain(line, line + width);
            }
            line += width;
        }
    }
    counts[0] = counts[1] = 576;
}

// The long-block path works on a granule transposed to [line in subband][subband], so that every
// step runs across subbands with whole vectors. `width` (a multiple of 8) bounds the subbands
// holding anything; the rest of `tx` is not read.
using Transposed = float[18][32];

LLIB_SIMD_INLINE void Transpose(float const* xr, int width, Transposed& tx) {
    for (int sb = 0; sb < width; ++sb) {
        for (int k = 0; k < 18; ++k) {
            tx[k][sb] = xr[18 * sb + k];
        }
    }
}

// Alias reduction between neighbouring subbands below `width`: line 17 - i of one with line i of
// the next.
LLIB_SIMD_CLONES
void ReduceAliases(LMP3LookupTables const& t, Transposed& tx, int width) {
    for (int i = 0; i < 8; ++i) {
        float const cs = t.aliasCs[i];
        float const ca = t.aliasCa[i];
        float* lo = tx[17 - i];
        float* hi = tx[i];
        // Subband pairs (sb - 1, sb) for sb from 1; the last block's extra pair reads zeros.
        for (int base = 0; base < width; base += 8) {
            float a[8];
            float b[8];
            for (int j = 0; j < 8; ++j) {
                a[j] = lo[base + j];
                b[j] = base + j + 1 < 32 ? hi[base + j + 1] : 0.0f;
            }
            for (int j = 0; j < 8; ++j) {
                if (base + j + 1 < width) {
                    lo[base + j] = a[j] * cs - b[j] * ca;
                    hi[base + j + 1] = b[j] * cs + a[j] * ca;
                }
            }
        }
    }
}

// Long-block IMDCT of the transposed subbands [0, width) with the window of `blockType`,
// overlap-added into `out` and `overlap` (both time slot-major, 32 subbands per slot). Subbands
// from `count` up are left to the caller.
LLIB_SIMD_CLONES
void ImdctLong(LMP3LookupTables const& t, Transposed const& tx, int count, int width, int blockType,
               float* overlap, float* out) {
    // The 36-point IMDCT of 18 lines is an 18-point DCT-IV whose outputs are mirrored.
    alignas(64) float c[18][32];
    // Four subbands per vector: wider types would be emulated through memory where registers
    // are narrower, and the transform is a small part of the decoding once it runs in vectors.
    for (int base = 0; base < width; base += 8) {
        for (int m = 0; m < 18; ++m) {
            float const* row = t.imdct18[m];
            LMP3Vec4 lo;
            LMP3Vec4 hi;
            LMP3Load4(lo, tx[0] + base);
            LMP3Load4(hi, tx[0] + base + 4);
            lo *= row[0];
            hi *= row[0];
            for (int k = 1; k < 18; ++k) {
                LMP3Vec4 a;
                LMP3Vec4 b;
                LMP3Load4(a, tx[k] + base);
                LMP3Load4(b, tx[k] + base + 4);
                lo += a * row[k];
                hi += b * row[k];
            }
            LMP3Store4(c[m] + base, lo);
            LMP3Store4(c[m] + base + 4, hi);
        }
    }
    float const* w = t.longWindow[blockType];
    for (int i = 0; i < 18; ++i) {
        // Time sample i of the first half is output i + 9 of the transform, mirrored and negated
        // past 9; the second half, kept for the next granule, likewise from outputs 8 down to 0.
        float const* first = i < 9 ? c[i + 9] : c[26 - i];
        float const* second = i < 9 ? c[8 - i] : c[i - 9];
        float const sign = i < 9 ? 1.0f : -1.0f;
        float const w1 = sign * w[i];
        float const w2 = -w[18 + i];
        float* o = out + 32 * i;
        float* ov = overlap + 32 * i;
        for (int sb = 0; sb < count; ++sb) {
            o[sb] = first[sb] * w1 + ov[sb];
            ov[sb] = second[sb] * w2;
        }
    }
}

// Short-block IMDCT of one subband: three 12-point transforms of 6 lines each (`x` holds them
// window by window), overlapped at 6, 12 and 18.
void ImdctShort(LMP3LookupTables const& t, float const* x, float* overlap, float* out, int sb) {
    float z[36] = {};
    for (int w = 0; w < 3; ++w) {
        float const* xw = x + 6 * w;
        for (int i = 0; i < 12; ++i) {
            float y = 0.0f;
            for (int k = 0; k < 6; ++k) {
                y += t.imdct6[i][k] * xw[k];
            }
            z[6 + 6 * w + i] += y * t.shortWindow[i];
        }
    }
    for (int i = 0; i < 18; ++i) {
        out[32 * i + sb] = z[i] + overlap[32 * i + sb];
        overlap[32 * i + sb] = z[18 + i];
    }
}

} // namespace

bool LMP3FrameDecoder::DecodeGranule(LMP3FrameHeader const& header, LMP3SideInfo const& side,
                                     int gr, unsigned char const* main, int mainBytes, int& bitPos,
                                     float* out) {
    LMP3LookupTables const& t = GetMp3LookUpTable();
    bool const lsf = header.version != LMP3FrameHeader::kMpeg1;
    int const channels = header.GetChannels();
    int const rate = header.sampleRateIndex;
    int const totalBits = mainBytes * 8;
    Channel ch[2];
    for (int c = 0; c < channels; ++c) {
        LMP3GranuleInfo g = side.granule[gr][c];
        int const start = bitPos;
        int const end = start + g.part23Length;
        if (end > totalBits) {
            return false;
        }
        int pos = start;
        Scalefactors& sf = ch[c].sf;
        if (lsf) {
            bool const intensityRight = c == 1 && header.mode == LMP3FrameHeader::kJointStereo &&
                                        (header.modeExtension & 1) != 0;
            g.preflag = ReadScalefactorsLsf(main, pos, g, intensityRight, sf);
        } else {
            // Long scale factors a later granule may reuse (scfsi) live in m_scalefactors.
            std::memcpy(sf.longSf, m_scalefactors[c], sizeof sf.longSf);
            ReadScalefactorsMpeg1(main, pos, g, side.scfsi[c], gr, sf);
            std::memcpy(m_scalefactors[c], sf.longSf, sizeof sf.longSf);
        }
        if (pos > end) {
            return false;
        }
        alignas(64) float gains[576];
        FillGains(t, rate, lsf, g, sf, gains);
        int const count = DecodeLines(t, main, pos, end, g, gains, m_xr[c]);
        if (count < 0) {
            return false;
        }
        ch[c].count = count;
        bitPos = end;
    }
    int counts[2] = {ch[0].count, ch[1].count};
    if (channels == 2) {
        LMP3GranuleInfo const& g1 = side.granule[gr][1];
        ApplyStereo(t, header, g1, ch[1].sf, m_xr[0], m_xr[1], counts);
    }
    std::uint16_t const* shortBands = t.sfbShort[rate];
    std::uint16_t const* longBands = t.sfbLong[rate];
    for (int c = 0; c < channels; ++c) {
        LMP3GranuleInfo const& g = side.granule[gr][c];
        float* xr = m_xr[c];
        float* sub = m_subband[c];
        float* overlap = m_overlap[c];
        int const count = counts[c];
        int longCount = 0; // subbands transformed with long windows
        int used = 0;      // subbands holding anything
        int longLines = 0; // lines coded in long scale factor bands
        if (!IsShort(g)) {
            used = std::min(32, (count + 17) / 18 + 1);
            longCount = used;
        } else {
            // A mixed block transforms its two lowest subbands with long windows whatever the
            // rate; its long scale factor bands reach further at 8 kHz (72 lines).
            longLines =
                g.mixedBlock ? longBands[lsf ? kMixedLongBandsLsf : kMixedLongBandsMpeg1] : 0;
            longCount = g.mixedBlock ? 2 : 0;
            // Short lines are stored band by band and window by window, so their count bounds
            // no frequency: a short granule with anything in it is transformed whole.
            used = count > 0 ? 32 : longCount;
        }
        if (longCount > 0) {
            alignas(64) Transposed tx;
            int const width = (longCount + 7) & ~7;
            Transpose(xr, width, tx);
            ReduceAliases(t, tx, longCount);
            ImdctLong(t, tx, longCount, width, IsShort(g) ? 0 : g.blockType, overlap, sub);
        }
        if (IsShort(g)) {
            // Regroup short lines from band/window order to subband/window order. Lines of long
            // bands above the long subbands are not reordered: they lie in subband order with
            // the three windows interleaved.
            alignas(64) float regrouped[576] = {};
            for (int f = longCount * 18; f < longLines; ++f) {
                int const p = f % 18;
                regrouped[f - p + 6 * (p % 3) + p / 3] = xr[f];
            }
            int line = longLines;
            for (int b = g.mixedBlock ? kMixedFirstShort : 0; b < 13; ++b) {
                int const width = shortBands[b + 1] - shortBands[b];
                for (int w = 0; w < 3; ++w) {
                    for (int i = 0; i < width; ++i) {
                        int const f = shortBands[b] + i;
                        int const target = 18 * (f / 6) + 6 * w + f % 6;
                        if (line < 576 && target < 576) {
                            regrouped[target] = xr[line];
                        }
                        ++line;
                    }
                }
            }
            for (int sb = longCount; sb < used; ++sb) {
                ImdctShort(t, regrouped + 18 * sb, overlap, sub, sb);
            }
        }
        // Subbands above `used` carry only the previous granule's overlap.
        for (int i = 0; i < 18; ++i) {
            float* o = sub + 32 * i;
            float* ov = overlap + 32 * i;
            for (int sb = used; sb < 32; ++sb) {
                o[sb] = ov[sb];
                ov[sb] = 0.0f;
            }
        }
        // Frequency inversion: odd subbands, odd time slots.
        for (int i = 1; i < 18; i += 2) {
            for (int sb = 1; sb < 32; sb += 2) {
                sub[32 * i + sb] = -sub[32 * i + sb];
            }
        }
        m_synth[c].Synthesise(sub, 18, channels == 1 ? out : m_pcm[c]);
    }
    if (channels == 2) {
        for (int i = 0; i < 576; ++i) {
            out[2 * i] = m_pcm[0][i];
            out[2 * i + 1] = m_pcm[1][i];
        }
    }
    return true;
}

} // namespace llib::detail
