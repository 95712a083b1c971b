// SPDX-License-Identifier: GPL-3.0-or-later
// Item information: reading ".audinfo", merging updates into it, the original file's details,
// finding an item again by them, and cleanup by validity, age and free space.
#include "cacheinfo.h"

#include "llib/gen/filestream.h"
#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"
#include "llib/gen/settings.h"
#include "llib/gen/stringlong.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <vector>

namespace {

// An ".audinfo" holds a few dozen bytes plus what analyzers add; anything far larger is not
// one of ours and is treated as unreadable rather than loaded into memory.
constexpr std::uint64_t kMaxInfoBytes = 16ULL << 20;
constexpr long long kNsPerSecond = 1000000000LL;
constexpr double kBytesPerMB = 1048576.0;

template <class Stream>
void ReadOriginal(LSDFReader<Stream>& reader, LSDFReaderChunkIterator<Stream> const& container,
                  llib::detail::CacheItemInfo& info) {
    LSDFReaderChunkIterator<Stream> child(reader, container);
    int time32 = 0;
    long long time64 = 0;
    while (child.StartNextChunk()) {
        switch (child.GetId()) {
        case kLSoundCacheInfoOriginalPath: {
            LStringLong path;
            if (child.ReadString(path)) {
                info.original.path = path.Get();
            }
            break;
        }
        case kLSoundCacheInfoOriginalTime32:
            (void)child.ReadInt(time32);
            break;
        case kLSoundCacheInfoOriginalSize: {
            long long size = 0;
            if (child.ReadInt64(size)) {
                info.original.size = static_cast<unsigned long long>(size);
            }
            break;
        }
        case kLSoundCacheInfoOriginalOptions: {
            int options = 0;
            if (child.ReadInt(options)) {
                info.original.options = static_cast<unsigned>(options);
            }
            break;
        }
        case kLSoundCacheInfoOriginalTime64:
            (void)child.ReadInt64(time64);
            break;
        default:
            break;
        }
    }
    // The 64-bit form is the precise one; the 32-bit seconds serve files that lack it.
    info.original.modifiedNs =
        time64 != 0 ? time64
                    : static_cast<long long>(static_cast<std::uint32_t>(time32)) * kNsPerSecond;
    info.hasOriginal = true;
}

// Root chunks of a structured data image of `fileType`, kept whole; false when it is not one.
bool ReadRootChunks(std::vector<unsigned char> const& bytes, unsigned fileType,
                    LList<LSDFUnknownChunk>& chunks, unsigned short& version) {
    LInputStreamBuffer stream(bytes.data(), bytes.size());
    LSDFReader<LInputStreamBuffer> reader;
    if (!reader.Open(stream, fileType)) {
        return false;
    }
    version = reader.GetFileVersion();
    LSDFReaderChunkIterator<LInputStreamBuffer> chunk(reader);
    while (chunk.StartNextChunk()) {
        if (!chunk.ReadUnknownChunk(chunks)) {
            return false;
        }
    }
    return reader.IsOk();
}

bool MakeSizedArray(std::vector<unsigned char> const& bytes, LSizedArray<unsigned char>& out) {
    if (!out.Allocate(bytes.size())) {
        return false;
    }
    std::memcpy(out.GetData(), bytes.data(), bytes.size());
    return true;
}

long long NowSeconds() {
    return static_cast<long long>(std::time(nullptr));
}

// The numbers of every item that has any of its three main files in the cache folder.
std::set<unsigned short> ItemsWithAnyFile() {
    std::set<unsigned short> items;
    for (char const* ext : {kLSoundCacheExtAud, kLSoundCacheExtGrf, kLSoundCacheExtAudInfo}) {
        for (unsigned short const n : llib::detail::CacheItemsWithFile(ext)) {
            if (n <= kLSoundCacheItemLast) {
                items.insert(n);
            }
        }
    }
    return items;
}

void DeleteAllUnreferenced() {
    for (unsigned short const n : ItemsWithAnyFile()) {
        llib::detail::CacheItemDeleteIfUnreferenced(n);
    }
}

// The mount point of the volume holding `where`: the highest folder on the same device.
std::string VolumeOf(char const* where) {
    char resolved[PATH_MAX];
    struct stat st {};
    if (realpath(where, resolved) == nullptr || stat(resolved, &st) != 0) {
        return "/";
    }
    std::string path = resolved;
    while (path.size() > 1) {
        std::size_t const slash = path.find_last_of('/');
        std::string const parent =
            slash == 0 || slash == std::string::npos ? std::string(1, '/') : path.substr(0, slash);
        struct stat up {};
        if (stat(parent.c_str(), &up) != 0 || up.st_dev != st.st_dev) {
            break;
        }
        path = parent;
    }
    return path;
}

// Opens an ".audinfo" under a shared lock as a type-43 file.
bool OpenInfo(char const* path, LInputStreamFileShared& stream,
              LSDFReader<LInputStreamFileShared>& reader) {
    return path != nullptr && stream.Open(path) && stream.GetSize() <= kMaxInfoBytes &&
           reader.Open(stream, kLSDFFileCacheItemInfo);
}

} // namespace

namespace llib::detail {

bool CacheItemInfoReadPath(char const* path, CacheItemInfo& info) {
    info = CacheItemInfo{};
    LInputStreamFileShared stream;
    LSDFReader<LInputStreamFileShared> reader;
    if (!OpenInfo(path, stream, reader)) {
        return false;
    }
    LSDFReaderChunkIterator<LInputStreamFileShared> chunk(reader);
    while (chunk.StartNextChunk()) {
        switch (chunk.GetId()) {
        case kLSoundCacheInfoSampleRate:
            (void)chunk.ReadInt(info.sampleRate);
            break;
        case kLSoundCacheInfoChannels: {
            int channels = 0;
            if (chunk.ReadInt(channels)) {
                info.channels = static_cast<unsigned char>(channels & 0xff);
            }
            break;
        }
        case kLSoundCacheInfoOriginal:
            ReadOriginal(reader, chunk, info);
            break;
        case kLSoundCacheInfoLastAccess:
            (void)chunk.ReadInt64(info.lastAccess);
            break;
        default:
            break;
        }
    }
    return reader.IsOk();
}

bool CacheItemInfoRead(unsigned short item, CacheItemInfo& info) {
    return CacheItemInfoReadPath(LSoundCache::GetFilePath(item, kLSoundCacheExtAudInfo).c_str(),
                                 info);
}

} // namespace llib::detail

bool LSoundCacheItemIsValid(unsigned short item) {
    if (item > kLSoundCacheItemLast && item != kLSoundCacheItemFailed) {
        return false;
    }
    for (char const* ext : {kLSoundCacheExtAud, kLSoundCacheExtAudInfo, kLSoundCacheExtGrf}) {
        struct stat st {};
        if (stat(LSoundCache::GetFilePath(item, ext).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            return false;
        }
    }
    return true;
}

bool LSoundCacheItemInfoUpdate(unsigned short item, LSizedArray<unsigned char>& update,
                               bool signalAnalyzers) {
    if (item > kLSoundCacheItemLast) {
        return false;
    }
    std::vector<unsigned char> const updateBytes(update.GetData(),
                                                 update.GetData() + update.GetCount());
    LList<LSDFUnknownChunk> updates;
    unsigned short updateVersion = 0;
    if (!ReadRootChunks(updateBytes, kLSDFFileCacheItemInfoUpdate, updates, updateVersion)) {
        return false;
    }

    std::string const path = LSoundCache::GetFilePath(item, kLSoundCacheExtAudInfo);
    LReadWriteFile file;
    if (!file.Open(path.c_str(), true)) {
        return false;
    }
    // What is there now; an unreadable file contributes nothing and is replaced.
    LList<LSDFUnknownChunk> existing;
    unsigned short version = 1;
    std::uint64_t const size = file.GetSize();
    if (size > 0 && size <= kMaxInfoBytes) {
        std::vector<unsigned char> bytes(size);
        if (file.Read(bytes.data(), size) &&
            !ReadRootChunks(bytes, kLSDFFileCacheItemInfo, existing, version)) {
            existing.Clear();
            version = 1;
        }
    }

    LOutputStreamByteArray out;
    LSDFWriter<LOutputStreamByteArray> writer;
    bool ok = writer.Open(out, kLSDFFileCacheItemInfo, version);
    std::set<std::uint16_t> replaced;
    for (LSDFUnknownChunk const* chunk = existing.GetHead(); ok && chunk != nullptr;
         chunk = chunk->GetNext()) {
        LSDFUnknownChunk const* replacement = updates.GetHead();
        while (replacement != nullptr && replacement->id != chunk->id) {
            replacement = replacement->GetNext();
        }
        if (replacement == nullptr) {
            ok = writer.WriteUnknownChunk(*chunk);
        } else if (replaced.insert(chunk->id).second) {
            ok = writer.WriteUnknownChunk(*replacement);
        }
    }
    for (LSDFUnknownChunk const* chunk = updates.GetHead(); ok && chunk != nullptr;
         chunk = chunk->GetNext()) {
        if (replaced.insert(chunk->id).second) {
            ok = writer.WriteUnknownChunk(*chunk);
        }
    }
    ok = writer.Close() && ok;
    std::vector<unsigned char> const& merged = out.GetBytes();
    ok = ok && file.Seek(0) && file.Write(merged.data(), merged.size()) &&
         file.Truncate(merged.size());
    ok = file.Close() && ok;
    if (ok && signalAnalyzers) {
        LSoundCacheItemAnalyzerManager::Get().SignalChange(item);
    }
    return ok;
}

namespace {

// Builds a type-44 update with `write` filling its root and merges it.
template <class Fill>
bool MergeUpdate(unsigned short item, Fill fill) {
    LOutputStreamByteArray out;
    LSDFWriter<LOutputStreamByteArray> writer;
    bool const ok =
        writer.Open(out, kLSDFFileCacheItemInfoUpdate, 1) && fill(writer) && writer.Close();
    LSizedArray<unsigned char> update;
    return ok && MakeSizedArray(out.GetBytes(), update) &&
           LSoundCacheItemInfoUpdate(item, update, false);
}

} // namespace

bool LSoundCacheItemLastAccessTimeUpdate(unsigned short item) {
    return MergeUpdate(item, [](LSDFWriter<LOutputStreamByteArray>& writer) {
        return writer.WriteInt64(kLSoundCacheInfoLastAccess, NowSeconds());
    });
}

bool LSoundCacheItemOriginalSet(unsigned short item, LSoundCacheOriginal const& original) {
    return MergeUpdate(item, [&original](LSDFWriter<LOutputStreamByteArray>& writer) {
        auto const seconds = static_cast<std::uint32_t>(original.modifiedNs / kNsPerSecond);
        return writer.StartContainer(kLSoundCacheInfoOriginal) &&
               writer.WriteString(kLSoundCacheInfoOriginalPath, original.path.c_str()) &&
               writer.WriteInt(kLSoundCacheInfoOriginalTime32, static_cast<int>(seconds)) &&
               writer.WriteInt64(kLSoundCacheInfoOriginalSize,
                                 static_cast<long long>(original.size)) &&
               writer.WriteInt(kLSoundCacheInfoOriginalOptions,
                               static_cast<int>(original.options)) &&
               writer.WriteInt64(kLSoundCacheInfoOriginalTime64, original.modifiedNs) &&
               writer.EndContainer(kLSoundCacheInfoOriginal);
    });
}

bool LSoundCacheItemOriginalGet(unsigned short item, LSoundCacheOriginal& original) {
    llib::detail::CacheItemInfo info;
    if (!llib::detail::CacheItemInfoRead(item, info) || !info.hasOriginal) {
        return false;
    }
    original = info.original;
    return true;
}

unsigned short LSoundCacheItemOriginalFileDetailsMatch(char const* path, long long modifiedNs,
                                                       unsigned long long size, unsigned options) {
    if (path == nullptr || *path == '\0') {
        return kLSoundCacheItemNone;
    }
    for (unsigned short const n : llib::detail::CacheItemsWithFile(kLSoundCacheExtAudInfo)) {
        if (n > kLSoundCacheItemLast) {
            continue;
        }
        llib::detail::CacheItemInfo info;
        if (!llib::detail::CacheItemInfoRead(n, info) || !info.hasOriginal ||
            info.original.path != path || info.original.size != size ||
            info.original.modifiedNs != modifiedNs || info.original.options != options) {
            continue;
        }
        // Referenced first, checked after: a release deleting it meanwhile either sees the
        // reference and stops, or has deleted files this check then misses.
        LSoundCache::IncRef(n);
        if (LSoundCacheItemIsValid(n)) {
            llib::detail::CacheItemMarkInUse(n);
            return n;
        }
        LSoundCache::DecRef(n);
    }
    return kLSoundCacheItemNone;
}

long long LSoundCacheItemLengthGet(unsigned short item) {
    llib::detail::CacheItemInfo info;
    if (!llib::detail::CacheItemInfoRead(item, info) || info.channels == 0) {
        return 0;
    }
    struct stat st {};
    if (stat(LSoundCache::GetFilePath(item, kLSoundCacheExtAud).c_str(), &st) != 0) {
        return 0;
    }
    return static_cast<long long>(st.st_size) / (static_cast<long long>(info.channels) * 4);
}

bool LSoundCacheItemAudioInfoGet(char const* audInfoPath, int& sampleRate,
                                 unsigned char& channels) {
    llib::detail::CacheItemInfo info;
    bool const ok = llib::detail::CacheItemInfoReadPath(audInfoPath, info);
    sampleRate = ok ? info.sampleRate : 0;
    channels = ok ? info.channels : 0;
    return ok;
}

bool LSoundCacheFileModifiedTimeAndSizeGet(char const* path, long long& modifiedNs,
                                           unsigned long long& size) {
    struct stat st {};
    if (path == nullptr || stat(path, &st) != 0) {
        return false;
    }
    modifiedNs = static_cast<long long>(st.st_mtim.tv_sec) * kNsPerSecond + st.st_mtim.tv_nsec;
    size = static_cast<unsigned long long>(st.st_size);
    return true;
}

std::string LSoundCacheSpaceMessage(double requiredMB, char const* volume, double availableMB) {
    return LStrFormat("Insufficient hard drive space to store the audio. Tessel requires %.2fMBs "
                      "free space on \"%s\" in order to load the file (%.2fMBs available).",
                      requiredMB, volume != nullptr ? volume : "", availableMB);
}

namespace llib::detail {

bool CacheFreeSpace(unsigned long long& bytes, std::string& volume) {
    std::string const folder = LSoundCache::GetFolder();
    char const* where = folder.c_str();
    struct statvfs st {};
    if (statvfs(where, &st) != 0) {
        where = "/";
        if (statvfs(where, &st) != 0) {
            return false;
        }
    }
    bytes = static_cast<unsigned long long>(st.f_bavail) * st.f_frsize;
    volume = VolumeOf(where);
    return true;
}

} // namespace llib::detail

void LSoundCacheCleanup(int mode) {
    LSoundCacheCleanup(mode, LSettingsStore::GetDefault());
}

void LSoundCacheCleanup(int mode, LSettingsStore& settings) {
    // Items missing a main file or with an unreadable record cannot be used by anybody.
    for (unsigned short const n : ItemsWithAnyFile()) {
        llib::detail::CacheItemInfo info;
        if (!LSoundCacheItemIsValid(n) || !llib::detail::CacheItemInfoRead(n, info)) {
            llib::detail::CacheItemDeleteIfUnreferenced(n);
        }
    }
    if (mode < 1 || mode > 4) {
        return;
    }
    unsigned long long freeBytes = 0;
    std::string volume;
    (void)llib::detail::CacheFreeSpace(freeBytes, volume);
    double const freeMB = static_cast<double>(freeBytes) / kBytesPerMB;
    constexpr long long kHour = 3600;
    constexpr long long kDay = 86400;
    long long age = -1; // -1: delete every unreferenced item
    switch (mode) {
    case 1:
        age = freeMB < 500 ? -1 : freeMB < 1000 ? kHour : freeMB < 2000 ? kDay : 28 * kDay;
        break;
    case 2: {
        long long const days = settings.GetInt("Cache", "RetentionDays", 28);
        if (days < 1 || freeMB < 2000) {
            age = -1;
        } else if (freeMB < 10000) {
            age = kDay;
        } else if (freeMB <= 99999) {
            age = std::min<long long>(days, 14) * kDay;
        } else {
            age = days * kDay;
        }
        break;
    }
    case 3:
        age = freeMB < 5000 ? -1 : 14 * kDay;
        break;
    default:
        break;
    }
    if (age < 0) {
        DeleteAllUnreferenced();
    } else {
        LSoundCache::ItemsDelete(static_cast<long>(NowSeconds() - age));
    }
}

bool LSoundCacheItemAnalyzerChunkExists(unsigned short item, std::uint16_t chunkId) {
    std::string const path = LSoundCache::GetFilePath(item, kLSoundCacheExtAudInfo);
    LInputStreamFileShared stream;
    LSDFReader<LInputStreamFileShared> reader;
    if (!OpenInfo(path.c_str(), stream, reader)) {
        return false;
    }
    LSDFReaderChunkIterator<LInputStreamFileShared> chunk(reader);
    while (chunk.StartNextChunk()) {
        if (chunk.GetId() == chunkId) {
            return true;
        }
    }
    return false;
}
