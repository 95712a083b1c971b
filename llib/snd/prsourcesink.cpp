// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/prsourcesink.h"

#include "llib/snd/crossmix.h"
#include "llib/snd/peaklimit.h"
#include "llib/snd/sinkconvchannels.h"

#include <algorithm>
#include <memory>
#include <new>

namespace {

constexpr long long kBlocksPerPass = 10;
constexpr int kAgreementsToTrust = 10;

enum class EndTracking : unsigned char { kVerify, kRecount, kTrust };

} // namespace

LProcessResult Process(LProcessInterface& process, LPRSourceToSink& data) {
    process.SetStatus(data.title != nullptr ? data.title : "", 0);
    process.SetStatus("Please wait...", 1);
    process.SetProgress(0.0);

    if (process.IsToStop()) {
        return LProcessResult::kStopped;
    }
    if (!data.source->IsOk() || data.sink->IsFailed()) {
        return LProcessResult::kFailed;
    }

    LSoundSink const sink = data.sink;
    LSoundSource chain = data.source;
    LSPConvertSourceRateChannels(sink->GetSampleRate(), sink->GetChannels(), chain);
    chain = LSPPeakLimit(kLPeakLimit16Bit).OpenSource(chain);

    long long end = chain->GetEndSample();
    long long remaining = end - chain->GetPositionSample();
    if (data.crossMix) {
        int const rate = chain->GetSampleRate();
        long long const mixFrames = rate <= 19 ? 1 : std::min(remaining / 10, rate / 10LL);
        chain = LSPCrossMix(data.crossMixSource, mixFrames).OpenSource(chain);
        end = chain->GetEndSample();
        remaining = end - chain->GetPositionSample();
    }

    unsigned const channels = chain->GetChannels();
    long long blocksPerPass = kBlocksPerPass;
    std::unique_ptr<float[]> buffer(new (std::nothrow) float[static_cast<std::size_t>(
        channels * kBlocksPerPass * kLSoundBlockFrames)]);
    if (!buffer) {
        blocksPerPass = 1;
        buffer.reset(
            new (std::nothrow) float[static_cast<std::size_t>(channels * kLSoundBlockFrames)]);
        if (!buffer) {
            process.SetError("Not enough memory to copy the audio.");
            return LProcessResult::kFailed;
        }
    }

    if (remaining < 1) {
        return LProcessResult::kCompleted;
    }

    double const step = static_cast<double>(blocksPerPass * kLSoundBlockFrames) / remaining;
    double progress = 0.0;
    EndTracking tracking = EndTracking::kVerify;
    int agreements = 0;
    long long blockFrames[kBlocksPerPass] = {};

    for (;;) {
        if (process.IsToStop()) {
            return LProcessResult::kStopped;
        }
        // Read phase: fill up to a pass of blocks.
        long long blocks = 0;
        long long left = remaining;
        while (blocks < blocksPerPass && left >= 1) {
            long long const n = std::min(left, kLSoundBlockFrames);
            chain->Read(buffer.get() + blocks * kLSoundBlockFrames * channels, n);
            blockFrames[blocks++] = n;
            left -= n;
            if (process.IsToStop()) {
                return LProcessResult::kStopped;
            }
        }
        // Write phase: the same blocks in order.
        for (long long b = 0; b < blocks; ++b) {
            sink->Write(buffer.get() + b * kLSoundBlockFrames * channels, blockFrames[b]);
            remaining -= blockFrames[b];
            if (process.IsToStop()) {
                return LProcessResult::kStopped;
            }
            if (sink->IsFailed()) {
                return LProcessResult::kFailed;
            }
        }
        process.SetProgress(progress);

        // End tracking: a source whose end moves is followed to its real end; one that agrees
        // with the count ten passes running is trusted, and then only asked for its end.
        switch (tracking) {
        case EndTracking::kVerify:
            if (chain->GetEndSample() - chain->GetPositionSample() != remaining) {
                tracking = EndTracking::kRecount;
                remaining = chain->GetEndSample() - chain->GetPositionSample();
            } else if (++agreements >= kAgreementsToTrust) {
                tracking = EndTracking::kTrust;
            }
            break;
        case EndTracking::kRecount:
            remaining = chain->GetEndSample() - chain->GetPositionSample();
            break;
        case EndTracking::kTrust:
            if (long long const newEnd = chain->GetEndSample(); newEnd != end) {
                end = newEnd;
                remaining = newEnd - chain->GetPositionSample();
            }
            break;
        }

        progress += step;
        if (remaining < 1) {
            return LProcessResult::kCompleted;
        }
    }
}
