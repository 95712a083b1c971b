// SPDX-License-Identifier: GPL-3.0-or-later
// Reading a cut list: the source over its segments, the display peaks from the items' ".grf"
// files, and the snapping of edit positions to zero crossings.
#include "llib/snd/cutlistaudio.h"

#include "llib/gen/stringlong.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fcntl.h>

namespace {

void Zero(float* out, long long frames, unsigned channels) {
    if (frames > 0) {
        std::memset(out, 0, static_cast<std::size_t>(frames) * channels * sizeof(float));
    }
}

// One item's ".grf" records, read through a window of 32 groups so that a range costs one read
// per 32 groups rather than one per record.
class GrfReader {
public:
    explicit GrfReader(unsigned channels)
        : m_channels(channels), m_window(kWindowGroups * channels) {}

    // False when the item's peak file cannot be opened.
    [[nodiscard]] bool Use(unsigned short item) {
        if (item == m_item && m_file.IsOpen()) {
            return true;
        }
        m_file.Close();
        m_item = item;
        m_windowStart = -1;
        char path[kLMaxText];
        LSoundCache::GetFilePath(item, path, kLSoundCacheExtGrf);
        return m_file.Open(path, O_RDONLY);
    }

    // The record of `channel` for the item's group `group`; groups the file lacks are zero.
    [[nodiscard]] LCutListGrfFrame Get(long long group, unsigned channel) {
        if (group < 0) {
            return {};
        }
        long long const windowStart = group - group % kWindowGroups;
        if (windowStart != m_windowStart) {
            Load(windowStart);
        }
        std::size_t const at = static_cast<std::size_t>(group - windowStart) * m_channels + channel;
        return m_window[at];
    }

private:
    static constexpr long long kWindowGroups = 32;

    void Load(long long windowStart) {
        m_windowStart = windowStart;
        std::fill(m_window.begin(), m_window.end(), LCutListGrfFrame{});
        std::uint64_t const recordBytes = static_cast<std::uint64_t>(kLSoundCacheGrfRecordBytes);
        std::uint64_t const bytes = m_window.size() * recordBytes;
        unsigned char raw[kWindowGroups * 256 * kLSoundCacheGrfRecordBytes];
        std::int64_t const got = m_file.PReadFull(
            raw, bytes, static_cast<std::uint64_t>(windowStart) * m_channels * recordBytes);
        if (got <= 0) {
            return;
        }
        std::size_t const records = static_cast<std::size_t>(got) / recordBytes;
        for (std::size_t i = 0; i < records; ++i) {
            unsigned char const* r = raw + i * recordBytes;
            m_window[i].max = static_cast<std::uint16_t>(r[0] | (r[1] << 8));
            m_window[i].min = static_cast<std::uint16_t>(r[2] | (r[3] << 8));
        }
    }

    unsigned m_channels;
    std::vector<LCutListGrfFrame> m_window;
    unsigned short m_item = kLSoundCacheItemNone;
    long long m_windowStart = -1;
    LFileDescriptor m_file;
};

// A peak code seen through a gain: the code scale is linear, so it scales with the magnitude.
std::uint16_t ScaleCode(std::uint16_t code, float magnitude) {
    if (code == 0 || magnitude == 1.0f) {
        return code;
    }
    double const scaled = static_cast<double>(code) * static_cast<double>(magnitude);
    if (!(scaled < 65535.0)) {
        return scaled >= 65535.0 ? 65535 : 0; // NaN gain draws nothing
    }
    auto const result = static_cast<std::uint16_t>(scaled);
    return result == 0 && magnitude > 0.0f ? 1 : result; // still visible, as in the file
}

} // namespace

LCutListAudioSource::LCutListAudioSource(LCutListAudio const& list)
    : LSoundSourceBase(list.GetSampleRate(), list.GetChannels()),
      m_endFrames(list.GetLengthFrames()),
      m_ahead(std::make_unique_for_overwrite<float[]>(kAheadSamples)) {
    m_pieces.reserve(list.GetSegmentCount());
    long long start = 0;
    for (LCutListSegment const& segment : list.GetSegments()) {
        unsigned short const item = segment.GetItem();
        if (item <= kLSoundCacheItemLast) {
            LSoundCache::IncRef(item);
        }
        m_pieces.push_back(Piece{item, segment.GetGain(), start, segment.GetLengthFrames(),
                                 segment.GetOffsetFrames()});
        start += segment.GetLengthFrames();
    }
}

LCutListAudioSource::~LCutListAudioSource() {
    m_file.Close();
    for (Piece const& piece : m_pieces) {
        if (piece.item <= kLSoundCacheItemLast) {
            LSoundCache::DecRef(piece.item);
        }
    }
}

void LCutListAudioSource::Seek(long long frame) {
    m_position = frame;
    if (frame <= 0) {
        m_piece = 0;
        return;
    }
    // The last piece starting at or before the frame; the count when past the end.
    auto const after = std::upper_bound(
        m_pieces.begin(), m_pieces.end(), frame,
        [](long long value, Piece const& piece) { return value < piece.startFrames; });
    m_piece = static_cast<std::size_t>(after - m_pieces.begin());
    if (m_piece > 0 &&
        frame < m_pieces[m_piece - 1].startFrames + m_pieces[m_piece - 1].lengthFrames) {
        --m_piece;
    }
}

void LCutListAudioSource::OpenItem(unsigned short item) {
    if (item == m_openItem) {
        return;
    }
    m_file.Close();
    m_openItem = item;
    m_openItemFrames = 0;
    m_aheadFrames = 0;
    char path[kLMaxText];
    LSoundCache::GetFilePath(item, path, kLSoundCacheExtAud);
    if (!m_file.Open(path, O_RDONLY)) {
        return; // a missing item reads as silence
    }
    std::int64_t const bytes = m_file.GetSize();
    long long const frameBytes = static_cast<long long>(GetChannels()) * 4;
    m_openItemFrames = bytes > 0 ? bytes / frameBytes : 0;
}

void LCutListAudioSource::ReadItem(float* out, long long from, long long frames) {
    unsigned const channels = GetChannels();
    auto const frameBytes = static_cast<std::int64_t>(channels) * 4;
    if (channels == 0) {
        return;
    }
    long long const aheadFrames = kAheadSamples / channels;
    if (frames * 8 > aheadFrames) {
        std::int64_t const got = m_file.PReadFull(out, frames * frameBytes, from * frameBytes);
        long long const gotFrames = got > 0 ? got / frameBytes : 0;
        Zero(out + gotFrames * channels, frames - gotFrames, channels);
        return;
    }
    if (from < m_aheadStart || from + frames > m_aheadStart + m_aheadFrames) {
        long long const want = std::min(aheadFrames, m_openItemFrames - from);
        std::int64_t const got =
            m_file.PReadFull(m_ahead.get(), want * frameBytes, from * frameBytes);
        m_aheadStart = from;
        m_aheadFrames = got > 0 ? got / frameBytes : 0;
    }
    long long const have = std::clamp(m_aheadStart + m_aheadFrames - from, 0LL, frames);
    std::copy_n(m_ahead.get() + (from - m_aheadStart) * channels, have * channels, out);
    Zero(out + have * channels, frames - have, channels);
}

void LCutListAudioSource::ReadPiece(Piece const& piece, long long from, float* out,
                                    long long frames) {
    unsigned const channels = GetChannels();
    if (piece.item > kLSoundCacheItemLast) {
        Zero(out, frames, channels);
        return;
    }
    OpenItem(piece.item);
    // [a, b) is the part of [first, last) that the item's file holds; it may be empty anywhere
    // in the range, or before or after it.
    long long const first = piece.offsetFrames + from;
    long long const last = first + frames;
    long long const a = std::clamp(0LL, first, last);
    long long const b = std::clamp(m_openItemFrames, a, last);
    Zero(out, a - first, channels);
    if (b > a) {
        ReadItem(out + (a - first) * channels, a, b - a);
    }
    Zero(out + (b - first) * channels, last - b, channels);
    if (piece.gain != 1.0f) {
        long long const samples = frames * channels;
        for (long long i = 0; i < samples; ++i) {
            out[i] *= piece.gain;
        }
    }
}

void LCutListAudioSource::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const channels = GetChannels();
    if (!IsOk()) {
        Zero(buffer, frames, channels);
        m_position += frames;
        return;
    }
    float* out = buffer;
    long long left = frames;
    if (m_position < 0) {
        long long const n = std::min(left, -m_position);
        Zero(out, n, channels);
        out += n * channels;
        left -= n;
        m_position += n;
    }
    while (left > 0 && m_piece < m_pieces.size()) {
        Piece const& piece = m_pieces[m_piece];
        long long const inside = m_position - piece.startFrames;
        long long const n = std::min(left, piece.lengthFrames - inside);
        ReadPiece(piece, inside, out, n);
        out += n * channels;
        left -= n;
        m_position += n;
        if (inside + n == piece.lengthFrames) {
            ++m_piece;
        }
    }
    Zero(out, left, channels);
    m_position += left;
}

LSoundSource LCutListAudio::OpenSource() const {
    return LMakeSource<LCutListAudioSource>(*this);
}

bool LCutListAudio::GrfBufferGet(std::vector<LCutListGrfFrame>& out, long long start,
                                 long long frames) const {
    out.clear();
    if (frames <= 0 || m_channels == 0) {
        return true;
    }
    start = std::clamp(start, -kLCutListMaxFrames, kLCutListMaxFrames);
    frames = std::min(frames, kLCutListMaxFrames);
    unsigned const channels = m_channels;
    long long const groups = (frames + kLSoundCacheGrfFrames - 1) / kLSoundCacheGrfFrames;
    out.assign(static_cast<std::size_t>(groups) * channels, LCutListGrfFrame{});
    long long const rangeEnd = start + frames;
    GrfReader reader(channels);
    long long segmentEnd = 0;
    for (LCutListSegment const& segment : m_segments) {
        long long const segmentStart = segmentEnd;
        segmentEnd += segment.GetLengthFrames();
        if (segmentEnd <= start) {
            continue;
        }
        if (segmentStart >= rangeEnd) {
            break;
        }
        long long const a = std::max(start, segmentStart);
        long long const b = std::min(rangeEnd, segmentEnd);
        if (segment.IsSilence()) {
            continue; // zero codes, already there
        }
        if (!reader.Use(segment.GetItem())) {
            // What was gathered before this segment stays; the rest is unknown.
            out.resize(static_cast<std::size_t>((a - start) / kLSoundCacheGrfFrames) * channels);
            return false;
        }
        float const gain = segment.GetGain();
        float const magnitude = std::fabs(gain);
        bool const swap = gain < 0.0f; // a negative gain turns the peaks over
        long long const toItem = segment.GetOffsetFrames() - segmentStart;
        for (long long g = (a - start) / kLSoundCacheGrfFrames;
             g <= (b - 1 - start) / kLSoundCacheGrfFrames; ++g) {
            long long const ga = std::max(a, start + g * kLSoundCacheGrfFrames);
            long long const gb = std::min(b, start + (g + 1) * kLSoundCacheGrfFrames);
            long long const itemFirst = ga + toItem;
            long long const itemLast = gb - 1 + toItem;
            if (itemLast < 0) {
                continue;
            }
            LCutListGrfFrame* const record = &out[static_cast<std::size_t>(g) * channels];
            for (long long ig = std::max(itemFirst, 0LL) / kLSoundCacheGrfFrames;
                 ig <= itemLast / kLSoundCacheGrfFrames; ++ig) {
                for (unsigned c = 0; c < channels; ++c) {
                    LCutListGrfFrame const raw = reader.Get(ig, c);
                    std::uint16_t const max = ScaleCode(swap ? raw.min : raw.max, magnitude);
                    std::uint16_t const min = ScaleCode(swap ? raw.max : raw.min, magnitude);
                    record[c].max = std::max(record[c].max, max);
                    record[c].min = std::max(record[c].min, min);
                }
            }
        }
    }
    return true;
}

long long LCutListAudio::ZeroCrossCutpointFind(long long position, long long searchFrames) const {
    if (searchFrames <= 0) {
        searchFrames = std::max(1, m_sampleRate / 100);
    }
    searchFrames = std::min(searchFrames, kLCutListMaxFrames);
    long long const lo = std::max(0LL, position - searchFrames);
    long long const hi = std::min(m_lengthFrames, position + searchFrames + 1);
    if (position < 0 || position > m_lengthFrames || hi - lo < 1 || m_channels == 0) {
        return position;
    }
    unsigned const channels = m_channels;
    std::vector<float> samples(static_cast<std::size_t>(hi - lo) * channels);
    LSoundSource source = OpenSource();
    source->Seek(lo);
    source->Read(samples.data(), hi - lo);
    // The channels' sum decides: a cut where it changes sign (or is exactly zero) joins
    // smoothly whichever channel dominates.
    auto sum = [&](long long frame) {
        float total = 0.0f;
        float const* f = &samples[static_cast<std::size_t>(frame - lo) * channels];
        for (unsigned c = 0; c < channels; ++c) {
            total += f[c];
        }
        return total;
    };
    auto crossesAt = [&](long long frame) {
        float const here = sum(frame);
        if (here == 0.0f) {
            return true;
        }
        if (frame == lo) {
            return false;
        }
        float const before = sum(frame - 1);
        return (before < 0.0f && here > 0.0f) || (before > 0.0f && here < 0.0f);
    };
    // Outward from the position, earlier first on a tie.
    for (long long distance = 0; distance <= searchFrames; ++distance) {
        if (position - distance >= lo && position - distance < hi &&
            crossesAt(position - distance)) {
            return position - distance;
        }
        if (distance > 0 && position + distance < hi && crossesAt(position + distance)) {
            return position + distance;
        }
    }
    return position;
}

long long LCutListAudio::PositionSnap(long long position, LCutListSnap snap) const {
    if ((static_cast<unsigned>(snap) & static_cast<unsigned>(LCutListSnap::kZeroCross)) != 0) {
        position = ZeroCrossCutpointFind(position);
    }
    return position;
}
