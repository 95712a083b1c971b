// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/cmdinspect.h"

#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"
#include "llib/gen/stringlong.h"
#include "llib/unix/fd.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <vector>

namespace {

using Reader = LSDFReader<LInputStreamBuffer>;
using Chunk = LSDFReaderChunk<LInputStreamBuffer>;
using Iterator = LSDFReaderChunkIterator<LInputStreamBuffer>;

// Bytes of a string or blob shown before "...": enough to recognise, short enough for a line.
constexpr std::size_t kShownStringChars = 120;
constexpr std::size_t kShownBlobBytes = 16;

char const* FileTypeName(unsigned type) {
    switch (type) {
    case kLSDFFileMultiPartProject:
        return "multi-part project";
    case kLSDFFileEffectChain:
        return "effect chain or preset";
    case kLSDFFileProject:
        return "project";
    case kLSDFFileProjectCompanion:
        return "project companion";
    case kLSDFFileCacheItemInfo:
        return "cache item information";
    default:
        return nullptr;
    }
}

char const* TypeName(LSDFValueType type) {
    switch (type) {
    case LSDFValueType::kContainer:
        return "container";
    case LSDFValueType::kBool:
        return "bool";
    case LSDFValueType::kInt:
        return "int";
    case LSDFValueType::kInt64:
        return "int64";
    case LSDFValueType::kFloat:
        return "float";
    case LSDFValueType::kString:
        return "string";
    case LSDFValueType::kBlob:
        return "blob";
    }
    return nullptr;
}

std::string Plural(std::uint64_t n, char const* word) {
    return LStrFormat("%" PRIu64 " %s%s", n, word, n == 1 ? "" : "s");
}

void AppendQuoted(std::string& out, unsigned char const* text, std::size_t n) {
    out += '"';
    for (std::size_t i = 0; i < n && i < kShownStringChars; ++i) {
        unsigned char const c = text[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else if (c >= 0x80) {
            out += static_cast<char>(c); // UTF-8 passes through
        } else {
            out += LStrFormat("\\x%02x", c);
        }
    }
    out += '"';
    if (n > kShownStringChars) {
        out += "...";
    }
}

// The value part of a line; false when the data cannot be read.
bool AppendValue(Chunk& chunk, std::string& out) {
    switch (chunk.GetType()) {
    case LSDFValueType::kBool: {
        bool value = false;
        if (!chunk.ReadBool(value)) {
            break;
        }
        out += value ? ": true" : ": false";
        return true;
    }
    case LSDFValueType::kInt: {
        int value = 0;
        if (!chunk.ReadInt(value)) {
            break;
        }
        out += LStrFormat(": %d", value);
        return true;
    }
    case LSDFValueType::kInt64: {
        long long value = 0;
        if (!chunk.ReadInt64(value)) {
            break;
        }
        out += LStrFormat(": %lld", value);
        return true;
    }
    case LSDFValueType::kFloat: {
        float value = 0;
        if (!chunk.ReadFloat(value)) {
            break;
        }
        out += LStrFormat(": %.9g", static_cast<double>(value));
        return true;
    }
    case LSDFValueType::kString:
    case LSDFValueType::kBlob: {
        LSizedArray<unsigned char> data;
        if (!chunk.ReadData(data)) {
            return false;
        }
        if (data.IsEmpty() && chunk.GetType() == LSDFValueType::kBlob) {
            return true; // no bytes to show, and no dangling ": " at the end of the line
        }
        out += ": ";
        if (chunk.GetType() == LSDFValueType::kString) {
            std::size_t n = data.GetCount();
            if (n > 0 && data[n - 1] == 0) {
                --n; // the terminator is part of the length, not of the text
            }
            AppendQuoted(out, data.GetData(), n);
        } else {
            for (std::size_t i = 0; i < data.GetCount() && i < kShownBlobBytes; ++i) {
                out += LStrFormat(i == 0 ? "%02x" : " %02x", data[i]);
            }
            if (data.GetCount() > kShownBlobBytes) {
                out += " ...";
            }
        }
        return true;
    }
    default:
        return true; // containers and unknown types have no value
    }
    // A fixed-size value in a chunk too short for it.
    out += " (too short for its type)";
    return chunk.GetReader().IsOk();
}

bool AppendChildren(Reader& reader, Chunk const* container, int depth, std::string& out) {
    Iterator it = container != nullptr ? Iterator(reader, *container) : Iterator(reader);
    while (it.StartNextChunk()) {
        out.append(static_cast<std::size_t>(depth) * 2, ' ');
        out += LStrFormat("0x%04x ", it.GetId());
        if (char const* name = TypeName(it.GetType())) {
            out += name;
        } else {
            out += LStrFormat("type %u", static_cast<unsigned>(it.GetType()));
        }
        out += ", " + Plural(it.GetDataBytes(), "byte");
        if (!AppendValue(it, out)) {
            return false;
        }
        out += '\n';
        if (it.GetType() == LSDFValueType::kContainer &&
            !AppendChildren(reader, &it, depth + 1, out)) {
            return false;
        }
    }
    return reader.IsOk();
}

} // namespace

bool LInspectStructuredData(unsigned char const* data, std::uint64_t bytes, std::string& out,
                            std::string& error) {
    out.clear();
    LInputStreamBuffer stream(data, bytes);
    Reader reader;
    if (reader.OpenAnyType(stream)) {
        out += LStrFormat("file type %u", reader.GetFileType());
        if (char const* name = FileTypeName(reader.GetFileType())) {
            out += LStrFormat(" (%s)", name);
        }
        out += LStrFormat(", version %u\n", static_cast<unsigned>(reader.GetFileVersion()));
        out += "0x0000 container (root), " + Plural(reader.GetRoot().dataBytes, "byte") + '\n';
        if (AppendChildren(reader, nullptr, 1, out)) {
            if (reader.HasTrailer()) {
                return true;
            }
            std::uint64_t const end = reader.GetRoot().dataOffset + reader.GetRoot().dataBytes;
            error = bytes < end + kLSDFTrailerBytes
                        ? "the closing \"lsdf\" trailer is missing (the file is truncated)"
                        : "the root chunk is not followed by exactly the closing \"lsdf\" trailer";
            out.clear();
            return false;
        }
    }
    error =
        LStrFormat("%s (at byte %" PRIu64 ")", reader.GetErrorReason(), reader.GetErrorOffset());
    out.clear();
    return false;
}

bool LInspectStructuredDataFile(char const* path, std::string& out, std::string& error) {
    LFileDescriptor fd;
    if (!fd.Open(path, O_RDONLY)) {
        error = LStrFormat("cannot open the file: %s", std::strerror(errno));
        return false;
    }
    std::int64_t const size = fd.GetSize();
    if (size < 0) {
        error = LStrFormat("cannot read the file: %s", std::strerror(errno));
        return false;
    }
    // Structured data files are small; refuse to load something that is plainly not one.
    constexpr std::int64_t kMaxBytes = std::int64_t{1} << 30;
    if (size > kMaxBytes) {
        error = "the file is too large to be a structured data file";
        return false;
    }
    std::vector<unsigned char> data(static_cast<std::size_t>(size));
    if (fd.ReadFull(data.data(), data.size()) != size) {
        error = LStrFormat("cannot read the file: %s", std::strerror(errno));
        return false;
    }
    return LInspectStructuredData(data.data(), data.size(), out, error);
}
