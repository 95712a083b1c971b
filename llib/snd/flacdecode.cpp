// SPDX-License-Identifier: GPL-3.0-or-later
#include "flaccodec.h"

#include <type_traits>

namespace llib::detail {

void LFLACBitReader::ReadRice(std::int32_t* out, int count, int k) {
    // Values are folded to unsigned (0, -1, 1, -2, ... as 0, 1, 2, 3, ...); any above 32 bits
    // shows in the OR of them all, checked once at the end.
    std::uint64_t any = 0;
    std::uint32_t const lowMask = (std::uint32_t{1} << k) - 1;
    std::uint32_t const limit = 0xFFFFFFFFu >> k;
    auto const put = [&](int i, std::uint64_t u) {
        any |= u;
        auto const v = static_cast<std::uint32_t>(u);
        out[i] = static_cast<std::int32_t>((v >> 1) ^ (0u - (v & 1)));
    };
    int i = 0;
    // The state lives in registers while codes are decoded from the cache, which is topped up
    // between runs of codes; codes longer than what the cache holds take the careful path.
    std::uint64_t cache = m_cache;
    int bits = m_count;
    unsigned char const* next = m_next;
    while (i < count && next < m_end) {
        if (bits < 57) {
            LFLACRefillWord(cache, bits, next);
        }
        int decoded = 0;
        while (i < count) {
            int const lead = cache != 0 ? std::countl_zero(cache) : 64;
            if (lead + 1 + k > bits) {
                break;
            }
            std::uint64_t const top = cache << lead; // the stop bit leads
            put(i, static_cast<std::uint64_t>(lead) << k |
                       (static_cast<std::uint32_t>(top >> (63 - k)) & lowMask));
            cache = (top << 1) << k;
            bits -= lead + 1 + k;
            ++i;
            ++decoded;
        }
        if (decoded == 0 && i < count) {
            if (m_bad) {
                break;
            }
            // A code longer than the cache: read it field by field.
            m_cache = cache;
            m_count = bits;
            m_next = next;
            std::uint32_t const q = ReadUnary(limit);
            put(i++, static_cast<std::uint64_t>(q) << k | Read(k));
            cache = m_cache;
            bits = m_count;
            next = m_next;
        }
    }
    m_cache = cache;
    m_count = bits;
    m_next = next;
    for (; i < count && !m_bad; ++i) {
        std::uint32_t const q = ReadUnary(limit);
        put(i, static_cast<std::uint64_t>(q) << k | Read(k));
    }
    if ((any >> 32) != 0) {
        m_bad = true;
    }
}

void LFLACBitWriter::Rewind(std::uint64_t bitPosition) {
    // Whatever the cache holds goes to memory first, so the byte the position falls in is there.
    std::uint64_t v = m_cache;
    if constexpr (std::endian::native == std::endian::little) {
        v = __builtin_bswap64(v);
    }
    std::memcpy(m_next, &v, 8);
    std::uint64_t const byte = bitPosition / 8;
    int const bits = static_cast<int>(bitPosition % 8);
    m_cache = 0;
    m_count = 0;
    m_next = m_out + byte;
    if (bits > 0) {
        m_cache = static_cast<std::uint64_t>(*m_next >> (8 - bits)) << (64 - bits);
        m_count = bits;
    }
}

bool LFLACParseFrameHeader(unsigned char const* data, std::size_t bytes,
                           LFLACMetaDataBlockStreamInfo const& info, LFLACFrameHeader& header) {
    if (bytes < 6 || data[0] != 0xFF || (data[1] & 0xFE) != 0xF8 || (data[3] & 1) != 0) {
        return false;
    }
    header.variableBlocking = (data[1] & 1) != 0;
    int const blockCode = data[2] >> 4;
    int const rateCode = data[2] & 15;
    int const channelCode = data[3] >> 4;
    int const sizeCode = (data[3] >> 1) & 7;
    if (blockCode == 0 || rateCode == 15 || channelCode > 10) {
        return false;
    }
    int used = 0;
    if (!LFLACDecodeNumber(data + 4, bytes - 4, header.number, used)) {
        return false;
    }
    if (!header.variableBlocking && used > 6) {
        return false; // frame numbers have 31 bits at most
    }
    std::size_t at = 4 + static_cast<std::size_t>(used);
    auto takeByte = [&](int& value) {
        if (at >= bytes) {
            return false;
        }
        value = value << 8 | data[at++];
        return true;
    };
    int value = 0;
    if (blockCode == 1) {
        header.blockFrames = 192;
    } else if (blockCode <= 5) {
        header.blockFrames = 576 << (blockCode - 2);
    } else if (blockCode == 6) {
        if (!takeByte(value)) {
            return false;
        }
        header.blockFrames = value + 1;
    } else if (blockCode == 7) {
        if (!takeByte(value) || !takeByte(value)) {
            return false;
        }
        header.blockFrames = value + 1;
    } else {
        header.blockFrames = 256 << (blockCode - 8);
    }
    if (header.blockFrames > kLFLACMaxBlockFrames) {
        return false;
    }
    value = 0;
    if (rateCode == 0) {
        header.rateHz = static_cast<int>(info.sampleRateHz);
    } else if (rateCode <= 11) {
        header.rateHz = arFLACRateTable[static_cast<std::size_t>(rateCode)];
    } else if (rateCode == 12) {
        if (!takeByte(value)) {
            return false;
        }
        header.rateHz = value * 1000;
    } else {
        if (!takeByte(value) || !takeByte(value)) {
            return false;
        }
        header.rateHz = rateCode == 13 ? value : value * 10;
    }
    if (channelCode <= 7) {
        header.channels = channelCode + 1;
        header.assignment = LFLACChannelAssignment::kIndependent;
    } else {
        header.channels = 2;
        header.assignment = static_cast<LFLACChannelAssignment>(channelCode);
    }
    header.bitsPerSample = arFLACBitDepthTable[static_cast<std::size_t>(sizeCode)];
    if (header.bitsPerSample == 0) {
        header.bitsPerSample = static_cast<int>(info.bitsPerSample);
    }
    if (at >= bytes || LFLACCrc8(data, at) != data[at]) {
        return false;
    }
    header.headerBytes = static_cast<int>(at + 1);
    return true;
}

int LFLACWriteFrameHeader(LFLACFrameHeader const& header, LFLACMetaDataBlockStreamInfo const& info,
                          unsigned char* out) {
    int blockCode = 7;
    int const frames = header.blockFrames;
    if (frames == 192) {
        blockCode = 1;
    } else if (frames <= 256) {
        blockCode = 6;
    }
    for (int code = 2; code <= 5; ++code) {
        if (frames == 576 << (code - 2)) {
            blockCode = code;
        }
    }
    for (int code = 8; code <= 15; ++code) {
        if (frames == 256 << (code - 8)) {
            blockCode = code;
        }
    }
    // STREAMINFO's rate needs no code; otherwise the table, then the forms written at the end.
    int rateCode = 0;
    int const rate = header.rateHz;
    if (rate != static_cast<int>(info.sampleRateHz)) {
        for (std::size_t code = 1; code < arFLACRateTable.size(); ++code) {
            if (arFLACRateTable[code] == rate) {
                rateCode = static_cast<int>(code);
            }
        }
        if (rateCode == 0 && rate % 1000 == 0 && rate / 1000 <= 255) {
            rateCode = 12;
        } else if (rateCode == 0 && rate <= 65535) {
            rateCode = 13;
        } else if (rateCode == 0 && rate % 10 == 0 && rate / 10 <= 65535) {
            rateCode = 14;
        }
    }
    int sizeCode = 0;
    for (std::size_t code = 1; code < arFLACBitDepthTable.size(); ++code) {
        if (arFLACBitDepthTable[code] == header.bitsPerSample) {
            sizeCode = static_cast<int>(code);
        }
    }
    int const channelCode = header.assignment == LFLACChannelAssignment::kIndependent
                                ? header.channels - 1
                                : static_cast<int>(header.assignment);
    out[0] = 0xFF;
    out[1] = static_cast<unsigned char>(0xF8 | (header.variableBlocking ? 1 : 0));
    out[2] = static_cast<unsigned char>(blockCode << 4 | rateCode);
    out[3] = static_cast<unsigned char>(channelCode << 4 | sizeCode << 1);
    int at = 4 + LFLACEncodeNumber(header.number, out + 4);
    if (blockCode == 6) {
        out[at++] = static_cast<unsigned char>(frames - 1);
    } else if (blockCode == 7) {
        out[at++] = static_cast<unsigned char>((frames - 1) >> 8);
        out[at++] = static_cast<unsigned char>(frames - 1);
    }
    int const rateValue = rateCode == 12   ? header.rateHz / 1000
                          : rateCode == 14 ? header.rateHz / 10
                                           : header.rateHz;
    if (rateCode == 12) {
        out[at++] = static_cast<unsigned char>(rateValue);
    } else if (rateCode >= 13) {
        out[at++] = static_cast<unsigned char>(rateValue >> 8);
        out[at++] = static_cast<unsigned char>(rateValue);
    }
    out[at] = LFLACCrc8(out, static_cast<std::size_t>(at));
    return at + 1;
}

namespace {

// Two's complement arithmetic that wraps: a damaged stream makes garbage, never undefined
// behaviour.
template <class S>
using Unsigned = std::make_unsigned_t<S>;

template <class S>
inline S WrapAdd(S a, S b) {
    return static_cast<S>(static_cast<Unsigned<S>>(a) + static_cast<Unsigned<S>>(b));
}

// The fixed predictors, one loop per order so each keeps its history in registers.
template <class S, int kOrder>
void RestoreFixedOrder(S* out, int frames) {
    using U = Unsigned<S>;
    U h1 = kOrder >= 1 ? static_cast<U>(out[kOrder - 1]) : 0;
    U h2 = kOrder >= 2 ? static_cast<U>(out[kOrder - 2]) : 0;
    U h3 = kOrder >= 3 ? static_cast<U>(out[kOrder - 3]) : 0;
    U h4 = kOrder >= 4 ? static_cast<U>(out[kOrder - 4]) : 0;
    for (int i = kOrder; i < frames; ++i) {
        U p = 0;
        if constexpr (kOrder == 1) {
            p = h1;
        } else if constexpr (kOrder == 2) {
            p = 2 * h1 - h2;
        } else if constexpr (kOrder == 3) {
            p = 3 * (h1 - h2) + h3;
        } else if constexpr (kOrder == 4) {
            p = 4 * (h1 + h3) - 6 * h2 - h4;
        }
        U const v = static_cast<U>(out[i]) + p;
        out[i] = static_cast<S>(v);
        h4 = h3;
        h3 = h2;
        h2 = h1;
        h1 = v;
    }
}

template <class S>
void RestoreFixed(S* out, int frames, int order) {
    switch (order) {
    case 1:
        RestoreFixedOrder<S, 1>(out, frames);
        break;
    case 2:
        RestoreFixedOrder<S, 2>(out, frames);
        break;
    case 3:
        RestoreFixedOrder<S, 3>(out, frames);
        break;
    case 4:
        RestoreFixedOrder<S, 4>(out, frames);
        break;
    default:
        break;
    }
}

template <int kOrder>
void RestoreLPCFixedOrder(std::int32_t* out, int frames, std::int32_t const* coefs, int shift) {
    // Each sample depends on the one before, so the loop runs at the speed of that chain. The
    // last kOrder outputs are kept in registers (the arrays are unrolled away) so the chain is a
    // multiply and three additions, without a store and reload between samples.
    std::uint32_t c[kOrder];
    std::uint32_t h[kOrder]; // h[0] the latest output
    for (int j = 0; j < kOrder; ++j) {
        c[j] = static_cast<std::uint32_t>(coefs[j]);
        h[j] = static_cast<std::uint32_t>(out[kOrder - 1 - j]);
    }
    for (int i = kOrder; i < frames; ++i) {
        std::uint32_t older = 0;
        for (int j = 1; j < kOrder; ++j) {
            older += c[j] * h[j];
        }
        std::uint32_t const sum = older + c[0] * h[0];
        std::uint32_t const v = static_cast<std::uint32_t>(out[i]) +
                                static_cast<std::uint32_t>(static_cast<std::int32_t>(sum) >> shift);
        out[i] = static_cast<std::int32_t>(v);
        for (int j = kOrder - 1; j > 0; --j) {
            h[j] = h[j - 1];
        }
        h[0] = v;
    }
}

void RestoreLPCAnyOrder(std::int32_t* out, int frames, std::int32_t const* coefs, int order,
                        int shift) {
    for (int i = order; i < frames; ++i) {
        std::uint32_t sum = 0;
        for (int j = 0; j < order; ++j) {
            sum +=
                static_cast<std::uint32_t>(coefs[j]) * static_cast<std::uint32_t>(out[i - 1 - j]);
        }
        out[i] = WrapAdd(out[i], static_cast<std::int32_t>(sum) >> shift);
    }
}

template <class S>
void RestoreLPCWideImpl(S* out, int frames, std::int32_t const* coefs, int order, int shift) {
    for (int i = order; i < frames; ++i) {
        std::uint64_t sum = 0;
        for (int j = 0; j < order; ++j) {
            sum += static_cast<std::uint64_t>(static_cast<std::int64_t>(coefs[j])) *
                   static_cast<std::uint64_t>(static_cast<std::int64_t>(out[i - 1 - j]));
        }
        auto const prediction = static_cast<S>(static_cast<std::int64_t>(sum) >> shift);
        out[i] = WrapAdd(out[i], prediction);
    }
}

// Reads the partitioned Rice residual of a subframe into out[order..frames).
bool ReadResidual(LFLACBitReader& reader, std::int32_t* out, int frames, int order) {
    std::uint32_t const method = reader.Read(2);
    if (method > 1) {
        return false;
    }
    int const paramBits = method == 0 ? 4 : 5;
    std::uint32_t const escape = method == 0 ? 15 : 31;
    int const partitionOrder = static_cast<int>(reader.Read(4));
    int const partitions = 1 << partitionOrder;
    if ((frames & (partitions - 1)) != 0) {
        return false;
    }
    int const perPartition = frames >> partitionOrder;
    if (perPartition < order) {
        return false;
    }
    int at = order;
    for (int p = 0; p < partitions; ++p) {
        int const count = p == 0 ? perPartition - order : perPartition;
        std::uint32_t const k = reader.Read(paramBits);
        if (k == escape) {
            int const bits = static_cast<int>(reader.Read(5));
            for (int i = 0; i < count; ++i) {
                out[at + i] = bits == 0 ? 0 : static_cast<std::int32_t>(reader.ReadSigned(bits));
            }
        } else {
            reader.ReadRice(out + at, count, static_cast<int>(k));
        }
        at += count;
        if (reader.IsOverrun()) {
            return false;
        }
    }
    return true;
}

} // namespace

void LFLACRestoreLPC(std::int32_t* out, int frames, std::int32_t const* coefs, int order,
                     int shift) {
    switch (order) {
    case 3:
        RestoreLPCFixedOrder<3>(out, frames, coefs, shift);
        break;
    case 4:
        RestoreLPCFixedOrder<4>(out, frames, coefs, shift);
        break;
    case 5:
        RestoreLPCFixedOrder<5>(out, frames, coefs, shift);
        break;
    case 6:
        RestoreLPCFixedOrder<6>(out, frames, coefs, shift);
        break;
    case 7:
        RestoreLPCFixedOrder<7>(out, frames, coefs, shift);
        break;
    case 8:
        RestoreLPCFixedOrder<8>(out, frames, coefs, shift);
        break;
    case 9:
        RestoreLPCFixedOrder<9>(out, frames, coefs, shift);
        break;
    case 10:
        RestoreLPCFixedOrder<10>(out, frames, coefs, shift);
        break;
    case 11:
        RestoreLPCFixedOrder<11>(out, frames, coefs, shift);
        break;
    case 12:
        RestoreLPCFixedOrder<12>(out, frames, coefs, shift);
        break;
    default:
        RestoreLPCAnyOrder(out, frames, coefs, order, shift);
        break;
    }
}

void LFLACRestoreLPCWide(std::int32_t* out, int frames, std::int32_t const* coefs, int order,
                         int shift) {
    RestoreLPCWideImpl(out, frames, coefs, order, shift);
}

void LFLACRestoreLPCWide(std::int64_t* out, int frames, std::int32_t const* coefs, int order,
                         int shift) {
    RestoreLPCWideImpl(out, frames, coefs, order, shift);
}

template <class S>
bool LFLACDecodeSubFrame(LFLACBitReader& reader, S* out, std::int32_t* residual, int frames,
                         int bits) {
    std::uint32_t const head = reader.Read(8);
    if ((head & 0x80) != 0) {
        return false;
    }
    int const type = static_cast<int>(head >> 1) & 63;
    int wasted = 0;
    if ((head & 1) != 0) {
        wasted = static_cast<int>(reader.ReadUnary(64)) + 1;
        if (wasted >= bits) {
            return false;
        }
        bits -= wasted;
    }
    auto const warmUp = [&](int order) {
        for (int i = 0; i < order; ++i) {
            out[i] = static_cast<S>(reader.ReadSigned(bits));
        }
    };
    // The residual goes straight into the output where it has the output's width.
    std::int32_t* const coded =
        std::is_same_v<S, std::int32_t> ? reinterpret_cast<std::int32_t*>(out) : residual;
    auto const widen = [&](int order) {
        if constexpr (!std::is_same_v<S, std::int32_t>) {
            for (int i = order; i < frames; ++i) {
                out[i] = residual[i];
            }
        }
    };
    if (type == 0) {
        S const value = static_cast<S>(reader.ReadSigned(bits));
        for (int i = 0; i < frames; ++i) {
            out[i] = value;
        }
    } else if (type == 1) {
        warmUp(frames);
    } else if (type >= 8 && type <= 12) {
        int const order = type - 8;
        if (order > frames) {
            return false;
        }
        warmUp(order);
        if (!ReadResidual(reader, coded, frames, order)) {
            return false;
        }
        widen(order);
        RestoreFixed(out, frames, order);
    } else if (type >= 32) {
        int const order = type - 31;
        if (order > frames) {
            return false;
        }
        warmUp(order);
        int const precision = static_cast<int>(reader.Read(4)) + 1;
        int const shift = static_cast<int>(reader.ReadSigned(5));
        if (precision == 16 || shift < 0) {
            return false;
        }
        std::int32_t coefs[32];
        for (int j = 0; j < order; ++j) {
            coefs[j] = static_cast<std::int32_t>(reader.ReadSigned(precision));
        }
        if (!ReadResidual(reader, coded, frames, order)) {
            return false;
        }
        widen(order);
        if constexpr (std::is_same_v<S, std::int32_t>) {
            if (bits + precision + std::bit_width(static_cast<unsigned>(order)) - 1 <= 32) {
                LFLACRestoreLPC(out, frames, coefs, order, shift);
            } else {
                LFLACRestoreLPCWide(out, frames, coefs, order, shift);
            }
        } else {
            LFLACRestoreLPCWide(out, frames, coefs, order, shift);
        }
    } else {
        return false;
    }
    if (wasted > 0) {
        for (int i = 0; i < frames; ++i) {
            out[i] = static_cast<S>(static_cast<Unsigned<S>>(out[i]) << wasted);
        }
    }
    return !reader.IsOverrun();
}

template bool LFLACDecodeSubFrame<std::int32_t>(LFLACBitReader&, std::int32_t*, std::int32_t*, int,
                                                int);
template bool LFLACDecodeSubFrame<std::int64_t>(LFLACBitReader&, std::int64_t*, std::int32_t*, int,
                                                int);

template <class S>
void LFLACUndoStereo(LFLACChannelAssignment assignment, S* a, S* b, int frames) {
    using U = Unsigned<S>;
    switch (assignment) {
    case LFLACChannelAssignment::kLeftSide: // a left, b side = left - right
        for (int i = 0; i < frames; ++i) {
            b[i] = static_cast<S>(static_cast<U>(a[i]) - static_cast<U>(b[i]));
        }
        break;
    case LFLACChannelAssignment::kRightSide: // a side, b right
        for (int i = 0; i < frames; ++i) {
            a[i] = static_cast<S>(static_cast<U>(a[i]) + static_cast<U>(b[i]));
        }
        break;
    case LFLACChannelAssignment::kMidSide: // a mid = (l + r) >> 1, b side = l - r
        for (int i = 0; i < frames; ++i) {
            U const side = static_cast<U>(b[i]);
            U const mid = static_cast<U>(a[i]) << 1 | (side & 1);
            a[i] = static_cast<S>(static_cast<S>(mid + side) >> 1);
            b[i] = static_cast<S>(static_cast<S>(mid - side) >> 1);
        }
        break;
    default:
        break;
    }
}

template void LFLACUndoStereo<std::int32_t>(LFLACChannelAssignment, std::int32_t*, std::int32_t*,
                                            int);
template void LFLACUndoStereo<std::int64_t>(LFLACChannelAssignment, std::int64_t*, std::int64_t*,
                                            int);

} // namespace llib::detail
