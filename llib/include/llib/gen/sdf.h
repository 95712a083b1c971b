// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Structured data files: the one binary container behind presets, effect chains, projects,
// cache item information and cut-list links. A file is "lsdf", a format revision (1), a file
// type and version, one root container (identifier 0) and the trailer "lsdf". Every chunk is a
// 12-byte header (identifier, value type, 64-bit data length) and its data; all integers are
// little-endian and nothing is padded.
//
// LSDFWriter writes in one forward pass and back-patches each chunk's length when it ends, so
// its stream must seek. It keeps a sticky ok flag: after the first failed write every call does
// nothing and reports failure. Chunks a loader did not understand can be handed back (as an
// LList<LSDFUnknownChunk>) when the container is written again; the writer puts each back at its
// old position among its siblings, so a file written by a newer version survives a load and
// save by this one.
//
// LSDFReader and LSDFReaderChunkIterator read positionally or by identifier. Nothing read from
// the file is trusted: a chunk must fit inside its container and the container inside the file
// before anything is allocated or read, and nesting is bounded, so a hostile file yields a failed
// read (IsOk false), never a crash or a huge allocation.
//
// Streams: writers take LOutputStreamFile, LReadWriteFile or LOutputStreamByteArray; readers take
// LInputStreamFile, LInputStreamFileShared, LReadWriteFile or LInputStreamBuffer.

#include "llib/gen/list.h"
#include "llib/gen/sizedarray.h"
#include "llib/gen/stringlong.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

enum class LSDFValueType : std::uint16_t {
    kContainer = 0,
    kBool = 1,
    kInt = 2,
    kInt64 = 3,
    kFloat = 4,
    kString = 6,
    kBlob = 7,
};

// File types in use (the value at offset 6).
inline constexpr unsigned kLSDFFileMultiPartProject = 4;
inline constexpr unsigned kLSDFFileEffectChain = 11;
inline constexpr unsigned kLSDFFileProject = 26;
inline constexpr unsigned kLSDFFileProjectCompanion = 41;
inline constexpr unsigned kLSDFFileCacheItemInfo = 43;

inline constexpr std::uint64_t kLSDFFileHeaderBytes = 12;
inline constexpr std::uint64_t kLSDFChunkHeaderBytes = 12;
inline constexpr std::uint64_t kLSDFTrailerBytes = 4;
// A string read into a fixed buffer keeps at most this many bytes, terminator included.
inline constexpr std::size_t kLSDFMaxStringBytes = 1560;
// Deeper nesting is refused: no file we write comes near it, and a recursive loader must not
// be driven into a stack overflow by a file of nested empty containers.
inline constexpr int kLSDFMaxDepth = 64;

namespace llib::detail {

inline void PutLE(unsigned char* out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

inline std::uint64_t GetLE(unsigned char const* in, int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value |= static_cast<std::uint64_t>(in[i]) << (8 * i);
    }
    return value;
}

} // namespace llib::detail

// One chunk kept opaque because its reader did not know it.
class LSDFUnknownChunk : public LListLink<LSDFUnknownChunk> {
public:
    std::uint16_t id = 0;
    LSDFValueType type = LSDFValueType::kContainer;
    std::uint64_t dataBytes = 0;
    LSizedArray<unsigned char> data;
    std::int32_t index = 0; // position among its siblings, 0 for a container's first child
};

// Copies `other`'s unknown chunks onto the end of `list`; false when memory runs out.
[[nodiscard]] inline bool LSDFUnknownChunksCopy(LList<LSDFUnknownChunk> const& other,
                                                LList<LSDFUnknownChunk>& list) {
    bool ok = true;
    for (LSDFUnknownChunk const& chunk : other) {
        auto copy = std::unique_ptr<LSDFUnknownChunk>(new (std::nothrow) LSDFUnknownChunk);
        if (!copy || !copy->data.Allocate(chunk.data.GetCount())) {
            ok = false; // a chunk we cannot hold is dropped rather than written back short
            continue;
        }
        copy->id = chunk.id;
        copy->type = chunk.type;
        copy->dataBytes = chunk.dataBytes;
        copy->index = chunk.index;
        if (!chunk.data.IsEmpty()) {
            std::memcpy(copy->data.GetData(), chunk.data.GetData(), chunk.data.GetCount());
        }
        list.AddTail(std::move(copy));
    }
    return ok;
}

template <class Stream>
class LSDFWriter {
public:
    LSDFWriter() = default;
    LSDFWriter(LSDFWriter const&) = delete;
    LSDFWriter& operator=(LSDFWriter const&) = delete;

    // Writes the file header and starts the root container; false when the stream fails.
    [[nodiscard]] bool Open(Stream& stream, unsigned fileType, unsigned short fileVersion) {
        return Open(stream, fileType, fileVersion, m_noUnknown);
    }
    [[nodiscard]] bool Open(Stream& stream, unsigned fileType, unsigned short fileVersion,
                            LList<LSDFUnknownChunk> const& rootUnknown) {
        m_stream = &stream;
        m_stack.clear();
        m_ok = true;
        m_rootStarted = false;
        m_fileVersion = fileVersion;
        unsigned char header[kLSDFFileHeaderBytes];
        std::memcpy(header, "lsdf", 4);
        llib::detail::PutLE(header + 4, 1, 2);
        llib::detail::PutLE(header + 6, fileType, 4);
        llib::detail::PutLE(header + 10, fileVersion, 2);
        if (!Put(header, sizeof header)) {
            return false;
        }
        return StartContainer(0, rootUnknown, -1);
    }

    // Starts a chunk; `index` is its intended position among its siblings (or -1), and pending
    // unknown chunks of the enclosing container that stood before it are written first.
    [[nodiscard]] bool StartChunk(std::uint16_t id, LSDFValueType type, int index = -1) {
        if (!m_ok) {
            return false;
        }
        if (m_stack.empty()) {
            if (m_rootStarted) {
                m_ok = false; // after the root has ended a chunk would lie outside it
                return false;
            }
            m_rootStarted = true;
        }
        if (index != -1 && !m_stack.empty() &&
            !FlushPendingBelow(m_stack.back(), static_cast<std::int64_t>(index))) {
            return false;
        }
        unsigned char header[kLSDFChunkHeaderBytes];
        llib::detail::PutLE(header, id, 2);
        llib::detail::PutLE(header + 2, static_cast<std::uint16_t>(type), 2);
        llib::detail::PutLE(header + 4, 0, 8);
        if (!Put(header, sizeof header)) {
            return false;
        }
        m_stack.push_back(OpenChunk{id, type, m_stream->GetOffset(), nullptr, 0});
        return true;
    }

    // Ends the innermost chunk, patching its length. `id` must name it.
    [[nodiscard]] bool EndChunk(std::uint16_t id) {
        if (!m_ok) {
            return false;
        }
        if (m_stack.empty() || m_stack.back().id != id) {
            m_ok = false; // unbalanced calls would write a file no reader can follow
            return false;
        }
        OpenChunk const chunk = m_stack.back();
        m_stack.pop_back();
        return PatchLength(chunk);
    }

    [[nodiscard]] bool StartContainer(std::uint16_t id, int index = -1) {
        return StartContainer(id, m_noUnknown, index);
    }
    [[nodiscard]] bool StartContainer(std::uint16_t id, LList<LSDFUnknownChunk> const& unknown,
                                      int index = -1) {
        if (!StartChunk(id, LSDFValueType::kContainer, index)) {
            return false;
        }
        OpenChunk& chunk = m_stack.back();
        chunk.pending = unknown.GetHead();
        // Unknown chunks that opened the old container (indices 0, 1, 2, ... without a gap) come
        // first again.
        while (chunk.pending != nullptr && chunk.pending->index == chunk.nextLeading) {
            if (!WriteUnknownChunk(*chunk.pending)) {
                return false;
            }
            chunk.pending = chunk.pending->GetNext();
            ++chunk.nextLeading;
        }
        return true;
    }

    [[nodiscard]] bool EndContainer(std::uint16_t id) {
        if (!m_ok || m_stack.empty()) {
            m_ok = false;
            return false;
        }
        if (!FlushPendingBelow(m_stack.back(), INT64_MAX)) {
            return false;
        }
        return EndChunk(id);
    }

    [[nodiscard]] bool WriteBool(std::uint16_t id, bool value, int index = -1) {
        unsigned char const byte = value ? 1 : 0;
        return WriteValue(id, LSDFValueType::kBool, &byte, 1, index);
    }
    [[nodiscard]] bool WriteInt(std::uint16_t id, int value, int index = -1) {
        unsigned char bytes[4];
        llib::detail::PutLE(bytes, static_cast<std::uint32_t>(value), 4);
        return WriteValue(id, LSDFValueType::kInt, bytes, 4, index);
    }
    [[nodiscard]] bool WriteInt64(std::uint16_t id, long long value, int index = -1) {
        unsigned char bytes[8];
        llib::detail::PutLE(bytes, static_cast<std::uint64_t>(value), 8);
        return WriteValue(id, LSDFValueType::kInt64, bytes, 8, index);
    }
    [[nodiscard]] bool WriteFloat(std::uint16_t id, float value, int index = -1) {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &value, 4);
        unsigned char bytes[4];
        llib::detail::PutLE(bytes, bits, 4);
        return WriteValue(id, LSDFValueType::kFloat, bytes, 4, index);
    }
    // The characters and their terminating zero.
    [[nodiscard]] bool WriteString(std::uint16_t id, char const* value, int index = -1) {
        char const* text = value != nullptr ? value : "";
        return WriteValue(id, LSDFValueType::kString, reinterpret_cast<unsigned char const*>(text),
                          std::strlen(text) + 1, index);
    }
    [[nodiscard]] bool WriteBlob(std::uint16_t id, unsigned char const* data, std::uint64_t bytes,
                                 int index = -1) {
        return WriteValue(id, LSDFValueType::kBlob, data, bytes, index);
    }

    // Raw bytes into the innermost open chunk.
    [[nodiscard]] bool WriteData(unsigned char const* data, std::uint64_t bytes) {
        return m_ok && Put(data, bytes);
    }

    // Writes a preserved chunk back whole; one with no data is dropped. One whose data array does
    // not hold exactly dataBytes bytes fails the file.
    [[nodiscard]] bool WriteUnknownChunk(LSDFUnknownChunk const& chunk) {
        if (!m_ok) {
            return false;
        }
        if (chunk.dataBytes == 0) {
            return true;
        }
        if (chunk.data.GetCount() != chunk.dataBytes) {
            m_ok = false; // the header would promise bytes the chunk does not hold
            return false;
        }
        unsigned char header[kLSDFChunkHeaderBytes];
        llib::detail::PutLE(header, chunk.id, 2);
        llib::detail::PutLE(header + 2, static_cast<std::uint16_t>(chunk.type), 2);
        llib::detail::PutLE(header + 4, chunk.dataBytes, 8);
        return Put(header, sizeof header) && Put(chunk.data.GetData(), chunk.dataBytes);
    }

    // Ends every open chunk (the root last) and writes the trailer. False when any write of the
    // file failed; after a failure nothing more is written, so the caller deletes the file.
    [[nodiscard]] bool Close() {
        if (m_stream == nullptr) {
            return false;
        }
        while (m_ok && !m_stack.empty()) {
            OpenChunk& chunk = m_stack.back();
            if (chunk.type == LSDFValueType::kContainer && !FlushPendingBelow(chunk, INT64_MAX)) {
                break;
            }
            (void)EndChunk(chunk.id);
        }
        m_stack.clear();
        bool const ok = m_ok && Put(reinterpret_cast<unsigned char const*>("lsdf"), 4);
        m_stream = nullptr;
        m_ok = false;
        return ok;
    }

    [[nodiscard]] bool IsOk() const { return m_ok; }
    [[nodiscard]] unsigned short GetFileVersion() const { return m_fileVersion; }

private:
    struct OpenChunk {
        std::uint16_t id;
        LSDFValueType type;
        std::uint64_t dataStart;
        LSDFUnknownChunk const* pending; // next unknown chunk still to be put back
        std::int32_t nextLeading;        // next index a leading unknown chunk must have
    };

    bool Put(unsigned char const* data, std::uint64_t bytes) {
        if (!m_ok || m_stream == nullptr || (bytes > 0 && !m_stream->Write(data, bytes))) {
            m_ok = false;
            return false;
        }
        return true;
    }

    bool WriteValue(std::uint16_t id, LSDFValueType type, unsigned char const* data,
                    std::uint64_t bytes, int index) {
        return StartChunk(id, type, index) && Put(data, bytes) && EndChunk(id);
    }

    bool FlushPendingBelow(OpenChunk& chunk, std::int64_t index) {
        while (m_ok && chunk.pending != nullptr && chunk.pending->index < index) {
            // Copy first: writing may not touch the stack, but keep the cursor independent.
            LSDFUnknownChunk const* const next = chunk.pending->GetNext();
            if (!WriteUnknownChunk(*chunk.pending)) {
                return false;
            }
            chunk.pending = next;
        }
        return m_ok;
    }

    bool PatchLength(OpenChunk const& chunk) {
        std::uint64_t const end = m_stream->GetOffset();
        unsigned char length[8];
        llib::detail::PutLE(length, end - chunk.dataStart, 8);
        if (!m_stream->Seek(chunk.dataStart - 8) || !m_stream->Write(length, 8) ||
            !m_stream->Seek(end)) {
            m_ok = false;
            return false;
        }
        return true;
    }

    Stream* m_stream = nullptr;
    bool m_ok = false;
    bool m_rootStarted = false;
    unsigned short m_fileVersion = 0;
    std::vector<OpenChunk> m_stack;
    // Braced: clang rejects a default-initialised const member whose class has no user-provided
    // constructor.
    LList<LSDFUnknownChunk> const m_noUnknown{};
};

// The reader's view of one chunk.
struct LSDFChunkInfo {
    std::uint16_t id = 0;
    LSDFValueType type = LSDFValueType::kContainer;
    std::uint64_t dataOffset = 0; // stream offset of the first data byte
    std::uint64_t dataBytes = 0;
    std::int32_t index = 0;
};

template <class Stream>
class LSDFReader {
public:
    LSDFReader() = default;
    LSDFReader(LSDFReader const&) = delete;
    LSDFReader& operator=(LSDFReader const&) = delete;

    // Succeeds only for magic "lsdf", revision 1, the expected file type and a root container
    // with identifier 0 that fits in the stream. The file version is the loader's to judge.
    [[nodiscard]] bool Open(Stream& stream, unsigned fileType) {
        return OpenImpl(stream, true, fileType);
    }
    // The same for any file type (inspection tools).
    [[nodiscard]] bool OpenAnyType(Stream& stream) { return OpenImpl(stream, false, 0); }
    // As Open, but a file cut off before its end opens with its root ending where the file
    // does, so a loader can take what lies before the cut (IsTruncated tells it happened).
    [[nodiscard]] bool OpenSalvage(Stream& stream, unsigned fileType) {
        return OpenImpl(stream, true, fileType, true);
    }
    [[nodiscard]] bool IsTruncated() const { return m_truncated; }

    // Reads the 12-byte header at the stream's position; the data offset is where it ends. The
    // length is not checked here: the chunk iterator checks it against its container.
    [[nodiscard]] bool StartNextChunk(LSDFChunkInfo& info) {
        unsigned char header[kLSDFChunkHeaderBytes];
        if (m_stream == nullptr || !m_stream->Read(header, sizeof header)) {
            return Fail("a chunk header is cut off");
        }
        info.id = static_cast<std::uint16_t>(llib::detail::GetLE(header, 2));
        info.type = static_cast<LSDFValueType>(llib::detail::GetLE(header + 2, 2));
        info.dataBytes = llib::detail::GetLE(header + 4, 8);
        info.dataOffset = m_stream->GetOffset();
        return true;
    }

    void Close() { m_stream = nullptr; }

    [[nodiscard]] bool IsOk() const { return m_ok; }
    // Marks the file unreadable; every failure funnels here so IsOk tells the caller. The first
    // reason and the stream offset where it was found are kept for messages.
    bool Fail(char const* reason = "the file could not be read") {
        if (m_ok || m_errorReason == nullptr) {
            m_errorReason = reason;
            m_errorOffset = m_stream != nullptr ? m_stream->GetOffset() : 0;
        }
        m_ok = false;
        return false;
    }
    [[nodiscard]] char const* GetErrorReason() const {
        return m_errorReason != nullptr ? m_errorReason : "";
    }
    [[nodiscard]] std::uint64_t GetErrorOffset() const { return m_errorOffset; }
    [[nodiscard]] unsigned GetFileType() const { return m_fileType; }
    [[nodiscard]] unsigned short GetFileVersion() const { return m_fileVersion; }
    [[nodiscard]] LSDFChunkInfo const& GetRoot() const { return m_root; }
    [[nodiscard]] Stream* GetStream() const { return m_stream; }
    // True when the root is followed by exactly the trailer "lsdf" and the file ends there.
    [[nodiscard]] bool HasTrailer() const {
        if (m_stream == nullptr) {
            return false;
        }
        std::uint64_t const end = m_root.dataOffset + m_root.dataBytes;
        if (m_stream->GetSize() != end + kLSDFTrailerBytes) {
            return false;
        }
        std::uint64_t const offset = m_stream->GetOffset();
        unsigned char trailer[4];
        bool const ok = m_stream->Seek(end) && m_stream->Read(trailer, 4) &&
                        std::memcmp(trailer, "lsdf", 4) == 0;
        (void)m_stream->Seek(offset);
        return ok;
    }

private:
    bool OpenImpl(Stream& stream, bool checkType, unsigned fileType, bool salvage = false) {
        m_stream = &stream;
        m_truncated = false;
        m_ok = true;
        m_errorReason = nullptr;
        m_errorOffset = 0;
        unsigned char header[kLSDFFileHeaderBytes];
        if (!stream.Seek(0) || !stream.Read(header, sizeof header)) {
            return Fail("the file is too short to be a structured data file");
        }
        if (std::memcmp(header, "lsdf", 4) != 0) {
            return Fail("not a structured data file (no \"lsdf\" header)");
        }
        if (llib::detail::GetLE(header + 4, 2) != 1) {
            return Fail("unsupported format revision");
        }
        m_fileType = static_cast<unsigned>(llib::detail::GetLE(header + 6, 4));
        m_fileVersion = static_cast<unsigned short>(llib::detail::GetLE(header + 10, 2));
        if (checkType && m_fileType != fileType) {
            return Fail("the file is not of the expected type");
        }
        if (!StartNextChunk(m_root)) {
            return Fail("the root chunk's header is cut off");
        }
        if (m_root.id != 0 || m_root.type != LSDFValueType::kContainer) {
            return Fail("the root chunk is not a container with identifier 0");
        }
        if (m_root.dataBytes > stream.GetSize() - m_root.dataOffset) {
            if (!salvage) {
                return Fail("the root chunk runs past the end of the file (truncated)");
            }
            m_root.dataBytes = stream.GetSize() - m_root.dataOffset;
            m_truncated = true;
        }
        m_root.index = 0;
        return true;
    }

    Stream* m_stream = nullptr;
    bool m_ok = false;
    bool m_truncated = false;
    char const* m_errorReason = nullptr;
    std::uint64_t m_errorOffset = 0;
    unsigned m_fileType = 0;
    unsigned short m_fileVersion = 0;
    LSDFChunkInfo m_root;
};

// One chunk being read: its header and the operations that read its data. Every read seeks to
// the data first, so reads may come in any order and a chunk may be read twice.
template <class Stream>
class LSDFReaderChunk {
public:
    LSDFReaderChunk(LSDFReader<Stream>& reader, LSDFChunkInfo const& info, int depth)
        : m_reader(reader), m_info(info), m_depth(depth) {}

    [[nodiscard]] LSDFChunkInfo const& GetInfo() const { return m_info; }
    [[nodiscard]] std::uint16_t GetId() const { return m_info.id; }
    [[nodiscard]] LSDFValueType GetType() const { return m_info.type; }
    [[nodiscard]] std::uint64_t GetDataBytes() const { return m_info.dataBytes; }
    [[nodiscard]] std::int32_t GetIndex() const { return m_info.index; }
    [[nodiscard]] int GetDepth() const { return m_depth; }
    [[nodiscard]] LSDFReader<Stream>& GetReader() const { return m_reader; }

    // Fixed-size values read their first 1, 4 or 8 bytes; a shorter chunk fails and leaves the
    // value unchanged.
    [[nodiscard]] bool ReadBool(bool& value) {
        unsigned char byte = 0;
        if (!ReadFixed(&byte, 1)) {
            return false;
        }
        value = byte != 0;
        return true;
    }
    [[nodiscard]] bool ReadInt(int& value) {
        unsigned char bytes[4];
        if (!ReadFixed(bytes, 4)) {
            return false;
        }
        value = static_cast<int>(static_cast<std::uint32_t>(llib::detail::GetLE(bytes, 4)));
        return true;
    }
    [[nodiscard]] bool ReadInt64(long long& value) {
        unsigned char bytes[8];
        if (!ReadFixed(bytes, 8)) {
            return false;
        }
        value = static_cast<long long>(llib::detail::GetLE(bytes, 8));
        return true;
    }
    [[nodiscard]] bool ReadFloat(float& value) {
        unsigned char bytes[4];
        if (!ReadFixed(bytes, 4)) {
            return false;
        }
        auto const bits = static_cast<std::uint32_t>(llib::detail::GetLE(bytes, 4));
        std::memcpy(&value, &bits, 4);
        return true;
    }

    // Reads into a caller buffer of kLSDFMaxStringBytes bytes. Longer data is cut and the rest
    // skipped; the text is always terminated (a cut string keeps 1559 characters).
    [[nodiscard]] bool ReadString(char* buffer) {
        buffer[0] = '\0';
        std::uint64_t const bytes =
            m_info.dataBytes < kLSDFMaxStringBytes ? m_info.dataBytes : kLSDFMaxStringBytes;
        if (!ReadAt(buffer, bytes)) {
            return false;
        }
        std::size_t const n = static_cast<std::size_t>(bytes);
        if (n == 0 || std::memchr(buffer, 0, n) == nullptr) {
            buffer[n < kLSDFMaxStringBytes ? n : kLSDFMaxStringBytes - 1] = '\0';
        }
        return true;
    }
    // Reads a string of any length (up to the first zero byte).
    [[nodiscard]] bool ReadString(LStringLong& text) {
        LSizedArray<unsigned char> data;
        if (!ReadData(data)) {
            return false;
        }
        auto const* chars = reinterpret_cast<char const*>(data.GetData());
        std::size_t const n = data.IsEmpty() ? 0 : ::strnlen(chars, data.GetCount());
        text.Set(chars != nullptr ? chars : "", n);
        return true;
    }

    // The whole data into a new array of exactly the data length (empty for none).
    [[nodiscard]] bool ReadData(LSizedArray<unsigned char>& data) {
        if (!data.Allocate(static_cast<std::size_t>(m_info.dataBytes))) {
            return m_reader.Fail("not enough memory to read a chunk");
        }
        return ReadAt(data.GetData(), m_info.dataBytes);
    }

    // Reads `bytes` raw bytes from the start of the data; fails when the chunk is shorter.
    [[nodiscard]] bool ReadRaw(void* out, std::uint64_t bytes) {
        if (bytes > m_info.dataBytes) {
            return false;
        }
        return ReadAt(out, bytes);
    }

    // Keeps the chunk, with its position among its siblings, for writing back.
    [[nodiscard]] bool ReadUnknownChunk(LList<LSDFUnknownChunk>& list) {
        auto chunk = std::make_unique<LSDFUnknownChunk>();
        chunk->id = m_info.id;
        chunk->type = m_info.type;
        chunk->dataBytes = m_info.dataBytes;
        chunk->index = m_info.index;
        if (!ReadData(chunk->data)) {
            return false;
        }
        list.AddTail(std::move(chunk));
        return true;
    }

protected:
    bool ReadFixed(void* out, std::uint64_t bytes) {
        return m_info.dataBytes >= bytes && ReadAt(out, bytes);
    }
    bool ReadAt(void* out, std::uint64_t bytes) {
        Stream* const stream = m_reader.GetStream();
        if (stream == nullptr || !stream->Seek(m_info.dataOffset) ||
            (bytes > 0 && !stream->Read(out, bytes))) {
            return m_reader.Fail("a chunk's data could not be read");
        }
        return true;
    }

    LSDFReader<Stream>& m_reader;
    LSDFChunkInfo m_info;
    int m_depth;
};

// Walks the children of the root or of a container chunk, one StartNextChunk per child; the
// iterator is itself the current chunk. Children are found from the container's recorded
// extent, not from how much a loader read, so a loader may skip any chunk by not reading it.
// An iterator over a chunk that is not a container is empty.
template <class Stream>
class LSDFReaderChunkIterator : public LSDFReaderChunk<Stream> {
public:
    explicit LSDFReaderChunkIterator(LSDFReader<Stream>& reader)
        : LSDFReaderChunk<Stream>(reader, LSDFChunkInfo{}, 1) {
        Begin(reader.GetRoot(), reader.IsOk() && reader.GetStream() != nullptr);
    }
    LSDFReaderChunkIterator(LSDFReader<Stream>& reader, LSDFReaderChunk<Stream> const& container)
        : LSDFReaderChunk<Stream>(reader, LSDFChunkInfo{}, container.GetDepth() + 1) {
        bool usable = container.GetType() == LSDFValueType::kContainer;
        if (usable && this->m_depth > kLSDFMaxDepth) {
            reader.Fail("containers are nested too deeply");
            usable = false;
        }
        Begin(container.GetInfo(), usable);
    }

    // Moves to the next child; false at the end of the container or when the file is corrupt
    // (the reader's IsOk tells which).
    [[nodiscard]] bool StartNextChunk() {
        if (m_done || !this->m_reader.IsOk()) {
            return false;
        }
        if (m_next >= m_end) {
            m_done = true;
            return false;
        }
        Stream* const stream = this->m_reader.GetStream();
        LSDFChunkInfo info;
        m_done = true;
        if (!stream->Seek(m_next)) {
            return this->m_reader.Fail("a chunk lies past the end of the file");
        }
        if (m_end - m_next < kLSDFChunkHeaderBytes) {
            return this->m_reader.Fail("a chunk header is cut off by the end of its container");
        }
        if (!this->m_reader.StartNextChunk(info)) {
            return false;
        }
        if (info.dataBytes > m_end - info.dataOffset) {
            (void)stream->Seek(m_next);
            return this->m_reader.Fail("a chunk runs past the end of its container");
        }
        m_done = false;
        info.index = m_count++;
        this->m_info = info;
        m_next = info.dataOffset + info.dataBytes;
        return true;
    }

private:
    void Begin(LSDFChunkInfo const& container, bool usable) {
        m_next = container.dataOffset;
        m_end = container.dataOffset + container.dataBytes;
        m_done = !usable;
        if (usable) {
            (void)this->m_reader.GetStream()->Seek(m_next);
        }
    }

    std::uint64_t m_next = 0;
    std::uint64_t m_end = 0;
    std::int32_t m_count = 0;
    bool m_done = true;
};
