// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/wavtags.h"

#include "llib/unix/fd.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <unistd.h>

char const* const LWavTags[kLWavTagCount] = {"ALBUM",
                                             "ALBUMARTIST",
                                             "ARTIST",
                                             "CODINGHISTORY",
                                             "REFERENCE",
                                             "ORIGINATOR",
                                             "TIMEREFHIGH",
                                             "TIMEREFLOW",
                                             "UMID",
                                             "BWFVERSION",
                                             "CLASSIFICATION",
                                             "CLIENTID",
                                             "CUTID",
                                             "ENDDATE",
                                             "ENDTIME",
                                             "LEVELREFERENCE",
                                             "OUTCUE",
                                             "POSTTIMER1USAGE",
                                             "POSTTIMER2USAGE",
                                             "POSTTIMER3USAGE",
                                             "POSTTIMER4USAGE",
                                             "POSTTIMER5USAGE",
                                             "POSTTIMER6USAGE",
                                             "POSTTIMER7USAGE",
                                             "POSTTIMER8USAGE",
                                             "POSTTIMER1VALUE",
                                             "POSTTIMER2VALUE",
                                             "POSTTIMER3VALUE",
                                             "POSTTIMER4VALUE",
                                             "POSTTIMER5VALUE",
                                             "POSTTIMER6VALUE",
                                             "POSTTIMER7VALUE",
                                             "POSTTIMER8VALUE",
                                             "PRODUCERAPPVERSION",
                                             "TAGTEXT",
                                             "USERDEF",
                                             "CARTVERSION",
                                             "CATEGORY",
                                             "CATEGORY",
                                             "COMMENT",
                                             "COPYRIGHT",
                                             "DATE",
                                             "ENCODER",
                                             "GENRE",
                                             "ENCODEDBY",
                                             "TIME",
                                             "TITLE",
                                             "TRACKNUMBER",
                                             "URL"};

char const* const LWavTagOtherChunkTypesThatSupportTags[kLWavTagOtherChunkTypeCount] = {
    "cart", "bext", "DISP", "id3 ", "cue "};

namespace {

// Tag chunks are read whole; no real one comes near this, and a hostile size stays bounded.
constexpr std::uint32_t kMaxTagChunkBytes = 16u << 20;
constexpr std::size_t kMaxSlots = 4096;
constexpr std::int64_t kMaxMarkers = 100000;
constexpr std::uint32_t kRiffBytesMax = 0xFFFFFFFE;
constexpr std::size_t kBextBytes = 602;
constexpr std::size_t kCartBytes = 2048;
constexpr char kNoInfoId[] = "    ";

// The INFO table, the same both ways. "ENCODEDBY" under ISRC and "CATEGORY" under ISBJ are
// kept on purpose: files written by earlier versions carry them there.
struct InfoMapping {
    char const* key;
    char const* id;
};
constexpr InfoMapping kInfoMap[] = {
    {"TITLE", "INAM"},     {"ARTIST", "IART"},    {"ALBUMARTIST", "ISTR"}, {"ALBUM", "IPRD"},
    {"DATE", "ICRD"},      {"COMMENT", "ICMT"},   {"TRACKNUMBER", "ITRK"}, {"GENRE", "IGNR"},
    {"COPYRIGHT", "ICOP"}, {"ENCODEDBY", "ISRC"}, {"ENCODER", "ISFT"},     {"CATEGORY", "ISBJ"}};

// Fixed text fields of the EBU broadcast extension and of the AES46 cart chunk.
struct TextField {
    char const* key;
    unsigned offset;
    unsigned bytes;
};
constexpr TextField kBextText[] = {{"COMMENT", 0, 256},
                                   {"ORIGINATOR", 256, 32},
                                   {"REFERENCE", 288, 32},
                                   {"DATE", 320, 10},
                                   {"TIME", 330, 8}};
constexpr unsigned kBextTimeRefLow = 338;
constexpr unsigned kBextTimeRefHigh = 342;
constexpr unsigned kBextVersion = 346;
constexpr unsigned kBextUmid = 348;
constexpr unsigned kBextUmidBytes = 64;
constexpr char const* kBextOwnKeys[] = {"ORIGINATOR", "REFERENCE", "TIMEREFLOW",    "TIMEREFHIGH",
                                        "BWFVERSION", "UMID",      "CODINGHISTORY", "TIME"};

constexpr TextField kCartText[] = {{"CARTVERSION", 0, 4},       {"TITLE", 4, 64},
                                   {"ARTIST", 68, 64},          {"CUTID", 132, 64},
                                   {"CLIENTID", 196, 64},       {"CATEGORY", 260, 64},
                                   {"CLASSIFICATION", 324, 64}, {"OUTCUE", 388, 64},
                                   {"DATE", 452, 10},           {"TIME", 462, 8},
                                   {"ENDDATE", 470, 10},        {"ENDTIME", 480, 8},
                                   {"ENCODER", 488, 64},        {"PRODUCERAPPVERSION", 552, 64},
                                   {"USERDEF", 616, 64},        {"URL", 1024, 1024}};
constexpr unsigned kCartLevelReference = 680;
constexpr unsigned kCartPostTimers = 684; // eight of (usage FOURCC, value u32)
constexpr char const* kCartOwnKeys[] = {
    "CARTVERSION",        "CUTID",   "CLIENTID", "CLASSIFICATION", "OUTCUE", "ENDDATE", "ENDTIME",
    "PRODUCERAPPVERSION", "USERDEF", "URL",      "LEVELREFERENCE", "TAGTEXT"};

constexpr char const* kPriority[] = {"cue ", "id3 ", "cart", "bext", "LIST", "CSET", "DISP"};
constexpr char const* kAppendOrder[] = {"cue ", "id3 ", "LIST", "DISP", "bext", "cart"};

std::uint32_t Get32(unsigned char const* p) {
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
           std::uint32_t{p[3]} << 24;
}

void Put32(unsigned char* p, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

void Append32(std::vector<unsigned char>& out, std::uint32_t value) {
    unsigned char raw[4];
    Put32(raw, value);
    out.insert(out.end(), raw, raw + 4);
}

bool IdIs(char const* id, char const* text) {
    return std::memcmp(id, text, 4) == 0;
}

bool KeyIs(char const* key, char const* upper) {
    return ::strcasecmp(key, upper) == 0;
}

// Text of a fixed field: up to its first zero byte.
std::string FieldText(unsigned char const* p, std::size_t bytes) {
    auto const* end = static_cast<unsigned char const*>(std::memchr(p, 0, bytes));
    return {reinterpret_cast<char const*>(p),
            end != nullptr ? static_cast<std::size_t>(end - p) : bytes};
}

// Copies `text` into a fixed field, cut at a character boundary so no half character remains.
void FieldPut(unsigned char* p, std::size_t bytes, char const* text) {
    std::size_t n = std::strlen(text);
    if (n > bytes) {
        n = bytes;
        while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) {
            --n;
        }
    }
    std::memcpy(p, text, n);
}

// The numeric fields of bext and cart hold what a u32/i32 can; longer or non-numeric text is
// dropped rather than guessed at.
bool EncodeNumberTagIfValid(char const* text, std::int64_t low, std::int64_t high,
                            std::int64_t& value) {
    std::size_t const n = std::strlen(text);
    if (n == 0 || n > 11) {
        return false;
    }
    for (std::size_t i = 0; i < n; ++i) {
        if ((text[i] < '0' || text[i] > '9') && !(i == 0 && text[i] == '-' && n > 1)) {
            return false;
        }
    }
    value = std::strtoll(text, nullptr, 10);
    return value >= low && value <= high;
}

std::string Number(std::int64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(value));
    return text;
}

// The first RIFF/WAVE header; foreign top-level chunks before it are stepped over the way the
// audio reader steps over them.
bool RiffWaveFind(LFileDescriptor& fd, std::uint64_t fileBytes, std::uint64_t& riffOffset) {
    std::uint64_t at = 0;
    for (;;) {
        unsigned char header[12];
        if (at + 12 > fileBytes || fd.PReadFull(header, 12, at) != 12) {
            return false;
        }
        if (std::memcmp(header, "RIFF", 4) == 0 && std::memcmp(header + 8, "WAVE", 4) == 0) {
            riffOffset = at;
            return true;
        }
        std::uint64_t const padded = (std::uint64_t{Get32(header + 4)} + 1) & ~std::uint64_t{1};
        if (padded < 5) {
            return false;
        }
        at += 8 + padded;
    }
}

// Walks top-level chunks to the end of the file rather than to the end the RIFF size gives:
// past 4 GB the size cannot describe the file, and writers that append tags do not always fix it.
class ChunkWalker {
public:
    ChunkWalker(LFileDescriptor& fd, std::uint64_t fileBytes, std::uint64_t start)
        : m_fd(fd), m_fileBytes(fileBytes), m_at(start) {}

    // False at the end, or at a chunk running past the end of the file (Overran()).
    [[nodiscard]] bool Next(LRiffChunkHeader& header) {
        if (m_at + 8 > m_fileBytes) {
            return false;
        }
        unsigned char raw[8];
        if (m_fd.PReadFull(raw, 8, m_at) != 8) {
            m_overran = true;
            return false;
        }
        std::memcpy(header.id, raw, 4);
        header.bytes = Get32(raw + 4);
        header.offset = m_at;
        std::uint64_t const end = m_at + 8 + header.bytes;
        if (end > m_fileBytes) {
            m_overran = true;
            return false;
        }
        m_at = end + (header.bytes & 1);
        return true;
    }
    [[nodiscard]] bool Overran() const { return m_overran; }
    // Where a chunk appended after the last one starts (one past the file for a missing pad).
    [[nodiscard]] std::uint64_t End() const { return m_at; }

private:
    LFileDescriptor& m_fd;
    std::uint64_t m_fileBytes;
    std::uint64_t m_at;
    bool m_overran = false;
};

// The body of a chunk, at most `maxBytes` of it, then zero-filled up to `minBytes` so fixed
// layouts can be read at their offsets even from a short chunk.
bool BodyRead(LFileDescriptor& fd, LRiffChunkHeader const& header, std::vector<unsigned char>& body,
              std::size_t minBytes = 0) {
    std::size_t const bytes = std::min(header.bytes, kMaxTagChunkBytes);
    body.assign(std::max(bytes, minBytes), 0);
    return fd.PReadFull(body.data(), bytes, header.offset + 8) == static_cast<std::int64_t>(bytes);
}

void PushText(std::vector<std::pair<std::string, std::string>>& out, char const* key,
              std::string text) {
    if (!text.empty()) {
        out.emplace_back(key, std::move(text));
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Reading

char const* LWavTagIterator::MappedKeyGet(char const* infoId) {
    for (InfoMapping const& m : kInfoMap) {
        if (IdIs(infoId, m.id)) {
            return m.key;
        }
    }
    return nullptr;
}

bool LWavTagIterator::Open(char const* path) {
    *this = LWavTagIterator();
    LFileDescriptor fd;
    return fd.Open(path, O_RDONLY) && FileScanForInfo(fd);
}

bool LWavTagIterator::TagGet(std::string& key, std::string& value) {
    if (m_next >= m_tags.size()) {
        return false;
    }
    key = m_tags[m_next].first;
    value = m_tags[m_next].second;
    ++m_next;
    return true;
}

bool LWavTagIterator::FileScanForInfo(LFileDescriptor& fd) {
    std::int64_t const fileBytes = fd.GetSize();
    std::uint64_t riffOffset = 0;
    if (fileBytes < 0 || !RiffWaveFind(fd, static_cast<std::uint64_t>(fileBytes), riffOffset)) {
        return false;
    }
    ChunkWalker walker(fd, static_cast<std::uint64_t>(fileBytes), riffOffset + 12);
    LRiffChunkHeader header;
    while (walker.Next(header)) {
        OtherChunksRead(fd, header);
    }
    MarkersPrepare();
    for (Pairs* part : {&m_info, &m_disp, &m_bext, &m_cart, &m_markers}) {
        m_tags.insert(m_tags.end(), part->begin(), part->end());
        part->clear();
    }
    return true;
}

void LWavTagIterator::OtherChunksRead(LFileDescriptor& fd, LRiffChunkHeader const& header) {
    std::vector<unsigned char> body;
    if (IdIs(header.id, "fmt ")) {
        if (header.bytes >= 8 && BodyRead(fd, header, body)) {
            m_rateHz = Get32(body.data() + 4);
        }
    } else if (IdIs(header.id, "id3 ") || IdIs(header.id, "ID3 ")) {
        m_id3Offset = header.offset + 8;
        m_id3Bytes = header.bytes;
    } else if (IdIs(header.id, "LIST")) {
        if (BodyRead(fd, header, body)) {
            ListRead(body);
        }
    } else if (IdIs(header.id, "DISP")) {
        if (BodyRead(fd, header, body)) {
            OtherChunksWithIdRead(body);
        }
    } else if (IdIs(header.id, "bext")) {
        if (!BodyRead(fd, header, body, kBextBytes)) {
            return;
        }
        unsigned char const* p = body.data();
        for (TextField const& f : kBextText) {
            PushText(m_bext, f.key, FieldText(p + f.offset, f.bytes));
        }
        for (auto [key, value] : {std::pair{"TIMEREFLOW", Get32(p + kBextTimeRefLow)},
                                  std::pair{"TIMEREFHIGH", Get32(p + kBextTimeRefHigh)},
                                  std::pair{"BWFVERSION", Get32(p + kBextVersion) & 0xFFFFu}}) {
            if (value != 0) {
                m_bext.emplace_back(key, Number(value));
            }
        }
        // A UMID is binary; it travels as hexadecimal text, only as long as the basic 32-byte
        // form when the extension is unused.
        auto const isSet = [](unsigned char b) { return b != 0; };
        if (std::any_of(p + kBextUmid, p + kBextUmid + kBextUmidBytes, isSet)) {
            unsigned const bytes =
                std::any_of(p + kBextUmid + 32, p + kBextUmid + kBextUmidBytes, isSet) ? 64 : 32;
            std::string hex;
            for (unsigned i = 0; i < bytes; ++i) {
                char pair[3];
                std::snprintf(pair, sizeof(pair), "%02X", p[kBextUmid + i]);
                hex += pair;
            }
            m_bext.emplace_back("UMID", hex);
        }
        if (header.bytes > kBextBytes) {
            PushText(m_bext, "CODINGHISTORY",
                     FieldText(p + kBextBytes,
                               std::min<std::size_t>(header.bytes, body.size()) - kBextBytes));
        }
    } else if (IdIs(header.id, "cart")) {
        if (!BodyRead(fd, header, body, kCartBytes)) {
            return;
        }
        unsigned char const* p = body.data();
        for (TextField const& f : kCartText) {
            PushText(m_cart, f.key, FieldText(p + f.offset, f.bytes));
        }
        if (auto const level = static_cast<std::int32_t>(Get32(p + kCartLevelReference))) {
            m_cart.emplace_back("LEVELREFERENCE", Number(level));
        }
        for (unsigned i = 0; i < 8; ++i) {
            unsigned char const* timer = p + kCartPostTimers + 8 * i;
            char key[24];
            std::snprintf(key, sizeof(key), "POSTTIMER%uUSAGE", i + 1);
            PushText(m_cart, key, FieldText(timer, 4));
            if (std::uint32_t const value = Get32(timer + 4)) {
                std::snprintf(key, sizeof(key), "POSTTIMER%uVALUE", i + 1);
                m_cart.emplace_back(key, Number(value));
            }
        }
        if (header.bytes > kCartBytes) {
            PushText(m_cart, "TAGTEXT",
                     FieldText(p + kCartBytes,
                               std::min<std::size_t>(header.bytes, body.size()) - kCartBytes));
        }
    } else if (IdIs(header.id, "cue ")) {
        if (header.bytes < 4 || !BodyRead(fd, header, body)) {
            return;
        }
        // The stored count is only an upper bound: the points must also fit in the chunk.
        std::size_t const count = std::min<std::size_t>(Get32(body.data()), (body.size() - 4) / 24);
        for (std::size_t i = 0; i < count; ++i) {
            unsigned char const* point = body.data() + 4 + 24 * i;
            m_cues.push_back(CuePoint{Get32(point), Get32(point + 20)});
        }
    }
}

void LWavTagIterator::OtherChunksWithIdRead(std::vector<unsigned char> const& body) {
    // Only the text form of DISP (clipboard format 1) says anything as a tag.
    if (body.size() >= 4 && Get32(body.data()) == 1) {
        PushText(m_disp, "TITLE", FieldText(body.data() + 4, body.size() - 4));
    }
}

void LWavTagIterator::ListRead(std::vector<unsigned char> const& body) {
    if (body.size() < 4) {
        return;
    }
    bool const info = IdIs(reinterpret_cast<char const*>(body.data()), "INFO");
    bool const labels = IdIs(reinterpret_cast<char const*>(body.data()), "adtl");
    std::uint64_t at = 4;
    // An item claiming more than the list holds ends the list: its text is not all there.
    while (at + 8 <= body.size()) {
        auto const* id = reinterpret_cast<char const*>(body.data() + at);
        std::uint32_t const bytes = Get32(body.data() + at + 4);
        if (at + 8 + bytes > body.size()) {
            break;
        }
        unsigned char const* text = body.data() + at + 8;
        if (info) {
            if (char const* key = MappedKeyGet(id)) {
                PushText(m_info, key, FieldText(text, bytes));
            }
        } else if (labels && IdIs(id, "labl") && bytes >= 4) {
            m_labels.emplace_back(Get32(text), FieldText(text + 4, bytes - 4));
        }
        at += 8 + std::uint64_t{bytes} + (bytes & 1);
    }
}

void LWavTagIterator::MarkersPrepare() {
    if (m_cues.empty()) {
        return;
    }
    std::map<std::uint32_t, std::string> labels(m_labels.begin(), m_labels.end());
    m_markers.emplace_back("marker_count", Number(static_cast<std::int64_t>(m_cues.size())));
    if (m_rateHz > 0) {
        m_markers.emplace_back("marker_samplerate", Number(m_rateHz));
    }
    m_markers.emplace_back("marker_postype", "1");
    char key[48];
    for (std::size_t i = 0; i < m_cues.size(); ++i) {
        CuePoint const& cue = m_cues[i];
        std::snprintf(key, sizeof(key), "marker_%zu_pos", i);
        m_markers.emplace_back(key, Number(cue.frames));
        // A label names the point best; otherwise an id of printable characters is the start of
        // a name (as this writer stores it), and any other id is a number.
        std::string name;
        if (auto const label = labels.find(cue.id); label != labels.end()) {
            name = label->second;
        } else {
            unsigned char raw[4];
            Put32(raw, cue.id);
            name = FieldText(raw, 4);
            if (name.empty() || std::any_of(name.begin(), name.end(),
                                            [](char c) { return c < 0x20 || c > 0x7E; })) {
                name = Number(cue.id);
            }
        }
        std::snprintf(key, sizeof(key), "marker_%zu_name", i);
        m_markers.emplace_back(key, name);
    }
}

bool LWavTagsRead(char const* path, LFileTagData& tags) {
    LWavTagIterator iterator;
    if (!iterator.Open(path)) {
        return false;
    }
    LFileTagData read;
    std::string key;
    std::string value;
    while (iterator.TagGet(key, value)) {
        if (read.Get(key.c_str()) == nullptr) {
            read.Set(key.c_str(), value.c_str());
        }
    }
    for (std::size_t i = 0; i < read.GetCount(); ++i) {
        tags.Set(read.GetKeyAt(i), read.GetValueAt(i));
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Writing

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
    std::int64_t const fileBytes = fd.GetSize();
    std::uint64_t riffOffset = 0;
    if (fileBytes < 0 || !RiffWaveFind(fd, static_cast<std::uint64_t>(fileBytes), riffOffset)) {
        return false;
    }

    // Every existing tag chunk becomes a free slot. A file whose chunks run past its end is
    // refused: anything appended would land inside the broken chunk.
    ChunkWalker walker(fd, static_cast<std::uint64_t>(fileBytes), riffOffset + 12);
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
