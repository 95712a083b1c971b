// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/sdf.h"

#include "llib/gen/filestream.h"
#include "llib/gen/memstream.h"
#include "llib/gen/stringlong.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using MemWriter = LSDFWriter<LOutputStreamByteArray>;
using MemReader = LSDFReader<LInputStreamBuffer>;
using MemIterator = LSDFReaderChunkIterator<LInputStreamBuffer>;

constexpr unsigned kTestFileType = kLSDFFileEffectChain;
constexpr unsigned short kTestFileVersion = 7;

// Type codes as stored in the file, written out here so that the expected bytes do not come from
// the enum under test.
constexpr std::uint16_t kTypeContainer = 0;
constexpr std::uint16_t kTypeBool = 1;
constexpr std::uint16_t kTypeInt = 2;
constexpr std::uint16_t kTypeInt64 = 3;
constexpr std::uint16_t kTypeFloat = 4;
constexpr std::uint16_t kTypeOpaque = 5;
constexpr std::uint16_t kTypeString = 6;
constexpr std::uint16_t kTypeBlob = 7;

// ---- Hand assembly of files from the layout ----

Bytes LE(std::uint64_t value, int bytes) {
    Bytes out;
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
    return out;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes ChunkWithLength(std::uint16_t id, std::uint16_t type, std::uint64_t dataBytes,
                      Bytes const& data) {
    return Concat({LE(id, 2), LE(type, 2), LE(dataBytes, 8), data});
}

Bytes Chunk(std::uint16_t id, std::uint16_t type, Bytes const& data) {
    return ChunkWithLength(id, type, data.size(), data);
}

Bytes Container(std::uint16_t id, std::initializer_list<Bytes> children) {
    return Chunk(id, kTypeContainer, Concat(children));
}

Bytes Text(std::string const& text) {
    Bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

Bytes Magic() {
    return Bytes{'l', 's', 'd', 'f'};
}

Bytes FileHeader(unsigned fileType = kTestFileType, std::uint16_t revision = 1) {
    return Concat({Magic(), LE(revision, 2), LE(fileType, 4), LE(kTestFileVersion, 2)});
}

Bytes FileWithRoot(Bytes const& root, unsigned fileType = kTestFileType) {
    return Concat({FileHeader(fileType), root, Magic()});
}

Bytes File(std::initializer_list<Bytes> children) {
    return FileWithRoot(Container(0, children));
}

Bytes Pattern(std::size_t bytes) {
    Bytes out(bytes);
    for (std::size_t i = 0; i < bytes; ++i) {
        out[i] = static_cast<unsigned char>('a' + i % 26);
    }
    return out;
}

// ---- Reading a whole tree ----

std::string Hex(unsigned char const* data, std::size_t bytes) {
    std::string out;
    for (std::size_t i = 0; i < bytes; ++i) {
        out += LStrFormat("%02x", data[i]);
    }
    return out;
}

// Reads every chunk by its type, recursing into containers, and describes each on one line.
template <class Stream>
void DescribeChildren(LSDFReader<Stream>& reader, LSDFReaderChunkIterator<Stream>& it, int depth,
                      std::vector<std::string>& lines) {
    while (it.StartNextChunk()) {
        std::string line(static_cast<std::size_t>(depth) * 2, ' ');
        line += std::to_string(it.GetId()) + ' ';
        bool read = true;
        switch (it.GetType()) {
        case LSDFValueType::kContainer: {
            lines.push_back(line + "container");
            LSDFReaderChunkIterator<Stream> children(reader, it);
            DescribeChildren(reader, children, depth + 1, lines);
            continue;
        }
        case LSDFValueType::kBool: {
            bool value = false;
            read = it.ReadBool(value);
            line += value ? "bool true" : "bool false";
            break;
        }
        case LSDFValueType::kInt: {
            int value = 0;
            read = it.ReadInt(value);
            line += "int " + std::to_string(value);
            break;
        }
        case LSDFValueType::kInt64: {
            long long value = 0;
            read = it.ReadInt64(value);
            line += "int64 " + std::to_string(value);
            break;
        }
        case LSDFValueType::kFloat: {
            float value = 0;
            read = it.ReadFloat(value);
            unsigned char bits[4];
            std::memcpy(bits, &value, 4);
            line += "float " + Hex(bits, 4);
            break;
        }
        case LSDFValueType::kString: {
            LStringLong text;
            read = it.ReadString(text);
            line += "string \"" + text.Std() + "\"";
            break;
        }
        default: {
            LSizedArray<unsigned char> data;
            read = it.ReadData(data);
            line += "type " + std::to_string(static_cast<unsigned>(it.GetType())) + ' ' +
                    Hex(data.GetData(), data.GetCount());
            break;
        }
        }
        lines.push_back(read ? line : line + " (unreadable)");
    }
}

// Walks the whole tree; true when the reader is still fine afterwards.
template <class Stream>
bool WalkWholeTree(LSDFReader<Stream>& reader, std::vector<std::string>* lines = nullptr) {
    std::vector<std::string> ignored;
    LSDFReaderChunkIterator<Stream> it(reader);
    DescribeChildren(reader, it, 0, lines != nullptr ? *lines : ignored);
    return reader.IsOk();
}

// What a loader would conclude: the file opens, its tree reads and it ends with the trailer.
bool IsAccepted(unsigned char const* data, std::size_t bytes, std::string* reason = nullptr) {
    LInputStreamBuffer stream(data, bytes);
    MemReader reader;
    bool const ok =
        reader.Open(stream, kTestFileType) && WalkWholeTree(reader) && reader.HasTrailer();
    if (reason != nullptr) {
        *reason = reader.GetErrorReason();
    }
    return ok;
}

bool IsAccepted(Bytes const& file, std::string* reason = nullptr) {
    return IsAccepted(file.data(), file.size(), reason);
}

// A few hundred bytes with every type and three levels of nesting.
Bytes SampleFile() {
    return File({
        Chunk(1, kTypeBool, {1}),
        Chunk(2, kTypeInt, LE(0xFFFFFFFE, 4)),
        Container(3,
                  {
                      Chunk(1, kTypeString, Text("first preset")),
                      Chunk(2, kTypeFloat, LE(0x3FC00000, 4)),
                      Container(3,
                                {
                                    Chunk(1, kTypeInt64, LE(0x0102030405060708, 8)),
                                    Chunk(2, kTypeBlob, Pattern(40)),
                                    Container(4, {}),
                                }),
                      Chunk(4, kTypeOpaque, Pattern(9)),
                  }),
        Chunk(4, kTypeString, Text(std::string(60, 'x'))),
        Container(5,
                  {
                      Chunk(1, kTypeInt, LE(12345, 4)),
                      Chunk(2, kTypeBool, {0}),
                  }),
        Chunk(6, kTypeBlob, Pattern(33)),
    });
}

Bytes Written(LOutputStreamByteArray const& stream) {
    return stream.GetBytes();
}

// ---- Writer layout ----

TEST(SDFWriter, EmptyFileIsHeaderEmptyRootAndTrailer) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.Close());
    Bytes const expected{'l', 's', 'd', 'f', 1, 0, 11, 0, 0, 0, 7,   0,   0,   0,
                         0,   0,   0,   0,   0, 0, 0,  0, 0, 0, 'l', 's', 'd', 'f'};
    EXPECT_EQ(Written(stream), expected);
}

TEST(SDFWriter, WritesEveryValueTypeInTheFileLayout) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    unsigned char const blob[] = {0xDE, 0xAD, 0x00, 0xBE};
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.WriteBool(1, true));
    ASSERT_TRUE(writer.WriteInt(2, -2));
    ASSERT_TRUE(writer.WriteInt64(3, -3));
    ASSERT_TRUE(writer.WriteFloat(4, 1.5f));
    ASSERT_TRUE(writer.WriteString(6, "tessel"));
    ASSERT_TRUE(writer.WriteString(9, nullptr));
    ASSERT_TRUE(writer.WriteBlob(7, blob, sizeof blob));
    ASSERT_TRUE(writer.WriteBlob(10, nullptr, 0));
    ASSERT_TRUE(writer.StartContainer(8));
    ASSERT_TRUE(writer.WriteBool(0x1234, false));
    ASSERT_TRUE(writer.EndContainer(8));
    ASSERT_TRUE(writer.Close());
    Bytes const expected = File({
        Chunk(1, kTypeBool, {1}),
        Chunk(2, kTypeInt, {0xFE, 0xFF, 0xFF, 0xFF}),
        Chunk(3, kTypeInt64, {0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
        Chunk(4, kTypeFloat, {0x00, 0x00, 0xC0, 0x3F}),
        Chunk(6, kTypeString, {'t', 'e', 's', 's', 'e', 'l', 0}),
        Chunk(9, kTypeString, {0}),
        Chunk(7, kTypeBlob, {0xDE, 0xAD, 0x00, 0xBE}),
        Chunk(10, kTypeBlob, {}),
        Container(8, {Chunk(0x1234, kTypeBool, {0})}),
    });
    EXPECT_EQ(Written(stream), expected);
}

TEST(SDFWriter, PatchesTheLengthOfEveryNestedContainer) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.StartContainer(1));
    ASSERT_TRUE(writer.WriteInt(2, 1));
    ASSERT_TRUE(writer.StartContainer(3));
    ASSERT_TRUE(writer.StartContainer(4));
    ASSERT_TRUE(writer.WriteInt(5, 2));
    ASSERT_TRUE(writer.EndContainer(4));
    ASSERT_TRUE(writer.StartContainer(6));
    ASSERT_TRUE(writer.EndContainer(6));
    ASSERT_TRUE(writer.WriteBool(7, true));
    ASSERT_TRUE(writer.EndContainer(3));
    ASSERT_TRUE(writer.WriteInt(8, 3));
    ASSERT_TRUE(writer.EndContainer(1));
    ASSERT_TRUE(writer.WriteInt(9, 4));
    ASSERT_TRUE(writer.Close());
    Bytes const expected = File({
        Container(1,
                  {
                      Chunk(2, kTypeInt, LE(1, 4)),
                      Container(3,
                                {
                                    Container(4, {Chunk(5, kTypeInt, LE(2, 4))}),
                                    Container(6, {}),
                                    Chunk(7, kTypeBool, {1}),
                                }),
                      Chunk(8, kTypeInt, LE(3, 4)),
                  }),
        Chunk(9, kTypeInt, LE(4, 4)),
    });
    EXPECT_EQ(Written(stream), expected);
}

TEST(SDFWriter, CloseEndsContainersLeftOpen) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.StartContainer(1));
    ASSERT_TRUE(writer.StartContainer(2));
    ASSERT_TRUE(writer.WriteInt(3, 5));
    ASSERT_TRUE(writer.Close());
    EXPECT_EQ(Written(stream),
              File({Container(1, {Container(2, {Chunk(3, kTypeInt, LE(5, 4))})})}));
}

TEST(SDFWriter, EndingTheWrongChunkFailsTheWholeFile) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.StartContainer(1));
    EXPECT_FALSE(writer.EndContainer(2));
    EXPECT_FALSE(writer.WriteInt(3, 0));
    EXPECT_FALSE(writer.Close());
    EXPECT_FALSE(IsAccepted(Written(stream)));
}

TEST(SDFWriter, ChunkAfterTheRootHasEndedFailsTheFile) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.EndContainer(0));
    EXPECT_FALSE(writer.WriteInt(1, 5));
    EXPECT_FALSE(writer.Close());
    EXPECT_FALSE(IsAccepted(Written(stream)));
}

TEST(SDFWriter, EndingTheRootEarlyStillWritesAValidFile) {
    LOutputStreamByteArray stream;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(stream, kTestFileType, kTestFileVersion));
    ASSERT_TRUE(writer.WriteInt(1, 5));
    ASSERT_TRUE(writer.EndContainer(0));
    ASSERT_TRUE(writer.Close());
    EXPECT_EQ(Written(stream), File({Chunk(1, kTypeInt, LE(5, 4))}));
}

// ---- Round trips ----

template <class Stream>
[[nodiscard]] bool WriteRoundTripSample(Stream& stream) {
    LSDFWriter<Stream> writer;
    unsigned char const blob[] = {0, 1, 2, 0xFF};
    std::string const longText(5000, 'q');
    return writer.Open(stream, kTestFileType, kTestFileVersion) && writer.WriteBool(1, true) &&
           writer.WriteInt(2, INT_MIN) && writer.WriteInt64(3, LLONG_MAX) &&
           writer.WriteFloat(4, -0.0f) && writer.StartContainer(5) && writer.WriteString(1, "") &&
           writer.WriteString(2, "caf\xc3\xa9") && writer.StartContainer(3) &&
           writer.WriteBlob(1, blob, sizeof blob) && writer.WriteBlob(2, nullptr, 0) &&
           writer.EndContainer(3) && writer.WriteString(4, longText.c_str()) &&
           writer.EndContainer(5) && writer.WriteInt(6, INT_MAX) &&
           writer.WriteInt64(7, LLONG_MIN) && writer.Close();
}

std::vector<std::string> RoundTripSampleLines() {
    return {
        "1 bool true",
        "2 int -2147483648",
        "3 int64 9223372036854775807",
        "4 float 00000080",
        "5 container",
        "  1 string \"\"",
        "  2 string \"caf\xc3\xa9\"",
        "  3 container",
        "    1 type 7 000102ff",
        "    2 type 7 ",
        "  4 string \"" + std::string(5000, 'q') + "\"",
        "6 int 2147483647",
        "7 int64 -9223372036854775808",
    };
}

TEST(SDFRoundTrip, MemoryStreamsKeepEveryValue) {
    LOutputStreamByteArray out;
    ASSERT_TRUE(WriteRoundTripSample(out));
    Bytes const file = Written(out);
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    EXPECT_EQ(reader.GetFileVersion(), kTestFileVersion);
    std::vector<std::string> lines;
    EXPECT_TRUE(WalkWholeTree(reader, &lines));
    EXPECT_TRUE(reader.HasTrailer());
    EXPECT_EQ(lines, RoundTripSampleLines());
}

class SDFFileTest : public LTempDirTest {};

TEST_F(SDFFileTest, FilesRoundTripAndMatchTheMemoryBytes) {
    std::string const path = PathOf("sample.lsdf");
    LOutputStreamFile out;
    ASSERT_TRUE(out.Open(path.c_str()));
    ASSERT_TRUE(WriteRoundTripSample(out));
    ASSERT_TRUE(out.Close());

    LInputStreamFile in;
    ASSERT_TRUE(in.Open(path.c_str()));
    LSDFReader<LInputStreamFile> reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    std::vector<std::string> lines;
    EXPECT_TRUE(WalkWholeTree(reader, &lines));
    EXPECT_TRUE(reader.HasTrailer());
    EXPECT_EQ(lines, RoundTripSampleLines());

    LOutputStreamByteArray memory;
    ASSERT_TRUE(WriteRoundTripSample(memory));
    std::string const onDisk = ReadFileBytes(path);
    EXPECT_EQ(Bytes(onDisk.begin(), onDisk.end()), Written(memory));
}

TEST_F(SDFFileTest, TruncatedFileOnDiskFailsToLoad) {
    Bytes const file = SampleFile();
    std::string const path = PathOf("cut.lsdf");
    ASSERT_TRUE(WriteFileBytes(path, file.data(), file.size() - 30));
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(path.c_str()));
    LSDFReader<LInputStreamFile> reader;
    EXPECT_FALSE(reader.Open(in, kTestFileType));
}

// ---- Unknown chunks put back in place ----

// Unknown chunks carry their old index as a 4-byte value, the writer's own children carry the
// value they were given, so the order of values read back is the order of the children.
LList<LSDFUnknownChunk> UnknownChunks(std::vector<int> const& indices) {
    LList<LSDFUnknownChunk> list;
    for (int const index : indices) {
        auto chunk = std::make_unique<LSDFUnknownChunk>();
        chunk->id = static_cast<std::uint16_t>(100 + index);
        chunk->type = static_cast<LSDFValueType>(kTypeOpaque);
        chunk->index = index;
        Bytes const value = LE(static_cast<std::uint32_t>(index), 4);
        EXPECT_TRUE(chunk->data.Allocate(value.size()));
        std::memcpy(chunk->data.GetData(), value.data(), value.size());
        chunk->dataBytes = value.size();
        list.AddTail(std::move(chunk));
    }
    return list;
}

// "u3" for an unknown chunk that had index 3, "o3" for the writer's own child given index 3,
// "n0", "n1", ... for the writer's own children written without a position.
std::vector<std::string> ChildLabels(MemReader& reader,
                                     LSDFReaderChunk<LInputStreamBuffer> const* parent) {
    std::vector<std::string> labels;
    MemIterator it = parent != nullptr ? MemIterator(reader, *parent) : MemIterator(reader);
    while (it.StartNextChunk()) {
        unsigned char bytes[4];
        if (!it.ReadRaw(bytes, 4)) {
            labels.emplace_back("unreadable");
            continue;
        }
        auto const value = static_cast<int>(llib::detail::GetLE(bytes, 4));
        if (it.GetType() != LSDFValueType::kInt) {
            labels.push_back("u" + std::to_string(value));
        } else {
            labels.push_back(value >= 50 ? "n" + std::to_string(value - 50)
                                         : "o" + std::to_string(value));
        }
    }
    return labels;
}

struct PlacementCase {
    char const* name;
    std::vector<int> unknownIndices;
    std::vector<int> ownIndices; // in writing order; -1 writes without a position
    std::vector<std::string> expectedOrder;
};

void PrintTo(PlacementCase const& c, std::ostream* os) {
    *os << c.name;
}

class SDFUnknownPlacement
    : public ::testing::TestWithParam<std::tuple<PlacementCase, bool /*in the root*/>> {};

TEST_P(SDFUnknownPlacement, WriterPutsUnknownChunksBackAtTheirIndex) {
    auto const& [c, inRoot] = GetParam();
    LList<LSDFUnknownChunk> const unknown = UnknownChunks(c.unknownIndices);
    LOutputStreamByteArray out;
    MemWriter writer;
    ASSERT_TRUE(inRoot ? writer.Open(out, kTestFileType, kTestFileVersion, unknown)
                       : (writer.Open(out, kTestFileType, kTestFileVersion) &&
                          writer.StartContainer(1, unknown)));
    int unpositioned = 50;
    for (int const index : c.ownIndices) {
        int const value = index >= 0 ? index : unpositioned++;
        ASSERT_TRUE(writer.WriteInt(static_cast<std::uint16_t>(10 + value), value, index));
    }
    if (!inRoot) {
        ASSERT_TRUE(writer.EndContainer(1));
    }
    ASSERT_TRUE(writer.Close());

    Bytes const file = Written(out);
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    if (inRoot) {
        EXPECT_EQ(ChildLabels(reader, nullptr), c.expectedOrder);
    } else {
        MemIterator root(reader);
        ASSERT_TRUE(root.StartNextChunk());
        EXPECT_EQ(ChildLabels(reader, &root), c.expectedOrder);
        EXPECT_FALSE(root.StartNextChunk());
    }
    EXPECT_TRUE(reader.IsOk());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SDFUnknownPlacement,
    ::testing::Combine(
        ::testing::Values(
            PlacementCase{
                "Interleaved", {0, 1, 4}, {2, 3, 5}, {"u0", "u1", "o2", "o3", "u4", "o5"}},
            PlacementCase{"LeadingBeforeUnpositioned", {0, 1}, {-1, -1}, {"u0", "u1", "n0", "n1"}},
            PlacementCase{"LeadingStopAtTheFirstGap", {0, 2}, {-1}, {"u0", "n0", "u2"}},
            PlacementCase{
                "TrailingPutBackAtTheEnd", {3, 4}, {0, 1, 2}, {"o0", "o1", "o2", "u3", "u4"}},
            PlacementCase{"OwnChildFillsTheFirstGap", {1, 3}, {0, 2}, {"o0", "u1", "o2", "u3"}},
            PlacementCase{"EqualIndexPutsOwnChildFirst", {1}, {0, 1}, {"o0", "o1", "u1"}},
            PlacementCase{"OnlyUnknown", {0, 1, 2}, {}, {"u0", "u1", "u2"}},
            PlacementCase{"NoUnknown", {}, {0, -1, 2}, {"o0", "n0", "o2"}}),
        ::testing::Bool()),
    [](auto const& p) {
        return std::string(std::get<0>(p.param).name) +
               (std::get<1>(p.param) ? "InRoot" : "InContainer");
    });

TEST(SDFUnknownChunks, ChunkWithoutDataIsDropped) {
    LList<LSDFUnknownChunk> unknown = UnknownChunks({0, 1});
    unknown.GetHead()->data.Clear();
    unknown.GetHead()->dataBytes = 0;
    LOutputStreamByteArray out;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(out, kTestFileType, kTestFileVersion, unknown));
    ASSERT_TRUE(writer.Close());
    EXPECT_EQ(Written(out), File({Chunk(101, kTypeOpaque, LE(1, 4))}));
}

TEST(SDFUnknownChunks, ChunkWhoseDataDoesNotMatchItsLengthFailsTheFile) {
    LList<LSDFUnknownChunk> unknown = UnknownChunks({0});
    unknown.GetHead()->dataBytes = 100; // the array holds 4
    LOutputStreamByteArray out;
    MemWriter writer;
    EXPECT_FALSE(writer.Open(out, kTestFileType, kTestFileVersion, unknown));
    EXPECT_FALSE(writer.Close());
    EXPECT_FALSE(IsAccepted(Written(out)));
}

// A newer program's file: this loader knows root children 1, 2 and 3 and, inside 2, children 1
// and 2. Everything else must survive a load and save untouched.
Bytes FileFromNewerVersion() {
    return File({
        Chunk(50, kTypeBlob, {1, 2, 3}),
        Chunk(1, kTypeInt, LE(42, 4)),
        Container(2,
                  {
                      Chunk(1, kTypeString, Text("name")),
                      Chunk(9, kTypeOpaque, {9, 9, 9, 9, 9}),
                      Chunk(2, kTypeBool, {1}),
                      Container(70, {Chunk(1, kTypeInt, LE(5, 4))}),
                  }),
        Container(60, {Chunk(1, kTypeInt, LE(6, 4)), Chunk(2, kTypeFloat, LE(0x3F800000, 4))}),
        Chunk(3, kTypeInt64, LE(0x1122334455667788, 8)),
        Chunk(99, kTypeString, Text("from the future")),
    });
}

TEST(SDFUnknownChunks, LoadAndSaveReproducesAFileWithUnknownChunks) {
    Bytes const original = FileFromNewerVersion();
    LInputStreamBuffer in(original.data(), original.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));

    struct Known {
        int value = 0;
        long long value64 = 0;
        LStringLong name;
        bool flag = false;
        int indexOf[4] = {-1, -1, -1, -1}; // root children 1..3
        int innerIndexOf[3] = {-1, -1, -1};
    } known;
    LList<LSDFUnknownChunk> rootUnknown;
    LList<LSDFUnknownChunk> innerUnknown;
    MemIterator it(reader);
    while (it.StartNextChunk()) {
        if (it.GetId() == 1 && it.GetType() == LSDFValueType::kInt) {
            ASSERT_TRUE(it.ReadInt(known.value));
            known.indexOf[1] = it.GetIndex();
        } else if (it.GetId() == 2 && it.GetType() == LSDFValueType::kContainer) {
            known.indexOf[2] = it.GetIndex();
            MemIterator inner(reader, it);
            while (inner.StartNextChunk()) {
                if (inner.GetId() == 1 && inner.GetType() == LSDFValueType::kString) {
                    ASSERT_TRUE(inner.ReadString(known.name));
                    known.innerIndexOf[1] = inner.GetIndex();
                } else if (inner.GetId() == 2 && inner.GetType() == LSDFValueType::kBool) {
                    ASSERT_TRUE(inner.ReadBool(known.flag));
                    known.innerIndexOf[2] = inner.GetIndex();
                } else {
                    ASSERT_TRUE(inner.ReadUnknownChunk(innerUnknown));
                }
            }
        } else if (it.GetId() == 3 && it.GetType() == LSDFValueType::kInt64) {
            ASSERT_TRUE(it.ReadInt64(known.value64));
            known.indexOf[3] = it.GetIndex();
        } else {
            ASSERT_TRUE(it.ReadUnknownChunk(rootUnknown));
        }
    }
    ASSERT_TRUE(reader.IsOk());
    EXPECT_EQ(rootUnknown.GetCount(), 3u);
    EXPECT_EQ(innerUnknown.GetCount(), 2u);

    LOutputStreamByteArray out;
    MemWriter writer;
    ASSERT_TRUE(writer.Open(out, kTestFileType, reader.GetFileVersion(), rootUnknown));
    ASSERT_TRUE(writer.WriteInt(1, known.value, known.indexOf[1]));
    ASSERT_TRUE(writer.StartContainer(2, innerUnknown, known.indexOf[2]));
    ASSERT_TRUE(writer.WriteString(1, known.name.Get(), known.innerIndexOf[1]));
    ASSERT_TRUE(writer.WriteBool(2, known.flag, known.innerIndexOf[2]));
    ASSERT_TRUE(writer.EndContainer(2));
    ASSERT_TRUE(writer.WriteInt64(3, known.value64, known.indexOf[3]));
    ASSERT_TRUE(writer.Close());
    EXPECT_EQ(Written(out), original);
}

// ---- Write failures ----

// Storage that fills after `capacity` bytes of writes (length patches count too): the write
// that would pass it stores nothing and fails, as does every later call, which it counts.
class FillingStream {
public:
    explicit FillingStream(std::uint64_t capacity) : m_capacity(capacity) {}

    [[nodiscard]] bool Write(void const* data, std::uint64_t bytes) {
        if (m_failed || bytes > m_capacity - m_written) {
            m_callsAfterFailure += m_failed ? 1 : 0;
            m_failed = true;
            return false;
        }
        m_written += bytes;
        return m_bytes.Write(data, bytes);
    }
    [[nodiscard]] bool Seek(std::uint64_t offset) {
        if (m_failed) {
            ++m_callsAfterFailure;
            return false;
        }
        return m_bytes.Seek(offset);
    }
    [[nodiscard]] std::uint64_t GetOffset() const { return m_bytes.GetOffset(); }

    [[nodiscard]] std::uint64_t GetWritten() const { return m_written; }
    [[nodiscard]] bool HasFailed() const { return m_failed; }
    [[nodiscard]] int GetCallsAfterFailure() const { return m_callsAfterFailure; }
    [[nodiscard]] Bytes const& GetBytes() const { return m_bytes.GetBytes(); }

private:
    LOutputStreamByteArray m_bytes;
    std::uint64_t m_capacity;
    std::uint64_t m_written = 0;
    bool m_failed = false;
    int m_callsAfterFailure = 0;
};

// Every call is made whatever the earlier ones returned, as a careless saver would.
bool WriteIgnoringResults(FillingStream& stream) {
    LSDFWriter<FillingStream> writer;
    LList<LSDFUnknownChunk> const unknown = UnknownChunks({0, 3});
    unsigned char const blob[20] = {};
    bool all = writer.Open(stream, kTestFileType, kTestFileVersion);
    all = writer.StartContainer(1, unknown) && all;
    all = writer.WriteInt(2, 7, 1) && all;
    all = writer.WriteString(3, "some text", 2) && all;
    all = writer.EndContainer(1) && all;
    all = writer.WriteBlob(4, blob, sizeof blob) && all;
    all = writer.StartContainer(5) && all;
    all = writer.WriteInt64(6, 1) && all;
    all = writer.EndContainer(5) && all;
    bool const closed = writer.Close();
    EXPECT_TRUE(all || !closed) << "Close succeeded after a call failed";
    return closed;
}

TEST(SDFWriterFailure, StopsAtTheFirstFailedWriteWhereverItComes) {
    FillingStream unlimited(UINT64_MAX);
    ASSERT_TRUE(WriteIgnoringResults(unlimited));
    ASSERT_TRUE(IsAccepted(unlimited.GetBytes()));
    for (std::uint64_t capacity = 0; capacity < unlimited.GetWritten(); ++capacity) {
        SCOPED_TRACE(capacity);
        FillingStream stream(capacity);
        EXPECT_FALSE(WriteIgnoringResults(stream));
        EXPECT_TRUE(stream.HasFailed());
        EXPECT_EQ(stream.GetCallsAfterFailure(), 0);
        EXPECT_LE(stream.GetBytes().size(), capacity);
        EXPECT_FALSE(IsAccepted(stream.GetBytes()));
    }
}

TEST(SDFWriterFailure, FailureInTheFileHeaderFailsEveryLaterCall) {
    for (std::uint64_t capacity = 0; capacity < kLSDFFileHeaderBytes + kLSDFChunkHeaderBytes;
         ++capacity) {
        SCOPED_TRACE(capacity);
        FillingStream stream(capacity);
        LSDFWriter<FillingStream> writer;
        EXPECT_FALSE(writer.Open(stream, kTestFileType, kTestFileVersion));
        EXPECT_FALSE(writer.IsOk());
        EXPECT_FALSE(writer.StartContainer(1));
        EXPECT_FALSE(writer.WriteInt(2, 3));
        EXPECT_FALSE(writer.EndContainer(1));
        EXPECT_FALSE(writer.Close());
        EXPECT_EQ(stream.GetCallsAfterFailure(), 0);
        EXPECT_LE(stream.GetBytes().size(), kLSDFFileHeaderBytes);
    }
}

// ---- Reading values ----

struct StringCase {
    char const* name;
    Bytes data;
    std::string expectedFixed; // through the 1560-byte buffer
    std::string expectedLong;  // through LStringLong
};

std::string Chars(std::size_t count) {
    Bytes const bytes = Pattern(count);
    return std::string(bytes.begin(), bytes.end());
}

void PrintTo(StringCase const& c, std::ostream* os) {
    *os << c.name;
}

class SDFReadString : public ::testing::TestWithParam<StringCase> {};

TEST_P(SDFReadString, KeepsWhatFitsAndStillFindsTheNextSibling) {
    StringCase const& c = GetParam();
    Bytes const file = File({Chunk(1, kTypeString, c.data), Chunk(2, kTypeInt, LE(77, 4))});
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    MemIterator it(reader);
    ASSERT_TRUE(it.StartNextChunk());
    // Exactly the documented size on the heap, so a write past it is caught.
    std::vector<char> buffer(kLSDFMaxStringBytes, '#');
    ASSERT_TRUE(it.ReadString(buffer.data()));
    EXPECT_EQ(std::string(buffer.data()), c.expectedFixed);
    LStringLong text;
    ASSERT_TRUE(it.ReadString(text));
    EXPECT_EQ(text.Std(), c.expectedLong);
    ASSERT_TRUE(it.StartNextChunk());
    int value = 0;
    ASSERT_TRUE(it.ReadInt(value));
    EXPECT_EQ(value, 77);
    EXPECT_TRUE(reader.IsOk());
}

std::vector<StringCase> StringCases() {
    auto withZero = [](std::size_t chars) {
        Bytes data = Pattern(chars);
        data.push_back(0);
        return data;
    };
    return {
        {"Empty", {0}, "", ""},
        {"NoDataAtAll", {}, "", ""},
        {"Short", withZero(10), Chars(10), Chars(10)},
        {"ShortWithoutTerminator", Pattern(10), Chars(10), Chars(10)},
        {"StopsAtAnEmbeddedZero", {'a', 'b', 0, 'c', 'd', 0}, "ab", "ab"},
        {"JustFits", withZero(1559), Chars(1559), Chars(1559)},
        {"OneTooManyForTheBuffer", withZero(1560), Chars(1559), Chars(1560)},
        {"UnterminatedAtBufferSize", Pattern(1560), Chars(1559), Chars(1560)},
        {"TwoThousandBytes", withZero(1999), Chars(1559), Chars(1999)},
        {"VeryLong", withZero(100000), Chars(1559), Chars(100000)},
    };
}

INSTANTIATE_TEST_SUITE_P(Cases, SDFReadString, ::testing::ValuesIn(StringCases()),
                         [](auto const& p) { return std::string(p.param.name); });

TEST(SDFReader, FixedSizeReadOfATooShortChunkFailsAndKeepsTheValue) {
    Bytes const file = File({
        Chunk(1, kTypeBool, {}),
        Chunk(2, kTypeInt, {1, 2, 3}),
        Chunk(3, kTypeInt64, {1, 2, 3, 4, 5, 6, 7}),
        Chunk(4, kTypeFloat, {1, 2, 3}),
        Chunk(5, kTypeInt, LE(31, 4)),
    });
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    MemIterator it(reader);
    bool flag = true;
    int value = 11;
    long long value64 = 22;
    float real = 3.5f;
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_FALSE(it.ReadBool(flag));
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_FALSE(it.ReadInt(value));
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_FALSE(it.ReadInt64(value64));
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_FALSE(it.ReadFloat(real));
    EXPECT_TRUE(flag);
    EXPECT_EQ(value, 11);
    EXPECT_EQ(value64, 22);
    EXPECT_EQ(real, 3.5f);
    // A short value is the loader's to judge; the rest of the file still reads.
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_TRUE(it.ReadInt(value));
    EXPECT_EQ(value, 31);
    EXPECT_TRUE(reader.IsOk());
}

TEST(SDFReader, FixedSizeReadOfALongerChunkTakesItsFirstBytes) {
    Bytes const file = File({Chunk(1, kTypeInt, {0x10, 0x20, 0, 0, 0xAA, 0xBB})});
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    MemIterator it(reader);
    ASSERT_TRUE(it.StartNextChunk());
    int value = 0;
    ASSERT_TRUE(it.ReadInt(value));
    EXPECT_EQ(value, 0x2010);
}

TEST(SDFReader, ReadDataAllocatesExactlyTheDataLength) {
    Bytes const file = File({Chunk(1, kTypeBlob, {}), Chunk(2, kTypeBlob, {5, 6, 7})});
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    MemIterator it(reader);
    LSizedArray<unsigned char> data;
    ASSERT_TRUE(data.Allocate(3));
    ASSERT_TRUE(it.StartNextChunk());
    ASSERT_TRUE(it.ReadData(data));
    EXPECT_TRUE(data.IsEmpty());
    ASSERT_TRUE(it.StartNextChunk());
    ASSERT_TRUE(it.ReadData(data));
    EXPECT_EQ(Bytes(data.begin(), data.end()), (Bytes{5, 6, 7}));
}

TEST(SDFReader, IteratorOverAValueChunkHasNoChildren) {
    Bytes const file = File({Chunk(1, kTypeBool, {1}), Chunk(2, kTypeInt, LE(9, 4))});
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    MemIterator it(reader);
    ASSERT_TRUE(it.StartNextChunk());
    MemIterator children(reader, it);
    EXPECT_FALSE(children.StartNextChunk());
    EXPECT_TRUE(reader.IsOk());
    ASSERT_TRUE(it.StartNextChunk());
    EXPECT_EQ(it.GetId(), 2);
}

TEST(SDFReader, LoaderMaySkipChunksWithoutReadingThem) {
    Bytes const file = SampleFile();
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    MemIterator it(reader);
    std::vector<int> ids;
    while (it.StartNextChunk()) {
        ids.push_back(it.GetId());
    }
    EXPECT_TRUE(reader.IsOk());
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST(SDFReader, OpenAnyTypeAcceptsEveryFileType) {
    Bytes const file = FileWithRoot(Container(0, {}), 12345);
    LInputStreamBuffer in(file.data(), file.size());
    MemReader strict;
    EXPECT_FALSE(strict.Open(in, kTestFileType));
    MemReader any;
    ASSERT_TRUE(any.OpenAnyType(in));
    EXPECT_EQ(any.GetFileType(), 12345u);
}

// ---- Hostile input ----

struct HostileCase {
    char const* name;
    Bytes file;
};

void PrintTo(HostileCase const& c, std::ostream* os) {
    *os << c.name;
}

class SDFOpenRejects : public ::testing::TestWithParam<HostileCase> {};

TEST_P(SDFOpenRejects, OpenFailsWithAReason) {
    Bytes const& file = GetParam().file;
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    EXPECT_FALSE(reader.Open(in, kTestFileType));
    EXPECT_FALSE(reader.IsOk());
    EXPECT_STRNE(reader.GetErrorReason(), "");
    MemIterator it(reader);
    EXPECT_FALSE(it.StartNextChunk());
}

Bytes WithByte(Bytes file, std::size_t offset, unsigned char value) {
    file[offset] = value;
    return file;
}

Bytes Prefix(Bytes const& file, std::size_t bytes) {
    return Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(bytes));
}

std::vector<HostileCase> OpenRejectCases() {
    Bytes const empty = File({});
    Bytes const one = File({Chunk(1, kTypeInt, LE(1, 4))});
    return {
        {"NoBytes", {}},
        {"ShortHeader", Prefix(empty, 11)},
        {"WrongMagic", WithByte(empty, 0, 'L')},
        {"RevisionZero", WithByte(empty, 4, 0)},
        {"RevisionTwo", WithByte(empty, 4, 2)},
        {"RevisionInHighByte", WithByte(empty, 5, 1)},
        {"OtherFileType", FileWithRoot(Container(0, {}), kLSDFFileProject)},
        {"RootHeaderCutOff", Prefix(empty, 20)},
        {"RootIdNotZero", FileWithRoot(Container(1, {}))},
        {"RootNotAContainer", FileWithRoot(Chunk(0, kTypeInt, LE(1, 4)))},
        {"RootLongerThanFile", FileWithRoot(ChunkWithLength(0, kTypeContainer, 17, {}))},
        {"RootCutShort", Prefix(one, one.size() - 5)},
        {"RootLength2To63", FileWithRoot(ChunkWithLength(0, kTypeContainer, 1ULL << 63, {}))},
        {"RootLengthWrapsAround",
         FileWithRoot(ChunkWithLength(0, kTypeContainer, UINT64_MAX - 23, {}))},
        {"RootLengthMax", FileWithRoot(ChunkWithLength(0, kTypeContainer, UINT64_MAX, {}))},
    };
}

INSTANTIATE_TEST_SUITE_P(Cases, SDFOpenRejects, ::testing::ValuesIn(OpenRejectCases()),
                         [](auto const& p) { return std::string(p.param.name); });

class SDFWalkRejects : public ::testing::TestWithParam<HostileCase> {};

TEST_P(SDFWalkRejects, WalkFailsWithoutAllocating) {
    Bytes const& file = GetParam().file;
    LInputStreamBuffer in(file.data(), file.size());
    MemReader reader;
    ASSERT_TRUE(reader.Open(in, kTestFileType));
    // Reading every chunk's data would ask for an absurd allocation (which the sanitiser
    // reports) if a length were believed.
    EXPECT_FALSE(WalkWholeTree(reader));
    EXPECT_STRNE(reader.GetErrorReason(), "");
}

std::vector<HostileCase> WalkRejectCases() {
    auto rootWithChild = [](std::uint64_t dataBytes) {
        return File({ChunkWithLength(1, kTypeBlob, dataBytes, Pattern(8))});
    };
    return {
        {"ChildOneByteLongerThanRoot", rootWithChild(9)},
        {"ChildLongerThanFile", rootWithChild(1000)},
        {"ChildLength2To63", rootWithChild(1ULL << 63)},
        {"ChildLengthWrapsAround", rootWithChild(UINT64_MAX - 35)},
        {"ChildLengthMax", rootWithChild(UINT64_MAX)},
        {"StringLongerThanRoot",
         File({ChunkWithLength(1, kTypeString, UINT64_MAX - 11, Text("abc"))})},
        {"GrandchildLongerThanItsContainer",
         File({Chunk(1, kTypeContainer, ChunkWithLength(2, kTypeBlob, 9, Pattern(8))),
               Chunk(3, kTypeBlob, Pattern(20))})},
        {"HeaderCutOffByTheRoot", File({Pattern(11)})},
        {"HeaderCutOffByAContainer",
         File({Container(1, {Chunk(2, kTypeBool, {1}), Pattern(5)}), Chunk(3, kTypeInt, {})})},
        {"GarbageAfterTheLastChild", File({Chunk(1, kTypeInt, LE(1, 4)), Pattern(3)})},
    };
}

INSTANTIATE_TEST_SUITE_P(Cases, SDFWalkRejects, ::testing::ValuesIn(WalkRejectCases()),
                         [](auto const& p) { return std::string(p.param.name); });

TEST(SDFHostile, TruncationAtEveryOffsetFails) {
    Bytes const file = SampleFile();
    ASSERT_TRUE(IsAccepted(file));
    for (std::size_t bytes = 0; bytes < file.size(); ++bytes) {
        // A copy of exactly the kept bytes, so reading past them is caught.
        Bytes const cut = Prefix(file, bytes);
        EXPECT_FALSE(IsAccepted(cut.data(), cut.size())) << "cut to " << bytes << " bytes";
    }
}

// A file cut and then given a root length that fits (as a careless repair would) must still
// fail wherever the cut splits a child, and read cleanly where it falls between children.
TEST(SDFHostile, RootCutInsideAChildFails) {
    Bytes const file = SampleFile();
    std::size_t const rootData = kLSDFFileHeaderBytes + kLSDFChunkHeaderBytes;
    std::size_t const rootBytes = file.size() - rootData - kLSDFTrailerBytes;
    std::vector<std::size_t> boundaries{0};
    {
        LInputStreamBuffer in(file.data(), file.size());
        MemReader reader;
        ASSERT_TRUE(reader.Open(in, kTestFileType));
        MemIterator it(reader);
        while (it.StartNextChunk()) {
            boundaries.push_back(it.GetInfo().dataOffset + it.GetDataBytes() - rootData);
        }
        ASSERT_EQ(boundaries.back(), rootBytes);
    }
    for (std::size_t kept = 0; kept <= rootBytes; ++kept) {
        Bytes const data(file.begin() + static_cast<std::ptrdiff_t>(rootData),
                         file.begin() + static_cast<std::ptrdiff_t>(rootData + kept));
        Bytes const repaired = FileWithRoot(Chunk(0, kTypeContainer, data));
        bool const atBoundary =
            std::find(boundaries.begin(), boundaries.end(), kept) != boundaries.end();
        EXPECT_EQ(IsAccepted(repaired), atBoundary) << "root cut to " << kept << " bytes";
    }
}

// `levels` containers, each holding only the next, below the root.
Bytes NestedContainers(std::size_t levels) {
    Bytes root;
    for (std::size_t level = 0; level < levels; ++level) {
        Bytes const header =
            ChunkWithLength(1, kTypeContainer, (levels - 1 - level) * kLSDFChunkHeaderBytes, {});
        root.insert(root.end(), header.begin(), header.end());
    }
    return FileWithRoot(Chunk(0, kTypeContainer, root));
}

// The root is the first level of nesting.
TEST(SDFHostile, DeepNestingFailsAtTheDepthLimit) {
    std::string reason;
    EXPECT_TRUE(IsAccepted(NestedContainers(kLSDFMaxDepth - 1), &reason)) << reason;
    EXPECT_FALSE(IsAccepted(NestedContainers(kLSDFMaxDepth), &reason));
    EXPECT_NE(reason.find("nested too deeply"), std::string::npos) << reason;
}

TEST(SDFHostile, ThousandsOfNestedContainersFailWithoutDeepRecursion) {
    std::string reason;
    EXPECT_FALSE(IsAccepted(NestedContainers(5000), &reason));
    EXPECT_NE(reason.find("nested too deeply"), std::string::npos) << reason;
}

// ---- Fuzzer seeds ----

// Writes the sdfreader fuzzer's starting corpus when TESSEL_WRITE_FUZZ_SEEDS names a folder.
// The fuzzer's seeds must be files the reader accepts; with TESSEL_WRITE_FUZZ_SEEDS naming a
// folder they are also written there.
TEST(SDFFuzzSeeds, SeedsAreAcceptedAndWrittenWhenAFolderIsGiven) {
    char const* const dir = std::getenv("TESSEL_WRITE_FUZZ_SEEDS");
    LOutputStreamByteArray roundTrip;
    ASSERT_TRUE(WriteRoundTripSample(roundTrip));
    struct Seed {
        char const* name;
        Bytes file;
    };
    std::vector<Seed> const seeds{
        {"empty.lsdf", File({})},
        {"sample.lsdf", SampleFile()},
        {"newer.lsdf", FileFromNewerVersion()},
        {"nested.lsdf", NestedContainers(8)},
        {"longstring.lsdf", File({Chunk(1, kTypeString, Pattern(2000)), Chunk(2, kTypeBool, {1})})},
        {"roundtrip.lsdf", Written(roundTrip)},
    };
    for (Seed const& seed : seeds) {
        ASSERT_TRUE(IsAccepted(seed.file)) << seed.name;
        if (dir == nullptr || *dir == '\0') {
            continue;
        }
        std::string const path = std::string(dir) + "/" + seed.name;
        ASSERT_TRUE(WriteFileBytes(path, seed.file.data(), seed.file.size())) << path;
    }
}

} // namespace
