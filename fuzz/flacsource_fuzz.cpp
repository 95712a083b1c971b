// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as a FLAC file: open it as a source and read it to its end (at most a bounded number
// of frames, as STREAMINFO may claim billions of samples that are not there) in fixed chunks,
// seek back to a third and read again, then read its header summary. Nothing may crash, leak,
// loop without end or allocate from an unchecked size.
#include "llib/snd/flacfile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr long long kChunkFrames = 4096;
constexpr long long kMaxFrames = 1 << 18;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    // A memory file, reopened by its /proc name: the reader opens paths.
    int const fd = memfd_create("flac", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    {
        LSoundSource source = LFLACFile::OpenSource(path);
        std::vector<float> buffer(static_cast<std::size_t>(kChunkFrames) * source->GetChannels());
        long long const end = std::min(source->GetEndSample(), kMaxFrames);
        for (int pass = 0; pass < 2; ++pass) {
            source->Seek(pass == 0 ? 0 : end / 3);
            for (long long done = 0; done < end + 1; done += kChunkFrames) {
                source->Read(buffer.data(), kChunkFrames);
            }
        }
    }
    LFLACFileInfo info;
    (void)LFLACFile::GetInfo(path, info);
    close(fd);
    return 0;
}
