// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The FLAC codec's working parts, shared by the source, the sink, their tests and benchmarks:
// the bit reader and writer, frame headers, subframe decoding and the encoder's analysis. Pure
// functions over caller buffers; nothing here touches files.

#include "llib/snd/flacformat.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace llib::detail {

// Bytes that must follow the last byte a bit reader is given, readable and zero: the reader loads
// eight bytes at a time and never checks the end inside a frame, only after it.
inline constexpr std::size_t kLFLACReadPadding = 8;

// Tops a bit cache holding `count` bits (fewer than 57) up to 56 or more from the eight bytes at
// `next`, moving `next` past the whole bytes taken. The word's remaining bits land below the
// count: the next refill loads the same bits there again.
inline void LFLACRefillWord(std::uint64_t& cache, int& count, unsigned char const*& next) {
    std::uint64_t v;
    std::memcpy(&v, next, 8);
    if constexpr (std::endian::native == std::endian::little) {
        v = __builtin_bswap64(v);
    }
    cache |= v >> count;
    next += (63 - count) >> 3;
    count |= 56;
}

// Reads a byte range most significant bit first. Reading past the end yields zero bits and is
// reported by IsOverrun, so a frame decoder checks once at the end rather than at every field.
class LFLACBitReader {
public:
    LFLACBitReader(unsigned char const* data, std::size_t bytes)
        : m_begin(data), m_next(data), m_end(data + bytes) {
        Refill();
    }

    // 0 to 32 bits.
    std::uint32_t Read(int bits) {
        if (bits == 0) {
            return 0;
        }
        Refill();
        auto const v = static_cast<std::uint32_t>(m_cache >> (64 - bits));
        m_cache <<= bits;
        m_count -= bits;
        return v;
    }
    // 1 to 33 bits as a two's complement value.
    std::int64_t ReadSigned(int bits) {
        std::uint64_t v = 0;
        if (bits > 32) {
            v = static_cast<std::uint64_t>(Read(bits - 32)) << 32;
            v |= Read(32);
        } else {
            v = Read(bits);
        }
        unsigned const unused = 64u - static_cast<unsigned>(bits);
        return static_cast<std::int64_t>(v << unused) >> unused;
    }
    // The number of zero bits before the next one bit, which is consumed; stops counting (and
    // marks the reader bad) past `limit`.
    std::uint32_t ReadUnary(std::uint32_t limit) {
        std::uint64_t zeros = 0;
        Refill();
        // The cache may already hold bits of the bytes after m_next beyond its count (a refill
        // loads whole words), so a one bit only counts within the count.
        while (m_cache == 0 || std::countl_zero(m_cache) >= m_count) {
            // Past the end, or a run longer than any code may be: the data is damaged. The
            // limit is checked before adding, so the count cannot wrap around.
            if (m_bad || zeros + static_cast<std::uint64_t>(m_count) > limit) {
                m_bad = true;
                return limit;
            }
            zeros += static_cast<std::uint64_t>(m_count);
            m_cache = 0;
            m_count = 0;
            if (m_next >= m_end + kLFLACReadPadding) {
                m_bad = true;
                return limit;
            }
            Refill();
        }
        int const lead = std::countl_zero(m_cache);
        zeros += static_cast<std::uint64_t>(lead);
        m_cache <<= lead + 1;
        m_count -= lead + 1;
        if (zeros > limit) {
            m_bad = true;
            return limit;
        }
        return static_cast<std::uint32_t>(zeros);
    }
    // `count` Rice codes with parameter `k` (0 to 30) as signed residuals. A code whose value
    // does not fit 32 bits marks the reader bad.
    void ReadRice(std::int32_t* out, int count, int k);
    void AlignToByte() {
        int const drop = m_count & 7;
        m_cache <<= drop;
        m_count -= drop;
    }
    // Bits consumed so far.
    [[nodiscard]] std::uint64_t GetBitPosition() const {
        return static_cast<std::uint64_t>(m_next - m_begin) * 8 - static_cast<unsigned>(m_count);
    }
    // True when more bits were taken than the range holds, or a code was malformed.
    [[nodiscard]] bool IsOverrun() const {
        return m_bad || GetBitPosition() > static_cast<std::uint64_t>(m_end - m_begin) * 8;
    }
    void SetBad() { m_bad = true; }

private:
    // Tops the cache up to at least 57 bits. The load may reach into the padding, never beyond
    // it: once the range is used up the cache is filled with zero bits without moving on.
    void Refill() {
        if (m_count >= 57) {
            return;
        }
        if (m_next < m_end) {
            LFLACRefillWord(m_cache, m_count, m_next);
        } else {
            // Zero bits past the end: account for them as consumed from the padding.
            int const add = (63 - m_count) >> 3;
            if (m_next + add <= m_end + kLFLACReadPadding) {
                m_next += add;
                m_count += add * 8;
            } else {
                m_bad = true;
                m_count = 64;
            }
        }
    }

    unsigned char const* m_begin;
    unsigned char const* m_next;
    unsigned char const* m_end;
    std::uint64_t m_cache = 0; // unread bits, most significant first (and maybe some beyond)
    int m_count = 0;           // how many bits of m_cache are unread
    bool m_bad = false;
};

// Writes bits most significant first into a buffer the caller sized for the largest frame.
class LFLACBitWriter {
public:
    explicit LFLACBitWriter(unsigned char* out) : m_out(out), m_next(out) {}

    // 0 to 32 bits of `value` (the low ones).
    void Write(std::uint32_t value, int bits) {
        if (bits == 0) {
            return;
        }
        std::uint64_t const v = bits == 32 ? value : value & ((std::uint32_t{1} << bits) - 1);
        if (m_count + bits > 64) {
            Spill();
        }
        m_cache |= v << (64 - m_count - bits);
        m_count += bits;
    }
    void WriteSigned(std::int64_t value, int bits) {
        if (bits > 32) {
            Write(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value) >> 32), bits - 32);
            Write(static_cast<std::uint32_t>(value), 32);
        } else {
            Write(static_cast<std::uint32_t>(value), bits);
        }
    }
    void WriteZeros(std::uint32_t count) {
        while (count > 32) {
            Write(0, 32);
            count -= 32;
        }
        Write(0, static_cast<int>(count));
    }
    // `count` residuals as Rice codes with parameter `k`.
    void WriteRice(std::int32_t const* values, int count, int k);
    // Pads with zero bits to the next byte and writes out what the cache holds.
    void AlignAndFlush() {
        m_count = (m_count + 7) & ~7;
        while (m_count > 0) {
            *m_next++ = static_cast<unsigned char>(m_cache >> 56);
            m_cache <<= 8;
            m_count -= 8;
        }
        m_cache = 0;
        m_count = 0;
    }
    [[nodiscard]] std::uint64_t GetBitPosition() const {
        return static_cast<std::uint64_t>(m_next - m_out) * 8 + static_cast<unsigned>(m_count);
    }
    // Goes back to an earlier bit position (discarding what followed it). The buffer needs
    // eight bytes of slack past the furthest position written.
    void Rewind(std::uint64_t bitPosition);
    [[nodiscard]] unsigned char* GetStart() const { return m_out; }

private:
    void Spill() {
        int const whole = m_count & ~7;
        std::uint64_t v = m_cache;
        if constexpr (std::endian::native == std::endian::little) {
            v = __builtin_bswap64(v);
        }
        std::memcpy(m_next, &v, 8);
        m_next += whole / 8;
        m_cache = whole == 64 ? 0 : m_cache << whole;
        m_count -= whole;
    }

    unsigned char* m_out;
    unsigned char* m_next;
    std::uint64_t m_cache = 0;
    int m_count = 0;
};

enum class LFLACChannelAssignment : std::uint8_t {
    kIndependent = 0,
    kLeftSide = 8,
    kRightSide = 9,
    kMidSide = 10,
};

// A frame header as decoded. The fields 0 from STREAMINFO are already filled in.
struct LFLACFrameHeader {
    bool variableBlocking = false;
    int blockFrames = 0;
    int rateHz = 0;
    int channels = 0;
    LFLACChannelAssignment assignment = LFLACChannelAssignment::kIndependent;
    int bitsPerSample = 0;
    std::uint64_t number = 0; // the frame number, or the first sample's number when variable
    int headerBytes = 0;      // including the CRC-8
};

// True when `data` (at most `bytes`, which need not cover the whole frame) starts with a frame
// header whose sync, codes and CRC-8 are valid. Codes that refer to STREAMINFO take its values.
[[nodiscard]] bool LFLACParseFrameHeader(unsigned char const* data, std::size_t bytes,
                                         LFLACMetaDataBlockStreamInfo const& info,
                                         LFLACFrameHeader& header);
// The header bytes for `header` into `out` (16 at most), CRC-8 included; returns their count.
[[nodiscard]] int LFLACWriteFrameHeader(LFLACFrameHeader const& header,
                                        LFLACMetaDataBlockStreamInfo const& info,
                                        unsigned char* out);

// Decodes one subframe of `frames` samples of `bits` bits (the side channel's extra bit
// included) into `out`. S is int32_t for streams of up to 24 bits and int64_t for deeper ones,
// so that side channels and predictions never overflow. `residual` is scratch of `frames`
// entries. False for a reserved type or an impossible field; the reader says if data ran out.
template <class S>
[[nodiscard]] bool LFLACDecodeSubFrame(LFLACBitReader& reader, S* out, std::int32_t* residual,
                                       int frames, int bits);

// Undoes the stereo decorrelation of two decoded channels in place.
template <class S>
void LFLACUndoStereo(LFLACChannelAssignment assignment, S* a, S* b, int frames);

// Adds the prediction to the residual, in place: out[i] += (sum of coefs[j] * out[i-1-j]) >>
// shift for i from `order` on. Orders 3 to 12 have loops of their own, unrolled by the compiler.
// The 32-bit variant wraps rather than overflows on streams that break its range.
void LFLACRestoreLPC(std::int32_t* out, int frames, std::int32_t const* coefs, int order,
                     int shift);
void LFLACRestoreLPCWide(std::int32_t* out, int frames, std::int32_t const* coefs, int order,
                         int shift);
void LFLACRestoreLPCWide(std::int64_t* out, int frames, std::int32_t const* coefs, int order,
                         int shift);

// ---- encoding ----

// The energy rule of the stereo decision for a block of interleaved pairs: true when a side
// channel (left minus right) should be coded. Independent channels are kept when any difference
// exceeds 2^bits, or when the side's energy is larger than the right channel's.
[[nodiscard]] bool LFLACChooseSideChannel(std::int32_t const* interleaved, int frames, int bits);

// True when no left minus right difference of the block exceeds 2^bits in magnitude.
[[nodiscard]] bool LFLACSideFits(std::int32_t const* interleaved, int frames, int bits);

// The channel assignment that should code a block smallest (left/side, right/side, mid/side,
// and independent channels when `allowIndependent`), from the estimated cost of each pair: the
// magnitude of each candidate channel's second difference.
[[nodiscard]] LFLACChannelAssignment LFLACChooseSideAssignment(std::int32_t const* interleaved,
                                                               int frames, bool allowIndependent);

// Quantises predictor coefficients (the error filter's, so the prediction is minus their sum of
// products): the shift is the largest of at most 13 for which the largest magnitude times 2^shift
// stays below 8192, and each is stored as -c * 2^shift truncated toward zero. False when not even
// a shift of 0 keeps them in range.
[[nodiscard]] bool LFLACQuantizeCoefficients(double const* coefs, int order, std::int32_t* out,
                                             int& shift);

// The Tukey window with half of the block tapered (a cosine rise over the first quarter and a
// fall over the last).
void LLPC_Tukey(float* window, int frames);

// The autocorrelation of `data` at lags 0 to `maxLag`, in double precision.
void LFLACAutocorrelation(float const* data, int frames, int maxLag, double* out);

// The error filter of order `order` from the autocorrelation (Levinson-Durbin): coefs[j] for
// lags 1 to order. False when the signal has no energy or the recursion breaks down.
[[nodiscard]] bool LFLACLevinson(double const* autoc, int order, double* coefs);

// residual[i] = x[i] - ((sum of coefs[j] * x[i-1-j]) >> shift) for i from `order` on. Returns
// false when a residual does not fit 32 bits (the caller then codes the block verbatim).
[[nodiscard]] bool LFLACComputeResidual(std::int32_t const* x, int frames,
                                        std::int32_t const* coefs, int order, int shift,
                                        std::int32_t* residual);

// The best fixed predictor (orders 0 to 4) of `x` by the magnitude of its differences, its
// residual into residual[order..frames); -1 when that residual does not fit 32 bits.
[[nodiscard]] int LFLACFixedResidual(std::int32_t const* x, int frames, std::int32_t* residual);

// The Rice coding of a residual: one parameter per partition, 2^order partitions.
struct LFLACRicePlan {
    int order = 0;
    int parameters[256] = {};
    std::uint64_t bits = 0; // of the partitions' parameters and codes, excluding the 6-bit header
    bool wide = false;      // a parameter above 14 needs the 5-bit parameter coding
};

// Plans the coding of `residual` (`frames` entries of which the first `predictorOrder` are not
// coded) with partition orders 0 to `maxOrder`, the smallest plan winning. `refine` counts each
// partition's exact cost at the next parameter too. `bits` is UINT64_MAX when some value would
// need a code longer than 32 bits at every parameter (the block is then stored verbatim).
void LFLACPlanRice(std::int32_t const* residual, int frames, int predictorOrder, int maxOrder,
                   bool refine, LFLACRicePlan& plan);

// The smallest Rice parameter for which no code of `maxValue` (a folded residual) is longer than
// 32 bits, and the parameter the mean folded value suggests, whichever is larger.
[[nodiscard]] int LFLACCalculateRiceParameter(std::uint64_t sum, std::uint32_t maxValue, int count);

// One frame being encoded, with the work arrays of the analysis sized once per stream. Frames
// are independent, so several of these may encode on several threads.
class LFLACFrame {
public:
    static constexpr int kLPCOrder = 8;

    LFLACFrame(int channels, int bits, int compression);
    // The largest frame of `frames` samples per channel, in bytes.
    [[nodiscard]] static std::size_t GetBound(int channels, int frames);
    // Encodes `frames` interleaved samples (at most kLFLACMaxBlockFrames) as frame `number` of
    // a fixed-blocking stream into `out` (GetBound bytes); returns the bytes written.
    std::size_t WriteFrame(std::int32_t const* interleaved, int frames, std::uint64_t number,
                           LFLACMetaDataBlockStreamInfo const& info, unsigned char* out);

private:
    void WriteSubFrame(LFLACBitWriter& writer, std::int32_t const* x, int frames, int bits);
    // The order-8 predictor of `x`; false when no usable one exists (silence, or coefficients
    // out of range).
    [[nodiscard]] bool Analyse(std::int32_t const* x, int frames, std::int32_t* coefs, int& shift);

    int m_channels;
    int m_bits;
    int m_maxPartitionOrder;
    bool m_refine;
    // How two channels are decorrelated: the energy rule with left/side only, the energy rule
    // with the cheapest side assignment, or the cheapest of all four by estimate.
    enum class Stereo : std::uint8_t { kEnergyLeftSide = 0, kEnergySides = 1, kEstimateAll = 2 };
    Stereo m_stereo;
    bool m_tryFixed;                     // also try the fixed predictors of orders 0 to 4
    std::vector<std::int32_t> m_channel; // one channel de-interleaved
    std::vector<std::int32_t> m_shifted; // the channel with its wasted bits removed
    std::vector<std::int32_t> m_residual;
    std::vector<std::int32_t> m_fixedResidual;
    std::vector<float> m_windowed;
    std::vector<float> m_window;
    int m_windowFrames = 0; // the block size m_window was made for
};

} // namespace llib::detail
