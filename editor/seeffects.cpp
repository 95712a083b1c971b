// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/seeffects.h"

#include "llib/snd/convertrate.h"
#include "llib/snd/mixsimple.h"
#include "llib/snd/prsourcesink.h"
#include "llib/snd/sinkconvchannels.h"

#include <algorithm>
#include <cmath>
#include <utility>

SESelection SESelectionOf(SEFile const& file) {
    SESelectionState const& state = file.GetSelection();
    SESelection selection;
    selection.start = state.start;
    selection.end = state.end;
    selection.band = state.secondaryInForce;
    selection.lowHz = static_cast<int>(state.secondaryLow);
    selection.highHz = static_cast<int>(state.secondaryHigh);
    return selection;
}

SEEfCutListProcess::SEEfCutListProcess(std::shared_ptr<SEFile> file, SESelection const& selection)
    : m_file(std::move(file)), m_selection(selection) {}

LProcessResult SEEfCutListProcess::ProcessAndInsertCutList(LProcessInterface& process) {
    LCutListAudio& document = m_file->GetAudio();
    SESelection const& s = m_selection;
    if (s.end < s.start || s.start < 0 || s.start > document.GetLengthFrames() ||
        (s.band && s.lowHz > s.highHz)) {
        return LProcessResult::kFailed;
    }
    process.SetStatus(GetEffectName(), 0);
    process.SetStatus("Please Wait...", 1);
    // Past the end the copy would read as silence and lengthen the document.
    long long const end = std::min(s.end, document.GetLengthFrames());
    if (s.band && end > s.start) {
        return ProcessBand(process, end);
    }
    LCutListAudio part;
    document.EfCopy(s.start, end, part);
    LProcessResult const result = ProcessCutList(process, part);
    if (result != LProcessResult::kCompleted) {
        return result;
    }
    return Replace(process, end, part);
}

LProcessResult SEEfCutListProcess::Replace(LProcessInterface& process, long long end,
                                           LCutListAudio const& result) {
    LCutListAudio& document = m_file->GetAudio();
    long long const start = m_selection.start;
    if (result.GetChannels() != document.GetChannels()) {
        // A new channel count is only possible for the whole document.
        if (start != 0 || end != document.GetLengthFrames() || m_selection.band) {
            process.SetError("The number of channels can only change for the whole file.");
            return LProcessResult::kFailed;
        }
        document = result;
        return LProcessResult::kCompleted;
    }
    // The insert would refuse a result that makes the document too long, after the delete had
    // already removed the range; check first so that nothing is lost.
    long long const rest = document.GetLengthFrames() - (end - start);
    if (result.GetLengthFrames() > kLCutListMaxFrames - rest) {
        process.SetError("The result would be longer than the longest file Tessel can edit.");
        return LProcessResult::kFailed;
    }
    document.EfDelete(start, end);
    document.EfInsert(start, result);
    return LProcessResult::kCompleted;
}

LProcessResult SEEfCutListProcess::ProcessBand(LProcessInterface& process, long long end) {
    LCutListAudio const& document = m_file->GetAudio();
    SESelection band = m_selection;
    band.end = end;
    LCutListAudio part;
    LProcessResult result = band.Trim(process, document, part);
    if (result != LProcessResult::kCompleted) {
        return result;
    }
    result = ProcessCutList(process, part);
    if (result != LProcessResult::kCompleted) {
        return result;
    }
    // The rest of the range: the same frames with the band 60 dB down. The band-pass and this
    // band stop add up to the input, so an effect that changes nothing changes nothing here.
    LCutListAudio range;
    document.EfCopy(band.start, end, range);
    LSPEq stop;
    SEBandStopCurve(band.lowHz, band.highHz).MapPointListToEq(stop, range.GetSampleRate());
    LSoundSource rangeSource = range.OpenSource();
    LSoundSource stopped = stop.OpenSource(rangeSource);
    LCutListAudio removed;
    result = SERenderToCutList(process, stopped, "Selection to Audio", removed);
    if (result != LProcessResult::kCompleted) {
        return result == LProcessResult::kStopped ? result : LProcessResult::kFailed;
    }
    LSoundSource removedSource = removed.OpenSource();
    LSoundSource mix = LSPMixSimple(part.OpenSource()).OpenSource(removedSource);
    LCutListAudio mixed;
    result = SERenderToCutList(process, mix, "Paste Over Selection", mixed);
    if (result != LProcessResult::kCompleted) {
        return result;
    }
    return Replace(process, end, mixed);
}

namespace {
// How far the band stop takes the band down.
constexpr double kBandStopDb = -60.0;
} // namespace

LPointList SEBandStopCurve(int lowHz, int highHz) {
    LPointList curve;
    curve.Add(10.0, 0.0);
    curve.Add(lowHz - 1.0, 0.0);
    curve.Add(lowHz, kBandStopDb);
    curve.Add(highHz, kBandStopDb);
    curve.Add(highHz + 1.0, 0.0);
    curve.Add(20000.0, 0.0);
    return curve;
}

LSoundSource SESelection::OpenTrimmedSource(LCutListAudio const& document) const {
    LCutListAudio range;
    document.EfCopy(start, std::min(end, document.GetLengthFrames()), range);
    LSoundSource source = range.OpenSource();
    if (!band) {
        return source;
    }
    // The complement of the band stop, scaled so that the band itself passes at full level:
    // stop + pass is then 1 outside the band and 1.001 inside it.
    LSPEq stop;
    SEBandStopCurve(lowHz, highHz).MapPointListToEq(stop, document.GetSampleRate());
    float const inside = static_cast<float>(std::pow(10.0, kBandStopDb / 20.0));
    std::vector<float> gains(stop.GetResponse().begin(), stop.GetResponse().end());
    for (float& gain : gains) {
        gain = std::clamp((1.0f - gain) / (1.0f - inside), 0.0f, 1.0f);
    }
    LSPEq pass;
    pass.SetResponse(stop.GetRateHz(), std::move(gains));
    return pass.OpenSource(source);
}

LProcessResult SESelection::Trim(LProcessInterface& process, LCutListAudio const& document,
                                 LCutListAudio& out) const {
    LSoundSource source = OpenTrimmedSource(document);
    return SERenderToCutList(process, source, "Selection to Audio", out);
}

LProcessResult SERenderToCutList(LProcessInterface& process, LSoundSource& source,
                                 char const* title, LCutListAudio& out) {
    out.Clear();
    out.SetSampleRate(source->GetSampleRate());
    out.SetChannels(source->GetChannels());
    LProcessResult result = LProcessResult::kFailed;
    {
        LSoundSink sink = out.OpenSink(source->GetSampleRate(), source->GetChannels(), title);
        LPRSourceToSink copy(title, source, sink, false);
        result = Process(process, copy);
        if (result == LProcessResult::kCompleted && !sink->Finish()) {
            result = LProcessResult::kFailed;
        }
    }
    if (result != LProcessResult::kCompleted) {
        out.Clear();
    }
    return result;
}

LSoundSource SEEfSoundSourceProcess::OpenSource(LProcessInterface& process, LSoundSource& input) {
    (void)process;
    return OpenSource(input);
}

LProcessResult SEEfSoundSourceProcess::ProcessCutList(LProcessInterface& process,
                                                      LCutListAudio& part) {
    LSoundSource input = part.OpenSource();
    if (process.IsToStop()) {
        return LProcessResult::kStopped;
    }
    LSoundSource effect = OpenSource(process, input);
    if (process.IsToStop()) {
        return LProcessResult::kStopped;
    }
    if (effect->GetError() != LSoundSourceErrorCode::kNone) {
        return LProcessResult::kFailed;
    }
    LCutListAudio result;
    LProcessResult const r = SERenderToCutList(process, effect, GetEffectName(), result);
    if (r == LProcessResult::kCompleted) {
        part = std::move(result);
    }
    return r;
}

LProcessResult SEEfDelete::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    (void)process;
    long long const frames = part.GetLengthFrames();
    part.EfDelete(0, frames);
    if (m_selection.band) {
        part.EfInsertSilence(0, frames);
    }
    return LProcessResult::kCompleted;
}

LProcessResult SEEfSilence::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    (void)process;
    long long const frames = part.GetLengthFrames();
    part.EfDelete(0, frames);
    part.EfInsertSilence(0, frames);
    return LProcessResult::kCompleted;
}

SEEfAmplify::SEEfAmplify(std::shared_ptr<SEFile> file, SESelection const& selection, float gain)
    : SEEfCutListProcess(std::move(file), selection), m_gain(gain) {}

LProcessResult SEEfAmplify::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    (void)process;
    part.EfGain(m_gain);
    return LProcessResult::kCompleted;
}

LProcessResult
SEScanCutList(LProcessInterface& process, LCutListAudio const& part,
              std::function<void(float const* samples, long long frames)> const& block) {
    constexpr long long kBlockFrames = 16384;
    LSoundSource source = part.OpenSource();
    if (source->GetError() != LSoundSourceErrorCode::kNone) {
        return LProcessResult::kFailed;
    }
    long long const total = part.GetLengthFrames();
    std::vector<float> samples(static_cast<std::size_t>(kBlockFrames) * part.GetChannels());
    for (long long done = 0; done < total;) {
        long long const frames = std::min(kBlockFrames, total - done);
        source->Read(samples.data(), frames);
        block(samples.data(), frames);
        done += frames;
        process.SetProgress(static_cast<double>(done) / static_cast<double>(total));
        if (process.IsToStop()) {
            return LProcessResult::kStopped;
        }
    }
    return LProcessResult::kCompleted;
}

SEEfNormalize::SEEfNormalize(std::shared_ptr<SEFile> file, SESelection const& selection,
                             float targetPeak)
    : SEEfCutListProcess(std::move(file), selection), m_targetPeak(targetPeak) {}

LProcessResult SEEfNormalize::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    process.SetStatus("Finding the peak...", 1);
    float peak = 0.0f;
    LProcessResult const result =
        SEScanCutList(process, part, [&peak, &part](float const* samples, long long frames) {
            std::size_t const values = static_cast<std::size_t>(frames) * part.GetChannels();
            float high = peak;
            for (std::size_t i = 0; i < values; ++i) {
                high = std::max(high, std::abs(samples[i]));
            }
            peak = high;
        });
    if (result != LProcessResult::kCompleted) {
        return result;
    }
    if (peak > 0.0f && std::isfinite(peak)) {
        part.EfGain(m_targetPeak / peak);
    }
    return LProcessResult::kCompleted;
}

LProcessResult SEDCOffsetCorrection::ProcessCutList(LProcessInterface& process,
                                                    LCutListAudio& part) {
    process.SetStatus("Measuring the offset...", 1);
    unsigned const channels = part.GetChannels();
    std::vector<double> sums(channels, 0.0);
    LProcessResult result =
        SEScanCutList(process, part, [&sums, channels](float const* samples, long long frames) {
            for (unsigned c = 0; c < channels; ++c) {
                double sum = 0.0;
                for (long long f = 0; f < frames; ++f) {
                    sum += samples[static_cast<std::size_t>(f) * channels + c];
                }
                sums[c] += sum;
            }
        });
    if (result != LProcessResult::kCompleted || part.GetLengthFrames() == 0) {
        return result;
    }
    std::vector<float> offsets(channels);
    bool any = false;
    for (unsigned c = 0; c < channels; ++c) {
        offsets[c] = static_cast<float>(-sums[c] / static_cast<double>(part.GetLengthFrames()));
        any = any || offsets[c] != 0.0f;
    }
    if (!any) {
        return LProcessResult::kCompleted;
    }
    process.SetStatus("Please Wait...", 1);
    LSoundSource input = part.OpenSource();
    LSoundSource corrected = LMakeSource<LSRCDCOffset>(input, std::move(offsets));
    LCutListAudio out;
    result = SERenderToCutList(process, corrected, GetEffectName(), out);
    if (result == LProcessResult::kCompleted) {
        part = std::move(out);
    }
    return result;
}

SEEfStereoPan::SEEfStereoPan(std::shared_ptr<SEFile> file, SESelection const& selection,
                             LSPPan const& pan)
    : SEEfSoundSourceProcess(std::move(file), selection), m_pan(pan) {}

SEEfConvertChannels::SEEfConvertChannels(std::shared_ptr<SEFile> file, unsigned char channels)
    : SEEfSoundSourceProcess(file, SESelection{0, file->GetAudio().GetLengthFrames(), 0, 0, false}),
      m_channels(channels) {}

LSoundSource SEEfConvertChannels::OpenSource(LSoundSource& input) {
    return LSPConvChannels(m_channels).OpenSource(input);
}

SEEfEffectChain::SEEfEffectChain(std::shared_ptr<SEFile> file, SESelection const& selection,
                                 std::shared_ptr<LSoundProcessMulti const> chain)
    : SEEfSoundSourceProcess(std::move(file), selection), m_chain(std::move(chain)) {}

SEEfEnvelope::SEEfEnvelope(std::shared_ptr<SEFile> file, SESelection const& selection,
                           LSPEnvelope const& envelope, char const* name)
    : SEEfSoundSourceProcess(std::move(file), selection), m_envelope(envelope), m_name(name) {}

LSPEnvelope SEFadeEnvelope(bool in, long long frames, LEnvelopeShape shape) {
    LSPEnvelope envelope;
    envelope.SetShape(shape);
    envelope.AddPoint(0, in ? 0.0f : 1.0f);
    envelope.AddPoint(frames, in ? 1.0f : 0.0f);
    return envelope;
}

LProcessResult SEEfReverse::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    constexpr long long kBlockFrames = 8192;
    LSoundSource source = part.OpenSource();
    if (source->GetError() != LSoundSourceErrorCode::kNone) {
        return LProcessResult::kFailed;
    }
    unsigned const channels = part.GetChannels();
    long long const total = part.GetLengthFrames();
    LCutListAudio result;
    result.SetSampleRate(part.GetSampleRate());
    result.SetChannels(part.GetChannels());
    std::vector<float> block(static_cast<std::size_t>(kBlockFrames) * channels);
    LProcessResult outcome = LProcessResult::kCompleted;
    {
        LSoundSink sink = result.OpenSink(part.GetSampleRate(), part.GetChannels(), "Reverse");
        // Read through the reversing source rather than the copy, which would limit peaks:
        // reversing must give back every value as it was, whatever its level.
        LSoundSource reversed = LMakeSource<LSRCReverse>(source);
        reversed->Seek(0);
        for (long long end = total; end > 0 && outcome == LProcessResult::kCompleted;) {
            long long const frames = std::min(kBlockFrames, end);
            long long const start = end - frames;
            reversed->Read(block.data(), frames);
            sink->Write(block.data(), frames);
            end = start;
            if (sink->IsFailed()) {
                outcome = LProcessResult::kFailed;
            } else if (process.IsToStop()) {
                outcome = LProcessResult::kStopped;
            }
            process.SetProgress(static_cast<double>(total - end) / static_cast<double>(total));
        }
        if (outcome == LProcessResult::kCompleted && !sink->Finish()) {
            outcome = LProcessResult::kFailed;
        }
    }
    if (outcome == LProcessResult::kCompleted) {
        part = std::move(result);
    }
    return outcome;
}

SEEfEditSamples::SEEfEditSamples(std::shared_ptr<SEFile> file, SESelection const& selection,
                                 std::vector<SESamplePoint> points)
    : SEEfCutListProcess(std::move(file), selection), m_points(std::move(points)) {}

LProcessResult SEEfEditSamples::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    long long const frames = part.GetLengthFrames();
    if (frames * part.GetChannels() > kMaxSamples) {
        process.SetError("The selection is too long to draw samples in. Zoom in and select a "
                         "shorter range.");
        return LProcessResult::kFailed;
    }
    unsigned const channels = part.GetChannels();
    std::vector<float> samples(static_cast<std::size_t>(frames) * channels);
    LSoundSource source = part.OpenSource();
    source->Read(samples.data(), frames);
    for (SESamplePoint const& point : m_points) {
        if (point.position < 0 || point.position >= frames) {
            continue;
        }
        auto const at = samples.begin() + point.position * channels;
        std::fill(at, at + channels, point.value);
    }
    LCutListAudio result;
    result.SetSampleRate(part.GetSampleRate());
    result.SetChannels(part.GetChannels());
    bool ok = false;
    {
        LSoundSink sink = result.OpenSink(part.GetSampleRate(), part.GetChannels(), "Edit Samples");
        sink->Write(samples.data(), frames);
        ok = sink->Finish();
    }
    if (!ok) {
        return LProcessResult::kFailed;
    }
    part = std::move(result);
    return LProcessResult::kCompleted;
}

SEEfPasteOver::SEEfPasteOver(std::shared_ptr<SEFile> file, SESelection const& selection,
                             LCutListAudio const& clip)
    : SEEfCutListProcess(std::move(file), selection), m_clip(clip) {}

LProcessResult SEEfPasteOver::ProcessCutList(LProcessInterface& process, LCutListAudio& part) {
    LCutListAudio const& document = m_file->GetAudio();
    if (m_clip.GetSampleRate() == document.GetSampleRate() &&
        m_clip.GetChannels() == document.GetChannels()) {
        part = m_clip;
        return LProcessResult::kCompleted;
    }
    // A clip from a document of another format is converted once, into new cache audio.
    LSoundSource source = m_clip.OpenSource();
    LSPConvertSourceRateChannels(document.GetSampleRate(), document.GetChannels(), source);
    LCutListAudio converted;
    LProcessResult const result =
        SERenderToCutList(process, source, "Converting the clip...", converted);
    if (result == LProcessResult::kCompleted) {
        part = std::move(converted);
    }
    return result;
}
