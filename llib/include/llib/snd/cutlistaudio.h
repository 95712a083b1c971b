// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The cut list: a document's audio as an ordered list of segments, each a range of one sound
// cache item (or a stretch of silence) with a gain. Editing never touches samples: insert,
// delete, copy, trim and repeat split, drop, copy and re-link segments, so every edit costs
// O(number of segments) whatever the length of the audio.
//
// Ownership: the list owns its segments (an intrusive singly linked LList); each segment owns
// exactly one reference on its cache item (copying a segment takes one, destroying it releases
// it), so items live exactly as long as some cut list, undo state or clipboard uses them. Every
// segment of a list is at least one frame long: primitives drop what would become empty.
//
// Units: every position and length is in frames of the list (signed 64-bit); a range is start
// inclusive, end exclusive. Positions and lengths are clamped to +-kLCutListMaxFrames and an edit
// that would make a list longer than that does nothing, so no sum can overflow; no real audio
// comes near that bound.
//
// Reading: OpenSource gives a source over a snapshot of the list (it takes its own item
// references, so the list may be edited or released while the source plays). Items are read as
// interleaved float frames with the list's channel count; frames beyond an item's file, or of an
// item whose file is missing, read as zeros.
//
// Not thread-safe: one thread edits a list at a time. Failures are values: loading returns an
// LProcessResult, writing a bool.

#include "llib/gen/list.h"
#include "llib/gen/process.h"
#include "llib/gen/sdf.h"
#include "llib/snd/cache.h"
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"
#include "llib/unix/fd.h"

#include <cstdint>
#include <memory>
#include <vector>

// Far beyond any audio (about 180 years at 192 kHz) yet far from overflowing a 64-bit sum.
inline constexpr long long kLCutListMaxFrames = 1LL << 50;
inline constexpr int kLCutListDefaultSampleRate = 44100;

// Identifiers of the link: the children of a cut list's container in a structured data file.
inline constexpr std::uint16_t kLCutListLinkSegment = 4096; // container, one per segment
inline constexpr std::uint16_t kLCutListLinkSampleRate = 8192;
inline constexpr std::uint16_t kLCutListLinkChannels = 8193;
inline constexpr std::uint16_t kLCutListLinkItem = 8194;      // in a segment
inline constexpr std::uint16_t kLCutListLinkOffset32 = 8195;  // in a segment, old form
inline constexpr std::uint16_t kLCutListLinkLength32 = 8196;  // in a segment, old form
inline constexpr std::uint16_t kLCutListLinkGainFixed = 8197; // in a segment, old 8.24 form
inline constexpr std::uint16_t kLCutListLinkGain = 8198;      // in a segment
inline constexpr std::uint16_t kLCutListLinkOffset = 8199;    // in a segment
inline constexpr std::uint16_t kLCutListLinkLength = 8200;    // in a segment

// One range of a cache item (or silence, item 65535) played with a gain.
class LCutListSegment : public LListLink<LCutListSegment> {
public:
    // Silence of no length.
    LCutListSegment() = default;
    // Takes a reference on `item` (none for silence).
    LCutListSegment(unsigned short item, long long offsetFrames, long long lengthFrames,
                    float gain = 1.0f);
    // Takes its own reference and copies the unknown chunks.
    LCutListSegment(LCutListSegment const& other);
    LCutListSegment& operator=(LCutListSegment const& other);
    ~LCutListSegment();

    [[nodiscard]] LSoundCacheItemHandle GetHandle() const { return m_handle; }
    [[nodiscard]] unsigned short GetItem() const { return m_item; }
    [[nodiscard]] bool IsSilence() const { return m_item == kLSoundCacheItemNone; }
    [[nodiscard]] long long GetLengthFrames() const { return m_lengthFrames; }
    [[nodiscard]] float GetGain() const { return m_gain; }
    [[nodiscard]] long long GetOffsetFrames() const { return m_offsetFrames; }
    [[nodiscard]] LList<LSDFUnknownChunk> const& GetUnknownChunks() const { return m_unknown; }
    [[nodiscard]] LList<LSDFUnknownChunk>& GetUnknownChunks() { return m_unknown; }

    // Releases the old item's reference and takes one on `item`.
    void SetItem(unsigned short item);
    // A segment on a list is changed only through the list, which keeps its length; these are
    // for segments being built.
    void SetLengthFrames(long long frames) { m_lengthFrames = frames; }
    void SetOffsetFrames(long long frames) { m_offsetFrames = frames; }
    void SetGain(float gain) { m_gain = gain; }

private:
    friend class LCutListAudio;

    LSoundCacheItemHandle m_handle; // the item's handle contents; 65535 for silence
    unsigned short m_item = kLSoundCacheItemNone;
    long long m_lengthFrames = 0;
    float m_gain = 1.0f;
    long long m_offsetFrames = 0;
    LList<LSDFUnknownChunk> m_unknown;
};

// One ".grf" peak record of one channel for one group of 256 frames: the largest value's code
// and the code of the smallest value's magnitude (see LSoundCacheGrfCode).
struct LCutListGrfFrame {
    std::uint16_t max = 0;
    std::uint16_t min = 0;
    bool operator==(LCutListGrfFrame const&) const = default;
};

// How PositionSnap moves a position; flags may be combined.
enum class LCutListSnap : unsigned {
    kNone = 0,
    kZeroCross = 1, // to the nearest zero crossing within the search range
};

class LCutListAudio {
public:
    LCutListAudio() = default;
    LCutListAudio(LCutListAudio const& other);
    LCutListAudio& operator=(LCutListAudio const& other);
    LCutListAudio(LCutListAudio&& other) noexcept;
    LCutListAudio& operator=(LCutListAudio&& other) noexcept;
    ~LCutListAudio() = default;

    // The sum of the segments' lengths, kept as they change (O(1)).
    [[nodiscard]] long long GetLengthFrames() const { return m_lengthFrames; }
    [[nodiscard]] std::size_t GetSegmentCount() const { return m_segments.GetCount(); }
    [[nodiscard]] LCutListSegment const* GetHead() const { return m_segments.GetHead(); }
    [[nodiscard]] LList<LCutListSegment> const& GetSegments() const { return m_segments; }
    [[nodiscard]] int GetSampleRate() const { return m_sampleRate; }
    [[nodiscard]] unsigned char GetChannels() const { return m_channels; }
    void SetSampleRate(int sampleRateHz) { m_sampleRate = sampleRateHz; }
    void SetChannels(unsigned char channels) { m_channels = channels; }
    [[nodiscard]] bool IsMP3LosslessMode() const { return m_mp3Lossless; }
    // Records the mode; the frame-grid rules of lossless MP3 editing build on it.
    void EvMP3LosslessModeChanged(bool on) { m_mp3Lossless = on; }
    [[nodiscard]] LList<LSDFUnknownChunk> const& GetUnknownChunks() const { return m_unknown; }
    [[nodiscard]] LList<LSDFUnknownChunk>& GetUnknownChunks() { return m_unknown; }

    // Appends a copy of `segment` (its own item reference); one shorter than a frame is dropped.
    void AppendSegment(LCutListSegment const& segment);
    // Appends a segment handed over whole (its reference moves with it).
    void AppendSegment(std::unique_ptr<LCutListSegment> segment);
    // Drops every segment (releasing their references); rate, channels and chunks stay.
    void Clear();

    // The edit primitives. Each costs O(segments) and takes or releases item references only for
    // the segments it copies, splits or drops.
    // Copies of all of `other`'s segments at `position`: before everything at 0 or below, between
    // the halves of a segment it falls inside; beyond the end after silence filling the gap, so
    // the copies start exactly at `position` (nothing happens when `other` is empty).
    void EfInsert(long long position, LCutListAudio const& other);
    // Removes [start, end); nothing when start > end, end < 0 or start == end.
    void EfDelete(long long start, long long end);
    // Inserts `frames` of silence at `position`; a negative position shortens the silence first,
    // one beyond the end pads the gap so the list reaches position + frames.
    void EfInsertSilence(long long position, long long frames);
    // Makes `out` hold exactly [start, end) of this list (silence where the range lies outside
    // it) with this list's rate, channels and unknown chunks; nothing when end < start.
    void EfCopy(long long start, long long end, LCutListAudio& out) const;
    // Deletes [0, start) when start >= 1, then everything from end - start on.
    void EfTrim(long long start, long long end);
    // Inserts `count` further copies of [start, end) at start (as many as the length bound
    // allows).
    void EfRepeatLoop(long long start, long long end, unsigned long count);
    // Multiplies every segment's gain by `factor`: a change of level that renders nothing.
    void EfGain(float factor);
    // The list becomes `segment` alone (none when it is empty), at this rate and channel count;
    // the unknown chunks of the old list go too.
    void SetSingleCutListSegment(LCutListSegment const& segment, int sampleRateHz,
                                 unsigned char channels);

    // A source over the list as it is now (LCutListAudioSource). Always a valid handle; an
    // invalid rate or channel count gives a source in error that reads silence.
    [[nodiscard]] LSoundSource OpenSource() const;
    // A sink that writes new audio into a new cache item and links it into this list at
    // `position`, or at the end when it is negative (see LCutListAudioSink). The list must
    // outlive the sink. `title` names the recording for the user; the item does not keep it.
    [[nodiscard]] LSoundSink OpenSink(int sampleRateHz, unsigned char channels, char const* title,
                                      long long position = -1);

    // The display peaks of [start, start + frames): channels records per group of 256 frames of
    // the range, channel by channel, each the largest of the item records that the group's
    // frames touch (an item record covers 256 frames of its item, so a range that starts or
    // ends inside an item's group takes that whole group's record), scaled by the segment's
    // gain. Silence gives zero codes. Stops early (with the records so far) when an item's
    // ".grf" cannot be read; returns false then.
    [[nodiscard]] bool GrfBufferGet(std::vector<LCutListGrfFrame>& out, long long start,
                                    long long frames) const;

    // The zero crossing nearest to `position` within +-`searchFrames` (10 ms at the list's rate
    // when 0 or less): the frame at which the channels' sum changes sign or is exactly zero.
    // Returns `position` unchanged when there is none.
    [[nodiscard]] long long ZeroCrossCutpointFind(long long position,
                                                  long long searchFrames = 0) const;
    // Applies the snaps asked for. Only zero-crossing snapping is implemented so far; the MP3
    // frame grid and the beat map will join it.
    [[nodiscard]] long long PositionSnap(long long position, LCutListSnap snap) const;

private:
    friend class LCutListAudioSink;

    // The segment holding `position` with the offset inside it, and the one before it (null at
    // the head). `at` is null when the position is at or beyond the end.
    struct Locate {
        LCutListSegment* previous = nullptr;
        LCutListSegment* at = nullptr;
        long long offset = 0;
    };
    [[nodiscard]] Locate Find(long long position) const;
    // Splits `segment` `frames` into it; returns the first half (the segment itself).
    LCutListSegment* Split(LCutListSegment* segment, long long frames);
    // The segment after which an insertion at `position` (0 <= position <= length) goes, or null
    // for the head; splits a segment the position falls inside.
    LCutListSegment* InsertionPoint(long long position);
    // Inserts `times` copies of `source`'s segments after `after` (null: at the head).
    void InsertCopiesAfter(LCutListSegment* after, LCutListAudio const& source,
                           unsigned long times);
    void InsertSegmentAfter(LCutListSegment* after, std::unique_ptr<LCutListSegment> segment);
    // Readies an insertion of `frames` at `position`: false (nothing changed) when it would
    // overflow the length bound; otherwise pads a gap beyond the end with silence and gives the
    // segment to insert after.
    [[nodiscard]] bool PrepareInsert(long long position, long long frames, LCutListSegment*& after);
    void CopyFrom(LCutListAudio const& other);

    LList<LCutListSegment> m_segments;
    int m_sampleRate = kLCutListDefaultSampleRate;
    unsigned char m_channels = 1;
    bool m_mp3Lossless = false;
    LList<LSDFUnknownChunk> m_unknown;
    long long m_lengthFrames = 0;
};

// Reads a cut list as a source: the segments one after the other, each item range read from the
// item's ".aud" and multiplied by the segment's gain unless it is exactly 1.0, silence segments
// as zeros. Seek goes anywhere: before 0 and past the end read as silence. Holds its own item
// references (a snapshot of the list), released when the source goes. Read allocates nothing;
// crossing into a segment of another item opens that item's file. Small reads (a limiter's
// blocks) are served from a read-ahead block of the item, so that reading in blocks of a few
// hundred frames costs one system call per 256 KiB rather than one per block.
class LCutListAudioSource final : public LSoundSourceBase {
public:
    explicit LCutListAudioSource(LCutListAudio const& list);
    ~LCutListAudioSource() override;

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_endFrames; }
    void Seek(long long frame) override;

private:
    struct Piece {
        unsigned short item;
        float gain;
        long long startFrames; // in the list
        long long lengthFrames;
        long long offsetFrames; // in the item
    };
    // Makes `item`'s ".aud" the open file (kept while consecutive pieces use the same item).
    void OpenItem(unsigned short item);
    void ReadPiece(Piece const& piece, long long from, float* out, long long frames);
    // Frames [from, from + frames) of the open item, all inside its file.
    void ReadItem(float* out, long long from, long long frames);

    static constexpr long long kAheadSamples = 65536;

    std::vector<Piece> m_pieces;
    long long m_endFrames = 0;
    long long m_position = 0;
    std::size_t m_piece = 0; // the piece holding m_position (or the count past the end)
    unsigned short m_openItem = kLSoundCacheItemNone;
    LFileDescriptor m_file;
    long long m_openItemFrames = 0;
    std::unique_ptr<float[]> m_ahead;
    long long m_aheadStart = 0; // the open item's frames held in m_ahead
    long long m_aheadFrames = 0;
};

// Records or renders new audio into a new cache item and links it into a cut list. Written frames
// go to the item as they come; CommitUpTo(frames) links what was written up to that count
// (counted from the sink's start) into the list at the sink's position, which then moves past
// it, so a recorder can make its audio part of the document while it keeps recording. Releasing
// the sink commits everything written and finishes the item. An empty list takes the sink's rate
// and channel count. The list must outlive the sink and is edited only by the sink's thread while
// it lives. Fails (IsFailed) when no item can be made or written.
class LCutListAudioSink final : public LSoundSinkBase {
public:
    LCutListAudioSink(LCutListAudio& list, int sampleRateHz, unsigned char channels,
                      long long position);
    ~LCutListAudioSink() override;

    void Write(float const* buffer, long long frames) override;
    // Links frames [committed, frames) into the list; frames beyond what was written are
    // clamped. Commits never go back.
    void CommitUpTo(long long frames);
    [[nodiscard]] long long GetCommittedFrames() const { return m_committedFrames; }
    [[nodiscard]] unsigned short GetItem() const { return m_item; }

private:
    LCutListAudio& m_list;
    long long m_position; // where the next committed frames go in the list
    long long m_committedFrames = 0;
    unsigned short m_item = kLSoundCacheItemNone;
    LSoundSink m_itemSink;
};

// Loads a cut list from the container chunk `container` is at: rate, channels and segments by the
// link identifiers; the 32-bit offset and length are used only when the 64-bit ones are absent
// or 0, the old fixed-point gain only when no float gain other than 1.0 was read. Other chunks
// are kept as unknown chunks of the list or of their segment. Segments shorter than a frame are
// dropped. Asks IsToStop between children and returns kStopped when told to (keeping what was
// loaded); kFailed when the file is corrupt. `list` is emptied first.
template <class Stream>
[[nodiscard]] LProcessResult
ProcessLoadCutListAudioLink(LProcessInterface& process, LSDFReader<Stream>& reader,
                            LSDFReaderChunkIterator<Stream>& container, LCutListAudio& list);

// Writes `list` as a container chunk `id` (at `index` among its siblings, or -1), putting the
// unknown chunks of the list and of each segment back at their old positions.
template <class Stream>
[[nodiscard]] bool WriteCutListAudioLink(LSDFWriter<Stream>& writer, std::uint16_t id,
                                         LCutListAudio const& list, int index = -1);

// Decodes `source` from its position to its end into a new cache item and appends a segment
// over it to `list`. With a `path`, the item's information records that file's details so that
// opening it again unchanged finds the item. With `takeFormat`, the list takes the source's rate
// and channel count. Returns the decode's result (nothing is appended unless it completed).
[[nodiscard]] LProcessResult LSoundCutListAdd(LProcessInterface& process, char const* path,
                                              LSoundSource& source, LCutListAudio& list,
                                              bool takeFormat);
