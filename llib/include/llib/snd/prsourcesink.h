// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The source-to-sink copy: the long operation behind every save, render and cache fill.
// Process(interface, data) fits the source to the sink's rate and channels, limits its peaks to
// 16-bit full scale, optionally crossfades it from another source, and copies it in passes of
// ten 8192-frame blocks (read them all, then write them all), reporting progress once per pass
// and polling for a stop after every block. The end is re-checked as it goes, so a source that
// is still growing (a recording) is copied to its real end. Returns kCompleted, kStopped, or
// kFailed (a source in error, a failed sink, no memory); frames written stay written.
//
// Runs on whichever thread calls it (a progress dialog's worker or an LProcessThread); the
// handles in the data are that thread's for the duration.

#include "llib/gen/process.h"
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"

struct LPRSourceToSink {
    LPRSourceToSink() = default;
    LPRSourceToSink(char const* titleText, LSoundSource& sourceHandle, LSoundSink& sinkHandle,
                    bool crossMixing)
        : title(titleText), source(sourceHandle), sink(sinkHandle), crossMix(crossMixing) {}

    char const* title = "";
    LSoundSource source;
    LSoundSink sink;
    LSoundSource crossMixSource;
    bool crossMix = false;
};

[[nodiscard]] LProcessResult Process(LProcessInterface& process, LPRSourceToSink& data);
