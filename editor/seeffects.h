// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The editor's effects: each changes the selected part of one document. The driver
// (ProcessAndInsertCutList) copies the selected range out as a cut list of its own, lets the
// effect process that copy, and only when that succeeded puts the result in place of the range
// with two cut-list primitives (delete the range, insert the result at its start). So a stopped
// or failed effect never touches the document's audio, and a pure rearrangement copies no
// sample.

#include "editor/sefile.h"
#include "llib/gen/process.h"
#include "llib/snd/amplitude.h"
#include "llib/snd/cutlistaudio.h"
#include "llib/snd/equalizer.h"
#include "llib/snd/soundprocessmulti.h"
#include "llib/snd/soundsource.h"

#include <functional>
#include <memory>
#include <vector>

// The part of a document an effect works on: frames [start, end) of every channel, or, with
// `band`, only the frequencies between `lowHz` and `highHz` of that range.
struct SESelection {
    long long start = 0;
    long long end = 0;
    int lowHz = 0;
    int highHz = 0;
    bool band = false;

    [[nodiscard]] bool IsEmpty() const { return start == end; }
    [[nodiscard]] long long GetLength() const { return end - start; }

    // The band alone of `document`'s frames [start, end): the frequencies outside it taken out.
    // Without a band, those frames as they are.
    [[nodiscard]] LSoundSource OpenTrimmedSource(LCutListAudio const& document) const;
    // That audio rendered into `out` (new cache audio at the document's rate and channels).
    [[nodiscard]] LProcessResult Trim(LProcessInterface& process, LCutListAudio const& document,
                                      LCutListAudio& out) const;
};

// The curve that takes a band out: 0 dB outside [lowHz, highHz], -60 dB inside, with 1 Hz steps.
[[nodiscard]] LPointList SEBandStopCurve(int lowHz, int highHz);

// The selection a document holds, as an effect sees it.
[[nodiscard]] SESelection SESelectionOf(SEFile const& file);

class SEEfCutListProcess {
public:
    SEEfCutListProcess(std::shared_ptr<SEFile> file, SESelection const& selection);
    virtual ~SEEfCutListProcess() = default;
    SEEfCutListProcess(SEEfCutListProcess const&) = delete;
    SEEfCutListProcess& operator=(SEEfCutListProcess const&) = delete;

    // The progress display's title and the undo description.
    [[nodiscard]] virtual char const* GetEffectName() const = 0;
    // Processes `part` (the selected range, as a list of its own) in place. On anything but
    // kCompleted `part` is thrown away.
    [[nodiscard]] virtual LProcessResult ProcessCutList(LProcessInterface& process,
                                                        LCutListAudio& part) = 0;

    // The driver: an invalid selection fails with kFailed before anything is done; otherwise the
    // document's audio changes only when ProcessCutList completed.
    [[nodiscard]] LProcessResult ProcessAndInsertCutList(LProcessInterface& process);

    [[nodiscard]] SESelection const& GetSelection() const { return m_selection; }
    [[nodiscard]] SEFile& GetFile() const { return *m_file; }

protected:
    std::shared_ptr<SEFile> m_file;
    SESelection m_selection;

private:
    // The frequency-band form of the driver: the band is taken out of the range, the processed
    // band mixed back in, and the range replaced by the mix.
    [[nodiscard]] LProcessResult ProcessBand(LProcessInterface& process, long long end);
    [[nodiscard]] LProcessResult Replace(LProcessInterface& process, long long end,
                                         LCutListAudio const& result);
};

// Effects that are a transforming source: the part is read through the source OpenSource builds
// and rendered into new cache audio at the part's rate and channel count.
class SEEfSoundSourceProcess : public SEEfCutListProcess {
public:
    using SEEfCutListProcess::SEEfCutListProcess;
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;
    // The effect's source over `input`; the default calls the one-argument form. A subclass that
    // overrides one form brings in the other with a using-declaration (the build warns about a
    // hidden overload).
    [[nodiscard]] virtual LSoundSource OpenSource(LProcessInterface& process, LSoundSource& input);
    [[nodiscard]] virtual LSoundSource OpenSource(LSoundSource& input) { return input; }
};

// Removes the part; for a frequency band the part becomes silence of its length, so that mixing
// it back removes only the band.
class SEEfDelete final : public SEEfCutListProcess {
public:
    using SEEfCutListProcess::SEEfCutListProcess;
    [[nodiscard]] char const* GetEffectName() const override { return "Delete"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;
};

// Replaces the part by silence of the same length.
class SEEfSilence final : public SEEfCutListProcess {
public:
    using SEEfCutListProcess::SEEfCutListProcess;
    [[nodiscard]] char const* GetEffectName() const override { return "Edit Silence"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;
};

// Changes the part's level by a factor through its segments' gains: nothing is rendered, so
// amplifying an hour costs what amplifying a second does.
class SEEfAmplify final : public SEEfCutListProcess {
public:
    SEEfAmplify(std::shared_ptr<SEFile> file, SESelection const& selection, float gain);
    [[nodiscard]] char const* GetEffectName() const override { return "Amplify"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;

private:
    float m_gain;
};

// Brings the part's highest peak (over all channels) to `targetPeak`, a factor of full scale,
// through the segments' gains like amplify. A silent part is left as it is.
class SEEfNormalize final : public SEEfCutListProcess {
public:
    SEEfNormalize(std::shared_ptr<SEFile> file, SESelection const& selection, float targetPeak);
    [[nodiscard]] char const* GetEffectName() const override { return "Normalize"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;

private:
    float m_targetPeak;
};

// Takes each channel's mean value out of the part, so that it swings around zero.
class SEDCOffsetCorrection final : public SEEfCutListProcess {
public:
    using SEEfCutListProcess::SEEfCutListProcess;
    [[nodiscard]] char const* GetEffectName() const override { return "DC Offset Correction"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;
};

// Reads `part` from its start in blocks under the progress display, handing each block
// (interleaved, `frames` frames) to `block`. kStopped when the user stopped it.
[[nodiscard]] LProcessResult
SEScanCutList(LProcessInterface& process, LCutListAudio const& part,
              std::function<void(float const* samples, long long frames)> const& block);

// A volume envelope over the part, positions counted from its start: the fades and the drawn
// envelope. Rendered through the envelope's source.
class SEEfEnvelope final : public SEEfSoundSourceProcess {
public:
    SEEfEnvelope(std::shared_ptr<SEFile> file, SESelection const& selection,
                 LSPEnvelope const& envelope, char const* name);
    using SEEfSoundSourceProcess::OpenSource;
    [[nodiscard]] char const* GetEffectName() const override { return m_name; }
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override {
        return m_envelope.OpenSource(input);
    }

private:
    LSPEnvelope m_envelope;
    char const* m_name;
};

// The envelope of a fade over `frames`: in rises from silence to the audio's level, out falls
// from it to silence.
[[nodiscard]] LSPEnvelope SEFadeEnvelope(bool in, long long frames, LEnvelopeShape shape);

// Moves a stereo part between the channels along a pan line (positions from the part's start).
class SEEfStereoPan final : public SEEfSoundSourceProcess {
public:
    SEEfStereoPan(std::shared_ptr<SEFile> file, SESelection const& selection, LSPPan const& pan);
    using SEEfSoundSourceProcess::OpenSource;
    [[nodiscard]] char const* GetEffectName() const override { return "Stereo Pan"; }
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override {
        return m_pan.OpenSource(input);
    }

private:
    LSPPan m_pan;
};

// Changes the whole document's channel count: join channels mixes them into one, convert to
// stereo spreads one channel onto two. Only a selection of the whole document can change its
// channel count, so these run on the whole document.
class SEEfConvertChannels final : public SEEfSoundSourceProcess {
public:
    SEEfConvertChannels(std::shared_ptr<SEFile> file, unsigned char channels);
    using SEEfSoundSourceProcess::OpenSource;
    [[nodiscard]] char const* GetEffectName() const override {
        return m_channels == 1 ? "Join Channels" : "Convert to Stereo";
    }
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;

private:
    unsigned char m_channels;
};

// Every effect of a chain in order. The chain is shared, not copied: preview and application
// read the same object.
class SEEfEffectChain final : public SEEfSoundSourceProcess {
public:
    SEEfEffectChain(std::shared_ptr<SEFile> file, SESelection const& selection,
                    std::shared_ptr<LSoundProcessMulti const> chain);
    using SEEfSoundSourceProcess::OpenSource;
    [[nodiscard]] char const* GetEffectName() const override { return "Apply Effect Chain"; }
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override {
        return m_chain->OpenSource(input);
    }

private:
    std::shared_ptr<LSoundProcessMulti const> m_chain;
};

// Plays the part backwards: rendered into new cache audio, read from its end in blocks.
class SEEfReverse final : public SEEfCutListProcess {
public:
    using SEEfCutListProcess::SEEfCutListProcess;
    [[nodiscard]] char const* GetEffectName() const override { return "Reverse"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;
};

// A value the user drew: frame `position` (counted from the part's start) takes `value` in every
// channel.
struct SESamplePoint {
    long long position = 0;
    float value = 0.0f;
};

// Writes drawn values into the part. The part is read into memory, so the span of a drawing is
// bounded (kMaxSamples values over all channels); larger ones fail with a message.
class SEEfEditSamples final : public SEEfCutListProcess {
public:
    static constexpr long long kMaxSamples = 1 << 24;
    SEEfEditSamples(std::shared_ptr<SEFile> file, SESelection const& selection,
                    std::vector<SESamplePoint> points);
    [[nodiscard]] char const* GetEffectName() const override { return "Edit Samples"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;

private:
    std::vector<SESamplePoint> m_points;
};

// Pastes `clip` over frames [start, end) of the document (an insertion when they are equal).
// A clip of another rate or channel count is first converted to the document's.
class SEEfPasteOver final : public SEEfCutListProcess {
public:
    SEEfPasteOver(std::shared_ptr<SEFile> file, SESelection const& selection,
                  LCutListAudio const& clip);
    [[nodiscard]] char const* GetEffectName() const override { return "Paste"; }
    [[nodiscard]] LProcessResult ProcessCutList(LProcessInterface& process,
                                                LCutListAudio& part) override;

private:
    LCutListAudio m_clip;
};

// Renders `source` to the end into a new cut list of its own rate and channels (new cache
// audio), under `title`. On anything but kCompleted `out` is left empty.
[[nodiscard]] LProcessResult SERenderToCutList(LProcessInterface& process, LSoundSource& source,
                                               char const* title, LCutListAudio& out);
