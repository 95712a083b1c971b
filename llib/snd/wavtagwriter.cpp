// SPDX-License-Identifier: GPL-3.0-or-later
// Rewriting the tag chunks of a WAV file: old tag chunks become slots, new chunks take them in
// priority order with JUNK for what is left, the rest is appended, and the RIFF size follows.
#include "llib/snd/wavtags.h"

#include "wavtagsshared.h"

#include "llib/unix/filelock.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <unistd.h>

using namespace llib::wavtag;

namespace {

// Zeroes chunk bodies given up, so that removed tags do not linger in the file.
bool ZeroesWrite(LFileDescriptor& fd, std::uint64_t offset, std::uint64_t bytes) {
    static unsigned char const kZeroes[64 * 1024] = {};
    while (bytes > 0) {
        std::uint64_t const n = std::min<std::uint64_t>(bytes, sizeof(kZeroes));
        if (!fd.PWriteAll(kZeroes, n, offset)) {
            return false;
        }
        offset += n;
        bytes -= n;
    }
    return true;
}

template <std::size_t N>
bool AnyKeySet(LFileTagData const& tags, char const* const (&keys)[N]) {
    return std::any_of(keys, keys + N, [&tags](char const* key) {
        char const* value = tags.Get(key);
        return value != nullptr && value[0] != '\0';
    });
}

bool AnyPostTimerSet(LFileTagData const& tags) {
    for (std::size_t i = 0; i < tags.GetCount(); ++i) {
        if (::strncasecmp(tags.GetKeyAt(i), "POSTTIMER", 9) == 0 && tags.GetValueAt(i)[0] != 0 &&
            LWavTagWriter::TagFieldIsValid(tags.GetKeyAt(i))) {
            return true;
        }
    }
    return false;
}

LWavTagWriter::Chunk ChunkMake(char const* id, std::vector<unsigned char> body) {
    LWavTagWriter::Chunk chunk;
    std::memcpy(chunk.id, id, 4);
    chunk.bodyBytes = body.size();
    chunk.body = std::move(body);
    return chunk;
}

template <std::size_t N>
std::size_t RankOf(char const* id, char const* const (&order)[N]) {
    std::size_t rank = 0;
    while (rank < N && !IdIs(id, order[rank])) {
        ++rank;
    }
    return rank;
}

} // namespace

bool LWavTagWriter::TagFieldIsValid(char const* key) {
    return key != nullptr && std::any_of(LWavTags, LWavTags + kLWavTagCount,
                                         [key](char const* t) { return KeyIs(key, t); });
}

char const* LWavTagWriter::MappedChunkIdGet(char const* key) {
    for (InfoMapping const& m : kInfoMap) {
        if (KeyIs(key, m.key)) {
            return m.id;
        }
    }
    return kNoInfoId;
}

namespace {

// Text of a key, empty when the record lacks it.
char const* TextOf(LFileTagData const& tags, char const* key) {
    char const* value = tags.Get(key);
    return value != nullptr ? value : "";
}

using Chunks = std::vector<LWavTagWriter::Chunk>;

// LIST/INFO, in the record's order.
void InfoChunkPrepare(LFileTagData const& tags, Chunks& chunks) {
    std::vector<unsigned char> info = {'I', 'N', 'F', 'O'};
    for (std::size_t i = 0; i < tags.GetCount(); ++i) {
        char const* id = LWavTagWriter::MappedChunkIdGet(tags.GetKeyAt(i));
        std::size_t const bytes = std::strlen(tags.GetValueAt(i));
        if (IdIs(id, kNoInfoId) || bytes == 0) {
            continue;
        }
        info.insert(info.end(), id, id + 4);
        Append32(info, static_cast<std::uint32_t>(bytes + 1));
        info.insert(info.end(), tags.GetValueAt(i), tags.GetValueAt(i) + bytes + 1);
        if ((bytes + 1) & 1) {
            info.push_back(0);
        }
    }
    if (info.size() > 4) {
        chunks.push_back(ChunkMake("LIST", std::move(info)));
    }
}

// The display title, for programs that show DISP rather than INFO.
void DispChunkPrepare(LFileTagData const& tags, Chunks& chunks) {
    if (char const* title = TextOf(tags, "TITLE"); title[0] != '\0') {
        std::vector<unsigned char> disp;
        Append32(disp, 1);
        disp.insert(disp.end(), title, title + std::strlen(title) + 1);
        chunks.push_back(ChunkMake("DISP", std::move(disp)));
    }
}

// Only keys of its own call for a bext chunk; the shared ones (COMMENT, DATE) merely fill it.
void BextChunkPrepare(LFileTagData const& tags, Chunks& chunks) {
    auto text = [&tags](char const* key) { return TextOf(tags, key); };
    std::int64_t number = 0;
    if (!AnyKeySet(tags, kBextOwnKeys)) {
        return;
    }
    std::vector<unsigned char> bext(kBextBytes, 0);
    for (TextField const& f : kBextText) {
        FieldPut(bext.data() + f.offset, f.bytes, text(f.key));
    }
    if (EncodeNumberTagIfValid(text("TIMEREFLOW"), 0, 0xFFFFFFFF, number)) {
        Put32(bext.data() + kBextTimeRefLow, static_cast<std::uint32_t>(number));
    }
    if (EncodeNumberTagIfValid(text("TIMEREFHIGH"), 0, 0xFFFFFFFF, number)) {
        Put32(bext.data() + kBextTimeRefHigh, static_cast<std::uint32_t>(number));
    }
    if (EncodeNumberTagIfValid(text("BWFVERSION"), 0, 0xFFFF, number)) {
        bext[kBextVersion] = static_cast<unsigned char>(number);
        bext[kBextVersion + 1] = static_cast<unsigned char>(number >> 8);
    }
    char const* umid = text("UMID");
    std::size_t const umidDigits = std::strlen(umid);
    if (umidDigits % 2 == 0 && umidDigits <= 2 * kBextUmidBytes &&
        std::all_of(umid, umid + umidDigits,
                    [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; })) {
        for (std::size_t i = 0; i < umidDigits / 2; ++i) {
            char const pair[3] = {umid[2 * i], umid[2 * i + 1], 0};
            bext[kBextUmid + i] = static_cast<unsigned char>(std::strtoul(pair, nullptr, 16));
        }
    }
    char const* history = text("CODINGHISTORY");
    bext.insert(bext.end(), history, history + std::strlen(history));
    chunks.push_back(ChunkMake("bext", std::move(bext)));
}

// Likewise the cart chunk, which title, artist and category only fill.
void CartChunkPrepare(LFileTagData const& tags, Chunks& chunks) {
    auto text = [&tags](char const* key) { return TextOf(tags, key); };
    std::int64_t number = 0;
    if (!AnyKeySet(tags, kCartOwnKeys) && !AnyPostTimerSet(tags)) {
        return;
    }
    std::vector<unsigned char> cart(kCartBytes, 0);
    // AES46 readers check the version; "0101" is the one the published layout defines.
    FieldPut(cart.data(), 4, "0101");
    for (TextField const& f : kCartText) {
        FieldPut(cart.data() + f.offset, f.bytes, text(f.key));
    }
    if (EncodeNumberTagIfValid(text("LEVELREFERENCE"), INT32_MIN, INT32_MAX, number)) {
        Put32(cart.data() + kCartLevelReference, static_cast<std::uint32_t>(number));
    }
    for (unsigned i = 0; i < 8; ++i) {
        char key[24];
        std::snprintf(key, sizeof(key), "POSTTIMER%uUSAGE", i + 1);
        unsigned char* timer = cart.data() + kCartPostTimers + 8 * i;
        FieldPut(timer, 4, text(key));
        std::snprintf(key, sizeof(key), "POSTTIMER%uVALUE", i + 1);
        if (EncodeNumberTagIfValid(text(key), 0, 0xFFFFFFFF, number)) {
            Put32(timer + 4, static_cast<std::uint32_t>(number));
        }
    }
    char const* tagText = text("TAGTEXT");
    cart.insert(cart.end(), tagText, tagText + std::strlen(tagText));
    chunks.push_back(ChunkMake("cart", std::move(cart)));
}

// Markers as cue points. A marker without a usable position is left out; so is the whole chunk
// when none remains.
void CueChunkPrepare(LFileTagData const& tags, std::uint32_t rateHz, Chunks& chunks) {
    auto text = [&tags](char const* key) { return TextOf(tags, key); };
    std::int64_t count = 0;
    if (!EncodeNumberTagIfValid(text("marker_count"), 0, INT32_MAX, count) || count == 0) {
        return;
    }
    count = std::min(count, kMaxMarkers);
    std::int64_t rate = 0;
    if (!EncodeNumberTagIfValid(text("marker_samplerate"), 1, INT32_MAX, rate)) {
        rate = rateHz;
    }
    bool const inMs =
        text("marker_postype")[0] == '\0' || std::strcmp(text("marker_postype"), "0") == 0;
    std::vector<unsigned char> cue(4, 0);
    std::uint32_t written = 0;
    for (std::int64_t i = 0; i < count; ++i) {
        char key[48];
        std::snprintf(key, sizeof(key), "marker_%lld_pos", static_cast<long long>(i));
        std::int64_t pos = 0;
        if (!EncodeNumberTagIfValid(text(key), 0, 99999999999, pos)) {
            continue;
        }
        if (inMs) {
            // Split at whole seconds so that the product cannot overflow for long files.
            pos = (pos / 1000) * rate + ((pos % 1000) * rate) / 1000;
        }
        if (pos > 0xFFFFFFFF) {
            continue;
        }
        char name[LFileTagData::kNameBytes];
        tags.MarkerNameGet(static_cast<unsigned>(i), name);
        unsigned char id[4] = {};
        std::memcpy(id, name, std::min<std::size_t>(4, std::strlen(name)));
        cue.insert(cue.end(), id, id + 4);
        Append32(cue, static_cast<std::uint32_t>(pos));
        cue.insert(cue.end(), {'d', 'a', 't', 'a'});
        Append32(cue, 0);
        Append32(cue, 0);
        Append32(cue, static_cast<std::uint32_t>(pos));
        ++written;
    }
    if (written > 0) {
        Put32(cue.data(), written);
        chunks.push_back(ChunkMake("cue ", std::move(cue)));
    }
}

} // namespace

bool LWavTagWriter::OtherChunkTagsPrepare(std::uint32_t rateHz) {
    m_chunks.clear();
    InfoChunkPrepare(m_tags, m_chunks);
    DispChunkPrepare(m_tags, m_chunks);
    BextChunkPrepare(m_tags, m_chunks);
    CartChunkPrepare(m_tags, m_chunks);
    CueChunkPrepare(m_tags, rateHz, m_chunks);

    m_id3Path = m_tags.Id3TagFileGet();
    if (!m_id3Path.empty()) {
        LFileDescriptor id3;
        if (!id3.Open(m_id3Path.c_str(), O_RDONLY)) {
            return false;
        }
        std::int64_t const bytes = id3.GetSize();
        if (bytes <= 0 || bytes > std::int64_t{kRiffBytesMax} - 8) {
            return false;
        }
        Chunk chunk = ChunkMake("id3 ", {});
        chunk.bodyBytes = static_cast<std::uint64_t>(bytes);
        m_chunks.push_back(std::move(chunk));
    }
    return true;
}

void LWavTagWriter::ChunkTypesArrangeByPriority() {
    std::stable_sort(m_chunks.begin(), m_chunks.end(), [](Chunk const& a, Chunk const& b) {
        return RankOf(a.id, kPriority) < RankOf(b.id, kPriority);
    });
}

bool LWavTagWriter::ChunkWrite(LFileDescriptor& fd, Chunk const& chunk, std::uint64_t offset) {
    unsigned char header[8];
    std::memcpy(header, chunk.id, 4);
    Put32(header + 4, static_cast<std::uint32_t>(chunk.bodyBytes));
    if (!fd.PWriteAll(header, 8, offset)) {
        return false;
    }
    offset += 8;
    if (IdIs(chunk.id, "id3 ")) {
        // The prepared tag may be large; it is copied through a small block, and must still be
        // the size it had when the slots were planned.
        LFileDescriptor id3;
        if (!id3.Open(m_id3Path.c_str(), O_RDONLY) ||
            id3.GetSize() != static_cast<std::int64_t>(chunk.bodyBytes)) {
            return false;
        }
        unsigned char block[1024];
        for (std::uint64_t done = 0; done < chunk.bodyBytes;) {
            std::uint64_t const n = std::min<std::uint64_t>(sizeof(block), chunk.bodyBytes - done);
            if (id3.ReadFull(block, n) != static_cast<std::int64_t>(n) ||
                !fd.PWriteAll(block, n, offset + done)) {
                return false;
            }
            done += n;
        }
    } else if (!chunk.body.empty() && !fd.PWriteAll(chunk.body.data(), chunk.bodyBytes, offset)) {
        return false;
    }
    return (chunk.bodyBytes & 1) == 0 || ZeroesWrite(fd, offset + chunk.bodyBytes, 1);
}

bool LWavTagWriter::JunkChunkWriteHeader(LFileDescriptor& fd, std::uint64_t offset,
                                         std::uint64_t totalBytes) {
    unsigned char header[8] = {'J', 'U', 'N', 'K'};
    Put32(header + 4, static_cast<std::uint32_t>(totalBytes - 8));
    return fd.PWriteAll(header, 8, offset) && ZeroesWrite(fd, offset + 8, totalBytes - 8);
}

bool LWavTagWriter::ChunkWriteIfSizeFits(LFileDescriptor& fd, Chunk const& chunk,
                                         Slot const& slot) {
    std::uint64_t const chunkBytes = chunk.TotalBytes();
    std::uint64_t const slotBytes = slot.TotalBytes();
    if (!ChunkWrite(fd, chunk, slot.header.offset)) {
        return false;
    }
    return chunkBytes == slotBytes ||
           JunkChunkWriteHeader(fd, slot.header.offset + chunkBytes, slotBytes - chunkBytes);
}

bool LWavTagWriter::OtherChunksWriteAtTheEndIfNeeded(LFileDescriptor& fd, std::uint64_t endOffset) {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < m_chunks.size(); ++i) {
        if (m_slotOfChunk[i] < 0) {
            order.push_back(i);
        }
    }
    if (order.empty()) {
        return true;
    }
    std::stable_sort(order.begin(), order.end(), [this](std::size_t a, std::size_t b) {
        return RankOf(m_chunks[a].id, kAppendOrder) < RankOf(m_chunks[b].id, kAppendOrder);
    });
    std::int64_t const fileBytes = fd.GetSize();
    if (fileBytes < 0) {
        return false;
    }
    // The last chunk may have an odd length and no pad byte; its pad comes first.
    bool ok = endOffset <= static_cast<std::uint64_t>(fileBytes) ||
              ZeroesWrite(fd, static_cast<std::uint64_t>(fileBytes), 1);
    for (std::size_t i = 0; ok && i < order.size(); ++i) {
        Chunk const& chunk = m_chunks[order[i]];
        ok = ChunkWrite(fd, chunk, endOffset);
        endOffset += chunk.TotalBytes();
    }
    if (!ok) {
        // Nothing else has been changed yet: taking the file back to its old length undoes it.
        (void)fd.Truncate(static_cast<std::uint64_t>(fileBytes));
    }
    return ok;
}

bool LWavTagWriter::MainHeaderLengthUpdate(LFileDescriptor& fd, std::uint64_t riffOffset) {
    std::int64_t const fileBytes = fd.GetSize();
    if (fileBytes < 0 || static_cast<std::uint64_t>(fileBytes) < riffOffset + 8) {
        return false;
    }
    unsigned char raw[4];
    Put32(raw, static_cast<std::uint32_t>(std::min<std::uint64_t>(
                   static_cast<std::uint64_t>(fileBytes) - riffOffset - 8, kRiffBytesMax)));
    return fd.PWriteAll(raw, 4, riffOffset + 4);
}

bool LWavTagWriter::Write(char const* path) {
    m_slots.clear();
    m_slotOfChunk.clear();
    LFileDescriptor fd;
    if (!fd.Open(path, O_RDWR)) {
        return false;
    }
    // Exclusive, so a file still being written (its sink holds a shared lock) is not edited
    // under the writer; released before the descriptor closes.
    LFileLock lock;
    if (!lock.Lock(fd, LFileLockMode::kExclusive)) {
        return false;
    }
    std::uint64_t fileBytes = 0;
    std::uint64_t firstChunk = 0;
    if (!RiffContentFind(fd, fileBytes, firstChunk)) {
        return false;
    }
    std::uint64_t const riffOffset = firstChunk - 12;

    // Every existing tag chunk becomes a free slot. A file whose chunks run past its end is
    // refused: anything appended would land inside the broken chunk.
    ChunkWalker walker(fd, fileBytes, firstChunk);
    LRiffChunkHeader header;
    std::uint32_t rateHz = 0;
    while (walker.Next(header)) {
        bool tagChunk =
            std::any_of(LWavTagOtherChunkTypesThatSupportTags,
                        LWavTagOtherChunkTypesThatSupportTags + kLWavTagOtherChunkTypeCount,
                        [&header](char const* id) { return IdIs(header.id, id); });
        unsigned char head[8];
        if (IdIs(header.id, "fmt ") && header.bytes >= 8) {
            if (fd.PReadFull(head, 8, header.offset + 8) != 8) {
                return false;
            }
            rateHz = Get32(head + 4);
        } else if (IdIs(header.id, "LIST") && header.bytes >= 4) {
            if (fd.PReadFull(head, 4, header.offset + 8) != 4) {
                return false;
            }
            tagChunk = IdIs(reinterpret_cast<char const*>(head), "INFO");
        }
        if (tagChunk) {
            if (m_slots.size() >= kMaxSlots) {
                return false;
            }
            m_slots.push_back(Slot{header, false});
        }
    }
    if (walker.Overran() || !OtherChunkTagsPrepare(rateHz)) {
        return false;
    }
    ChunkTypesArrangeByPriority();

    // Each chunk in priority order takes the slot of its own type when that fits, else the
    // first that fits: exactly, or with room left for at least a JUNK header.
    for (Chunk const& chunk : m_chunks) {
        int chosen = -1;
        for (std::size_t s = 0; s < m_slots.size(); ++s) {
            Slot const& slot = m_slots[s];
            std::uint64_t const need = chunk.TotalBytes();
            if (slot.used || (slot.TotalBytes() != need && slot.TotalBytes() < need + 8)) {
                continue;
            }
            if (chosen < 0 || IdIs(slot.header.id, chunk.id)) {
                chosen = static_cast<int>(s);
            }
            if (IdIs(slot.header.id, chunk.id)) {
                break;
            }
        }
        if (chosen >= 0) {
            m_slots[static_cast<std::size_t>(chosen)].used = true;
        }
        m_slotOfChunk.push_back(chosen);
    }

    // Appending first: it is the only step that can run out of space, and it can be undone.
    if (!OtherChunksWriteAtTheEndIfNeeded(fd, walker.End())) {
        return false;
    }
    for (std::size_t i = 0; i < m_chunks.size(); ++i) {
        if (m_slotOfChunk[i] >= 0 &&
            !ChunkWriteIfSizeFits(fd, m_chunks[i],
                                  m_slots[static_cast<std::size_t>(m_slotOfChunk[i])])) {
            return false;
        }
    }
    for (Slot const& slot : m_slots) {
        if (!slot.used && !JunkChunkWriteHeader(fd, slot.header.offset, slot.TotalBytes())) {
            return false;
        }
    }
    if (!MainHeaderLengthUpdate(fd, riffOffset)) {
        return false;
    }
    bool const id3Written = std::any_of(m_chunks.begin(), m_chunks.end(),
                                        [](Chunk const& c) { return IdIs(c.id, "id3 "); });
    if (id3Written) {
        (void)::unlink(m_id3Path.c_str());
    }
    return true;
}

bool LWavTagsWrite(char const* path, LFileTagData const& tags) {
    LWavTagWriter writer(tags);
    return writer.Write(path);
}
