// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/sdf.h"

#include "llib/gen/filestream.h"
#include "llib/gen/memstream.h"
#include "llib/gen/stringlong.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using MemWriter = LSDFWriter<LOutputStreamByteArray>;
using MemReader = LSDFReader<LInputStreamBuffer>;
using MemIterator = LSDFReaderChunkIterator<LInputStreamBuffer>;

constexpr unsigned kType = kLSDFFileEffectChain;
constexpr unsigned short kVersion = 7;

// Type codes in stored order, so expected bytes do not come from the enum under test.
enum : std::uint16_t { kBox, kBool, kInt, kI64, kFlt, kOpq, kStr, kBlob };

Bytes LE(std::uint64_t value, int bytes) {
    Bytes out;
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
    return out;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

// A chunk whose header states `statedBytes` (its real size unless given).
Bytes Chunk(std::uint16_t id, std::uint16_t type, Bytes const& data,
            std::uint64_t statedBytes = UINT64_MAX) {
    return Cat({LE(id, 2), LE(type, 2),
                LE(statedBytes == UINT64_MAX ? data.size() : statedBytes, 8), data});
}

Bytes Box(std::uint16_t id, std::initializer_list<Bytes> children) {
    return Chunk(id, kBox, Cat(children));
}

// Letters, so a cut string shows where it was cut.
Bytes Pattern(std::size_t bytes, bool terminated = false) {
    Bytes out(bytes + (terminated ? 1 : 0), 0);
    for (std::size_t i = 0; i < bytes; ++i) {
        out[i] = static_cast<unsigned char>('a' + i % 26);
    }
    return out;
}

Bytes FileOf(Bytes const& root, unsigned fileType = kType) {
    Bytes const magic{'l', 's', 'd', 'f'};
    return Cat({magic, LE(1, 2), LE(fileType, 4), LE(kVersion, 2), root, magic});
}

Bytes File(std::initializer_list<Bytes> children) {
    return FileOf(Box(0, children));
}

// A newer program's file. The loader in the load-and-save test knows root children 1 and 2 and,
// inside 2, child 1; unknown chunks lead and trail in both containers and interleave in the root.
Bytes FileFromNewerVersion() {
    return File({Chunk(50, kBlob, {1, 2, 3}), Chunk(1, kInt, LE(42, 4)),
                 Box(60, {Box(61, {Chunk(1, kI64, LE(0x1122334455667788, 8))})}),
                 Box(2, {Chunk(9, kOpq, {9, 9, 9, 9, 9}), Chunk(1, kStr, Pattern(4, true)),
                         Box(70, {Chunk(1, kInt, LE(5, 4))}), Chunk(2, kFlt, LE(0x3FC00000, 4))}),
                 Chunk(99, kStr, Pattern(15, true)), Chunk(98, kBool, {1})});
}

// `levels` containers below the root, each holding only the next.
Bytes NestedContainers(std::size_t levels) {
    Bytes root;
    for (std::size_t level = 0; level < levels; ++level) {
        Bytes const header = Chunk(1, kBox, {}, (levels - 1 - level) * kLSDFChunkHeaderBytes);
        root.insert(root.end(), header.begin(), header.end());
    }
    return FileOf(Chunk(0, kBox, root));
}

// Reads every chunk's data, recursing into containers; true when the reader is still fine.
template <class Stream>
bool Walk(LSDFReader<Stream>& reader, LSDFReaderChunkIterator<Stream>&& it) {
    while (it.StartNextChunk()) {
        LSizedArray<unsigned char> data;
        if (it.GetType() == LSDFValueType::kContainer) {
            (void)Walk(reader, LSDFReaderChunkIterator<Stream>(reader, it));
        } else if (!it.ReadData(data)) {
            return false;
        }
    }
    return reader.IsOk();
}

// What a loader concludes: the file opens, its whole tree reads and the trailer ends it.
bool IsAccepted(Bytes const& file) {
    // A copy of exactly the given bytes, so a read past them is caught by the sanitiser.
    auto const copy = std::make_unique<unsigned char[]>(file.size());
    std::copy(file.begin(), file.end(), copy.get());
    LInputStreamBuffer in(copy.get(), file.size());
    MemReader reader;
    return reader.Open(in, kType) && Walk(reader, MemIterator(reader)) && reader.HasTrailer();
}

template <class Stream>
[[nodiscard]] bool WriteEveryType(Stream& stream) {
    LSDFWriter<Stream> writer;
    unsigned char const blob[] = {0xDE, 0xAD, 0x00, 0xBE};
    return writer.Open(stream, kType, kVersion) && writer.WriteBool(1, true) &&
           writer.WriteInt(2, -2) && writer.WriteInt64(3, -3) && writer.WriteFloat(4, 1.5f) &&
           writer.WriteString(6, "tessel") && writer.WriteString(9, nullptr) &&
           writer.WriteBlob(7, blob, sizeof blob) && writer.WriteBlob(10, nullptr, 0) &&
           writer.StartContainer(8) && writer.WriteBool(0x1234, false) && writer.EndContainer(8) &&
           writer.Close();
}

class SDFFileTest : public LTempDirTest {};

TEST_F(SDFFileTest, WritesTheFileLayoutAndReadsEveryValueBackFromDisk) {
    LOutputStreamByteArray empty;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(empty, kType, kVersion) && writer.Close());
    EXPECT_EQ(empty.GetBytes(), (Bytes{'l', 's', 'd', 'f', 1, 0, 11, 0, 0, 0, 7,   0,   0,   0,
                                       0,   0,   0,   0,   0, 0, 0,  0, 0, 0, 'l', 's', 'd', 'f'}));

    Bytes const expected = File({Chunk(1, kBool, {1}), Chunk(2, kInt, {0xFE, 0xFF, 0xFF, 0xFF}),
                                 Chunk(3, kI64, {0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
                                 Chunk(4, kFlt, {0x00, 0x00, 0xC0, 0x3F}),
                                 Chunk(6, kStr, {'t', 'e', 's', 's', 'e', 'l', 0}),
                                 Chunk(9, kStr, {0}), Chunk(7, kBlob, {0xDE, 0xAD, 0x00, 0xBE}),
                                 Chunk(10, kBlob, {}), Box(8, {Chunk(0x1234, kBool, {0})})});
    std::string const path = PathOf("every.lsdf");
    LOutputStreamFile out;
    ASSERT_TRUE(out.Open(path.c_str()) && WriteEveryType(out) && out.Close());
    std::string const onDisk = ReadFileBytes(path);
    EXPECT_EQ(Bytes(onDisk.begin(), onDisk.end()), expected);
    LInputStreamFile in;
    LSDFReader<LInputStreamFile> reader;
    ASSERT_TRUE(in.Open(path.c_str()) && reader.Open(in, kType));
    LSDFReaderChunkIterator<LInputStreamFile> it(reader);
    bool flag = false;
    int value = 0;
    long long value64 = 0;
    float real = 0;
    LStringLong text;
    ASSERT_TRUE(it.StartNextChunk() && it.ReadBool(flag) && it.StartNextChunk() &&
                it.ReadInt(value) && it.StartNextChunk() && it.ReadInt64(value64) &&
                it.StartNextChunk() && it.ReadFloat(real) && it.StartNextChunk() &&
                it.ReadString(text));
    EXPECT_EQ(std::make_tuple(flag, value, value64, real, text.Std()),
              std::make_tuple(true, -2, -3LL, 1.5f, std::string("tessel")));
    EXPECT_EQ(reader.GetFileVersion(), kVersion);
    EXPECT_TRUE(Walk(reader, LSDFReaderChunkIterator<LInputStreamFile>(reader)));
    EXPECT_TRUE(reader.HasTrailer());
}

// Containers 10 and 1 are still open at Close, which must end and patch them too.
TEST(SDFWriter, PatchesTheLengthOfEveryNestedContainer) {
    LOutputStreamByteArray stream;
    MemWriter w;
    ASSERT_TRUE(w.Open(stream, kType, kVersion) && w.WriteInt(9, 4) && w.StartContainer(1) &&
                w.WriteInt(2, 1) && w.StartContainer(3) && w.StartContainer(4) &&
                w.WriteInt(5, 2) && w.EndContainer(4) && w.StartContainer(6) && w.EndContainer(6) &&
                w.WriteBool(7, true) && w.EndContainer(3) && w.WriteInt(8, 3) &&
                w.StartContainer(10) && w.WriteInt(11, 5) && w.Close());
    Bytes const inner =
        Box(3, {Box(4, {Chunk(5, kInt, LE(2, 4))}), Box(6, {}), Chunk(7, kBool, {1})});
    EXPECT_EQ(stream.GetBytes(),
              File({Chunk(9, kInt, LE(4, 4)),
                    Box(1, {Chunk(2, kInt, LE(1, 4)), inner, Chunk(8, kInt, LE(3, 4)),
                            Box(10, {Chunk(11, kInt, LE(5, 4))})})}));
}

TEST(SDFWriter, EndingTheRootEarlyWritesAValidFileButAChunkAfterItFailsTheFile) {
    LOutputStreamByteArray early;
    LOutputStreamByteArray after;
    LOutputStreamByteArray wrongEnd;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(early, kType, kVersion) && writer.WriteInt(1, 5) &&
                writer.EndContainer(0) && writer.Close());
    EXPECT_EQ(early.GetBytes(), File({Chunk(1, kInt, LE(5, 4))}));
    ASSERT_TRUE(writer.Open(after, kType, kVersion) && writer.EndContainer(0));
    EXPECT_FALSE(writer.WriteInt(1, 5));
    EXPECT_FALSE(writer.Close());
    ASSERT_TRUE(writer.Open(wrongEnd, kType, kVersion) && writer.StartContainer(1));
    EXPECT_FALSE(writer.EndContainer(2));
    EXPECT_FALSE(writer.WriteInt(3, 0));
    EXPECT_FALSE(writer.Close());
    EXPECT_FALSE(IsAccepted(after.GetBytes()) || IsAccepted(wrongEnd.GetBytes()));
}

// Unknown chunks of type 5 holding their old index.
LList<LSDFUnknownChunk> UnknownChunks(std::vector<int> const& indices) {
    LList<LSDFUnknownChunk> list;
    for (int const index : indices) {
        auto chunk = std::make_unique<LSDFUnknownChunk>();
        chunk->id = static_cast<std::uint16_t>(100 + index);
        chunk->type = static_cast<LSDFValueType>(kOpq);
        chunk->index = index;
        chunk->dataBytes = 4;
        EXPECT_TRUE(chunk->data.Allocate(4));
        llib::detail::PutLE(chunk->data.GetData(), static_cast<std::uint32_t>(index), 4);
        list.AddTail(std::move(chunk));
    }
    return list;
}

// The children a placement case expects: "u3" is the unknown chunk with index 3, "o3" the
// writer's own child given index 3 (o50, o51, ...: given none).
Bytes Children(std::vector<std::string> const& labels) {
    Bytes out;
    for (std::string const& label : labels) {
        auto const value = static_cast<std::uint16_t>(std::stoi(label.substr(1)));
        Bytes const chunk = label[0] == 'u' ? Chunk(100 + value, kOpq, LE(value, 4))
                                            : Chunk(10 + value, kInt, LE(value, 4));
        out.insert(out.end(), chunk.begin(), chunk.end());
    }
    return out;
}

struct PlacementCase {
    char const* name;
    std::vector<int> unknownIndices;
    std::vector<int> ownIndices; // in writing order; -1 writes without a position
    std::vector<std::string> expectedOrder;
};

// In the root the unknown chunks come through Open and the trailing ones through Close; in a
// container through StartContainer and EndContainer.
class SDFUnknownPlacement : public ::testing::TestWithParam<std::tuple<PlacementCase, bool>> {};

TEST_P(SDFUnknownPlacement, WriterPutsUnknownChunksBackAtTheirIndex) {
    auto const& [c, inRoot] = GetParam();
    LList<LSDFUnknownChunk> const unknown = UnknownChunks(c.unknownIndices);
    LOutputStreamByteArray out;
    MemWriter writer;
    ASSERT_TRUE(inRoot ? writer.Open(out, kType, kVersion, unknown)
                       : writer.Open(out, kType, kVersion) && writer.StartContainer(1, unknown));
    int unpositioned = 50;
    for (int const index : c.ownIndices) {
        int const value = index >= 0 ? index : unpositioned++;
        ASSERT_TRUE(writer.WriteInt(static_cast<std::uint16_t>(10 + value), value, index));
    }
    ASSERT_TRUE((inRoot || writer.EndContainer(1)) && writer.Close());
    Bytes const children = Children(c.expectedOrder);
    EXPECT_EQ(out.GetBytes(),
              FileOf(inRoot ? Chunk(0, kBox, children) : Box(0, {Chunk(1, kBox, children)})));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SDFUnknownPlacement,
    ::testing::Combine(
        ::testing::Values(
            PlacementCase{
                "Interleaved", {0, 1, 4}, {2, 3, 5}, {"u0", "u1", "o2", "o3", "u4", "o5"}},
            PlacementCase{
                "LeadingBeforeUnpositioned", {0, 1}, {-1, -1}, {"u0", "u1", "o50", "o51"}},
            PlacementCase{"LeadingStopAtTheFirstGap", {0, 2}, {-1}, {"u0", "o50", "u2"}},
            PlacementCase{
                "TrailingPutBackAtTheEnd", {3, 4}, {0, 1, 2}, {"o0", "o1", "o2", "u3", "u4"}},
            PlacementCase{"EqualIndexPutsOwnChildFirst", {1}, {0, 1}, {"o0", "o1", "u1"}}),
        ::testing::Bool()),
    [](auto const& p) {
        return std::string(std::get<0>(p.param).name) + (std::get<1>(p.param) ? "InRoot" : "");
    });

TEST(SDFUnknownChunks, ChunkWithoutDataIsDroppedAndOneShorterThanItsLengthFailsTheFile) {
    LList<LSDFUnknownChunk> unknown = UnknownChunks({0, 1});
    unknown.GetHead()->data.Clear();
    unknown.GetHead()->dataBytes = 0;
    LOutputStreamByteArray dropped;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(dropped, kType, kVersion, unknown) && writer.Close());
    EXPECT_EQ(dropped.GetBytes(), File({Chunk(101, kOpq, LE(1, 4))}));

    unknown.GetHead()->GetNext()->dataBytes = 100; // the array holds 4
    LOutputStreamByteArray bad;
    EXPECT_FALSE(writer.Open(bad, kType, kVersion, unknown));
    EXPECT_FALSE(writer.Close());
    EXPECT_FALSE(IsAccepted(bad.GetBytes()));
}

TEST(SDFUnknownChunks, LoadAndSaveReproducesAFileFromANewerVersion) {
    Bytes const original = FileFromNewerVersion();
    LInputStreamBuffer in(original.data(), original.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kType));
    int value = 0;
    LStringLong name;
    int at[3] = {}; // indices of root children 1 and 2 and of child 1 inside 2
    LList<LSDFUnknownChunk> rootUnknown;
    LList<LSDFUnknownChunk> innerUnknown;
    for (MemIterator it(reader); it.StartNextChunk();) {
        if (it.GetId() == 1) {
            ASSERT_TRUE(it.ReadInt(value));
            at[0] = it.GetIndex();
        } else if (it.GetId() == 2) {
            at[1] = it.GetIndex();
            for (MemIterator inner(reader, it); inner.StartNextChunk();) {
                if (inner.GetId() == 1) {
                    ASSERT_TRUE(inner.ReadString(name));
                    at[2] = inner.GetIndex();
                } else {
                    ASSERT_TRUE(inner.ReadUnknownChunk(innerUnknown));
                }
            }
        } else {
            ASSERT_TRUE(it.ReadUnknownChunk(rootUnknown));
        }
    }
    ASSERT_TRUE(reader.IsOk());
    ASSERT_EQ(std::make_tuple(rootUnknown.GetCount(), innerUnknown.GetCount()),
              std::make_tuple(std::size_t{4}, std::size_t{3}));

    LOutputStreamByteArray out;
    MemWriter w;
    ASSERT_TRUE(w.Open(out, kType, reader.GetFileVersion(), rootUnknown) &&
                w.WriteInt(1, value, at[0]) && w.StartContainer(2, innerUnknown, at[1]) &&
                w.WriteString(1, name.Get(), at[2]) && w.EndContainer(2) && w.Close());
    EXPECT_EQ(out.GetBytes(), original);
}

// Storage that fills after `capacity` bytes of writes (length patches count too): the write that
// would pass it stores nothing and fails, as does every later call, which it counts.
struct FillingStream : LOutputStreamByteArray {
    explicit FillingStream(std::uint64_t bytes) : capacity(bytes) {}
    [[nodiscard]] bool Write(void const* data, std::uint64_t bytes) {
        callsAfterFailure += failed ? 1 : 0;
        failed = failed || bytes > capacity - written;
        written += failed ? 0 : bytes;
        return !failed && LOutputStreamByteArray::Write(data, bytes);
    }
    [[nodiscard]] bool Seek(std::uint64_t offset) {
        callsAfterFailure += failed ? 1 : 0;
        return !failed && LOutputStreamByteArray::Seek(offset);
    }
    std::uint64_t capacity;
    std::uint64_t written = 0;
    bool failed = false;
    int callsAfterFailure = 0;
};

// Every call is made whatever the earlier ones returned, as a careless saver would. Returns
// Close's result; `opened` receives Open's.
bool WriteIgnoringResults(FillingStream& stream, bool& opened) {
    LSDFWriter<FillingStream> writer;
    LList<LSDFUnknownChunk> const unknown = UnknownChunks({0, 3});
    unsigned char const blob[20] = {};
    opened = writer.Open(stream, kType, kVersion);
    bool all = opened;
    // A braced list evaluates in order.
    for (bool const ok : {writer.StartContainer(1, unknown), writer.WriteInt(2, 7, 1),
                          writer.WriteString(3, "some text", 2), writer.EndContainer(1),
                          writer.WriteBlob(4, blob, sizeof blob), writer.StartContainer(5),
                          writer.WriteInt64(6, 1), writer.EndContainer(5)}) {
        all = all && ok;
    }
    bool const closed = writer.Close();
    EXPECT_TRUE(all || !closed) << "Close succeeded after a call failed";
    return closed;
}

TEST(SDFWriterFailure, StopsAtTheFirstFailedWriteWhereverItComes) {
    FillingStream unlimited(UINT64_MAX);
    bool opened = false;
    ASSERT_TRUE(WriteIgnoringResults(unlimited, opened));
    ASSERT_TRUE(IsAccepted(unlimited.GetBytes()));
    for (std::uint64_t capacity = 0; capacity < unlimited.written; ++capacity) {
        SCOPED_TRACE(capacity);
        FillingStream stream(capacity);
        EXPECT_FALSE(WriteIgnoringResults(stream, opened));
        EXPECT_TRUE(stream.failed);
        EXPECT_EQ(stream.callsAfterFailure, 0);
        EXPECT_FALSE(IsAccepted(stream.GetBytes()));
        if (capacity < kLSDFFileHeaderBytes + kLSDFChunkHeaderBytes) {
            EXPECT_FALSE(opened);
            EXPECT_LE(stream.GetSize(), kLSDFFileHeaderBytes);
        }
    }
}

struct StringCase {
    char const* name;
    Bytes data;
    std::size_t fixedChars; // kept through the fixed buffer (a prefix of `data`)
    std::size_t longChars;  // kept through LStringLong
};

class SDFReadString : public ::testing::TestWithParam<StringCase> {};

TEST_P(SDFReadString, KeepsWhatFitsAndStillFindsTheNextSibling) {
    StringCase const& c = GetParam();
    Bytes const file = File({Chunk(1, kStr, c.data), Chunk(2, kInt, LE(77, 4))});
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kType));
    MemIterator it(reader);
    ASSERT_TRUE(it.StartNextChunk());
    // Exactly the documented size on the heap, so a write past it is caught.
    std::vector<char> buffer(kLSDFMaxStringBytes, '#');
    LStringLong text;
    ASSERT_TRUE(it.ReadString(buffer.data()) && it.ReadString(text));
    auto const prefix = [&c](std::size_t chars) {
        return std::string(c.data.begin(), c.data.begin() + chars);
    };
    EXPECT_EQ(std::string(buffer.data()), prefix(c.fixedChars));
    EXPECT_EQ(text.Std(), prefix(c.longChars));
    int value = 0;
    ASSERT_TRUE(it.StartNextChunk() && it.ReadInt(value));
    EXPECT_EQ(value, 77);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SDFReadString,
    ::testing::Values(StringCase{"Empty", {0}, 0, 0}, StringCase{"NoDataAtAll", {}, 0, 0},
                      StringCase{"ShortWithoutTerminator", Pattern(10), 10, 10},
                      StringCase{"StopsAtAnEmbeddedZero", {'a', 'b', 0, 'c', 0}, 2, 2},
                      StringCase{"JustFits", Pattern(1559, true), 1559, 1559},
                      StringCase{"OneTooManyForTheBuffer", Pattern(1560, true), 1559, 1560},
                      StringCase{"UnterminatedAtBufferSize", Pattern(1560), 1559, 1560},
                      StringCase{"TwoThousandBytes", Pattern(1999, true), 1559, 1999}),
    [](auto const& p) { return std::string(p.param.name); });

// Fixed-size values take their first bytes; a shorter chunk fails and keeps the value. Neither
// that nor an iterator over a value chunk (which is empty) stops the rest of the file reading.
TEST(SDFReader, ShortFixedSizeReadsKeepTheValueAndAValueChunkHasNoChildren) {
    Bytes const file = File({Chunk(1, kBool, {}), Chunk(2, kInt, {1, 2, 3}),
                             Chunk(3, kI64, {1, 2, 3, 4, 5, 6, 7}), Chunk(4, kFlt, {1, 2, 3}),
                             Chunk(5, kBool, {1}), Chunk(6, kInt, {31, 0, 0, 0, 0xAA, 0xBB})});
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kType));
    MemIterator it(reader);
    bool flag = true;
    int value = 11;
    long long value64 = 22;
    float real = 3.5f;
    EXPECT_FALSE(it.StartNextChunk() && it.ReadBool(flag));
    EXPECT_FALSE(it.StartNextChunk() && it.ReadInt(value));
    EXPECT_FALSE(it.StartNextChunk() && it.ReadInt64(value64));
    EXPECT_FALSE(it.StartNextChunk() && it.ReadFloat(real));
    EXPECT_EQ(std::make_tuple(flag, value, value64, real), std::make_tuple(true, 11, 22LL, 3.5f));
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_FALSE(MemIterator(reader, it).StartNextChunk());
    ASSERT_TRUE(it.StartNextChunk() && it.ReadInt(value));
    EXPECT_EQ(std::make_tuple(it.GetId(), value), std::make_tuple(std::uint16_t{6}, 31));
    EXPECT_TRUE(reader.IsOk());
}

struct HostileCase {
    char const* name;
    Bytes file;
    bool opens; // the header is fine and the fault is found while walking
    char const* reason = "";
};

class SDFRejects : public ::testing::TestWithParam<HostileCase> {};

// Walking reads every chunk's data, so a believed length would ask for an absurd allocation,
// which the sanitiser reports.
TEST_P(SDFRejects, FailsWithAReasonWithoutAllocating) {
    Bytes const& file = GetParam().file;
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    EXPECT_EQ(reader.Open(in, kType), GetParam().opens);
    EXPECT_FALSE(Walk(reader, MemIterator(reader)));
    EXPECT_STRNE(reader.GetErrorReason(), "");
    EXPECT_NE(std::string(reader.GetErrorReason()).find(GetParam().reason), std::string::npos);
}

Bytes WithByte(Bytes file, std::size_t offset, unsigned char value) {
    file[offset] = value;
    return file;
}

std::vector<HostileCase> HostileCases() {
    Bytes const empty = File({});
    auto const child = [](std::uint64_t statedBytes) {
        return File({Chunk(1, kBlob, Pattern(8), statedBytes)});
    };
    return {
        {"WrongMagic", WithByte(empty, 0, 'L'), false},
        {"RevisionTwo", WithByte(empty, 4, 2), false},
        {"OtherFileType", FileOf(Box(0, {}), kLSDFFileProject), false},
        {"RootIdNotZero", FileOf(Box(1, {})), false},
        {"RootNotAContainer", FileOf(Chunk(0, kInt, LE(1, 4))), false},
        {"RootLength2To63", FileOf(Chunk(0, kBox, {}, 1ULL << 63)), false},
        {"RootLengthWrapsAround", FileOf(Chunk(0, kBox, {}, UINT64_MAX - 23)), false},
        {"ChildOneByteLongerThanRoot", child(9), true},
        {"ChildLengthWrapsAround", child(UINT64_MAX - 35), true},
        {"ChildLengthNearMax", child(UINT64_MAX - 1), true},
        {"GrandchildLongerThanItsContainer",
         File({Chunk(1, kBox, Chunk(2, kBlob, Pattern(8), 9)), Chunk(3, kBlob, Pattern(20))}),
         true},
        {"HeaderCutOffByAContainer",
         File({Box(1, {Chunk(2, kBool, {1}), Pattern(5)}), Chunk(3, kInt, {})}), true},
        {"GarbageAfterTheLastChild", File({Chunk(1, kInt, LE(1, 4)), Pattern(3)}), true},
        // The root is the first level; thousands must fail without deep recursion.
        {"NestedOneTooDeep", NestedContainers(kLSDFMaxDepth), true, "nested too deeply"},
        {"NestedThousandsDeep", NestedContainers(5000), true, "nested too deeply"},
    };
}

INSTANTIATE_TEST_SUITE_P(Cases, SDFRejects, ::testing::ValuesIn(HostileCases()),
                         [](auto const& p) { return std::string(p.param.name); });

// The sdfreader fuzzer's seeds must be files the reader accepts (the nested one is at the depth
// limit) and that fail when cut anywhere; with TESSEL_WRITE_FUZZ_SEEDS naming a folder they are
// also written there.
TEST(SDFFuzzSeeds, SeedsAreAcceptedFailWhenTruncatedAndAreWrittenWhenAFolderIsGiven) {
    char const* const dir = std::getenv("TESSEL_WRITE_FUZZ_SEEDS");
    LOutputStreamByteArray everyType;
    ASSERT_TRUE(WriteEveryType(everyType));
    std::vector<std::pair<char const*, Bytes>> const seeds{
        {"empty.lsdf", File({})},
        {"newer.lsdf", FileFromNewerVersion()},
        {"nested.lsdf", NestedContainers(kLSDFMaxDepth - 1)},
        {"longstring.lsdf", File({Chunk(1, kStr, Pattern(2000)), Chunk(2, kBool, {1})})},
        {"everytype.lsdf", everyType.GetBytes()},
    };
    for (auto const& [name, file] : seeds) {
        ASSERT_TRUE(IsAccepted(file)) << name;
        for (std::size_t bytes = 0; bytes < file.size(); ++bytes) {
            EXPECT_FALSE(IsAccepted(Bytes(file.begin(), file.begin() + bytes))) << name << bytes;
        }
        if (dir != nullptr && *dir != '\0') {
            std::string const path = std::string(dir) + "/" + name;
            ASSERT_TRUE(WriteFileBytes(path, file.data(), file.size())) << path;
        }
    }
}

} // namespace
