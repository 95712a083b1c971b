// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The sound cache: every sound a document uses is decoded once into a folder of numbered items,
// each a raw float file (".aud"), a peak file for drawing (".grf") and an information file
// (".audinfo", a structured data file of type 43). Documents refer to ranges of items through
// cut lists and never change an item's samples.
//
// The cache is process-wide. Item numbers are unsigned 16-bit: 0 to 65533 name items, 65534
// means no item could be made, 65535 means no item. Each number has a reference count, an
// in-use flag (its files exist or are being made) and a kept flag (never deleted by release or
// cleanup), all changed under one mutex. When the last reference goes, the item's files stay if
// the file it was decoded from is still there unchanged, so opening that file again finds the
// item instead of decoding; otherwise they are deleted.
//
// ".grf": per 256-frame group one record per channel, each two little-endian 16-bit codes: the
// group's largest value, then the magnitude of its smallest; see LSoundCacheGrfCode.
//
// ".audinfo" chunks: 16 sample rate, 17 channels, container 80 with the original file's details
// (81 path, 82 modification time in seconds as 32 bits, 83 size, 85 the opener's options value,
// 86 modification time in nanoseconds as 64 bits, which takes precedence), 87 last access time
// in seconds since 1970. Analyzers add chunks of their own; updates replace root chunks by
// identifier and keep the rest.
//
// Where the folder lives: LGetUserDir(LUserDir::kCache) unless LSoundCache::SetFolder names
// another (tests do, to start from an empty cache).

#include "llib/gen/process.h"
#include "llib/gen/sizedarray.h"
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"
#include "llib/unix/fd.h"
#include "llib/unix/writebehind.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

inline constexpr unsigned short kLSoundCacheItemNone = 65535;
inline constexpr unsigned short kLSoundCacheItemFailed = 65534;
inline constexpr unsigned short kLSoundCacheItemLast = 65533; // the highest item number
inline constexpr long long kLSoundCacheGrfFrames = 256;       // frames per peak record
inline constexpr int kLSoundCacheGrfRecordBytes = 4;          // per channel and group

// Extensions of an item's files, in the order deletion visits them.
inline constexpr int kLSoundCacheFileExtCount = 5;
extern char const* const arszDataFileExts[kLSoundCacheFileExtCount];
inline constexpr char const* kLSoundCacheExtAud = ".aud";
inline constexpr char const* kLSoundCacheExtGrf = ".grf";
inline constexpr char const* kLSoundCacheExtAudInfo = ".audinfo";
inline constexpr char const* kLSoundCacheExtMP3Frames = ".zuvmp3";
inline constexpr char const* kLSoundCacheExtFft = ".fft";

// ".audinfo" chunk identifiers.
inline constexpr std::uint16_t kLSoundCacheInfoSampleRate = 16;
inline constexpr std::uint16_t kLSoundCacheInfoChannels = 17;
inline constexpr std::uint16_t kLSoundCacheInfoOriginal = 80;
inline constexpr std::uint16_t kLSoundCacheInfoOriginalPath = 81;
inline constexpr std::uint16_t kLSoundCacheInfoOriginalTime32 = 82;
inline constexpr std::uint16_t kLSoundCacheInfoOriginalSize = 83;
inline constexpr std::uint16_t kLSoundCacheInfoOriginalOptions = 85;
inline constexpr std::uint16_t kLSoundCacheInfoOriginalTime64 = 86;
inline constexpr std::uint16_t kLSoundCacheInfoLastAccess = 87;
// The structured data file type of an update merged into ".audinfo".
inline constexpr unsigned kLSDFFileCacheItemInfoUpdate = 44;

// The ".grf" code of one peak value: 0 for exactly 0, 65535 above +24 dBFS, otherwise
// |v| * 4134.916 truncated, and at least 1.
[[nodiscard]] std::uint16_t LSoundCacheGrfCode(float value);

// An item as the rest of the system passes it around.
struct LSoundCacheItemHandle {
    unsigned short item = kLSoundCacheItemNone;
};

// The original file an item was decoded from, as recorded in its ".audinfo".
struct LSoundCacheOriginal {
    std::string path;
    long long modifiedNs = 0; // nanoseconds since 1970
    unsigned long long size = 0;
    unsigned options = 0; // the opener's decoding options; must match too
};

class LSoundCache {
public:
    // Points the cache at `folder` (created when missing) and forgets every count and flag, as at
    // process start; the next allocation scans the folder. An empty folder means the user's.
    static void SetFolder(std::string const& folder);
    // The folder, without a trailing slash (resolved from the user's folders on first use).
    [[nodiscard]] static std::string GetFolder();

    // Counts saturate at 65534; a saturated item is never released again in this process.
    static void IncRef(unsigned short item);
    // Releases one reference; the last keeps or deletes the item's files (see above).
    static void DecRef(unsigned short item);
    [[nodiscard]] static unsigned short GetRefCount(unsigned short item);
    [[nodiscard]] static bool IsInUse(unsigned short item);

    // A new item number with a count of 1 and marked in use; 65534 when none is left even after
    // deleting every unreferenced item.
    [[nodiscard]] static unsigned short ItemCreateNewAndIncRef();
    // The lowest number neither in use nor referenced, or 65534. The first call scans the folder.
    [[nodiscard]] static unsigned short ItemNumberGetNextAvailable();

    // Never deleted by release or cleanup while set.
    static void SetKept(unsigned short item, bool kept);
    [[nodiscard]] static bool IsKept(unsigned short item);
    // Gives `item` files named by `prefix` followed by the extension instead of the cache's.
    static void RegisterItemPath(unsigned short item, char const* prefix);
    static void UnregisterItemPath(unsigned short item);

    // The path of `item`'s file with `ext`: empty for 65535. The first form writes into a caller
    // buffer of kLMaxText characters (cut if longer, always terminated).
    static void GetFilePath(unsigned short item, char* path, char const* ext);
    [[nodiscard]] static std::string GetFilePath(unsigned short item, char const* ext);

    // Deletes all files of `item` and clears its in-use flag.
    static void CacheItemDelete(unsigned short item);
    // Deletes the files of every item with no reference and no kept flag.
    static void DeleteCachedFiles();
    // Deletes every unreferenced, not-kept item last accessed before `cutoff` (seconds since
    // 1970).
    static void ItemsDelete(long cutoff);
};

// True when the item's ".aud", ".audinfo" and ".grf" all exist.
[[nodiscard]] bool LSoundCacheItemIsValid(unsigned short item);

// Decodes `source` from its position to its end into a new item: checks the free space first
// (the frames' bytes plus 100 MB), then copies through the source-to-sink process. `handle`
// receives the item (65534 when none could be made) and `frames` the frames written. On any
// result but completed the item is deleted again and the handle holds 65534.
[[nodiscard]] LProcessResult LSoundCacheItemAdd(LProcessInterface& process, LSoundSource& source,
                                                LSoundCacheItemHandle& handle, long long& frames);

// Merges `update`, the image of a type-44 structured data file, into the item's ".audinfo"
// under an exclusive lock: its root chunks replace those with the same identifier, the rest stay.
// With `signalAnalyzers` the analyzer manager hears of the change.
[[nodiscard]] bool LSoundCacheItemInfoUpdate(unsigned short item,
                                             LSizedArray<unsigned char>& update,
                                             bool signalAnalyzers);
// Records now as the item's last access.
[[nodiscard]] bool LSoundCacheItemLastAccessTimeUpdate(unsigned short item);
// Records the original file's details (container 80).
[[nodiscard]] bool LSoundCacheItemOriginalSet(unsigned short item,
                                              LSoundCacheOriginal const& original);
// Reads them back; false without container 80 or when the file cannot be read.
[[nodiscard]] bool LSoundCacheItemOriginalGet(unsigned short item, LSoundCacheOriginal& original);

// The valid, unused-by-deletion item made from `path` with these details, or 65535. Found
// items get a reference (the caller owns it).
[[nodiscard]] unsigned short LSoundCacheItemOriginalFileDetailsMatch(char const* path,
                                                                     long long modifiedNs,
                                                                     unsigned long long size,
                                                                     unsigned options);

// Frames in the item: the ".aud" size / (channels * 4); 0 when the information is unreadable.
[[nodiscard]] long long LSoundCacheItemLengthGet(unsigned short item);
// Rate and channels from an ".audinfo" path; both 0 and false when missing or not type 43.
[[nodiscard]] bool LSoundCacheItemAudioInfoGet(char const* audInfoPath, int& sampleRate,
                                               unsigned char& channels);
// The file system's modification time (nanoseconds since 1970) and size of a file.
[[nodiscard]] bool LSoundCacheFileModifiedTimeAndSizeGet(char const* path, long long& modifiedNs,
                                                         unsigned long long& size);

// Deletes invalid items, then unreferenced ones by age and the free space of the cache's volume:
// modes 1 to 4 (4 deletes every unreferenced item; 2 reads "RetentionDays" in "Cache").
void LSoundCacheCleanup(int mode);
// The same with the settings read from `settings`.
class LSettingsStore;
void LSoundCacheCleanup(int mode, LSettingsStore& settings);

// The message for too little free space, as shown to the user.
[[nodiscard]] std::string LSoundCacheSpaceMessage(double requiredMB, char const* volume,
                                                  double availableMB);

// Writes an item: the frames to ".aud", their peaks to ".grf" and, when finished (by Finish
// or on release), ".audinfo" with the rate and channels. Fails (IsFailed) when a file cannot be
// opened or written; a failed sink writes nothing more.
class LSoundCacheSink final : public LSoundSinkBase {
public:
    LSoundCacheSink(unsigned short item, int sampleRateHz, unsigned char channels);
    ~LSoundCacheSink() override;

    // Starts the writer, with room reserved for `expectedFrames` (0: unknown). The first Write
    // starts it when this was not called.
    void Start(long long expectedFrames);
    void Write(float const* buffer, long long frames) override;
    // Writes the last partial peak group, closes the files and writes ".audinfo"; false when any
    // of it failed. Later calls do nothing and repeat the result.
    [[nodiscard]] bool Finish() override;
    [[nodiscard]] unsigned short GetItem() const { return m_item; }
    // Puts every frame written so far into ".aud", for readers of the item while it grows.
    void Flush();
    // The system's error number of the first failure, 0 if none.
    [[nodiscard]] int GetSystemError() const { return m_systemError; }

private:
    void WriteGrfFrame();

    unsigned short m_item;
    [[nodiscard]] bool WriteAll(int fd, void const* data, std::size_t bytes);
    void FlushGrf();
    // Marks the sink failed, keeping the first error number (EIO when none is known).
    void FailWith(int systemError);

    LFileDescriptor m_aud;
    // The samples go to ".aud" on a thread of their own, so that the kernel's copy of one block
    // overlaps the making of the next.
    LWriteBehind m_audWriter;
    int m_grf = -1;
    long long m_groupFrames = 0;             // frames folded into the current peak group
    std::vector<unsigned char> m_grfPending; // records not yet written
    float m_max[256] = {};
    float m_min[256] = {};
    int m_systemError = 0;
    bool m_started = false;
    bool m_finished = false;
    bool m_finishResult = false;
};

// Reads an item's samples (open it with LSoundCacheOpenSource, which reads the item's rate and
// channels). Holds a reference on the item while it lives. Positions before 0 and past the end
// read as silence, and so does everything when the ".aud" cannot be opened.
class LSoundCacheSource final : public LSoundSourceBase {
public:
    LSoundCacheSource(unsigned short item, int sampleRateHz, unsigned char channels);
    ~LSoundCacheSource() override;

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_frames; }
    void Seek(long long frame) override;

private:
    unsigned short m_item;
    int m_fd = -1;
    long long m_frames = 0;
    long long m_position = 0;
};

// Opens a source over an item: an error source (cannot open) when its ".audinfo" cannot be read.
[[nodiscard]] LSoundSource LSoundCacheOpenSource(unsigned short item);

// The background thread that runs analyzers over new items and stores what they find in the
// items' ".audinfo". Each analyzer is enabled by a setting in "Analyzers" ("EnableTypeAnalyzer",
// "EnableBeatAnalyzer", both on by default).
class LSoundCacheItemAnalyzerManager {
public:
    static LSoundCacheItemAnalyzerManager& Get();

    // Starts the thread (if not running); Stop asks it to end and waits.
    [[nodiscard]] bool Start();
    void Stop();
    [[nodiscard]] bool IsRunning() const;
    // Queues `item` for the enabled analyzers and wakes the thread (ignored while it is stopped).
    void SignalChange(unsigned short item);
    // Waits until the queue is empty and the thread idle, at most `ms`; true when it is.
    [[nodiscard]] bool WaitIdle(int ms);

    enum class Analyzer : unsigned char { kType = 0, kBeat = 1 };
    // Whether the user has the analyzer on ("EnableTypeAnalyzer" / "EnableBeatAnalyzer" in
    // "Analyzers"), read when each item is taken so a change applies to the next one.
    [[nodiscard]] static bool IsEnabled(Analyzer analyzer);

private:
    LSoundCacheItemAnalyzerManager() = default;
};

// The type analyzer's chunk: a container of 101 the peak magnitude (float), 102 the RMS level
// (float, linear), 103 the kind (int: 0 silence, below -80 dBFS throughout; 1 sound).
inline constexpr std::uint16_t kLSoundCacheInfoTypeAnalysis = 100;
inline constexpr std::uint16_t kLSoundCacheInfoTypePeak = 101;
inline constexpr std::uint16_t kLSoundCacheInfoTypeRms = 102;
inline constexpr std::uint16_t kLSoundCacheInfoTypeKind = 103;

// True when the item's ".audinfo" holds a root chunk with `chunkId`.
[[nodiscard]] bool LSoundCacheItemAnalyzerChunkExists(unsigned short item, std::uint16_t chunkId);
