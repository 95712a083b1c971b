// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/wavtags.h"

#include "wavtagsshared.h"

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

using namespace llib::wavtag;

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
    std::uint64_t fileBytes = 0;
    std::uint64_t firstChunk = 0;
    if (!RiffContentFind(fd, fileBytes, firstChunk)) {
        return false;
    }
    ChunkWalker walker(fd, fileBytes, firstChunk);
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
