// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the cache reads from an item's ".audinfo", shared by the cache's own files.

#include "llib/snd/cache.h"

#include <string>
#include <vector>

namespace llib::detail {

struct CacheItemInfo {
    int sampleRate = 0;
    unsigned char channels = 0;
    bool hasOriginal = false;
    LSoundCacheOriginal original;
    long long lastAccess = 0; // seconds since 1970, 0 when never recorded
};

// Reads an ".audinfo" under a shared lock; false when it is missing, locked past the wait, not a
// type-43 file or corrupt.
[[nodiscard]] bool CacheItemInfoReadPath(char const* path, CacheItemInfo& info);
[[nodiscard]] bool CacheItemInfoRead(unsigned short item, CacheItemInfo& info);

// The numbers of every file in the cache folder with `ext` (65534 for names that are not a
// number below 65536).
[[nodiscard]] std::vector<unsigned short> CacheItemsWithFile(char const* ext);
// Deletes the item's files when, under the cache mutex, it has no reference and no kept flag.
void CacheItemDeleteIfUnreferenced(unsigned short item);
// Marks a number whose files exist as in use, so no new item is given it.
void CacheItemMarkInUse(unsigned short item);
// The free space of the cache's volume and the volume's name as shown in messages.
[[nodiscard]] bool CacheFreeSpace(unsigned long long& bytes, std::string& volume);

} // namespace llib::detail
