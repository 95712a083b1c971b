// SPDX-License-Identifier: GPL-3.0-or-later
// Reading FLAC files: the metadata walk, and the source that decodes frames as they are read.
#include "flacstream.h"

#include "llib/snd/sampleformats.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstring>

using namespace llib::detail;

namespace {

constexpr std::size_t kReadAheadBytes = std::size_t{1} << 20;
constexpr long long kDeliverFrames = 8192;
constexpr int kMaxMetadataBlocks = 1 << 16;
constexpr std::uint32_t kMaxVendorBytes = 4096;

bool ReadAt(LFileDescriptor& fd, void* data, std::uint64_t bytes, std::uint64_t offset) {
    return fd.PReadFull(data, bytes, offset) == static_cast<std::int64_t>(bytes);
}

// Where the "fLaC" marker should be: after an ID3v2 tag if the file starts with one.
bool SkipId3(LFileDescriptor& fd, std::uint64_t& offset) {
    unsigned char h[10];
    offset = 0;
    if (!ReadAt(fd, h, sizeof h, 0) || std::memcmp(h, "ID3", 3) != 0) {
        return true;
    }
    std::uint64_t size = 0;
    for (int i = 6; i < 10; ++i) {
        if ((h[i] & 0x80) != 0) {
            return false;
        }
        size = size << 7 | h[i];
    }
    offset = 10 + size + ((h[5] & 0x10) != 0 ? 10 : 0);
    return true;
}

// The metadata walk: STREAMINFO first, the vendor string of a comment block, every other block
// skipped by its length, checked against what the file holds.
LSoundSourceErrorCode ReadHeader(LFileDescriptor& fd, LFLACFileInfo& info) {
    std::int64_t const fileBytes = fd.GetSize();
    std::uint64_t at = 0;
    unsigned char marker[4];
    if (fileBytes < 0 || !SkipId3(fd, at) || !ReadAt(fd, marker, 4, at) ||
        std::memcmp(marker, "fLaC", 4) != 0) {
        return LSoundSourceErrorCode::kUnsupported;
    }
    at += 4;
    auto const size = static_cast<std::uint64_t>(fileBytes);
    for (int block = 0; block < kMaxMetadataBlocks; ++block) {
        unsigned char h[4];
        if (!ReadAt(fd, h, 4, at)) {
            return LSoundSourceErrorCode::kCorrupt;
        }
        bool const last = (h[0] & 0x80) != 0;
        int const type = h[0] & 0x7F;
        std::uint32_t const bytes =
            static_cast<std::uint32_t>(h[1]) << 16 | static_cast<std::uint32_t>(h[2]) << 8 | h[3];
        at += 4;
        if (type == 127 || at + bytes > size || (block == 0) != (type == 0)) {
            return LSoundSourceErrorCode::kCorrupt;
        }
        if (type == 0) {
            unsigned char si[kLFLACStreamInfoBytes];
            if (bytes != kLFLACStreamInfoBytes || !ReadAt(fd, si, sizeof si, at) ||
                !info.streamInfo.Parse(si)) {
                return LSoundSourceErrorCode::kCorrupt;
            }
        } else if (type == 4 && bytes >= 4 && info.vendor.empty()) {
            unsigned char len[4];
            if (ReadAt(fd, len, 4, at)) {
                std::uint32_t const n =
                    len[0] | len[1] << 8 | len[2] << 16 | static_cast<std::uint32_t>(len[3]) << 24;
                if (n <= bytes - 4 && n <= kMaxVendorBytes) {
                    info.vendor.resize(n);
                    if (!ReadAt(fd, info.vendor.data(), n, at + 4)) {
                        info.vendor.clear();
                    }
                }
            }
        }
        at += bytes;
        if (last) {
            info.firstFrameOffset = at;
            return LSoundSourceErrorCode::kNone;
        }
    }
    return LSoundSourceErrorCode::kCorrupt;
}

// Container of `bits`: 8, 16, 24 or 32.
int ContainerBits(int bits) {
    return bits <= 8 ? 8 : bits <= 16 ? 16 : bits <= 24 ? 24 : 32;
}

} // namespace

// ---- LFLACSource ----

LFLACSource::LFLACSource(LFileDescriptor fd, LFLACMetaDataBlockStreamInfo const& info,
                         std::uint64_t firstFrame)
    : LSoundSourceBase(static_cast<int>(info.sampleRateHz),
                       static_cast<unsigned char>(info.channels)),
      m_fd(std::move(fd)), m_info(info), m_firstFrame(firstFrame), m_wide(info.bitsPerSample > 24),
      m_frameBound(LFLACFrame::GetBound(static_cast<int>(info.channels), kLFLACMaxBlockFrames) +
                   (std::size_t{64} << 10)) {
    SetMaxMagnitude(1.0f);
    struct stat st {};
    m_noSeek = fstat(m_fd.Get(), &st) != 0 || !S_ISREG(st.st_mode);
    std::size_t const perChannel = kLFLACMaxBlockFrames;
    if (m_wide) {
        m_samplesWide.assign(perChannel * info.channels, 0);
    } else {
        m_samples.assign(perChannel * info.channels, 0);
    }
    m_residual.assign(perChannel, 0);
    m_pack.resize(static_cast<std::size_t>(kDeliverFrames) * info.channels * 4);
    m_buffer.assign(m_frameBound + kReadAheadBytes + kLFLACReadPadding, 0);
    if (info.minBlockFrames == info.maxBlockFrames && info.minBlockFrames > 0) {
        m_fixedBlock = info.minBlockFrames;
    }
    Rewind();
    m_endSample = info.totalFrames > 0 ? static_cast<long long>(info.totalFrames) : ScanLength();
}

void LFLACSource::Rewind() {
    m_bufferOffset = m_firstFrame;
    m_bufferBytes = 0;
    m_readAt = 0;
    m_fileEnded = false;
    m_frameStart = 0;
    m_frameFrames = 0;
    m_nextStart = 0;
    m_ended = false;
    m_damaged = false;
}

std::size_t LFLACSource::Fill(std::size_t bytes) {
    std::size_t available = m_bufferBytes - m_readAt;
    if (available >= bytes || m_fileEnded) {
        return available;
    }
    if (m_readAt > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_readAt, available);
        m_bufferOffset += m_readAt;
        m_readAt = 0;
        m_bufferBytes = available;
    }
    std::size_t const capacity = m_buffer.size() - kLFLACReadPadding;
    while (m_bufferBytes < capacity) {
        std::int64_t const got =
            m_fd.PReadFull(m_buffer.data() + m_bufferBytes, capacity - m_bufferBytes,
                           m_bufferOffset + m_bufferBytes);
        if (got <= 0) {
            m_fileEnded = true; // the end, or an error: either way no more frames come
            break;
        }
        m_bufferBytes += static_cast<std::size_t>(got);
    }
    std::memset(m_buffer.data() + m_bufferBytes, 0, kLFLACReadPadding);
    return m_bufferBytes - m_readAt;
}

long long LFLACSource::FrameStart(LFLACFrameHeader const& header) const {
    if (header.variableBlocking) {
        return static_cast<long long>(header.number);
    }
    long long const block = m_fixedBlock > 0 ? m_fixedBlock : header.blockFrames;
    return static_cast<long long>(header.number) * block;
}

bool LFLACSource::Resync() {
    for (;;) {
        std::size_t const available = Fill(m_frameBound);
        if (available < 2) {
            return false;
        }
        unsigned char const* const data = m_buffer.data() + m_readAt;
        // Search the bytes already read, keeping a frame's worth to parse a candidate header.
        std::size_t const last =
            m_fileEnded ? available : available - std::min(available, std::size_t{16});
        for (std::size_t i = 0; i + 1 < last; ++i) {
            if (data[i] == 0xFF && (data[i + 1] & 0xFE) == 0xF8) {
                LFLACFrameHeader header;
                if (LFLACParseFrameHeader(data + i, available - i, m_info, header) &&
                    FrameStart(header) >= m_nextStart) {
                    m_readAt += i;
                    m_damaged = false;
                    return true;
                }
            }
        }
        if (m_fileEnded) {
            return false;
        }
        m_readAt += last > 0 ? last - 1 : 0;
    }
}

template <class S>
bool LFLACSource::DecodeFrameBody(LFLACFrameHeader const& header, std::size_t available,
                                  std::size_t& frameBytes) {
    unsigned char const* const data = m_buffer.data() + m_readAt;
    LFLACBitReader reader(data + header.headerBytes,
                          available - static_cast<std::size_t>(header.headerBytes));
    S* const base = [&] {
        if constexpr (sizeof(S) == 8) {
            return m_samplesWide.data();
        } else {
            return m_samples.data();
        }
    }();
    int const frames = header.blockFrames;
    for (int c = 0; c < header.channels; ++c) {
        int bits = header.bitsPerSample;
        LFLACChannelAssignment const a = header.assignment;
        if ((a == LFLACChannelAssignment::kLeftSide && c == 1) ||
            (a == LFLACChannelAssignment::kRightSide && c == 0) ||
            (a == LFLACChannelAssignment::kMidSide && c == 1)) {
            ++bits;
        }
        S* const out = base + static_cast<std::size_t>(c) * kLFLACMaxBlockFrames;
        if (!LFLACDecodeSubFrame<S>(reader, out, m_residual.data(), frames, bits)) {
            return false;
        }
    }
    reader.AlignToByte();
    std::size_t const bytes =
        static_cast<std::size_t>(header.headerBytes) + reader.GetBitPosition() / 8;
    if (bytes + 2 > available) {
        return false;
    }
    std::uint16_t const stored = static_cast<std::uint16_t>(data[bytes] << 8 | data[bytes + 1]);
    if (LFLACCrc16(data, bytes) != stored) {
        return false;
    }
    if (header.channels == 2) {
        LFLACUndoStereo<S>(header.assignment, base, base + kLFLACMaxBlockFrames, frames);
    }
    frameBytes = bytes + 2;
    return true;
}

void LFLACSource::DecodeNextFrame() {
    if (m_ended) {
        return;
    }
    if (m_damaged && !Resync()) {
        m_ended = true;
        return;
    }
    std::size_t const available = Fill(m_frameBound);
    LFLACFrameHeader header;
    unsigned char const* const data = m_buffer.data() + m_readAt;
    if (!LFLACParseFrameHeader(data, available, m_info, header)) {
        if (available < 2 || data[0] != 0xFF || (data[1] & 0xFE) != 0xF8) {
            m_ended = true; // no valid sync: the stream ends here
            return;
        }
        // A sync whose header is damaged: the frame is lost, and the next frame's number says
        // how much silence stands in for it.
        ++m_lostFrames;
        m_damaged = true;
        m_readAt += 2;
        return;
    }
    if (m_fixedBlock == 0 && !header.variableBlocking) {
        m_fixedBlock = header.blockFrames;
    }
    std::size_t frameBytes = 0;
    bool const fits = header.channels == GetChannels() &&
                      header.bitsPerSample == static_cast<int>(m_info.bitsPerSample);
    bool const ok = fits && (m_wide ? DecodeFrameBody<std::int64_t>(header, available, frameBytes)
                                    : DecodeFrameBody<std::int32_t>(header, available, frameBytes));
    if (ok) {
        m_readAt += frameBytes;
    } else {
        // Lost: silence in its place, and the next frame is found by its sync.
        if (m_wide) {
            std::fill(m_samplesWide.begin(), m_samplesWide.end(), 0);
        } else {
            std::fill(m_samples.begin(), m_samples.end(), 0);
        }
        ++m_lostFrames;
        m_damaged = true;
        m_readAt += 2;
    }
    m_frameStart = FrameStart(header);
    m_frameFrames = header.blockFrames;
    m_nextStart = std::max(m_nextStart, m_frameStart + m_frameFrames);
}

void LFLACSource::Deliver(float* out, long long frames) {
    auto const channels = static_cast<std::size_t>(GetChannels());
    auto const offset = static_cast<std::size_t>(m_position - m_frameStart);
    int const bits = static_cast<int>(m_info.bitsPerSample);
    int const container = ContainerBits(bits);
    auto const n = static_cast<std::size_t>(frames);
    unsigned char* const pack = m_pack.data();
    // Samples are put in the stored form of their container and read through the WAV reader's
    // conversions, so a FLAC file reads exactly as the WAV file it was made from.
    bool const stereo16 =
        channels == 2 && container == 16 && !m_wide && std::endian::native == std::endian::little;
    if (stereo16) {
        // The common case in one pass: both channels' 16-bit values side by side in a word.
        int const up = container - bits;
        std::int32_t const* const left = m_samples.data() + offset;
        std::int32_t const* const right = left + kLFLACMaxBlockFrames;
        for (std::size_t i = 0; i < n; ++i) {
            std::uint32_t const w = ((static_cast<std::uint32_t>(left[i]) << up) & 0xFFFF) |
                                    (static_cast<std::uint32_t>(right[i]) << up << 16);
            std::memcpy(pack + 4 * i, &w, 4);
        }
    }
    for (std::size_t c = 0; c < channels && !stereo16; ++c) {
        std::size_t const from = c * kLFLACMaxBlockFrames + offset;
        if (container <= 16 && !m_wide) {
            int const up = container - bits;
            std::int32_t const* const in = m_samples.data() + from;
            if (container == 8) {
                for (std::size_t i = 0; i < n; ++i) {
                    pack[i * channels + c] =
                        static_cast<unsigned char>(static_cast<std::uint32_t>(in[i]) << up);
                }
            } else {
                for (std::size_t i = 0; i < n; ++i) {
                    auto const v = static_cast<std::uint32_t>(in[i]) << up;
                    pack[2 * (i * channels + c)] = static_cast<unsigned char>(v);
                    pack[2 * (i * channels + c) + 1] = static_cast<unsigned char>(v >> 8);
                }
            }
        } else {
            // At the top of 32 bits, as the 24- and 32-bit readers have them.
            int const up = 32 - bits;
            for (std::size_t i = 0; i < n; ++i) {
                std::int64_t const s = m_wide ? m_samplesWide[from + i] : m_samples[from + i];
                auto const v = static_cast<std::uint32_t>(s) << up;
                unsigned char* const p = pack + 4 * (i * channels + c);
                p[0] = static_cast<unsigned char>(v);
                p[1] = static_cast<unsigned char>(v >> 8);
                p[2] = static_cast<unsigned char>(v >> 16);
                p[3] = static_cast<unsigned char>(v >> 24);
            }
        }
    }
    auto const count = static_cast<long long>(n * channels);
    if (container == 8 && !m_wide) {
        ConvertSamplesIn<LSFS8>(out, reinterpret_cast<LSFS8 const*>(pack), count);
    } else if (container == 16 && !m_wide) {
        ConvertSamplesIn<LSF16>(out, reinterpret_cast<LSF16 const*>(pack), count);
    } else {
        ConvertSamplesIn<LSF32>(out, reinterpret_cast<LSF32 const*>(pack), count);
    }
}

void LFLACSource::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    int const channels = GetChannels();
    while (frames > 0) {
        long long n = 0;
        bool silence = true;
        if (m_position < 0) {
            n = std::min(frames, -m_position);
        } else if (m_position >= m_endSample) {
            n = frames;
        } else if (m_position >= m_frameStart && m_position < m_frameStart + m_frameFrames) {
            n = std::min({frames, m_frameStart + m_frameFrames - m_position,
                          m_endSample - m_position, kDeliverFrames});
            silence = false;
        } else if (m_position < m_frameStart) {
            n = std::min({frames, m_frameStart - m_position, m_endSample - m_position});
        } else if (m_ended) {
            n = std::min(frames, m_endSample - m_position);
        } else {
            DecodeNextFrame();
            continue;
        }
        if (silence) {
            std::fill(buffer, buffer + n * channels, 0.0f);
        } else {
            Deliver(buffer, n);
        }
        buffer += n * channels;
        frames -= n;
        m_position += n;
    }
}

void LFLACSource::Seek(long long frame) {
    if (m_noSeek) {
        return;
    }
    // Ahead of the frame held, decoding goes on from here; behind it, from the first frame.
    if (frame < m_frameStart && m_frameStart > 0) {
        Rewind();
    }
    m_position = frame;
}

long long LFLACSource::ScanLength() {
    // The last frame whose header and CRC-16 hold tells the length: the file's tail is searched
    // backwards for it, a frame's worth at most.
    std::int64_t const fileBytes = m_fd.GetSize();
    if (fileBytes <= static_cast<std::int64_t>(m_firstFrame)) {
        return 0;
    }
    auto const size = static_cast<std::uint64_t>(fileBytes);
    std::uint64_t const from =
        std::max<std::uint64_t>(m_firstFrame, size > m_frameBound ? size - m_frameBound : 0);
    m_bufferOffset = from;
    m_bufferBytes = 0;
    m_readAt = 0;
    m_fileEnded = false;
    std::size_t const available = Fill(m_buffer.size());
    long long length = 0;
    if (m_fixedBlock == 0) {
        // A fixed-blocking stream numbers frames, so the block size of its first frame is needed.
        unsigned char first[32] = {};
        std::int64_t const got = m_fd.PReadFull(first, sizeof first, m_firstFrame);
        LFLACFrameHeader header;
        if (got > 0 &&
            LFLACParseFrameHeader(first, static_cast<std::size_t>(got), m_info, header) &&
            !header.variableBlocking) {
            m_fixedBlock = header.blockFrames;
        }
    }
    for (std::size_t i = available; i-- > 0;) {
        unsigned char const* const data = m_buffer.data() + i;
        LFLACFrameHeader header;
        if (data[0] != 0xFF || !LFLACParseFrameHeader(data, available - i, m_info, header) ||
            header.channels != GetChannels()) {
            continue;
        }
        m_readAt = i;
        std::size_t frameBytes = 0;
        bool const ok = m_wide ? DecodeFrameBody<std::int64_t>(header, available - i, frameBytes)
                               : DecodeFrameBody<std::int32_t>(header, available - i, frameBytes);
        if (ok) {
            length = FrameStart(header) + header.blockFrames;
            break;
        }
    }
    Rewind();
    return length;
}

// ---- opening ----

namespace LFLACFile {

bool GetInfo(char const* path, LFLACFileInfo& info) {
    LFileDescriptor fd;
    return path != nullptr && fd.Open(path, O_RDONLY) &&
           ReadHeader(fd, info) == LSoundSourceErrorCode::kNone;
}

LSoundSource OpenSource(char const* path) {
    LFileDescriptor fd;
    if (path == nullptr || !fd.Open(path, O_RDONLY)) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    }
    LFLACFileInfo info;
    LSoundSourceErrorCode const code = ReadHeader(fd, info);
    if (code != LSoundSourceErrorCode::kNone) {
        return LMakeErrorSource(code);
    }
    return LMakeSource<LFLACSource>(std::move(fd), info.streamInfo, info.firstFrameOffset);
}

} // namespace LFLACFile
