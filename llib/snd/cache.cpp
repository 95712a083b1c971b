// SPDX-License-Identifier: GPL-3.0-or-later
// The cache's process-wide state: item numbers, references, flags, file names, deletion and
// cleanup, and the ".audinfo" reads and merges they rest on.
#include "llib/snd/cache.h"

#include "cacheinfo.h"

#include "llib/gen/stringlong.h"
#include "llib/gen/userdirs.h"
#include "llib/unix/thread.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <bitset>
#include <cstring>
#include <map>
#include <vector>

char const* const arszDataFileExts[kLSoundCacheFileExtCount] = {
    kLSoundCacheExtAud, kLSoundCacheExtGrf, kLSoundCacheExtAudInfo, kLSoundCacheExtMP3Frames,
    kLSoundCacheExtFft};

namespace {

constexpr std::size_t kNumbers = 65536;

struct CacheState {
    LMutex mutex;
    std::string folder;
    bool folderSet = false;
    bool scanNeeded = true;
    std::array<std::uint16_t, kNumbers> references{};
    std::bitset<kNumbers> inUse;
    std::bitset<kNumbers> kept;
    std::map<unsigned short, std::string> registered;
};

CacheState& State() {
    static CacheState state;
    return state;
}

std::string FolderLocked(CacheState& s) {
    if (!s.folderSet) {
        s.folder = LGetUserDir(LUserDir::kCache);
        s.folderSet = true;
        (void)LMakeDirs(s.folder);
    }
    return s.folder;
}

void CountLive(int delta) {
    llib::detail::LiveCountAdd(LSoundLiveKind::kCacheReference, delta);
}

// The item number of a cache file name such as "17.aud": 65534 for a name that is not a
// decimal number below 65536, 65535 when the name lacks the extension.
unsigned short NumberOfFile(char const* name, char const* ext) {
    std::size_t const length = std::strlen(name);
    std::size_t const extLength = std::strlen(ext);
    if (length <= extLength || std::strcmp(name + length - extLength, ext) != 0) {
        return kLSoundCacheItemNone;
    }
    unsigned long value = 0;
    for (std::size_t i = 0; i < length - extLength; ++i) {
        if (name[i] < '0' || name[i] > '9' || i >= 5) {
            return kLSoundCacheItemFailed;
        }
        value = value * 10 + static_cast<unsigned long>(name[i] - '0');
    }
    return value < kNumbers ? static_cast<unsigned short>(value) : kLSoundCacheItemFailed;
}

} // namespace

std::vector<unsigned short> llib::detail::CacheItemsWithFile(char const* ext) {
    std::vector<unsigned short> items;
    std::string const folder = LSoundCache::GetFolder();
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) {
        return items;
    }
    while (dirent const* entry = readdir(dir)) {
        unsigned short const n = NumberOfFile(entry->d_name, ext);
        if (n != kLSoundCacheItemNone) {
            items.push_back(n);
        }
    }
    closedir(dir);
    return items;
}

namespace {

std::string PathLocked(CacheState& s, unsigned short item, char const* ext) {
    if (item == kLSoundCacheItemNone) {
        return {};
    }
    char const* const suffix = ext != nullptr ? ext : "";
    auto const registered = s.registered.find(item);
    if (registered != s.registered.end()) {
        return registered->second + suffix;
    }
    return FolderLocked(s) + "/" + std::to_string(item) + suffix;
}

void DeleteFilesLocked(CacheState& s, unsigned short item) {
    for (char const* ext : arszDataFileExts) {
        std::string const path = PathLocked(s, item, ext);
        if (!path.empty()) {
            (void)unlink(path.c_str());
        }
    }
    s.inUse[item] = false;
}

} // namespace

// A reference taken since the caller decided must win over the deletion, so the decision is made
// again under the mutex.
void llib::detail::CacheItemDeleteIfUnreferenced(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    if (item > kLSoundCacheItemLast || s.references[item] != 0 || s.kept[item]) {
        return;
    }
    DeleteFilesLocked(s, item);
}

void llib::detail::CacheItemMarkInUse(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    if (item <= kLSoundCacheItemLast) {
        s.inUse[item] = true;
    }
}

namespace {

bool OriginalUnchanged(LSoundCacheOriginal const& original) {
    long long modifiedNs = 0;
    unsigned long long size = 0;
    if (!LSoundCacheFileModifiedTimeAndSizeGet(original.path.c_str(), modifiedNs, size)) {
        return false;
    }
    return size == original.size && modifiedNs == original.modifiedNs;
}

} // namespace

// ---- LSoundCache ----

void LSoundCache::SetFolder(std::string const& folder) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    long live = 0;
    for (std::uint16_t const count : s.references) {
        live += count;
    }
    CountLive(static_cast<int>(-live));
    s.references.fill(0);
    s.inUse.reset();
    s.kept.reset();
    s.registered.clear();
    s.scanNeeded = true;
    s.folderSet = false;
    if (!folder.empty()) {
        // Kept absolute: the working directory may change while the cache is in use.
        s.folder = folder;
        if (folder.front() != '/') {
            char cwd[PATH_MAX];
            if (getcwd(cwd, sizeof cwd) != nullptr) {
                s.folder = std::string(cwd) + "/" + folder;
            }
        }
        while (s.folder.size() > 1 && s.folder.back() == '/') {
            s.folder.pop_back();
        }
        s.folderSet = true;
        (void)LMakeDirs(s.folder);
    }
}

std::string LSoundCache::GetFolder() {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    return FolderLocked(s);
}

void LSoundCache::IncRef(unsigned short item) {
    if (item > kLSoundCacheItemLast) {
        return;
    }
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    if (s.references[item] < kLSoundCacheItemFailed) {
        ++s.references[item];
        CountLive(1);
    }
}

void LSoundCache::DecRef(unsigned short item) {
    if (item == kLSoundCacheItemFailed) {
        return;
    }
    CacheState& s = State();
    {
        LMutexLock lock(s.mutex);
        if (!s.folderSet || item == kLSoundCacheItemNone) {
            return;
        }
        // A saturated count no longer knows how many holders there are: the item stays for
        // the rest of the process rather than being deleted under a holder.
        if (s.references[item] == kLSoundCacheItemFailed) {
            return;
        }
        if (s.references[item] >= 2) {
            --s.references[item];
            CountLive(-1);
            return;
        }
        if (s.references[item] == 1) {
            CountLive(-1);
        }
        s.references[item] = 0;
        if (s.kept[item]) {
            return;
        }
    }
    // Keep the files while the file they came from is there unchanged: opening it again finds
    // them. Anything else (no record, an unreadable record, a changed file) deletes them.
    LSoundCacheOriginal original;
    if (LSoundCacheItemOriginalGet(item, original) && OriginalUnchanged(original)) {
        return;
    }
    llib::detail::CacheItemDeleteIfUnreferenced(item);
}

unsigned short LSoundCache::GetRefCount(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    return s.references[item];
}

bool LSoundCache::IsInUse(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    return s.inUse[item];
}

unsigned short LSoundCache::ItemNumberGetNextAvailable() {
    CacheState& s = State();
    bool scan = false;
    {
        LMutexLock lock(s.mutex);
        scan = s.scanNeeded;
        s.scanNeeded = false;
    }
    if (scan) {
        std::vector<unsigned short> const found =
            llib::detail::CacheItemsWithFile(kLSoundCacheExtAud);
        {
            LMutexLock lock(s.mutex);
            s.inUse.reset();
            for (unsigned short const n : found) {
                s.inUse[n] = true;
            }
        }
        LSoundCacheItemAnalyzerManager& analyzers = LSoundCacheItemAnalyzerManager::Get();
        for (unsigned short const n : found) {
            if (n <= kLSoundCacheItemLast) {
                analyzers.SignalChange(n);
            }
        }
    }
    LMutexLock lock(s.mutex);
    for (unsigned n = 0; n <= kLSoundCacheItemLast; ++n) {
        if (!s.inUse[n] && s.references[n] == 0) {
            return static_cast<unsigned short>(n);
        }
    }
    return kLSoundCacheItemFailed;
}

unsigned short LSoundCache::ItemCreateNewAndIncRef() {
    CacheState& s = State();
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (attempt == 1) {
            LSoundCacheCleanup(4);
        }
        // Another thread may take the number between the search and the claim; search again
        // until a claim holds.
        for (;;) {
            unsigned short const n = ItemNumberGetNextAvailable();
            if (n == kLSoundCacheItemFailed) {
                break;
            }
            LMutexLock lock(s.mutex);
            if (!s.inUse[n] && s.references[n] == 0) {
                s.inUse[n] = true;
                s.references[n] = 1;
                CountLive(1);
                return n;
            }
        }
    }
    return kLSoundCacheItemFailed;
}

void LSoundCache::SetKept(unsigned short item, bool kept) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    s.kept[item] = kept;
}

bool LSoundCache::IsKept(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    return s.kept[item];
}

void LSoundCache::RegisterItemPath(unsigned short item, char const* prefix) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    s.registered[item] = prefix != nullptr ? prefix : "";
}

void LSoundCache::UnregisterItemPath(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    s.registered.erase(item);
}

std::string LSoundCache::GetFilePath(unsigned short item, char const* ext) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    return PathLocked(s, item, ext);
}

void LSoundCache::GetFilePath(unsigned short item, char* path, char const* ext) {
    if (path != nullptr) {
        LStrCopy(path, kLMaxText, GetFilePath(item, ext).c_str());
    }
}

void LSoundCache::CacheItemDelete(unsigned short item) {
    CacheState& s = State();
    LMutexLock lock(s.mutex);
    DeleteFilesLocked(s, item);
}

void LSoundCache::DeleteCachedFiles() {
    CacheState& s = State();
    for (char const* ext : {kLSoundCacheExtAud, kLSoundCacheExtGrf, kLSoundCacheExtAudInfo,
                            kLSoundCacheExtFft, kLSoundCacheExtMP3Frames}) {
        for (unsigned short const n : llib::detail::CacheItemsWithFile(ext)) {
            if (n > kLSoundCacheItemLast) {
                continue;
            }
            LMutexLock lock(s.mutex);
            if (s.references[n] == 0 && !s.kept[n]) {
                (void)unlink(PathLocked(s, n, ext).c_str());
                s.inUse[n] = false;
            }
        }
    }
}

void LSoundCache::ItemsDelete(long cutoff) {
    for (unsigned short const n : llib::detail::CacheItemsWithFile(kLSoundCacheExtAudInfo)) {
        if (n > kLSoundCacheItemLast || GetRefCount(n) != 0 || IsKept(n)) {
            continue;
        }
        llib::detail::CacheItemInfo info;
        if (llib::detail::CacheItemInfoRead(n, info) && info.lastAccess < cutoff) {
            llib::detail::CacheItemDeleteIfUnreferenced(n);
        }
    }
}
