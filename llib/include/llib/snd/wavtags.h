// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Tag chunks of RIFF/WAVE files. The audio of a WAV file is read and written elsewhere; this
// pair reads the chunks that describe it and rewrites them in place, never touching "fmt " or
// "data".
//
// - LWavTagIterator walks every top-level chunk of a file up to its end (files over 4 GB keep
//   their tags after consecutive "data" chunks, beyond what a RIFF size can describe) and yields
//   the tags as (key, value) pairs: LIST/INFO strings by the INFO table, the "DISP" text, the
//   EBU broadcast extension ("bext"), the AES46 cart chunk ("cart") and the markers of a "cue "
//   chunk as the marker keys of LFileTagData. An "id3 " chunk is only located, for a caller that
//   parses ID3v2 itself. When a key comes from more than one chunk, the pair from the richest
//   source comes first (INFO, DISP, bext, cart), since bext and cart fields are truncated.
// - LWavTagWriter rewrites the tag chunks of an existing file from an LFileTagData: the old tag
//   chunks become free slots that new chunks reuse (the remainder of a slot, and every slot left
//   over, turns into a zero-filled "JUNK" chunk), chunks that fit no slot are appended, and the
//   RIFF size is set to the new file size.
//
// Both work on plain close-on-exec descriptors with positioned reads and writes, from one thread.
// Failures are values: Open and Write return false and leave the file as it was, except that a
// write which fails after part of it reached the disk leaves the audio intact and, where it had
// grown the file, truncates it back.

#include "llib/snd/filetagdata.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class LFileDescriptor;

// Every tag key a WAV file can hold ("CATEGORY" twice: the INFO subject and the cart category).
inline constexpr std::size_t kLWavTagCount = 49;
extern char const* const LWavTags[kLWavTagCount];

// Chunk types that carry tags besides LIST/INFO.
inline constexpr std::size_t kLWavTagOtherChunkTypeCount = 5;
extern char const* const LWavTagOtherChunkTypesThatSupportTags[kLWavTagOtherChunkTypeCount];

// One chunk header as found in the file: `offset` is where its 8-byte header starts.
struct LRiffChunkHeader {
    char id[4] = {};
    std::uint32_t bytes = 0;
    std::uint64_t offset = 0;
};

class LWavTagIterator {
public:
    // Scans `path`; false when it cannot be opened or holds no RIFF/WAVE chunk. A damaged tag
    // chunk is skipped, and a chunk that claims more bytes than the file has ends the scan.
    [[nodiscard]] bool Open(char const* path);
    // The next (key, value) pair; false when all were given.
    [[nodiscard]] bool TagGet(std::string& key, std::string& value);

    // The tag key of an INFO id ("INAM" -> "TITLE"), or nullptr for an id outside the table.
    [[nodiscard]] static char const* MappedKeyGet(char const* infoId);

    // Location of the "id3 " chunk's body, when the file has one.
    [[nodiscard]] bool HasId3() const { return m_id3Bytes > 0; }
    [[nodiscard]] std::uint64_t GetId3Offset() const { return m_id3Offset; }
    [[nodiscard]] std::uint32_t GetId3Bytes() const { return m_id3Bytes; }
    // Sample rate from "fmt ", 0 when there is none.
    [[nodiscard]] std::uint32_t GetSampleRate() const { return m_rateHz; }

private:
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    struct CuePoint {
        std::uint32_t id;
        std::uint32_t frames;
    };

    [[nodiscard]] bool FileScanForInfo(LFileDescriptor& fd);
    void OtherChunksRead(LFileDescriptor& fd, LRiffChunkHeader const& header);
    void OtherChunksWithIdRead(std::vector<unsigned char> const& body);
    void ListRead(std::vector<unsigned char> const& body);
    void MarkersPrepare();

    Pairs m_info, m_disp, m_bext, m_cart, m_markers, m_tags;
    std::vector<CuePoint> m_cues;
    std::vector<std::pair<std::uint32_t, std::string>> m_labels; // cue id -> LIST/adtl label
    std::size_t m_next = 0;
    std::uint64_t m_id3Offset = 0;
    std::uint32_t m_id3Bytes = 0;
    std::uint32_t m_rateHz = 0;
};

class LWavTagWriter {
public:
    explicit LWavTagWriter(LFileTagData const& tags) : m_tags(tags) {}

    // Makes the tag chunks of the WAV file at `path` hold exactly the record's tags and
    // markers (and its prepared ID3v2 tag, whose file is deleted once copied). False when the
    // file is not a well-formed RIFF/WAVE file (a chunk running past its end included), the
    // ID3v2 file cannot be read, or a write fails.
    [[nodiscard]] bool Write(char const* path);

    // True for exactly the keys of LWavTags (ASCII case ignored).
    [[nodiscard]] static bool TagFieldIsValid(char const* key);
    // The INFO id a key is written under, or four blanks when it goes to no INFO item.
    [[nodiscard]] static char const* MappedChunkIdGet(char const* key);

    // A pending chunk; public only so the implementation's helpers can name it.
    struct Chunk {
        char id[4] = {};
        std::vector<unsigned char> body; // empty for "id3 ", which is copied from its file
        std::uint64_t bodyBytes = 0;
        [[nodiscard]] std::uint64_t TotalBytes() const { return 8 + bodyBytes + (bodyBytes & 1); }
    };

private:
    struct Slot {
        LRiffChunkHeader header;
        bool used = false;
        [[nodiscard]] std::uint64_t TotalBytes() const {
            return 8 + std::uint64_t{header.bytes} + (header.bytes & 1);
        }
    };

    // Builds the pending chunks; false when the prepared ID3v2 file cannot be read.
    [[nodiscard]] bool OtherChunkTagsPrepare(std::uint32_t rateHz);
    void ChunkTypesArrangeByPriority();
    [[nodiscard]] bool ChunkWrite(LFileDescriptor& fd, Chunk const& chunk, std::uint64_t offset);
    [[nodiscard]] bool ChunkWriteIfSizeFits(LFileDescriptor& fd, Chunk const& chunk,
                                            Slot const& slot);
    [[nodiscard]] static bool JunkChunkWriteHeader(LFileDescriptor& fd, std::uint64_t offset,
                                                   std::uint64_t totalBytes);
    [[nodiscard]] bool OtherChunksWriteAtTheEndIfNeeded(LFileDescriptor& fd,
                                                        std::uint64_t endOffset);
    [[nodiscard]] static bool MainHeaderLengthUpdate(LFileDescriptor& fd, std::uint64_t riffOffset);

    LFileTagData const& m_tags;
    std::vector<Chunk> m_chunks;
    std::vector<Slot> m_slots;
    std::vector<int> m_slotOfChunk; // index into m_slots per chunk, -1: append
    std::string m_id3Path;
};

// Reads every tag of a WAV file into `tags`, replacing the values of keys it already holds
// (where the file has a key in several chunks, the first pair the iterator gives wins); false
// when the file is not a readable RIFF/WAVE file.
[[nodiscard]] bool LWavTagsRead(char const* path, LFileTagData& tags);
// Rewrites the tag chunks of an existing WAV file so they hold exactly `tags`; false on failure
// (the audio is never touched).
[[nodiscard]] bool LWavTagsWrite(char const* path, LFileTagData const& tags);
