// SPDX-License-Identifier: GPL-3.0-or-later
// Reading MP3 streams: the file reader, frame sync and index, seeking, and the source that
// decodes frames (on a thread of its own when there are processors to spare).
#include "mp3decode.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "llib/unix/thread.h"

using namespace llib::detail;

namespace {

constexpr std::size_t kInputBytes = 9216;
constexpr std::uint64_t kMaxLeadingJunk = std::uint64_t{1} << 20;
// The decoder's own delay: what LAME's stored delay leaves out.
constexpr int kDecoderDelay = 529;

// ---- LMP3ReadFile ----

// The file under a recursive mutex: the decoding thread and the caller's thread both read it.
class LMP3ReadFile {
public:
    LMP3ReadFile(LFileDescriptor fd, std::uint64_t start, std::uint64_t end)
        : m_fd(std::move(fd)), m_start(start), m_end(end), m_left(end > start ? end - start : 0) {}

    // Reads up to `bytes` at `offset`, never past the end of the audio; returns the bytes read.
    std::size_t ReadAt(unsigned char* data, std::size_t bytes, std::uint64_t offset) {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (offset >= m_end) {
            return 0;
        }
        std::size_t const n =
            static_cast<std::size_t>(std::min<std::uint64_t>(bytes, m_end - offset));
        if (m_position != offset) {
            if (!m_fd.SeekTo(offset)) {
                return 0;
            }
            m_position = offset;
            m_left = m_end - m_position;
        }
        std::int64_t const got = m_fd.ReadFull(data, n);
        if (got <= 0) {
            return 0;
        }
        m_position += static_cast<std::uint64_t>(got);
        m_left = m_end - m_position;
        return static_cast<std::size_t>(got);
    }
    [[nodiscard]] std::uint64_t GetBytesLeft() {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        return m_left;
    }
    [[nodiscard]] std::uint64_t GetStart() const { return m_start; }
    [[nodiscard]] std::uint64_t GetEnd() const { return m_end; }

private:
    LFileDescriptor m_fd;
    std::recursive_mutex m_mutex;
    std::uint64_t m_start;
    std::uint64_t m_end;
    std::uint64_t m_left;
    // Where the descriptor is; unknown at first (a container's reader may have moved it), so the
    // first read always seeks.
    std::uint64_t m_position = UINT64_MAX;
};

// ---- Frame sync ----

struct LMP3Frame {
    std::uint64_t offset = 0;
    LMP3FrameHeader header;
    int bytes = 0;
    unsigned char const* data = nullptr; // valid until the next read
};

// Walks frames through a window of the file.
class FrameReader {
public:
    FrameReader(LMP3ReadFile& file, LMP3FrameHeader const& first, int freeBytes)
        : m_file(file), m_first(first), m_freeBytes(freeBytes), m_buffer(kInputBytes + 8, 0) {}

    [[nodiscard]] int FrameBytes(LMP3FrameHeader const& h) const {
        int const n = h.GetFrameBytes();
        return n > 0 ? n : m_freeBytes > 0 ? m_freeBytes + (h.padding ? 1 : 0) : 0;
    }
    // The frame whose header is at `offset` when it belongs to the stream; else the first frame
    // after it that does, confirmed by the header after it. False when none is left.
    bool Read(std::uint64_t offset, LMP3Frame& frame) {
        if (ReadExact(offset, frame)) {
            return true;
        }
        for (std::uint64_t at = offset + 1; at + 4 <= m_file.GetEnd(); ++at) {
            unsigned char const* p = Ensure(at, 4);
            if (p == nullptr) {
                return false;
            }
            if (p[0] != 0xFF) {
                // Skip to the next 0xFF within what is buffered.
                std::size_t const have =
                    m_bufferBytes - static_cast<std::size_t>(at - m_bufferOffset);
                void const* ff = std::memchr(p, 0xFF, have);
                at = ff == nullptr
                         ? at + have - 1
                         : at +
                               static_cast<std::size_t>(static_cast<unsigned char const*>(ff) - p) -
                               1;
                continue;
            }
            if (!ReadExact(at, frame)) {
                continue;
            }
            std::uint64_t const next = at + static_cast<std::uint64_t>(frame.bytes);
            if (next + 4 > m_file.GetEnd()) {
                return ReadExact(at, frame);
            }
            LMP3FrameHeader h;
            unsigned char const* q = Ensure(next, 4);
            if (q != nullptr && h.Read(q) && h.IsSameStream(m_first)) {
                return ReadExact(at, frame);
            }
        }
        return false;
    }
    // The frame at `offset` without any search.
    bool ReadExact(std::uint64_t offset, LMP3Frame& frame) {
        unsigned char const* p = Ensure(offset, 4);
        LMP3FrameHeader h;
        if (p == nullptr || !h.Read(p) || !h.IsSameStream(m_first)) {
            return false;
        }
        int const bytes = FrameBytes(h);
        if (bytes < 4 + (h.crc ? 2 : 0) + h.GetSideInfoBytes() ||
            bytes > kLMP3MaxFreeFormatBytes + 1) {
            return false;
        }
        unsigned char const* whole = Ensure(offset, static_cast<std::size_t>(bytes));
        if (whole == nullptr) {
            return false; // truncated: the frame runs past the end
        }
        frame.offset = offset;
        frame.header = h;
        frame.bytes = bytes;
        frame.data = whole;
        return true;
    }

private:
    // `bytes` bytes at `offset` in the window, refilled from `offset` when needed.
    unsigned char const* Ensure(std::uint64_t offset, std::size_t bytes) {
        if (offset >= m_bufferOffset && offset + bytes <= m_bufferOffset + m_bufferBytes) {
            return m_buffer.data() + (offset - m_bufferOffset);
        }
        if (bytes > kInputBytes) {
            return nullptr;
        }
        m_bufferOffset = offset;
        m_bufferBytes = m_file.ReadAt(m_buffer.data(), kInputBytes, offset);
        if (bytes > m_bufferBytes) {
            return nullptr;
        }
        return m_buffer.data();
    }

    LMP3ReadFile& m_file;
    LMP3FrameHeader m_first;
    int m_freeBytes;
    std::vector<unsigned char> m_buffer;
    std::uint64_t m_bufferOffset = 0;
    std::size_t m_bufferBytes = 0;
};

// ---- Producing decoded frames ----

struct DecodedFrame {
    long long number = -1;
    bool ok = false;
    float pcm[kLMP3MaxFrameSamples * 2] = {};
};

// Decodes frames in order from any frame on. Frame positions are indexed as they are met; a
// run of bytes the size of lost frames between two good ones is indexed as that many silent
// frames, so that what follows keeps its time.
class FrameProducer {
public:
    FrameProducer(LMP3ReadFile& file, LMP3FileInfo const& info, int channels)
        : m_reader(file, info.header, info.freeFormatBytes), m_channels(channels),
          m_frameSamples(info.header.GetFrameSamples()), m_nextScan(info.audioOffset),
          m_maxBegin(info.header.version == LMP3FrameHeader::kMpeg1 ? 511 : 255),
          m_warmFrames(info.header.version == LMP3FrameHeader::kMpeg1 ? 1 : 2) {}

    // Positions at `target` (a frame number), with the reservoir and filter state as a decode
    // from the start would have them.
    void Restart(long long target) {
        m_decoder.Reset();
        m_next = target;
        if (!IndexUpTo(target)) {
            return;
        }
        // Warm-up frames decoded before the target: two granules, so that the second one's
        // output, which the synthesis filter keeps, has its IMDCT overlap from the first.
        long long const warm = std::max<long long>(0, target - m_warmFrames);
        long long prime = warm;
        int gathered = 0;
        LMP3Frame f;
        while (prime > 0 && gathered < m_maxBegin) {
            --prime;
            if (ReadIndexed(prime, f)) {
                gathered += std::max(0, LMP3FrameDecoder::GetMainDataBytes(f.bytes, f.header));
            }
        }
        for (long long n = prime; n < warm; ++n) {
            if (ReadIndexed(n, f)) {
                (void)m_decoder.FeedReservoir(f.data, f.bytes, f.header);
            }
        }
        for (long long n = warm; n < target; ++n) {
            (void)Decode(n, m_scratch);
        }
    }
    // Decodes the next frame; false past the last.
    bool Next(DecodedFrame& out) {
        if (!IndexUpTo(m_next)) {
            return false;
        }
        if (!Decode(m_next, out)) {
            ++m_lost;
        }
        ++m_next;
        return true;
    }
    [[nodiscard]] long long GetNext() const { return m_next; }
    [[nodiscard]] long long GetLostFrames() const { return m_lost; }

private:
    static constexpr std::uint64_t kSilent = std::uint64_t{1} << 63;

    bool IndexUpTo(long long frame) {
        while (static_cast<long long>(m_index.size()) <= frame && !m_indexDone) {
            LMP3Frame f;
            if (!m_reader.Read(m_nextScan, f)) {
                m_indexDone = true;
                break;
            }
            std::uint64_t const gap = f.offset - m_nextScan;
            if (m_lastBytes > 0 && gap * 2 >= static_cast<std::uint64_t>(m_lastBytes)) {
                std::uint64_t const lost = (gap + m_lastBytes / 2) / m_lastBytes;
                for (std::uint64_t i = 0; i < lost; ++i) {
                    m_index.push_back(kSilent);
                }
            }
            m_index.push_back(f.offset);
            m_lastBytes = f.bytes;
            m_nextScan = f.offset + static_cast<std::uint64_t>(f.bytes);
        }
        return static_cast<long long>(m_index.size()) > frame;
    }
    bool ReadIndexed(long long n, LMP3Frame& f) {
        std::uint64_t const at = m_index[static_cast<std::size_t>(n)];
        return (at & kSilent) == 0 && m_reader.ReadExact(at, f);
    }
    bool Decode(long long n, DecodedFrame& out) {
        out.number = n;
        LMP3Frame f;
        std::size_t const samples = static_cast<std::size_t>(m_frameSamples) * m_channels;
        if (!ReadIndexed(n, f)) {
            std::fill(out.pcm, out.pcm + samples, 0.0f);
            m_decoder.Reset();
            out.ok = false;
            return false;
        }
        int const frameChannels = f.header.GetChannels();
        float* target = frameChannels == m_channels ? out.pcm : m_convert;
        out.ok = m_decoder.DecodeFrame(f.data, f.bytes, f.header, target);
        if (frameChannels != m_channels) {
            for (int i = 0; i < m_frameSamples; ++i) {
                if (m_channels == 2) {
                    out.pcm[2 * i] = out.pcm[2 * i + 1] = m_convert[i];
                } else {
                    out.pcm[i] = 0.5f * (m_convert[2 * i] + m_convert[2 * i + 1]);
                }
            }
        }
        return out.ok;
    }

    FrameReader m_reader;
    LMP3FrameDecoder m_decoder;
    int m_channels;
    int m_frameSamples;
    std::vector<std::uint64_t> m_index;
    bool m_indexDone = false;
    std::uint64_t m_nextScan;
    int m_lastBytes = 0;
    int m_maxBegin;
    int m_warmFrames;
    long long m_next = 0;
    std::atomic<long long> m_lost{0};
    float m_convert[kLMP3MaxFrameSamples * 2] = {};
    DecodedFrame m_scratch;
};

// ---- The decoding thread ----

// Decodes ahead into a small ring while the caller consumes; a request for a frame outside what
// is coming restarts it there.
class LMP3SourceSlaveThread {
public:
    explicit LMP3SourceSlaveThread(FrameProducer& producer) : m_producer(producer) {
        m_running = m_thread.Start([this] { Run(); });
    }
    ~LMP3SourceSlaveThread() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_quit = true;
        }
        m_wake.notify_all();
        m_thread.Join();
    }
    [[nodiscard]] bool IsRunning() const { return m_running; }

    // The decoded frame `n`, or null past the end. Valid until the next call.
    DecodedFrame const* Get(long long n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_held) {
            if (m_slots[m_head].number == n) {
                return &m_slots[m_head]; // a read that ended inside this frame goes on
            }
            Pop();
        }
        for (;;) {
            if (m_restart < 0) {
                bool const ahead = n >= m_nextNumber - m_count && n < m_nextNumber + kSlots;
                while (ahead && m_count > 0 && m_slots[m_head].number < n) {
                    Pop();
                }
                if (m_count > 0 && m_slots[m_head].number == n) {
                    m_held = true;
                    return &m_slots[m_head];
                }
                if (!ahead) {
                    m_restart = n;
                    m_wake.notify_all();
                } else if (m_ended && m_count == 0) {
                    return nullptr;
                }
            } else if (m_restart != n) {
                m_restart = n;
                m_wake.notify_all();
            }
            m_consumerWaiting = true;
            m_ready.wait(lock);
            m_consumerWaiting = false;
        }
    }

private:
    // The thread fills the ring, sleeps until half of it is read, then fills it again: a
    // hand-over per frame would cost more in thread switches than the frame costs to decode.
    // Waits end on the same rule from the reader's side. 64 frames (600 KB) made the thread a
    // gain for a reader that writes what it reads; 16 still made it a loss.
    static constexpr int kSlots = 64;

    void Pop() {
        m_head = (m_head + 1) % kSlots;
        --m_count;
        m_held = false;
        if (m_producerWaiting && m_count <= kSlots / 2) {
            m_wake.notify_all();
        }
    }
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_quit) {
            if (m_restart >= 0) {
                long long const target = m_restart;
                lock.unlock();
                m_producer.Restart(target);
                lock.lock();
                if (m_restart == target) {
                    m_restart = -1;
                    m_nextNumber = target;
                    m_head = 0;
                    m_count = 0;
                    m_held = false;
                    m_ended = false;
                    m_ready.notify_all();
                }
                continue;
            }
            if (m_ended || m_count == kSlots) {
                m_producerWaiting = true;
                m_wake.wait(lock);
                m_producerWaiting = false;
                continue;
            }
            int const slot = (m_head + m_count) % kSlots;
            lock.unlock();
            bool const more = m_producer.Next(m_slots[slot]);
            lock.lock();
            if (m_restart >= 0) {
                continue; // what was decoded belongs to the old position
            }
            if (!more) {
                m_ended = true;
            } else {
                ++m_count;
                ++m_nextNumber;
            }
            // A reader that ran dry sleeps until half the ring is full again, for the same reason.
            if (m_consumerWaiting && (m_ended || m_count >= kSlots / 2)) {
                m_ready.notify_all();
            }
        }
    }

    FrameProducer& m_producer;
    LThread m_thread;
    bool m_running = false;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_ready;
    DecodedFrame m_slots[kSlots];
    int m_head = 0;
    int m_count = 0;
    bool m_held = false; // the head slot is in the caller's hands
    long long m_nextNumber = 0;
    long long m_restart = -1;
    bool m_ended = false;
    bool m_quit = false;
    bool m_consumerWaiting = false;
    bool m_producerWaiting = false;
};

// ---- Opening ----

// A fixed-width ID3v1 field: up to its first NUL, trailing spaces cut, non-printing bytes
// replaced (the tag's character set is unknown; Latin-1 is only the usual guess).
std::string Id3v1Text(unsigned char const* p, std::size_t width) {
    std::string text;
    for (std::size_t i = 0; i < width && p[i] != 0; ++i) {
        text += p[i] >= 0x20 && p[i] < 0x7F ? static_cast<char>(p[i]) : '?';
    }
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

// Reads the start of the stream in [start, end): tags, the first frame, the VBR and LAME headers
// and the length.
LSoundSourceErrorCode ReadStreamInfo(LMP3ReadFile& file, bool tagsAllowed, long long knownFrames,
                                     LMP3FileInfo& info) {
    std::uint64_t at = file.GetStart();
    std::uint64_t end = file.GetEnd();
    unsigned char h[10] = {};
    if (tagsAllowed) {
        auto const read = [&file](unsigned char* data, std::size_t bytes, std::uint64_t offset) {
            return file.ReadAt(data, bytes, offset);
        };
        while (file.ReadAt(h, 10, at) == 10) {
            std::uint64_t const tag = LID3v2TagBytes(h);
            if (tag == 0) {
                break;
            }
            if (info.id3v2Bytes == 0) {
                (void)LID3v2Read(read, at, info.id3v2); // the first tag's text, for display
            }
            info.id3v2Bytes += tag;
            at += tag;
        }
        unsigned char tail[128];
        if (end >= at + 128 && file.ReadAt(tail, 128, end - 128) == 128 &&
            std::memcmp(tail, "TAG", 3) == 0) {
            info.id3v1 = true;
            end -= 128;
            info.title = Id3v1Text(tail + 3, 30);
            info.artist = Id3v1Text(tail + 33, 30);
            info.album = Id3v1Text(tail + 63, 30);
            info.year = Id3v1Text(tail + 93, 4);
            info.comment = Id3v1Text(tail + 97, tail[125] == 0 && tail[126] != 0 ? 28 : 30);
        }
        unsigned char ape[32];
        if (end >= at + 32 && file.ReadAt(ape, 32, end - 32) == 32 &&
            std::memcmp(ape, "APETAGEX", 8) == 0) {
            std::uint32_t const size =
                ape[12] | ape[13] << 8 | ape[14] << 16 | static_cast<std::uint32_t>(ape[15]) << 24;
            bool const header = (ape[23] & 0x80) != 0;
            std::uint64_t const total = size + (header ? 32u : 0u);
            if (total <= end - at) {
                end -= total;
            }
        }
    }
    info.audioEnd = end;
    // The first frame: a header whose successor, where its length says, is one of the same
    // stream (or the end of the data).
    std::vector<unsigned char> buffer(kInputBytes * 2);
    std::uint64_t const limit = std::min(end, at + kMaxLeadingJunk);
    LMP3FrameHeader first;
    bool found = false;
    while (!found && at < limit) {
        std::size_t const got = file.ReadAt(buffer.data(), buffer.size(), at);
        if (got < 4) {
            break;
        }
        std::size_t i = 0;
        for (; i + 4 <= got && !found; ++i) {
            if (buffer[i] != 0xFF || !first.Read(&buffer[i])) {
                continue;
            }
            int bytes = first.GetFrameBytes();
            std::uint64_t const here = at + i;
            if (bytes == 0 && first.layer == 3) {
                // Free format: the size is the distance to the next header of the same kind.
                unsigned char probe[kLMP3MaxFreeFormatBytes + 8];
                std::size_t const n = file.ReadAt(probe, sizeof probe, here);
                LMP3FrameHeader next;
                for (std::size_t k = 4 + static_cast<std::size_t>(first.GetSideInfoBytes());
                     k + 4 <= n; ++k) {
                    if (probe[k] == 0xFF && next.Read(&probe[k]) && next.IsSameStream(first) &&
                        next.bitrateIndex == 0 && next.mode == first.mode) {
                        info.freeFormatBytes = static_cast<int>(k) - (first.padding ? 1 : 0);
                        bytes = static_cast<int>(k);
                        break;
                    }
                }
                if (bytes == 0) {
                    continue;
                }
            } else if (bytes == 0) {
                continue;
            }
            unsigned char n4[4];
            LMP3FrameHeader next;
            std::uint64_t const following = here + static_cast<std::uint64_t>(bytes);
            if (following + 4 > end) {
                found = following <= end && here == info.id3v2Bytes + file.GetStart();
            } else {
                found =
                    file.ReadAt(n4, 4, following) == 4 && next.Read(n4) && next.IsSameStream(first);
            }
            if (found) {
                info.firstFrameOffset = here;
            }
        }
        if (!found) {
            at += got > 4 ? got - 3 : got;
        }
    }
    if (!found) {
        return LSoundSourceErrorCode::kUnsupported;
    }
    info.header = first;
    if (first.layer != 3) {
        return LSoundSourceErrorCode::kUnsupported;
    }
    int const frameBytes = first.GetFrameBytes() > 0
                               ? first.GetFrameBytes()
                               : info.freeFormatBytes + (first.padding ? 1 : 0);
    std::vector<unsigned char> frame(static_cast<std::size_t>(frameBytes), 0);
    std::size_t const got = file.ReadAt(frame.data(), frame.size(), info.firstFrameOffset);
    info.audioOffset = info.firstFrameOffset;
    int const spf = first.GetFrameSamples();
    long long skip = 0;
    long long cut = 0;
    long long frames = 0;
    if (LMP3ReadVbrHeader(frame.data(), got, first, info.vbr)) {
        info.audioOffset = info.firstFrameOffset + static_cast<std::uint64_t>(frameBytes);
        info.cbr = info.vbr.kind != LMP3VbrHeader::kXing && info.vbr.kind != LMP3VbrHeader::kVbri;
        frames = info.vbr.frames;
        std::size_t const lameAt = static_cast<std::size_t>(info.vbr.tagOffset) + 120;
        if (info.vbr.kind != LMP3VbrHeader::kVbri && lameAt < got &&
            LMP3DecodeLameTag(frame.data() + lameAt, got - lameAt, frame[lameAt - 1],
                              first.bitrateKbps, info.lame)) {
            skip = info.lame.encoderDelay + kDecoderDelay;
            cut = info.lame.encoderPadding - kDecoderDelay;
        }
    }
    if (knownFrames > 0) {
        info.length = knownFrames;
        return LSoundSourceErrorCode::kNone;
    }
    if (frames > 0) {
        info.length = std::max<long long>(0, frames * spf - skip - cut);
    } else {
        // No count: estimate from the size of the audio and the first frame's bitrate.
        double const average =
            first.bitrateKbps > 0
                ? (first.version == LMP3FrameHeader::kMpeg1 ? 144000.0 : 72000.0) *
                      first.bitrateKbps / first.sampleRateHz
                : info.freeFormatBytes + 0.5;
        double const data = static_cast<double>(end - info.audioOffset);
        auto const estimate = static_cast<long long>(data / average + 0.5);
        info.length = std::max<long long>(0, estimate * spf - skip - cut);
        info.lengthEstimated = true;
    }
    return LSoundSourceErrorCode::kNone;
}

// ---- LMP3Source ----

class LMP3Source final : public LSoundSourceBase {
public:
    LMP3Source(std::unique_ptr<LMP3ReadFile> file, LMP3FileInfo const& info, bool decodeAhead)
        : LSoundSourceBase(info.header.sampleRateHz,
                           static_cast<unsigned char>(info.header.GetChannels())),
          m_file(std::move(file)), m_info(info), m_frameSamples(info.header.GetFrameSamples()),
          m_producer(*m_file, info, info.header.GetChannels()), m_end(info.length) {
        SetMaxMagnitude(2.0f);
        if (info.lame.present && info.vbr.kind != LMP3VbrHeader::kVbri) {
            m_skip = info.lame.encoderDelay + kDecoderDelay;
        }
        if (decodeAhead && sysconf(_SC_NPROCESSORS_ONLN) > 1) {
            m_thread = std::make_unique<LMP3SourceSlaveThread>(m_producer);
            if (!m_thread->IsRunning()) {
                m_thread.reset();
            }
        }
        if (!m_thread) {
            m_producer.Restart(0);
        }
    }
    ~LMP3Source() override { m_thread.reset(); }

    void Read(float* buffer, long long frames) override {
        if (buffer == nullptr || frames <= 0) {
            return;
        }
        int const channels = GetChannels();
        while (frames > 0) {
            if (m_position >= m_end) {
                std::fill(buffer, buffer + frames * channels, 0.0f);
                m_position += frames;
                return;
            }
            long long const decoded = m_position + m_skip;
            long long const number = decoded / m_frameSamples;
            long long const offset = decoded % m_frameSamples;
            long long const take = std::min({frames, m_frameSamples - offset, m_end - m_position});
            DecodedFrame const* f = Get(number);
            if (f == nullptr) {
                std::fill(buffer, buffer + take * channels, 0.0f);
            } else {
                std::memcpy(buffer, f->pcm + offset * channels,
                            static_cast<std::size_t>(take * channels) * sizeof(float));
            }
            buffer += take * channels;
            frames -= take;
            m_position += take;
        }
    }
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_end; }
    void Seek(long long frame) override { m_position = std::max<long long>(0, frame); }
    [[nodiscard]] long long GetLostFrames() const { return m_producer.GetLostFrames(); }

private:
    DecodedFrame const* Get(long long number) {
        if (m_thread) {
            return m_thread->Get(number);
        }
        if (m_current.number == number) {
            return &m_current;
        }
        if (m_producer.GetNext() != number) {
            m_producer.Restart(number);
        }
        if (!m_producer.Next(m_current)) {
            m_current.number = -1;
            return nullptr;
        }
        return &m_current;
    }

    std::unique_ptr<LMP3ReadFile> m_file;
    LMP3FileInfo m_info;
    int m_frameSamples;
    FrameProducer m_producer;
    std::unique_ptr<LMP3SourceSlaveThread> m_thread;
    DecodedFrame m_current;
    long long m_position = 0;
    long long m_end;
    long long m_skip = 0;
};

LSoundSource Open(LFileDescriptor fd, std::uint64_t start, std::uint64_t end, bool tags,
                  long long knownFrames, bool decodeAhead) {
    auto file = std::make_unique<LMP3ReadFile>(std::move(fd), start, end);
    LMP3FileInfo info;
    LSoundSourceErrorCode const code = ReadStreamInfo(*file, tags, knownFrames, info);
    if (code != LSoundSourceErrorCode::kNone) {
        return LMakeErrorSource(code);
    }
    return LMakeSource<LMP3Source>(std::move(file), info, decodeAhead);
}

} // namespace

LSoundSource LMP3File::OpenSource(char const* path, bool decodeAhead) {
    LFileDescriptor fd;
    if (path == nullptr || !fd.Open(path, O_RDONLY)) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    }
    std::int64_t const size = fd.GetSize();
    if (size < 0) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    }
    return Open(std::move(fd), 0, static_cast<std::uint64_t>(size), true, 0, decodeAhead);
}

LSoundSource LMP3File::OpenSourceRange(LFileDescriptor fd, std::uint64_t offset,
                                       std::uint64_t bytes, long long frames) {
    if (!fd.IsOpen()) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    }
    return Open(std::move(fd), offset, offset + bytes, false, frames, true);
}

long long LMP3File::GetLostFrames(LSoundSource const& source) {
    auto const* mp3 = source.GetAs<LMP3Source>();
    return mp3 != nullptr ? mp3->GetLostFrames() : -1;
}

bool LMP3File::GetInfo(char const* path, LMP3FileInfo& info) {
    LFileDescriptor fd;
    if (path == nullptr || !fd.Open(path, O_RDONLY)) {
        return false;
    }
    std::int64_t const size = fd.GetSize();
    if (size < 0) {
        return false;
    }
    LMP3ReadFile file(std::move(fd), 0, static_cast<std::uint64_t>(size));
    info = LMP3FileInfo{};
    return ReadStreamInfo(file, true, 0, info) == LSoundSourceErrorCode::kNone;
}
