// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/cache.h"

#include "llib/gen/filestream.h"
#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"
#include "llib/gen/settings.h"
#include "llib/unix/thread.h"
#include "tests/support/tempdir.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cmath>
#include <ctime>
#include <tuple>
#include <cstring>
#include <string>
#include <vector>

namespace {

class SoundCacheTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
    }

    // A new item holding `samples`, referenced once by the caller.
    unsigned short AddItem(std::vector<float> const& samples, unsigned char channels = 1,
                           int rate = 44100) {
        LSoundSource source = MakeBufferSource(rate, channels, samples);
        LTestProcess process;
        LSoundCacheItemHandle handle;
        long long frames = 0;
        EXPECT_EQ(LSoundCacheItemAdd(process, source, handle, frames), LProcessResult::kCompleted);
        EXPECT_EQ(frames, static_cast<long long>(samples.size()) / channels);
        return handle.item;
    }

    [[nodiscard]] static std::string FileOf(unsigned short item, char const* ext) {
        return LSoundCache::GetFilePath(item, ext);
    }

    [[nodiscard]] static bool Exists(std::string const& path) {
        return access(path.c_str(), F_OK) == 0;
    }

    // A file standing for the original of an item, and the details recorded for it.
    LSoundCacheOriginal MakeOriginal(char const* name, char const* contents) {
        std::string const path = PathOf(name);
        EXPECT_TRUE(WriteFileBytes(path, contents, std::strlen(contents)));
        LSoundCacheOriginal original;
        original.path = path;
        original.options = 7;
        EXPECT_TRUE(LSoundCacheFileModifiedTimeAndSizeGet(path.c_str(), original.modifiedNs,
                                                          original.size));
        return original;
    }
};

std::vector<std::uint16_t> ReadGrf(unsigned short item) {
    std::string const bytes = ReadFileBytes(LSoundCache::GetFilePath(item, kLSoundCacheExtGrf));
    std::vector<std::uint16_t> codes(bytes.size() / 2);
    for (std::size_t i = 0; i < codes.size(); ++i) {
        codes[i] = static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                              static_cast<unsigned char>(bytes[2 * i + 1]) << 8);
    }
    return codes;
}

// An item information update image (type 44) holding what `fill` writes.
template <class Fill>
LSizedArray<unsigned char> InfoUpdate(Fill fill) {
    LOutputStreamByteArray out;
    LSDFWriter<LOutputStreamByteArray> writer;
    EXPECT_TRUE(writer.Open(out, kLSDFFileCacheItemInfoUpdate, 1) && fill(writer) &&
                writer.Close());
    LSizedArray<unsigned char> bytes;
    EXPECT_TRUE(bytes.Allocate(out.GetBytes().size()));
    std::memcpy(bytes.GetData(), out.GetBytes().data(), out.GetBytes().size());
    return bytes;
}

TEST(SoundCacheGrf, CodesFollowTheLinearScaleToPlus24Db) {
    // Zero stays zero, any other value shows (at least 1), and +24 dBFS or more saturates.
    std::pair<float, int> const cases[] = {
        {0.0f, 0},       {-0.0f, 0},     {1.0f, 4134},          {-1.0f, 4134},
        {0.5f, 2067},    {0.0001f, 1},   {1e-30f, 1},           {15.8f, 65331},
        {15.85f, 65535}, {20.0f, 65535}, {std::nanf(""), 65535}};
    for (auto [value, code] : cases) {
        EXPECT_EQ(LSoundCacheGrfCode(value), code) << value;
    }
}

TEST_F(SoundCacheTest, ItemFilesHoldTheSamplesPeaksAndInformation) {
    unsigned short const one = AddItem({0.25f});
    EXPECT_EQ(ReadFileBytes(FileOf(one, kLSoundCacheExtAud)).size(), 4u);
    EXPECT_EQ(ReadGrf(one), (std::vector<std::uint16_t>{1033, 0}));

    // Stereo, 300 frames: one whole group and a partial one. Left rises through positive values
    // only (its minimum code stays 0); right holds one negative spike in the second group.
    std::vector<float> stereo;
    for (int f = 0; f < 300; ++f) {
        stereo.push_back(static_cast<float>(f) / 300.0f);
        stereo.push_back(f == 280 ? -0.9f : 0.0f);
    }
    unsigned short const item = AddItem(stereo, 2, 48000);
    EXPECT_TRUE(LSoundCacheItemIsValid(item));
    EXPECT_EQ(LSoundCacheItemLengthGet(item), 300);
    std::vector<std::uint16_t> const grf = ReadGrf(item);
    // Per group, left (max, min) then right (max, min).
    EXPECT_EQ(grf, (std::vector<std::uint16_t>{3514, 0, 0, 0, 4121, 0, 0, 3721}));

    int rate = 0;
    unsigned char channels = 0;
    EXPECT_TRUE(
        LSoundCacheItemAudioInfoGet(FileOf(item, kLSoundCacheExtAudInfo).c_str(), rate, channels));
    EXPECT_EQ(rate, 48000);
    EXPECT_EQ(channels, 2);
    EXPECT_FALSE(
        LSoundCacheItemAudioInfoGet(FileOf(item, kLSoundCacheExtAud).c_str(), rate, channels));
    EXPECT_EQ(rate, 0);
    EXPECT_EQ(channels, 0);

    LSoundSource source = LSoundCacheOpenSource(item);
    EXPECT_EQ(ReadAll(source), stereo);
    LSoundCache::DecRef(one);
    LSoundCache::DecRef(item);
}

TEST_F(SoundCacheTest, SourceReadsSilenceBeforeTheStartAndPastATruncatedEnd) {
    std::vector<float> const samples = {0.125f,  0.25f,  0.375f, 0.5f,
                                        -0.125f, -0.25f, 0.75f,  0.875f};
    unsigned short const item = AddItem(samples, 2);
    LSoundSource source = LSoundCacheOpenSource(item);
    ASSERT_TRUE(source->IsOk());
    source->Seek(-2);
    std::vector<float> out(14, -1.0f);
    source->Read(out.data(), 7);
    std::vector<float> expected(4, 0.0f);
    expected.insert(expected.end(), samples.begin(), samples.end());
    expected.resize(14, 0.0f);
    EXPECT_EQ(out, expected);
    source->Seek(100);
    EXPECT_EQ(source->GetPositionSample(), 4);

    // A file cut inside a frame: the whole frames that remain are read, then silence.
    ASSERT_EQ(truncate(FileOf(item, kLSoundCacheExtAud).c_str(), 14), 0);
    LSoundSource cut = LSoundCacheOpenSource(item);
    EXPECT_EQ(cut->GetEndSample(), 1);
    std::vector<float> after(6, -1.0f);
    cut->Read(after.data(), 3);
    EXPECT_EQ(after, (std::vector<float>{0.125f, 0.25f, 0, 0, 0, 0}));

    ASSERT_EQ(unlink(FileOf(item, kLSoundCacheExtAudInfo).c_str()), 0);
    EXPECT_EQ(LSoundCacheOpenSource(item)->GetError(), LSoundSourceErrorCode::kCannotOpen);
    EXPECT_EQ(LSoundCacheItemLengthGet(item), 0);
    LSoundCache::DecRef(item);
}

TEST_F(SoundCacheTest, NumbersReferencesAndPaths) {
    EXPECT_EQ(LSoundCache::GetFilePath(kLSoundCacheItemNone, ".aud"), "");
    EXPECT_EQ(LSoundCache::GetFilePath(17, ".aud"), PathOf("cache") + "/17.aud");
    LSoundCache::RegisterItemPath(300, "/elsewhere/take");
    EXPECT_EQ(LSoundCache::GetFilePath(300, ".grf"), "/elsewhere/take.grf");
    LSoundCache::UnregisterItemPath(300);
    char buffer[kLMaxText];
    LSoundCache::GetFilePath(17, buffer, ".audinfo");
    EXPECT_EQ(std::string(buffer), PathOf("cache") + "/17.audinfo");

    // The first allocation scans the folder: numbers with files are skipped, other names ignored.
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/0.aud"), "", 0));
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/1.aud"), "", 0));
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/notes.aud"), "", 0));
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/2.grf"), "", 0));
    unsigned short const a = LSoundCache::ItemCreateNewAndIncRef();
    unsigned short const b = LSoundCache::ItemCreateNewAndIncRef();
    EXPECT_EQ(a, 2);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(LSoundCache::GetRefCount(a), 1);

    for (int i = 0; i < 70000; ++i) {
        LSoundCache::IncRef(a);
    }
    EXPECT_EQ(LSoundCache::GetRefCount(a), 65534); // saturates
    LSoundCache::IncRef(kLSoundCacheItemFailed);
    LSoundCache::IncRef(kLSoundCacheItemNone);
    EXPECT_EQ(LSoundCache::GetRefCount(kLSoundCacheItemFailed), 0);
    // Saturated, the count no longer says how many holders there are: releases leave it.
    LSoundCache::DecRef(a);
    EXPECT_EQ(LSoundCache::GetRefCount(a), 65534);
    LSoundCache::DecRef(b);
    LSoundCache::SetFolder(PathOf("cache")); // a new process forgets the pinned item
    // Released without files: the numbers are free again.
    EXPECT_EQ(LSoundCache::ItemNumberGetNextAvailable(), 2);
}

TEST_F(SoundCacheTest, LastReleaseKeepsTheFilesOnlyWhileTheOriginalIsUnchanged) {
    struct Case {
        char const* what;
        int change; // 0 unchanged, 1 rewritten with another size, 2 same size new time, 3 deleted
        bool kept;
    };
    for (Case const c : {Case{"unchanged", 0, true}, Case{"resized", 1, false},
                         Case{"touched", 2, false}, Case{"deleted", 3, false}}) {
        LSoundCacheOriginal const original = MakeOriginal("song.wav", "RIFF....");
        unsigned short const item = AddItem({0.5f, 0.25f});
        ASSERT_TRUE(LSoundCacheItemOriginalSet(item, original));
        if (c.change == 1) {
            ASSERT_TRUE(WriteFileBytes(original.path, "RIFF......", 10));
        } else if (c.change == 2) {
            timeval const times[2] = {{1000000, 0}, {1000000, 0}};
            ASSERT_EQ(utimes(original.path.c_str(), times), 0);
        } else if (c.change == 3) {
            ASSERT_EQ(unlink(original.path.c_str()), 0);
        }
        LSoundCache::DecRef(item);
        EXPECT_EQ(LSoundCacheItemIsValid(item), c.kept) << c.what;
        LSoundCache::CacheItemDelete(item);
        (void)unlink(original.path.c_str());
    }

    // No record of an original, a broken record: deleted. Kept flag: never deleted.
    unsigned short const plain = AddItem({0.1f});
    LSoundCache::DecRef(plain);
    EXPECT_FALSE(LSoundCacheItemIsValid(plain));
    unsigned short const broken = AddItem({0.1f});
    ASSERT_TRUE(WriteFileBytes(FileOf(broken, kLSoundCacheExtAudInfo), "lsdf", 4));
    LSoundCache::DecRef(broken);
    EXPECT_FALSE(Exists(FileOf(broken, kLSoundCacheExtAud)));
    unsigned short const kept = AddItem({0.1f});
    LSoundCache::SetKept(kept, true);
    LSoundCache::DecRef(kept);
    EXPECT_TRUE(LSoundCacheItemIsValid(kept));
}

TEST_F(SoundCacheTest, ReopeningAnUnchangedFileFindsItsItem) {
    LSoundCacheOriginal const original = MakeOriginal("take.wav", "some audio");
    unsigned short const item = AddItem({0.5f, -0.5f});
    ASSERT_TRUE(LSoundCacheItemOriginalSet(item, original));
    LSoundCache::DecRef(item);
    ASSERT_TRUE(LSoundCacheItemIsValid(item));

    // A new process: counts forgotten, the folder scanned again.
    LSoundCache::SetFolder(PathOf("cache"));
    unsigned short const found = LSoundCacheItemOriginalFileDetailsMatch(
        original.path.c_str(), original.modifiedNs, original.size, original.options);
    EXPECT_EQ(found, item);
    EXPECT_EQ(LSoundCache::GetRefCount(item), 1);
    EXPECT_NE(LSoundCache::ItemNumberGetNextAvailable(), item);
    for (auto [options, size] : {std::pair{8u, original.size}, std::pair{7u, original.size + 1}}) {
        EXPECT_EQ(LSoundCacheItemOriginalFileDetailsMatch(original.path.c_str(),
                                                          original.modifiedNs, size, options),
                  kLSoundCacheItemNone);
    }
    LSoundCacheOriginal read;
    ASSERT_TRUE(LSoundCacheItemOriginalGet(item, read));
    EXPECT_EQ(read.path, original.path);
    EXPECT_EQ(read.modifiedNs, original.modifiedNs);
    LSoundCache::DecRef(found);
}

TEST_F(SoundCacheTest, UpdatesReplaceRootChunksByIdentifierAndKeepTheRest) {
    unsigned short const item = AddItem({0.5f});
    LSizedArray<unsigned char> first =
        InfoUpdate([](auto& w) { return w.WriteInt(500, 1) && w.WriteString(501, "beat map"); });
    ASSERT_TRUE(LSoundCacheItemInfoUpdate(item, first, false));
    LSizedArray<unsigned char> second = InfoUpdate([](auto& w) { return w.WriteInt(500, 2); });
    ASSERT_TRUE(LSoundCacheItemInfoUpdate(item, second, false));
    ASSERT_TRUE(LSoundCacheItemLastAccessTimeUpdate(item));

    LInputStreamFile stream;
    ASSERT_TRUE(stream.Open(FileOf(item, kLSoundCacheExtAudInfo).c_str()));
    LSDFReader<LInputStreamFile> reader;
    ASSERT_TRUE(reader.Open(stream, kLSDFFileCacheItemInfo));
    LSDFReaderChunkIterator<LInputStreamFile> chunk(reader);
    std::vector<int> ids;
    int value500 = 0;
    long long access = 0;
    while (chunk.StartNextChunk()) {
        ids.push_back(chunk.GetId());
        if (chunk.GetId() == 500) {
            EXPECT_TRUE(chunk.ReadInt(value500));
        }
        if (chunk.GetId() == kLSoundCacheInfoLastAccess) {
            EXPECT_TRUE(chunk.ReadInt64(access));
        }
    }
    EXPECT_TRUE(reader.IsOk());
    // Rate and channels first as written, the replaced chunk where it was, the new one after.
    EXPECT_EQ(ids, (std::vector<int>{16, 17, kLSoundCacheInfoLastAccess, 500, 501}));
    EXPECT_EQ(value500, 2);
    EXPECT_NEAR(static_cast<double>(access), static_cast<double>(time(nullptr)), 5.0);
    EXPECT_TRUE(LSoundCacheItemAnalyzerChunkExists(item, 501));
    EXPECT_FALSE(LSoundCacheItemAnalyzerChunkExists(item, 502));

    // An update that is not a type-44 image changes nothing.
    LSizedArray<unsigned char> junk;
    ASSERT_TRUE(junk.Allocate(3));
    EXPECT_FALSE(LSoundCacheItemInfoUpdate(item, junk, false));
    EXPECT_TRUE(LSoundCacheItemAnalyzerChunkExists(item, 501));
    LSoundCache::DecRef(item);
}

TEST_F(SoundCacheTest, CleanupRemovesInvalidItemsThenUnreferencedOnesByAge) {
    LSettingsStore settings(PathOf("settings.ini"));
    unsigned short const referenced = AddItem({0.1f});
    unsigned short const kept = AddItem({0.2f});
    LSoundCache::SetKept(kept, true);
    LSoundCache::DecRef(kept);
    // Three unreferenced items kept alive by their originals, one of them missing its peaks.
    std::vector<unsigned short> idle;
    for (char const* name : {"a.wav", "b.wav", "c.wav"}) {
        LSoundCacheOriginal const original = MakeOriginal(name, name);
        unsigned short const item = AddItem({0.3f});
        ASSERT_TRUE(LSoundCacheItemOriginalSet(item, original));
        LSoundCache::DecRef(item);
        idle.push_back(item);
    }
    ASSERT_EQ(unlink(FileOf(idle[0], kLSoundCacheExtGrf).c_str()), 0);
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/900.aud"), "\0\0\0\0", 4)); // no information

    LSoundCacheCleanup(0, settings); // validity only
    EXPECT_FALSE(Exists(FileOf(idle[0], kLSoundCacheExtAud)));
    EXPECT_FALSE(Exists(PathOf("cache/900.aud")));
    EXPECT_TRUE(LSoundCacheItemIsValid(idle[1]));

    // Recently used items survive an age limit; everything unreferenced goes with retention 0.
    LSoundCache::ItemsDelete(static_cast<long>(time(nullptr) - 3600));
    EXPECT_TRUE(LSoundCacheItemIsValid(idle[1]));
    ASSERT_TRUE(settings.SetInt("Cache", "RetentionDays", 0));
    LSoundCacheCleanup(2, settings);
    EXPECT_FALSE(Exists(FileOf(idle[1], kLSoundCacheExtAudInfo)));
    EXPECT_FALSE(Exists(FileOf(idle[2], kLSoundCacheExtAudInfo)));
    EXPECT_TRUE(LSoundCacheItemIsValid(referenced));
    EXPECT_TRUE(LSoundCacheItemIsValid(kept));
    LSoundCache::DecRef(referenced);
}

// Whatever the free space, every mode removes an unreferenced item last used 30 days ago (the
// longest any mode keeps one is 28 days) and never one that is referenced or kept.
TEST_F(SoundCacheTest, EveryCleanupModeRemovesStaleItemsAndSparesHeldOnes) {
    LSettingsStore settings(PathOf("settings.ini"));
    for (int mode = 1; mode <= 4; ++mode) {
        unsigned short const held = AddItem({0.1f});
        unsigned short const kept = AddItem({0.1f});
        LSoundCache::SetKept(kept, true);
        LSoundCache::DecRef(kept);
        LSoundCacheOriginal const original = MakeOriginal("old.wav", "old");
        unsigned short const stale = AddItem({0.1f});
        ASSERT_TRUE(LSoundCacheItemOriginalSet(stale, original));
        LSizedArray<unsigned char> update = InfoUpdate([](auto& w) {
            return w.WriteInt64(kLSoundCacheInfoLastAccess, time(nullptr) - 30 * 86400);
        });
        ASSERT_TRUE(LSoundCacheItemInfoUpdate(stale, update, false));
        LSoundCache::DecRef(stale);
        ASSERT_TRUE(LSoundCacheItemIsValid(stale)) << "kept for its unchanged original";

        LSoundCacheCleanup(mode, settings);
        EXPECT_FALSE(Exists(FileOf(stale, kLSoundCacheExtAudInfo))) << "mode " << mode;
        EXPECT_TRUE(LSoundCacheItemIsValid(held)) << "mode " << mode;
        EXPECT_TRUE(LSoundCacheItemIsValid(kept)) << "mode " << mode;
        LSoundCache::DecRef(held);
        LSoundCache::SetKept(kept, false);
        LSoundCache::CacheItemDelete(kept);
    }

    // Deleting the cached files takes every file of unreferenced items, extras included.
    unsigned short const held = AddItem({0.1f});
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/40.fft"), "x", 1));
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/40.zuvmp3"), "x", 1));
    ASSERT_TRUE(WriteFileBytes(PathOf("cache/40.aud"), "x", 1));
    LSoundCache::DeleteCachedFiles();
    EXPECT_FALSE(Exists(PathOf("cache/40.fft")));
    EXPECT_FALSE(Exists(PathOf("cache/40.zuvmp3")));
    EXPECT_FALSE(Exists(PathOf("cache/40.aud")));
    EXPECT_TRUE(LSoundCacheItemIsValid(held));
    LSoundCache::DecRef(held);
}

TEST_F(SoundCacheTest, AddingFailsCleanlyWithoutSpaceOrAWritableFolder) {
    // More frames than any disk holds: refused before anything is written, with the message.
    LSoundSource huge = LMakeSource<LTestStaircaseSource>(44100, 2, 1LL << 50);
    LTestProcess process;
    LSoundCacheItemHandle handle;
    long long frames = -1;
    EXPECT_EQ(LSoundCacheItemAdd(process, huge, handle, frames), LProcessResult::kFailed);
    EXPECT_EQ(handle.item, kLSoundCacheItemFailed);
    ASSERT_EQ(process.errors.size(), 1u);
    EXPECT_EQ(process.errors[0].rfind("Insufficient hard drive space to store the audio. Tessel "
                                      "requires 8589934692.00MBs free space on \"",
                                      0),
              0u)
        << process.errors[0];
    EXPECT_NE(process.errors[0].find("\" in order to load the file ("), std::string::npos);

    // A cache "folder" that is a file: nothing can be created in it, whoever runs the test.
    ASSERT_TRUE(WriteFileBytes(PathOf("blocked"), "x", 1));
    LSoundCache::SetFolder(PathOf("blocked"));
    LSoundSource small = MakeBufferSource(44100, 1, {0.5f});
    LTestProcess second;
    EXPECT_EQ(LSoundCacheItemAdd(second, small, handle, frames), LProcessResult::kFailed);
    EXPECT_EQ(handle.item, kLSoundCacheItemFailed);
    ASSERT_EQ(second.errors.size(), 1u);
    EXPECT_NE(second.errors[0].find("could not be written to the sound cache"), std::string::npos);
    EXPECT_EQ(LSoundLiveCount(LSoundLiveKind::kCacheReference), 0);
}

// A disk that fills up during the copy, made with the file size limit (which fails writes the
// way a full disk does, whoever runs the test): the copy fails with the system's reason and no
// item stays behind.
TEST_F(SoundCacheTest, ADiskFillingUpMidwayLeavesNoItem) {
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);
    rlimit small = old;
    small.rlim_cur = 64 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    LSoundSource second = MakeBufferSource(44100, 2, std::vector<float>(2 * 44100, 0.25f));
    LTestProcess process;
    LSoundCacheItemHandle handle;
    long long frames = -1;
    LProcessResult const result = LSoundCacheItemAdd(process, second, handle, frames);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
    signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(result, LProcessResult::kFailed);
    EXPECT_EQ(handle.item, kLSoundCacheItemFailed);
    EXPECT_EQ(frames, 0);
    ASSERT_EQ(process.errors.size(), 1u);
    EXPECT_NE(process.errors[0].find(std::strerror(EFBIG)), std::string::npos) << process.errors[0];
    EXPECT_EQ(LSoundLiveCount(LSoundLiveKind::kCacheReference), 0);
    EXPECT_EQ(LSoundCache::ItemNumberGetNextAvailable(), 0);
    EXPECT_FALSE(Exists(FileOf(0, kLSoundCacheExtAud)));
}

TEST_F(SoundCacheTest, ThreadsAddingAndReleasingKeepCountsExact) {
    constexpr int kRounds = 40;
    std::atomic<int> failures{0};
    auto work = [&failures] {
        for (int r = 0; r < kRounds; ++r) {
            LSoundSource source = MakeBufferSource(8000, 1, std::vector<float>(300, 0.25f));
            LTestProcess process;
            LSoundCacheItemHandle handle;
            long long frames = 0;
            if (LSoundCacheItemAdd(process, source, handle, frames) != LProcessResult::kCompleted) {
                ++failures;
                continue;
            }
            LSoundCache::IncRef(handle.item);
            LSoundSource reader = LSoundCacheOpenSource(handle.item);
            if (ReadAll(reader) != std::vector<float>(300, 0.25f)) {
                ++failures;
            }
            LSoundCache::DecRef(handle.item);
            LSoundCache::DecRef(handle.item);
        }
    };
    LThread a;
    LThread b;
    ASSERT_TRUE(a.Start(work));
    ASSERT_TRUE(b.Start(work));
    a.Join();
    b.Join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(LSoundLiveCount(LSoundLiveKind::kCacheReference), 0);
    // Every item was released without an original, so none is left.
    LSoundCacheCleanup(0);
    EXPECT_EQ(LSoundCache::ItemNumberGetNextAvailable(), 0);
}

TEST_F(SoundCacheTest, AnalyzerThreadStoresItsFindingsAndStopsOnRequest) {
    LSoundCacheItemAnalyzerManager& manager = LSoundCacheItemAnalyzerManager::Get();
    ASSERT_TRUE(manager.Start());
    EXPECT_TRUE(manager.Start()); // already running
    unsigned short const loud = AddItem({0.5f, -0.75f, 0.25f, 0.0f});
    unsigned short const quiet = AddItem(std::vector<float>(1000, 0.0f));
    ASSERT_TRUE(manager.WaitIdle(10000));
    manager.Stop();
    EXPECT_FALSE(manager.IsRunning());
    for (auto [item, peak, kind] : {std::tuple{loud, 0.75f, 1}, std::tuple{quiet, 0.0f, 0}}) {
        ASSERT_TRUE(LSoundCacheItemAnalyzerChunkExists(item, kLSoundCacheInfoTypeAnalysis));
        LInputStreamFile stream;
        ASSERT_TRUE(stream.Open(FileOf(item, kLSoundCacheExtAudInfo).c_str()));
        LSDFReader<LInputStreamFile> reader;
        ASSERT_TRUE(reader.Open(stream, kLSDFFileCacheItemInfo));
        LSDFReaderChunkIterator<LInputStreamFile> chunk(reader);
        float gotPeak = -1.0f;
        int gotKind = -1;
        while (chunk.StartNextChunk()) {
            if (chunk.GetId() == kLSoundCacheInfoTypeAnalysis) {
                LSDFReaderChunkIterator<LInputStreamFile> child(reader, chunk);
                while (child.StartNextChunk()) {
                    if (child.GetId() == kLSoundCacheInfoTypePeak) {
                        EXPECT_TRUE(child.ReadFloat(gotPeak));
                    } else if (child.GetId() == kLSoundCacheInfoTypeKind) {
                        EXPECT_TRUE(child.ReadInt(gotKind));
                    }
                }
            }
        }
        EXPECT_EQ(gotPeak, peak);
        EXPECT_EQ(gotKind, kind);
        LSoundCache::DecRef(item);
    }
    // Stopped: changes are ignored, and a second start works.
    manager.SignalChange(loud);
    ASSERT_TRUE(manager.Start());
    ASSERT_TRUE(manager.WaitIdle(10000));
    manager.Stop();
}

} // namespace
