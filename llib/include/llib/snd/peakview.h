// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LPeakView: the waveform's columns. For a document (a cut list) and a zoom it gives one min/max
// pair per pixel column per channel, at a cost that depends on the number of columns and of
// segments in view, not on the document's length: columns of 256 frames or more come from the
// items' ".grf" peak records through a summary of each item (levels of 16, 256, 4096, ...
// records folded into one), columns narrower than that from the samples.
//
// Ownership: a view holds only reusable buffers; the summaries are process-wide, shared by
// every view under one mutex and dropped least recently used first beyond 64 MB or 256 items.
// A summary keeps its ".grf" open, which pins the file's identity: an item number that is
// deleted and made again, or a file that grows (an item being recorded) or is rewritten, is
// summarised again (a grown one only from where it grew) instead of being served stale.
//
// Threads: one view per thread (the GUI thread calls it for every repaint); different views may
// run on different threads at once. The cut list must not change during a call.
//
// Units: frames of the document (fractional where a column is narrower than a frame); values
// are sample values, full scale +-1, after each segment's gain. Peak records give values to
// within half a code (1 / 8270 of full scale) and always include 0 (a record folds from 0).
//
// Failure: GetColumns returns false when an item's ".grf" (wide columns) or ".aud" (narrow
// columns) cannot be opened or read; the columns complete before the failure stay filled and
// the rest are {0, 0}. Groups or frames an item's files do not (yet) hold read as silence.

#include "llib/snd/cutlistaudio.h"

#include <memory>
#include <vector>

struct LPeakColumn {
    float min = 0.0f;
    float max = 0.0f;
};

namespace llib::detail {
struct LPeakViewState;
}

class LPeakView {
public:
    LPeakView();
    ~LPeakView();
    LPeakView(LPeakView&& other) noexcept;
    LPeakView& operator=(LPeakView&& other) noexcept;
    LPeakView(LPeakView const&) = delete;
    LPeakView& operator=(LPeakView const&) = delete;

    // Fills `out` with `columns` entries per channel, channel by channel (channel ch, column c at
    // out[ch * columns + c]). Column c covers document frames [startFrame + c * framesPerColumn,
    // startFrame + (c + 1) * framesPerColumn); framesPerColumn > 0 and may be fractional (below 1
    // when zoomed in past one frame per pixel). Columns outside the document are {0, 0}. Values are
    // sample values (full scale ±1) after each segment's gain. Where a column covers 256 frames or
    // more it is drawn from the peak data, never from the samples; below that from the samples.
    // False when peak or sample data could not be read (the columns read so far stay filled, the
    // rest {0,0}).
    //
    // A column shows the frames whose start lies in its range, so each frame belongs to exactly
    // one column; a column narrower than a frame holding no frame's start shows the frame it lies
    // inside. A peak column also counts whole the ".grf" groups its ends (and the ends of the
    // segments in it) fall inside: at most one group beyond what it covers at each end. An
    // invalid zoom (not finite, or not above 0) gives {0, 0} columns and true.
    [[nodiscard]] bool GetColumns(LCutListAudio const& audio, double startFrame,
                                  double framesPerColumn, int columns,
                                  std::vector<LPeakColumn>& out);

    // Drops every summary no call is using, with its descriptor; the next call that needs one
    // builds it again. For memory pressure, and for timing the first repaint of a document.
    static void ReleaseSummaries();

private:
    std::unique_ptr<llib::detail::LPeakViewState> m_state; // made on the first call
};
