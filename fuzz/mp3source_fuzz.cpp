// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as an MP3 file, and as the data chunk of a WAV file of format tag 85 (which decodes
// ahead on a thread): open it as a source and read it to its end (at most a bounded number of
// frames, as a VBR header may claim billions that are not there) in fixed chunks, then seek to
// three positions the input's last bytes pick and read again, then read its header summary.
// Nothing may crash, leak, loop without end or allocate from an unchecked size, and when the
// whole read lost no frame, each read after a seek must equal the whole read bit for bit.
#include "llib/snd/mp3file.h"
#include "llib/snd/wavefile.h"

#include "memoryfile.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr long long kChunkFrames = 4096;
constexpr long long kMaxFrames = 1 << 20;

void ReadAndSeek(LSoundSource const& source, std::uint8_t const* data, std::size_t size) {
    auto const channels = static_cast<long long>(source->GetChannels());
    long long const end = std::min(source->GetEndSample(), kMaxFrames);
    std::vector<float> whole(static_cast<std::size_t>((end + kChunkFrames) * channels));
    for (long long done = 0; done < end; done += kChunkFrames) {
        source->Read(whole.data() + done * channels, kChunkFrames);
    }
    bool const intact = LMP3File::GetLostFrames(source) == 0;
    std::vector<float> again(static_cast<std::size_t>(kChunkFrames * channels));
    for (std::size_t k = 1; k <= 3 && k <= size; ++k) {
        long long const at = end * data[size - k] / 256;
        source->Seek(at);
        source->Read(again.data(), kChunkFrames);
        auto const bytes = static_cast<std::size_t>(std::min(kChunkFrames, end - at) * channels);
        if (intact &&
            std::memcmp(again.data(), whole.data() + at * channels, bytes * sizeof(float)) != 0) {
            std::abort();
        }
    }
}

void PutU32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    char path[64];
    int fd = LFuzzMemoryFile({}, data, size, path);
    ReadAndSeek(LMP3File::OpenSource(path, false), data, size);
    LMP3FileInfo info;
    (void)LMP3File::GetInfo(path, info);
    close(fd);

    // RIFF, WAVE, a 16-byte fmt chunk (tag 85, stereo, 44.1 kHz, 16 kB/s) and the data chunk.
    std::vector<unsigned char> wav(44);
    std::memcpy(wav.data(), "RIFF....WAVEfmt \x10\0\0\0\x55\0\x02\0", 24);
    std::memcpy(wav.data() + 36, "data", 4);
    PutU32(&wav[4], static_cast<std::uint32_t>(36 + size));
    PutU32(&wav[24], 44100);
    PutU32(&wav[28], 16000);
    wav[32] = 1;
    PutU32(&wav[40], static_cast<std::uint32_t>(size));
    fd = LFuzzMemoryFile(wav, data, size, path);
    ReadAndSeek(LWaveFile::OpenSource(path), data, size);
    close(fd);
    return 0;
}
