// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as a WAV file: open it as a source and read it to its end (at most a bounded number of
// frames, as a header may claim gigabytes that are not there) in fixed chunks, seek back and read
// again, and ask for its codec name and its summary. Nothing may crash, leak or allocate from an
// unchecked size.
#include "llib/gen/stringlong.h"
#include "llib/snd/wavefile.h"

#include "memoryfile.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr long long kChunkFrames = 4096;
constexpr long long kMaxFrames = 1 << 18;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    char path[64];
    int const fd = LFuzzMemoryFile({}, data, size, path);
    {
        LSoundSource source = LWaveFile::OpenSource(path);
        std::vector<float> buffer(static_cast<std::size_t>(kChunkFrames) * source->GetChannels());
        long long const end = std::min(source->GetEndSample(), kMaxFrames);
        for (int pass = 0; pass < 2; ++pass) {
            source->Seek(pass == 0 ? 0 : end / 3 - 1);
            for (long long done = 0; done < end + 1; done += kChunkFrames) {
                source->Read(buffer.data(), kChunkFrames);
            }
        }
    }
    char name[kLMaxText];
    (void)LGetWaveFileCodecName(path, name);
    LWaveFileInfo info;
    (void)LWaveFileInfoGet(path, info);
    close(fd);
    return 0;
}
