// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/cutlistaudio.h"

#include "llib/gen/memstream.h"
#include "tests/support/tempdir.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using Writer = LSDFWriter<LOutputStreamByteArray>;
using Reader = LSDFReader<LInputStreamBuffer>;
using Iterator = LSDFReaderChunkIterator<LInputStreamBuffer>;

constexpr std::uint16_t kListId = 300; // where a project might keep a document's list

class CutListLinkTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(Dir() + "/cache");
    }

    // Loads the list from the first root child of `bytes`.
    static LProcessResult Load(std::vector<unsigned char> const& bytes, LCutListAudio& list,
                               int stopAfterPolls = -1) {
        LInputStreamBuffer stream(bytes.data(), bytes.size());
        Reader reader;
        EXPECT_TRUE(reader.Open(stream, kLSDFFileProject));
        Iterator root(reader);
        EXPECT_TRUE(root.StartNextChunk());
        LTestProcess process(stopAfterPolls);
        return ProcessLoadCutListAudioLink(process, reader, root, list);
    }

    static std::vector<unsigned char> Save(LCutListAudio const& list) {
        LOutputStreamByteArray out;
        Writer writer;
        EXPECT_TRUE(writer.Open(out, kLSDFFileProject, 1));
        EXPECT_TRUE(WriteCutListAudioLink(writer, kListId, list));
        EXPECT_TRUE(writer.Close());
        return out.GetBytes();
    }
};

// One child of a segment as an old or foreign writer might put it; a type other than the
// three numeric ones stands for an int value cut short to two bytes.
struct Field {
    std::uint16_t id;
    LSDFValueType type;
    double value;
};

std::vector<unsigned char> LinkOf(std::vector<std::vector<Field>> const& segments) {
    using T = LSDFValueType;
    LOutputStreamByteArray out;
    Writer writer;
    unsigned char const two[2] = {1, 0};
    bool ok = writer.Open(out, kLSDFFileProject, 1) && writer.StartContainer(kListId);
    for (auto const& fields : segments) {
        ok = ok && writer.StartContainer(kLCutListLinkSegment);
        for (Field const& f : fields) {
            ok = ok &&
                 (f.type == T::kInt     ? writer.WriteInt(f.id, static_cast<int>(f.value))
                  : f.type == T::kInt64 ? writer.WriteInt64(f.id, static_cast<long long>(f.value))
                  : f.type == T::kFloat ? writer.WriteFloat(f.id, static_cast<float>(f.value))
                                        : writer.StartChunk(f.id, T::kInt) &&
                                              writer.WriteData(two, 2) && writer.EndChunk(f.id));
        }
        ok = ok && writer.EndContainer(kLCutListLinkSegment);
    }
    EXPECT_TRUE(ok && writer.EndContainer(kListId) && writer.Close());
    return out.GetBytes();
}

} // namespace

TEST_F(CutListLinkTest, UnknownChunksSurviveALoadAndSaveByteForByte) {
    unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
    unsigned char const blob[5] = {9, 8, 7, 6, 5};
    LOutputStreamByteArray out;
    Writer writer;
    // The order our writer uses, with foreign chunks before, between and after ours.
    bool ok =
        writer.Open(out, kLSDFFileProject, 1) && writer.StartContainer(kListId) &&
        writer.WriteInt(9000, 7) && writer.WriteInt(kLCutListLinkSampleRate, 48000) &&
        writer.WriteInt(kLCutListLinkChannels, 2) && writer.WriteString(9001, "newer") &&
        writer.StartContainer(kLCutListLinkSegment) && writer.WriteInt(kLCutListLinkItem, item) &&
        writer.WriteBlob(9100, blob, 5) && writer.WriteFloat(kLCutListLinkGain, 0.5f) &&
        writer.WriteInt64(kLCutListLinkOffset, 10) && writer.WriteInt64(kLCutListLinkLength, 20) &&
        writer.StartContainer(9101) && writer.WriteInt(1, 2) && writer.EndContainer(9101) &&
        writer.EndContainer(kLCutListLinkSegment) && writer.StartContainer(kLCutListLinkSegment) &&
        writer.WriteInt64(9102, -1) && writer.WriteInt(kLCutListLinkItem, kLSoundCacheItemNone) &&
        writer.WriteFloat(kLCutListLinkGain, 1.0f) && writer.WriteInt64(kLCutListLinkOffset, 0) &&
        writer.WriteInt64(kLCutListLinkLength, 5) && writer.EndContainer(kLCutListLinkSegment) &&
        // A known identifier of the wrong type is foreign too.
        writer.WriteInt64(kLCutListLinkSampleRate, 8000) && writer.EndContainer(kListId) &&
        writer.Close();
    ASSERT_TRUE(ok);
    {
        // Writing back the same bytes also shows every known field was read.
        LCutListAudio list;
        ASSERT_EQ(Load(out.GetBytes(), list), LProcessResult::kCompleted);
        ASSERT_EQ(list.GetSegmentCount(), 2u);
        EXPECT_EQ(list.GetUnknownChunks().GetCount(), 3u);
        EXPECT_EQ(list.GetHead()->GetUnknownChunks().GetCount(), 2u);
        EXPECT_EQ(LSoundCache::GetRefCount(item), 2);
        EXPECT_EQ(Save(list), out.GetBytes());
        // Unknown chunks travel with copies, and with the halves of a split segment.
        LCutListAudio copy = list;
        copy.EfInsertSilence(5, 1);
        EXPECT_EQ(copy.GetHead()->GetNext()->GetNext()->GetUnknownChunks().GetCount(), 2u);
        copy.EfDelete(5, 6);
        LCutListAudio again;
        ASSERT_EQ(Load(Save(copy), again), LProcessResult::kCompleted);
        ASSERT_EQ(again.GetSegmentCount(), 3u);
        EXPECT_EQ(again.GetHead()->GetUnknownChunks().GetCount(), 2u);
        EXPECT_EQ(again.GetHead()->GetNext()->GetOffsetFrames(), 15);
    }
    LSoundCache::DecRef(item);
    EXPECT_EQ(LSoundCache::GetRefCount(item), 0);
}

TEST_F(CutListLinkTest, OldFieldsApplyOnlyWhereNewerOnesAreMissing) {
    using T = LSDFValueType;
    auto const bytes = LinkOf({
        // Old forms only, gain 0.5 in 8.24.
        {{kLCutListLinkItem, T::kInt, 65535},
         {kLCutListLinkOffset32, T::kInt, 100},
         {kLCutListLinkLength32, T::kInt, 50},
         {kLCutListLinkGainFixed, T::kInt, 8388608}},
        // 64-bit forms win; zero ones give way to the old.
        {{kLCutListLinkItem, T::kInt, 0x10005},
         {kLCutListLinkOffset32, T::kInt, 7},
         {kLCutListLinkOffset, T::kInt64, 9},
         {kLCutListLinkLength32, T::kInt, 3},
         {kLCutListLinkLength, T::kInt64, 0}},
        // Fixed 1.0 without a float gain.
        {{kLCutListLinkLength, T::kInt64, 4}, {kLCutListLinkGainFixed, T::kInt, 16777216}},
        // A float gain other than 1.0 beats the old one; a float 1.0 does not.
        {{kLCutListLinkLength, T::kInt64, 4},
         {kLCutListLinkGainFixed, T::kInt, 8388608},
         {kLCutListLinkGain, T::kFloat, 0.25}},
        {{kLCutListLinkLength, T::kInt64, 4},
         {kLCutListLinkGain, T::kFloat, 1.0},
         {kLCutListLinkGainFixed, T::kInt, 4194304}},
        // No length: dropped. A length cut short: left at 0, dropped.
        {{kLCutListLinkOffset, T::kInt64, 4}},
        {{kLCutListLinkLength32, T::kBlob, 0}},
    });
    LCutListAudio list;
    ASSERT_EQ(Load(bytes, list), LProcessResult::kCompleted);
    // Silence keeps no offset; an item keeps its low 16 bits and is none when absent.
    LCutListAudio want;
    unsigned short const none = kLSoundCacheItemNone;
    for (LCutListSegment const& segment :
         {LCutListSegment(none, 0, 50, 0.5f), LCutListSegment(5, 9, 3), LCutListSegment(none, 0, 4),
          LCutListSegment(none, 0, 4, 0.25f), LCutListSegment(none, 0, 4, 0.25f)}) {
        want.AppendSegment(segment);
    }
    EXPECT_EQ(Save(list), Save(want));
}

TEST_F(CutListLinkTest, LoadingStopsWhenAskedAndFailsOnACorruptContainer) {
    std::vector<std::vector<Field>> segments(10, {{kLCutListLinkLength, LSDFValueType::kInt64, 3}});
    auto bytes = LinkOf(segments);
    LCutListAudio list;
    EXPECT_EQ(Load(bytes, list, 3), LProcessResult::kStopped);
    EXPECT_EQ(list.GetSegmentCount(), 3u);
    EXPECT_EQ(Load(bytes, list), LProcessResult::kCompleted);
    EXPECT_EQ(list.GetLengthFrames(), 30);
    // The first segment's length (file header, root and list headers before it) made to run
    // past its container.
    std::size_t const lengthAt = kLSDFFileHeaderBytes + 2 * kLSDFChunkHeaderBytes + 4;
    bytes[lengthAt + 6] = 0x7F;
    EXPECT_EQ(Load(bytes, list), LProcessResult::kFailed);
}

TEST_F(CutListLinkTest, AddedSoundIsFoundAgainWhileItsFileIsUnchanged) {
    std::vector<float> samples = MakeNoise(2, 3000, 0.5, 11);
    std::string const path = PathOf("song.raw");
    ASSERT_TRUE(WriteFileBytes(path, "original", 8));
    LCutListAudio list;
    LTestProcess process;
    {
        LSoundSource source = MakeBufferSource(22050, 2, samples);
        ASSERT_EQ(LSoundCutListAdd(process, path.c_str(), source, list, true),
                  LProcessResult::kCompleted);
    }
    ASSERT_EQ(list.GetSegmentCount(), 1u);
    EXPECT_EQ(list.GetSampleRate(), 22050); // taken from the source
    unsigned short const item = list.GetHead()->GetItem();
    EXPECT_EQ(LSoundCache::GetRefCount(item), 1);
    {
        LSoundSource read = list.OpenSource();
        EXPECT_EQ(ReadAll(read), samples);
    }
    LSoundCacheOriginal original;
    ASSERT_TRUE(LSoundCacheItemOriginalGet(item, original));
    EXPECT_EQ(original.size, 8u);

    list.Clear();
    EXPECT_EQ(LSoundCache::GetRefCount(item), 0);
    EXPECT_TRUE(LSoundCacheItemIsValid(item)); // kept for the next open of the same file
    unsigned short const found = LSoundCacheItemOriginalFileDetailsMatch(
        path.c_str(), original.modifiedNs, original.size, original.options);
    EXPECT_EQ(found, item);
    if (found <= kLSoundCacheItemLast) {
        LSoundCache::DecRef(found);
    }

    // Without a path nothing is recorded, and the last release deletes the item.
    {
        LSoundSource source = MakeBufferSource(22050, 2, samples);
        ASSERT_EQ(LSoundCutListAdd(process, nullptr, source, list, false),
                  LProcessResult::kCompleted);
    }
    unsigned short const second = list.GetHead()->GetItem();
    list.Clear();
    EXPECT_FALSE(LSoundCacheItemIsValid(second));
}
