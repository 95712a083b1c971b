// SPDX-License-Identifier: GPL-3.0-or-later
// The cut list inside structured data files (projects keep each document's list as a container
// of segment containers) and the way a decoded sound joins a list.
#include "llib/snd/cutlistaudio.h"

#include "llib/gen/filestream.h"
#include "llib/gen/memstream.h"

#include <algorithm>
#include <memory>

namespace {

// The old gain was 8.24 fixed point.
constexpr double kFixedGainScale = 1.0 / 16777216.0;

// Hands out sibling positions for the chunks we write, skipping those the unknown chunks held,
// so that the writer puts each unknown chunk back between the same neighbours.
class SiblingIndex {
public:
    explicit SiblingIndex(LList<LSDFUnknownChunk> const& unknown) : m_unknown(unknown.GetHead()) {}

    int Next() {
        for (;;) {
            if (m_unknown != nullptr && m_unknown->index < m_next) {
                m_unknown = m_unknown->GetNext();
            } else if (m_unknown != nullptr && m_unknown->index == m_next) {
                m_unknown = m_unknown->GetNext();
                ++m_next;
            } else {
                return m_next++;
            }
        }
    }

private:
    LSDFUnknownChunk const* m_unknown;
    int m_next = 0;
};

template <class Stream>
[[nodiscard]] bool LoadSegment(LSDFReader<Stream>& reader, LSDFReaderChunk<Stream> const& container,
                               LCutListAudio& list) {
    auto segment = std::make_unique<LCutListSegment>();
    int item = kLSoundCacheItemNone;
    int offset32 = 0;
    int length32 = 0;
    int gainFixed = 0;
    bool haveGainFixed = false;
    float gain = 1.0f;
    long long offset = 0;
    long long length = 0;
    LSDFReaderChunkIterator<Stream> it(reader, container);
    while (it.StartNextChunk()) {
        // A known identifier with an unexpected type is kept as it came, not reinterpreted. A
        // value too short to read leaves the default.
        std::uint16_t const id = it.GetId();
        LSDFValueType const type = it.GetType();
        bool known = true;
        if (id == kLCutListLinkItem && type == LSDFValueType::kInt) {
            (void)it.ReadInt(item);
        } else if (id == kLCutListLinkOffset32 && type == LSDFValueType::kInt) {
            (void)it.ReadInt(offset32);
        } else if (id == kLCutListLinkLength32 && type == LSDFValueType::kInt) {
            (void)it.ReadInt(length32);
        } else if (id == kLCutListLinkGainFixed && type == LSDFValueType::kInt) {
            haveGainFixed = it.ReadInt(gainFixed);
        } else if (id == kLCutListLinkGain && type == LSDFValueType::kFloat) {
            (void)it.ReadFloat(gain);
        } else if (id == kLCutListLinkOffset && type == LSDFValueType::kInt64) {
            (void)it.ReadInt64(offset);
        } else if (id == kLCutListLinkLength && type == LSDFValueType::kInt64) {
            (void)it.ReadInt64(length);
        } else {
            known = false;
        }
        if (!known && !it.ReadUnknownChunk(segment->GetUnknownChunks())) {
            return false;
        }
    }
    if (!reader.IsOk()) {
        return false;
    }
    // Lists written before lengths outgrew 32 bits carry only the old forms; newer ones write 0
    // there or nothing.
    if (offset == 0) {
        offset = offset32;
    }
    if (length == 0) {
        length = length32;
    }
    if (gain == 1.0f && haveGainFixed) {
        gain = static_cast<float>(static_cast<double>(gainFixed) * kFixedGainScale);
    }
    segment->SetItem(static_cast<unsigned short>(item & 0xFFFF));
    if (!segment->IsSilence()) {
        segment->SetOffsetFrames(offset); // silence has no offset to keep
    }
    segment->SetLengthFrames(length);
    segment->SetGain(gain);
    list.AppendSegment(std::move(segment)); // one shorter than a frame is dropped there
    return true;
}

} // namespace

template <class Stream>
LProcessResult ProcessLoadCutListAudioLink(LProcessInterface& process, LSDFReader<Stream>& reader,
                                           LSDFReaderChunkIterator<Stream>& container,
                                           LCutListAudio& list) {
    list.Clear();
    list.GetUnknownChunks().Clear();
    list.SetSampleRate(kLCutListDefaultSampleRate);
    list.SetChannels(1);
    LSDFReaderChunkIterator<Stream> it(reader, container);
    for (;;) {
        if (process.IsToStop()) {
            return LProcessResult::kStopped;
        }
        if (!it.StartNextChunk()) {
            break;
        }
        bool known = false;
        switch (it.GetId()) {
        case kLCutListLinkSampleRate:
            if (it.GetType() == LSDFValueType::kInt) {
                int rate = list.GetSampleRate();
                (void)it.ReadInt(rate);
                list.SetSampleRate(rate);
                known = true;
            }
            break;
        case kLCutListLinkChannels:
            if (it.GetType() == LSDFValueType::kInt) {
                int channels = list.GetChannels();
                (void)it.ReadInt(channels);
                list.SetChannels(static_cast<unsigned char>(channels & 0xFF));
                known = true;
            }
            break;
        case kLCutListLinkSegment:
            if (it.GetType() == LSDFValueType::kContainer) {
                known = true;
                if (!LoadSegment(reader, it, list)) {
                    break;
                }
            }
            break;
        default:
            break;
        }
        if (!known && !it.ReadUnknownChunk(list.GetUnknownChunks())) {
            break;
        }
        if (!reader.IsOk()) {
            break;
        }
    }
    if (!reader.IsOk()) {
        process.SetErrorF("The cut list could not be read: %s.", reader.GetErrorReason());
        return LProcessResult::kFailed;
    }
    return LProcessResult::kCompleted;
}

template <class Stream>
bool WriteCutListAudioLink(LSDFWriter<Stream>& writer, std::uint16_t id, LCutListAudio const& list,
                           int index) {
    LList<LSDFUnknownChunk> const& unknown = list.GetUnknownChunks();
    if (!writer.StartContainer(id, unknown, index)) {
        return false;
    }
    SiblingIndex top(unknown);
    bool ok = writer.WriteInt(kLCutListLinkSampleRate, list.GetSampleRate(), top.Next()) &&
              writer.WriteInt(kLCutListLinkChannels, list.GetChannels(), top.Next());
    for (LCutListSegment const& segment : list.GetSegments()) {
        LList<LSDFUnknownChunk> const& segmentUnknown = segment.GetUnknownChunks();
        SiblingIndex child(segmentUnknown);
        ok = ok && writer.StartContainer(kLCutListLinkSegment, segmentUnknown, top.Next()) &&
             writer.WriteInt(kLCutListLinkItem, segment.GetItem(), child.Next()) &&
             writer.WriteFloat(kLCutListLinkGain, segment.GetGain(), child.Next()) &&
             writer.WriteInt64(kLCutListLinkOffset, segment.GetOffsetFrames(), child.Next()) &&
             writer.WriteInt64(kLCutListLinkLength, segment.GetLengthFrames(), child.Next()) &&
             writer.EndContainer(kLCutListLinkSegment);
    }
    return ok && writer.EndContainer(id);
}

LProcessResult LSoundCutListAdd(LProcessInterface& process, char const* path, LSoundSource& source,
                                LCutListAudio& list, bool takeFormat) {
    int const rate = source->GetSampleRate();
    unsigned char const channels = source->GetChannels();
    LSoundCacheItemHandle handle;
    long long frames = 0;
    LProcessResult const result = LSoundCacheItemAdd(process, source, handle, frames);
    if (result != LProcessResult::kCompleted || handle.item > kLSoundCacheItemLast) {
        return result == LProcessResult::kCompleted ? LProcessResult::kFailed : result;
    }
    if (path != nullptr && path[0] != '\0') {
        LSoundCacheOriginal original;
        original.path = path;
        // Without the details the item is simply not found again; the list is still good.
        if (LSoundCacheFileModifiedTimeAndSizeGet(path, original.modifiedNs, original.size)) {
            (void)LSoundCacheItemOriginalSet(handle.item, original);
        }
    }
    if (takeFormat) {
        list.SetSampleRate(rate);
        list.SetChannels(channels);
    }
    list.AppendSegment(std::make_unique<LCutListSegment>(handle.item, 0, frames, 1.0f));
    // The segment holds its own reference now; the one the item was made with goes.
    LSoundCache::DecRef(handle.item);
    return LProcessResult::kCompleted;
}

LCutListAudioSink::LCutListAudioSink(LCutListAudio& list, int sampleRateHz, unsigned char channels,
                                     long long position)
    : LSoundSinkBase(sampleRateHz, channels), m_list(list),
      m_position(position < 0 ? list.GetLengthFrames() : position) {
    if (IsFailed()) {
        return;
    }
    m_item = LSoundCache::ItemCreateNewAndIncRef();
    if (m_item > kLSoundCacheItemLast) {
        SetFailed();
        return;
    }
    m_itemSink = LMakeSink<LSoundCacheSink>(m_item, sampleRateHz, channels);
    if (m_itemSink->IsFailed()) {
        SetFailed();
    }
    if (m_list.GetSegmentCount() == 0) {
        m_list.SetSampleRate(sampleRateHz);
        m_list.SetChannels(channels);
    }
}

LCutListAudioSink::~LCutListAudioSink() {
    CommitUpTo(GetFramesWritten());
    // Finishing writes the last peaks and the information file; the segments linked above hold
    // their own references, so the one the item was made with can go.
    m_itemSink.Close();
    if (m_item <= kLSoundCacheItemLast) {
        LSoundCache::DecRef(m_item);
    }
}

void LCutListAudioSink::Write(float const* buffer, long long frames) {
    if (IsFailed() || buffer == nullptr || frames <= 0) {
        return;
    }
    long long const before = m_itemSink->GetFramesWritten();
    m_itemSink->Write(buffer, frames);
    AddFramesWritten(m_itemSink->GetFramesWritten() - before);
    if (m_itemSink->IsFailed()) {
        SetFailed(); // what was written stays committable
    }
}

void LCutListAudioSink::CommitUpTo(long long frames) {
    frames = std::min(frames, GetFramesWritten());
    if (frames <= m_committedFrames || m_item > kLSoundCacheItemLast) {
        return;
    }
    // The item's frames are read straight from its ".aud" as it grows, so the committed part
    // plays before the item is finished once the sink has put it there.
    if (auto* const itemSink = m_itemSink.GetAs<LSoundCacheSink>()) {
        itemSink->Flush();
    }
    LCutListAudio piece;
    piece.AppendSegment(
        LCutListSegment(m_item, m_committedFrames, frames - m_committedFrames, 1.0f));
    m_list.EfInsert(m_position, piece);
    m_position = std::max(m_position, 0LL) + (frames - m_committedFrames);
    m_committedFrames = frames;
}

LSoundSink LCutListAudio::OpenSink(int sampleRateHz, unsigned char channels, char const* title,
                                   long long position) {
    (void)title; // shown by the recorder; nothing here keeps it
    return LMakeSink<LCutListAudioSink>(*this, sampleRateHz, channels, position);
}

#define TESSEL_CUTLIST_READER(Stream)                                                              \
    template LProcessResult ProcessLoadCutListAudioLink<Stream>(                                   \
        LProcessInterface&, LSDFReader<Stream>&, LSDFReaderChunkIterator<Stream>&,                 \
        LCutListAudio&);
#define TESSEL_CUTLIST_WRITER(Stream)                                                              \
    template bool WriteCutListAudioLink<Stream>(LSDFWriter<Stream>&, std::uint16_t,                \
                                                LCutListAudio const&, int);

TESSEL_CUTLIST_READER(LInputStreamFile)
TESSEL_CUTLIST_READER(LInputStreamFileShared)
TESSEL_CUTLIST_READER(LInputStreamBuffer)
TESSEL_CUTLIST_READER(LReadWriteFile)
TESSEL_CUTLIST_WRITER(LOutputStreamFile)
TESSEL_CUTLIST_WRITER(LOutputStreamByteArray)
TESSEL_CUTLIST_WRITER(LReadWriteFile)
