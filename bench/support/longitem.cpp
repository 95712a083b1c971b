// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/support/longitem.h"

#include "bench/support/benchsources.h"
#include "llib/snd/cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

constexpr int kRateHz = kBenchLongItemRateHz;
constexpr unsigned char kChannels = kBenchLongItemChannels;

// The ".grf" record of one group of interleaved samples.
void PutRecord(std::vector<unsigned char>& grf, long long group, float const* high,
               float const* low) {
    for (unsigned c = 0; c < kChannels; ++c) {
        std::uint16_t const codes[2] = {LSoundCacheGrfCode(high[c]), LSoundCacheGrfCode(low[c])};
        unsigned char* const at = grf.data() + (group * kChannels + c) * kLSoundCacheGrfRecordBytes;
        for (int k = 0; k < 2; ++k) {
            at[2 * k] = static_cast<unsigned char>(codes[k] & 0xff);
            at[2 * k + 1] = static_cast<unsigned char>(codes[k] >> 8);
        }
    }
}

bool WriteWhole(char const* ext, unsigned short item, void const* data, std::size_t bytes,
                long long offset, long long size) {
    int const fd = open(LSoundCache::GetFilePath(item, ext).c_str(), O_WRONLY | O_CLOEXEC);
    bool ok = fd >= 0 && ftruncate(fd, size) == 0 &&
              pwrite(fd, data, bytes, offset) == static_cast<ssize_t>(bytes);
    ok = fd >= 0 && close(fd) == 0 && ok;
    return ok;
}

} // namespace

unsigned short MakeBenchLongItem(long long frames, long long realFrames) {
    unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
    if (item > kLSoundCacheItemLast) {
        return kLSoundCacheItemNone;
    }
    {
        // A real item of one frame: the cache's own ".audinfo" and files, then stretched.
        LSoundSink sink = LMakeSink<LSoundCacheSink>(item, kRateHz, kChannels);
        float const frame[kChannels] = {};
        sink->Write(frame, 1);
        if (!sink->Finish()) {
            return kLSoundCacheItemNone;
        }
    }
    long long const groups = (frames + kLSoundCacheGrfFrames - 1) / kLSoundCacheGrfFrames;
    long long const realStart = frames / 2 - realFrames / 2;
    std::vector<float> const real = MakeBenchNoise(realFrames * kChannels, 0.7f, 5);
    std::vector<unsigned char> grf(
        static_cast<std::size_t>(groups * kChannels * kLSoundCacheGrfRecordBytes));
    for (long long g = 0; g < groups; ++g) {
        float const swell = 0.05f + 0.6f * static_cast<float>(std::fabs(std::sin(g / 3000.0)));
        float const high[kChannels] = {swell, swell * 0.8f};
        float const low[kChannels] = {-swell * 0.9f, -swell};
        PutRecord(grf, g, high, low);
    }
    for (long long f = 0; f < realFrames; f += kLSoundCacheGrfFrames) {
        float high[kChannels] = {};
        float low[kChannels] = {};
        for (long long i = f * kChannels; i < (f + kLSoundCacheGrfFrames) * kChannels; ++i) {
            high[i % kChannels] = std::max(high[i % kChannels], real[static_cast<std::size_t>(i)]);
            low[i % kChannels] = std::min(low[i % kChannels], real[static_cast<std::size_t>(i)]);
        }
        PutRecord(grf, (realStart + f) / kLSoundCacheGrfFrames, high, low);
    }
    long long const frameBytes = kChannels * static_cast<long long>(sizeof(float));
    if (!WriteWhole(kLSoundCacheExtAud, item, real.data(), real.size() * sizeof(float),
                    realStart * frameBytes, frames * frameBytes) ||
        !WriteWhole(kLSoundCacheExtGrf, item, grf.data(), grf.size(), 0,
                    static_cast<long long>(grf.size()))) {
        LSoundCache::DecRef(item);
        return kLSoundCacheItemNone;
    }
    return item;
}
