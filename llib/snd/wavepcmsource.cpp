// SPDX-License-Identifier: GPL-3.0-or-later
// Reading sample frames of a WAV file over its data regions.
#include "wavepcm.h"

#include <algorithm>
#include <cstring>

namespace llib::detail {

namespace {

// The source reads ahead in pieces of this size and converts from them: large enough that the
// system calls cost little beside the copy, small enough to stay in the core's cache for the
// conversion that follows.
constexpr std::size_t kReadAheadBytes = 128 * 1024;
// Positions are kept within this so that moving past the end by a read never overflows.
constexpr long long kMaxPosition = 1LL << 62;

} // namespace

LSRCPCMFileBase::LSRCPCMFileBase(LFileDescriptor fd, int rateHz, unsigned char channels,
                                 float level, int bytesPerSample, std::uint64_t dataStart,
                                 std::uint32_t dataBytes, Converter convert)
    : LSoundSourceBase(rateHz, channels), m_fd(std::move(fd)),
      m_bytesPerFrame(static_cast<std::size_t>(GetChannels()) *
                      static_cast<std::size_t>(std::max(bytesPerSample, 0))),
      m_bufferFrames(1), m_convert(convert) {
    SetMaxMagnitude(level);
    if (m_bytesPerFrame == 0) {
        m_bytesPerFrame = 2;
        SetError(LSoundSourceErrorCode::kCorrupt);
        return;
    }
    m_bufferFrames =
        std::max<long long>(static_cast<long long>(kReadAheadBytes / m_bytesPerFrame), 1);
    m_buffer.resize(static_cast<std::size_t>(m_bufferFrames) * m_bytesPerFrame);
    m_regions = LScanWaveDataRegions(m_fd, dataStart, dataBytes);
    LWaveDataRegion const& last = m_regions.back();
    m_dataBytes = last.dataOffset + (last.fileEnd - last.fileStart);
    m_endFrames = static_cast<long long>(m_dataBytes / m_bytesPerFrame);
}

void LSRCPCMFileBase::Seek(long long frame) {
    m_position = std::clamp(frame, -kMaxPosition, kMaxPosition);
}

long long LSRCPCMFileBase::ReadFramesAt(long long frame, long long frames) {
    std::uint64_t offset = static_cast<std::uint64_t>(frame) * m_bytesPerFrame;
    std::uint64_t left = static_cast<std::uint64_t>(frames) * m_bytesPerFrame;
    // The last region that starts at or before `offset`.
    auto region = std::upper_bound(
        m_regions.begin(), m_regions.end(), offset,
        [](std::uint64_t value, LWaveDataRegion const& r) { return value < r.dataOffset; });
    region = region == m_regions.begin() ? region : region - 1;
    std::uint64_t got = 0;
    for (; left > 0 && region != m_regions.end(); ++region) {
        std::uint64_t const regionBytes = region->fileEnd - region->fileStart;
        if (offset >= region->dataOffset + regionBytes) {
            continue; // an empty region
        }
        std::uint64_t const within = offset - region->dataOffset;
        std::uint64_t const n = std::min(left, regionBytes - within);
        std::int64_t const read =
            m_fd.PReadFull(m_buffer.data() + got, n, region->fileStart + within);
        if (read <= 0) {
            break;
        }
        got += static_cast<std::uint64_t>(read);
        if (static_cast<std::uint64_t>(read) < n) {
            break; // the file ends before its header says
        }
        offset += n;
        left -= n;
    }
    return static_cast<long long>(got / m_bytesPerFrame);
}

void LSRCPCMFileBase::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    std::size_t const channels = GetChannels();
    if (!IsOk()) {
        std::memset(buffer, 0, static_cast<std::size_t>(frames) * channels * sizeof(float));
        m_position = std::min(m_position + frames, kMaxPosition);
        return;
    }
    while (frames > 0) {
        long long n = 0;
        long long got = 0;
        if (m_position < 0) {
            n = std::min(frames, -m_position);
        } else if (m_position >= m_endFrames) {
            std::memset(buffer, 0, static_cast<std::size_t>(frames) * channels * sizeof(float));
            m_position = std::min(m_position + frames, kMaxPosition);
            return;
        } else {
            if (m_position < m_heldFrame || m_position >= m_heldFrame + m_heldFrames) {
                m_heldFrame = m_position;
                m_heldFrames =
                    ReadFramesAt(m_position, std::min(m_endFrames - m_position, m_bufferFrames));
            }
            long long const offset = m_position - m_heldFrame;
            if (offset < m_heldFrames) {
                n = got = std::min(frames, m_heldFrames - offset);
                m_convert(buffer,
                          m_buffer.data() + static_cast<std::size_t>(offset) * m_bytesPerFrame,
                          got * static_cast<long long>(channels));
            } else {
                // The file ends before its header says: silence to the end it claims.
                n = std::min(frames, m_endFrames - m_position);
            }
        }
        std::size_t const done = static_cast<std::size_t>(got) * channels;
        std::memset(buffer + done, 0,
                    (static_cast<std::size_t>(n) * channels - done) * sizeof(float));
        buffer += static_cast<std::size_t>(n) * channels;
        frames -= n;
        m_position += n;
    }
}

} // namespace llib::detail
