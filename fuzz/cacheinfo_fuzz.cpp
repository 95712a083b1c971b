// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as an item's ".audinfo" and as an update merged into it: reading the information,
// the original file's details and the analyzers' chunks must fail cleanly, and a merge must
// leave a file that reads back (or leave the update refused).
#include "llib/gen/filestream.h"
#include "llib/gen/sdf.h"
#include "llib/snd/cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr unsigned short kItem = 1;

void WriteInfo(std::uint8_t const* data, std::size_t size) {
    std::string const path = LSoundCache::GetFilePath(kItem, kLSoundCacheExtAudInfo);
    int const fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string folder = "/tmp/tessel-fuzz-cacheinfo-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr) {
        std::abort();
    }
    LSoundCache::SetFolder(folder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    // As the information file itself.
    WriteInfo(data, size);
    int rate = 0;
    unsigned char channels = 0;
    std::string const path = LSoundCache::GetFilePath(kItem, kLSoundCacheExtAudInfo);
    (void)LSoundCacheItemAudioInfoGet(path.c_str(), rate, channels);
    LSoundCacheOriginal original;
    (void)LSoundCacheItemOriginalGet(kItem, original);
    (void)LSoundCacheItemAnalyzerChunkExists(kItem, 100);
    (void)LSoundCacheItemLengthGet(kItem);
    // Merged into itself as an update: whatever is accepted must leave a readable file.
    LSizedArray<unsigned char> update;
    if (!update.Allocate(size)) {
        return 0;
    }
    if (size > 0) {
        std::memcpy(update.GetData(), data, size);
    }
    if (LSoundCacheItemInfoUpdate(kItem, update, false)) {
        std::string const merged = path;
        LInputStreamFile stream;
        LSDFReader<LInputStreamFile> reader;
        if (!stream.Open(merged.c_str()) || !reader.Open(stream, kLSDFFileCacheItemInfo)) {
            std::abort();
        }
        LSDFReaderChunkIterator<LInputStreamFile> chunk(reader);
        while (chunk.StartNextChunk()) {
        }
        if (!reader.IsOk()) {
            std::abort();
        }
    }
    return 0;
}
