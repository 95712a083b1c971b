// SPDX-License-Identifier: GPL-3.0-or-later
// The waveform's columns: the process-wide summaries of the items' peak records, and the walk
// that maps each column through the segments to item ranges.
#include "llib/snd/peakview.h"

#include "llib/gen/stringlong.h"
#include "llib/unix/thread.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>

namespace {

constexpr long long kFanout = 16; // records of one level folded into one of the next
constexpr std::size_t kMaxSummaryBytes = std::size_t{64} << 20;
constexpr std::size_t kMaxSummaries = 256; // each holds a descriptor
// Level-0 records read at once for narrow ranges, whose neighbours want the records after them.
constexpr long long kWindowRows = 128;
constexpr long long kChunkFrames = 8192;         // samples read at once
constexpr long long kBuildRows = kFanout * 4096; // records read at once when summarising
constexpr float kGrfScale = 4134.916f;           // codes per unit of full scale (cache.h)
constexpr std::uint16_t kNoUse = 0xffff;
constexpr std::size_t kItemNumbers = 65536;

// Native 16-byte vectors of every x86-64 machine, written out because the compiler leaves the
// plain loops scalar: eight codes, or four samples.
using Codes = std::uint16_t __attribute__((vector_size(8 * sizeof(std::uint16_t))));
using Quad = float __attribute__((vector_size(4 * sizeof(float))));

long long CeilDiv(long long value, long long by) {
    return (value + by - 1) / by;
}

void FromLittleEndian(std::uint16_t* codes, long long count) {
    if constexpr (std::endian::native != std::endian::little) {
        for (long long i = 0; i < count; ++i) {
            codes[i] = static_cast<std::uint16_t>((codes[i] >> 8) | (codes[i] << 8));
        }
    }
}

// Folds `rows` records of `width` codes into `acc`, the largest of each code. Every code is a
// magnitude (the smallest value's is stored as one), so folding is a plain maximum. A width of
// 2, 4 or 8 (one, two or four channels) divides the eight lanes, so lane l always holds code
// l & (width - 1) and whole vectors are whole records.
void FoldCodes(std::uint16_t const* codes, long long rows, unsigned width, std::uint16_t* acc) {
    long long const count = rows * width;
    long long i = 0;
    if ((width & (width - 1)) == 0 && width <= 8 && count >= 8) {
        Codes top = {};
        for (; i + 8 <= count; i += 8) {
            Codes v;
            std::memcpy(&v, codes + i, sizeof v);
            top = v > top ? v : top;
        }
        for (unsigned l = 0; l < 8; ++l) {
            acc[l & (width - 1)] = std::max(acc[l & (width - 1)], top[l]);
        }
    }
    for (; i < count; i += width) {
        for (unsigned k = 0; k < width; ++k) {
            acc[k] = std::max(acc[k], codes[i + k]);
        }
    }
}

// Each kFanout records of `rows` into one record of `coarse` (zeroed by the caller).
void FoldBlocks(std::uint16_t const* codes, long long rows, unsigned width, std::uint16_t* coarse) {
    for (long long r = 0; r < rows; r += kFanout) {
        FoldCodes(codes + r * width, std::min(kFanout, rows - r), width,
                  coarse + (r / kFanout) * width);
    }
}

// Folds `frames` interleaved frames into each channel's largest and smallest value. With one,
// two or four channels lane l of a four-sample vector always holds channel l & (channels - 1).
// A lane takes a sample only when it is strictly beyond, so NaN never enters.
void FoldSamples(float const* samples, long long frames, unsigned channels, float* high,
                 float* low) {
    long long const count = frames * channels;
    long long i = 0;
    if ((channels & (channels - 1)) == 0 && channels <= 4 && count >= 8) {
        // Two vectors in flight hide the latency of each comparison.
        float const inf = std::numeric_limits<float>::infinity();
        Quad top[2] = {{-inf, -inf, -inf, -inf}, {-inf, -inf, -inf, -inf}};
        Quad bottom[2] = {{inf, inf, inf, inf}, {inf, inf, inf, inf}};
        for (; i + 8 <= count; i += 8) {
            for (int k = 0; k < 2; ++k) {
                Quad v;
                std::memcpy(&v, samples + i + 4 * k, sizeof v);
                top[k] = v > top[k] ? v : top[k];
                bottom[k] = v < bottom[k] ? v : bottom[k];
            }
        }
        for (unsigned l = 0; l < 4; ++l) {
            unsigned const c = l & (channels - 1);
            high[c] = std::max({high[c], top[0][l], top[1][l]});
            low[c] = std::min({low[c], bottom[0][l], bottom[1][l]});
        }
    }
    for (; i < count; i += channels) {
        for (unsigned c = 0; c < channels; ++c) {
            float const v = samples[i + c];
            high[c] = v > high[c] ? v : high[c];
            low[c] = v < low[c] ? v : low[c];
        }
    }
}

// Codes are truncated magnitudes, so the middle of the values a code stands for is off by at
// most half a code either way; 0 stays exactly 0.
float CodeValue(std::uint16_t code) {
    return code == 0 ? 0.0f : (static_cast<float>(code) + 0.5f) / kGrfScale;
}

// The frames column `c` shows: those whose start lies in its range, or, when none does (a column
// narrower than a frame), the frame its range lies inside. Neighbours compute their shared edge
// with the same expression, so the columns tile the frames exactly.
struct Span {
    long long first = 0;
    long long end = 0;
};

Span ColumnSpan(double startFrame, double framesPerColumn, long long c) {
    double const x0 = startFrame + static_cast<double>(c) * framesPerColumn;
    double const x1 = startFrame + static_cast<double>(c + 1) * framesPerColumn;
    double first = std::ceil(x0);
    double end = std::ceil(x1);
    if (!(first < end)) {
        first = std::floor(x0);
        end = first + 1.0;
    }
    auto const bound = static_cast<double>(kLCutListMaxFrames);
    return {static_cast<long long>(std::clamp(first, -bound, bound)),
            static_cast<long long>(std::clamp(end, -bound, bound))};
}

// A walk along the segments that only moves forward, as the columns do.
struct SegmentWalk {
    LCutListSegment const* segment = nullptr;
    long long start = 0; // the document frame `segment` starts at

    void Reset(LCutListAudio const& audio) {
        segment = audio.GetHead();
        start = 0;
    }
    // Moves to the segment holding `frame` (none past the end).
    void MoveTo(long long frame) {
        while (segment != nullptr && start + segment->GetLengthFrames() <= frame) {
            start += segment->GetLengthFrames();
            segment = segment->GetNext();
        }
    }
};

bool HasFiles(unsigned short item) {
    return item <= kLSoundCacheItemLast;
}

} // namespace

namespace llib::detail {

// One item's peak records folded into coarser levels. Never changed once built; a changed file
// gets a new summary.
struct LPeakSummary {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    long long bytes = 0;
    timespec modified{};
    unsigned width = 0; // codes per record: the largest value's and the smallest's per channel
    long long rows = 0; // level-0 records (groups) the file held
    // Kept open so that while the summary lives no other file can take its inode number; pread
    // moves no file offset, so views on several threads may read through it at once.
    mutable LFileDescriptor grf;
    std::vector<std::vector<std::uint16_t>> levels; // levels[k]: kFanout^(k+1) records in one

    [[nodiscard]] bool IsFile(char const* at, struct stat const& st, unsigned codes) const {
        return path == at && device == st.st_dev && inode == st.st_ino && width == codes;
    }
    [[nodiscard]] bool IsUnchanged(struct stat const& st) const {
        return bytes == st.st_size && modified.tv_sec == st.st_mtim.tv_sec &&
               modified.tv_nsec == st.st_mtim.tv_nsec;
    }
    [[nodiscard]] std::size_t GetMemoryBytes() const {
        std::size_t total = 0;
        for (auto const& level : levels) {
            total += level.size() * sizeof(std::uint16_t);
        }
        return total;
    }
};

} // namespace llib::detail

using llib::detail::LPeakSummary;

namespace {

struct SummaryRegistry {
    struct Kept {
        std::shared_ptr<LPeakSummary const> summary;
        unsigned long long lastUse = 0;
    };
    LMutex mutex;
    std::unordered_map<unsigned short, Kept> kept;
    std::size_t bytes = 0;
    unsigned long long clock = 0;
};

SummaryRegistry& GetRegistry() {
    static SummaryRegistry registry;
    return registry;
}

// Under the registry's lock.
void Forget(SummaryRegistry& r,
            std::unordered_map<unsigned short, SummaryRegistry::Kept>::iterator at) {
    r.bytes -= at->second.summary->GetMemoryBytes();
    r.kept.erase(at);
}

// Reads the ".grf" at `path` and folds it. `grown` is an earlier summary of the same file that
// has since grown: items only ever grow by appending, so its whole first-level records stay and
// only what follows them is read.
std::shared_ptr<LPeakSummary const> BuildSummary(char const* path, unsigned width,
                                                 LPeakSummary const* grown) {
    auto s = std::make_shared<LPeakSummary>();
    struct stat st {};
    if (!s->grf.Open(path, O_RDONLY) || fstat(s->grf.Get(), &st) != 0) {
        return nullptr;
    }
    // The identity is the open file's: the path may have changed since it was looked at.
    s->path = path;
    s->device = st.st_dev;
    s->inode = st.st_ino;
    s->bytes = st.st_size;
    s->modified = st.st_mtim;
    s->width = width;
    long long const rowBytes = static_cast<long long>(width) * sizeof(std::uint16_t);
    s->rows = s->bytes / rowBytes;

    long long kept = 0;
    std::vector<std::uint16_t> first(static_cast<std::size_t>(CeilDiv(s->rows, kFanout) * width));
    if (grown != nullptr && grown->device == s->device && grown->inode == s->inode &&
        grown->width == width && grown->rows <= s->rows && !grown->levels.empty()) {
        kept = grown->rows / kFanout;
        std::copy_n(grown->levels[0].begin(), kept * width, first.begin());
    }
    std::vector<std::uint16_t> block(static_cast<std::size_t>(kBuildRows) * width);
    for (long long row = kept * kFanout; row < s->rows; row += kBuildRows) {
        long long const rows = std::min(kBuildRows, s->rows - row);
        std::int64_t const got =
            s->grf.PReadFull(block.data(), static_cast<std::uint64_t>(rows * rowBytes),
                             static_cast<std::uint64_t>(row * rowBytes));
        if (got < 0) {
            return nullptr;
        }
        long long const have = got / rowBytes; // fewer only when the file was cut meanwhile
        FromLittleEndian(block.data(), have * width);
        FoldBlocks(block.data(), have, width, first.data() + (row / kFanout) * width);
        if (have < rows) {
            break;
        }
    }
    s->levels.push_back(std::move(first));
    while (static_cast<long long>(s->levels.back().size() / width) > kFanout) {
        auto const rows = static_cast<long long>(s->levels.back().size() / width);
        std::vector<std::uint16_t> next(static_cast<std::size_t>(CeilDiv(rows, kFanout) * width));
        FoldBlocks(s->levels.back().data(), rows, width, next.data());
        s->levels.push_back(std::move(next));
    }
    return s;
}

void KeepSummary(unsigned short item, std::shared_ptr<LPeakSummary const> const& summary) {
    SummaryRegistry& r = GetRegistry();
    LMutexLock lock(r.mutex);
    SummaryRegistry::Kept& slot = r.kept[item];
    if (slot.summary != nullptr) {
        r.bytes -= slot.summary->GetMemoryBytes();
    }
    slot.summary = summary;
    slot.lastUse = ++r.clock;
    r.bytes += summary->GetMemoryBytes();
    while (r.kept.size() > 1 && (r.kept.size() > kMaxSummaries || r.bytes > kMaxSummaryBytes)) {
        auto oldest = r.kept.begin();
        for (auto it = r.kept.begin(); it != r.kept.end(); ++it) {
            if (it->second.lastUse < oldest->second.lastUse) {
                oldest = it;
            }
        }
        Forget(r, oldest);
    }
}

// The summary of `item`'s ".grf" as the file is now; null when it cannot be read.
std::shared_ptr<LPeakSummary const> AcquireSummary(unsigned short item, unsigned width) {
    char path[kLMaxText];
    LSoundCache::GetFilePath(item, path, kLSoundCacheExtGrf);
    struct stat st {};
    SummaryRegistry& r = GetRegistry();
    if (stat(path, &st) != 0) {
        // The item is gone: let its old file's space go with the summary holding it open.
        LMutexLock lock(r.mutex);
        auto const found = r.kept.find(item);
        if (found != r.kept.end()) {
            Forget(r, found);
        }
        return nullptr;
    }
    std::shared_ptr<LPeakSummary const> grown;
    {
        LMutexLock lock(r.mutex);
        auto const found = r.kept.find(item);
        if (found != r.kept.end() && found->second.summary->IsFile(path, st, width)) {
            LPeakSummary const& s = *found->second.summary;
            if (s.IsUnchanged(st)) {
                found->second.lastUse = ++r.clock;
                return found->second.summary;
            }
            if (s.bytes < st.st_size) {
                grown = found->second.summary;
            }
        }
    }
    // Built outside the lock: other views go on drawing from the summaries they have.
    std::shared_ptr<LPeakSummary const> built = BuildSummary(path, width, grown.get());
    if (built != nullptr) {
        KeepSummary(item, built);
    }
    return built;
}

} // namespace

namespace llib::detail {

struct LPeakViewState {
    // What one call has found out about one item.
    struct ItemUse {
        unsigned short item = kLSoundCacheItemNone;
        bool summaryTried = false;
        std::shared_ptr<LPeakSummary const> summary;
        bool audTried = false;
        LFileDescriptor aud;
        long long audFrames = 0;
    };

    // The call's arguments.
    LCutListAudio const* audio = nullptr;
    unsigned channels = 0;
    double startFrame = 0.0;
    double framesPerColumn = 1.0;
    long long columns = 0;

    std::vector<ItemUse> uses;
    std::vector<std::uint16_t> useOfItem; // index into `uses` by item number, or kNoUse
    SegmentWalk walk;
    // Level-0 records of one summary, rows [windowStart, windowStart + windowRows).
    LPeakSummary const* windowOwner = nullptr;
    long long windowStart = 0;
    long long windowRows = 0;
    std::vector<std::uint16_t> window;
    std::vector<std::uint16_t> codes;
    std::vector<float> samples;
    std::vector<float> high;
    std::vector<float> low;

    bool Run(std::vector<LPeakColumn>& out);
    ItemUse& Use(unsigned short item);
    LPeakSummary const* Summary(unsigned short item);
    bool FoldRange(LPeakSummary const& s, long long lo, long long hi);
    bool FoldFile(LPeakSummary const& s, long long lo, long long hi, long long readRows);
    void AddCodes(float gain);
    bool PeakColumns(std::vector<LPeakColumn>& out);
    bool ReadPiece(LCutListSegment const& segment, long long inside, long long frames, float* out);
    long long ReadFrames(long long from, long long frames);
    bool SampleColumns(std::vector<LPeakColumn>& out);
    void StartColumn();
    void PutColumn(std::vector<LPeakColumn>& out, long long c) const;
};

bool LPeakViewState::Run(std::vector<LPeakColumn>& out) {
    if (useOfItem.empty()) {
        useOfItem.assign(kItemNumbers, kNoUse);
    }
    windowOwner = nullptr;
    walk.Reset(*audio);
    window.resize(static_cast<std::size_t>(kWindowRows) * 2 * channels);
    codes.resize(2 * channels);
    samples.resize(static_cast<std::size_t>(kChunkFrames) * channels);
    high.resize(channels);
    low.resize(channels);
    bool const ok = framesPerColumn >= static_cast<double>(kLSoundCacheGrfFrames)
                        ? PeakColumns(out)
                        : SampleColumns(out);
    // Nothing of an item is kept between calls but the shared summaries, which check their file
    // each time: the next call may be after the item changed.
    for (ItemUse const& use : uses) {
        useOfItem[use.item] = kNoUse;
    }
    uses.clear();
    windowOwner = nullptr;
    return ok;
}

LPeakViewState::ItemUse& LPeakViewState::Use(unsigned short item) {
    std::uint16_t& slot = useOfItem[item];
    if (slot == kNoUse) {
        slot = static_cast<std::uint16_t>(uses.size());
        uses.emplace_back();
        uses.back().item = item;
    }
    return uses[slot];
}

LPeakSummary const* LPeakViewState::Summary(unsigned short item) {
    ItemUse& use = Use(item);
    if (!use.summaryTried) {
        use.summaryTried = true;
        use.summary = AcquireSummary(item, 2 * channels);
    }
    return use.summary.get();
}

// Level-0 records [lo, hi) into `codes`, read from the file `readRows` at a time (a multiple of
// kFanout, so a ragged end of a coarser record is always one read).
bool LPeakViewState::FoldFile(LPeakSummary const& s, long long lo, long long hi,
                              long long readRows) {
    long long const rowBytes = static_cast<long long>(s.width) * sizeof(std::uint16_t);
    while (lo < hi) {
        if (windowOwner != &s || lo < windowStart || lo >= windowStart + windowRows) {
            long long const start = lo - lo % readRows;
            long long const rows = std::min(readRows, s.rows - start);
            std::int64_t const got =
                s.grf.PReadFull(window.data(), static_cast<std::uint64_t>(rows * rowBytes),
                                static_cast<std::uint64_t>(start * rowBytes));
            if (got < 0) {
                return false;
            }
            windowOwner = &s;
            windowStart = start;
            windowRows = got / rowBytes;
            FromLittleEndian(window.data(), windowRows * s.width);
            if (lo >= windowStart + windowRows) {
                return true; // the file was cut: what it lacks is silence
            }
        }
        long long const end = std::min(hi, windowStart + windowRows);
        FoldCodes(window.data() + (lo - windowStart) * s.width, end - lo, s.width, codes.data());
        lo = end;
    }
    return true;
}

// Folds level-0 records [lo, hi) into `codes`: the blocks wholly inside from the coarsest level
// that holds them, the ragged ends from finer ones, so any range costs at most 2 * 15 records a
// level and only its two ends come from the file.
bool LPeakViewState::FoldRange(LPeakSummary const& s, long long lo, long long hi) {
    lo = std::max(lo, 0LL);
    hi = std::min(hi, s.rows);
    if (lo >= hi) {
        return true;
    }
    auto roundUp = [](long long v) { return CeilDiv(v, kFanout) * kFanout; };
    auto roundDown = [](long long v) { return v - v % kFanout; };
    long long a = roundUp(lo);
    long long b = roundDown(hi);
    // A narrow range's neighbours want the records after it, so read ahead; a wide one wants
    // only its two ragged ends, each inside one block, and the next column's far away.
    long long const readRows = hi - lo < kWindowRows ? kWindowRows : kFanout;
    if (a >= b) {
        return FoldFile(s, lo, hi, readRows);
    }
    if (!FoldFile(s, lo, a, readRows) || !FoldFile(s, b, hi, readRows)) {
        return false;
    }
    lo = a / kFanout;
    hi = b / kFanout;
    for (std::size_t k = 0; lo < hi; ++k) {
        std::uint16_t const* const level = s.levels[k].data();
        a = roundUp(lo);
        b = roundDown(hi);
        if (k + 1 == s.levels.size() || a >= b) {
            FoldCodes(level + lo * s.width, hi - lo, s.width, codes.data());
            break;
        }
        FoldCodes(level + lo * s.width, a - lo, s.width, codes.data());
        FoldCodes(level + b * s.width, hi - b, s.width, codes.data());
        lo = a / kFanout;
        hi = b / kFanout;
    }
    return true;
}

// Adds the folded codes of one segment's range to the column, through the segment's gain: a
// negative gain turns the peaks over, a NaN one draws nothing.
void LPeakViewState::AddCodes(float gain) {
    for (unsigned c = 0; c < channels; ++c) {
        float const a = CodeValue(codes[2 * c]) * gain;
        float const b = -CodeValue(codes[2 * c + 1]) * gain;
        float const top = a > b ? a : b;
        float const bottom = a < b ? a : b;
        high[c] = top > high[c] ? top : high[c];
        low[c] = bottom < low[c] ? bottom : low[c];
    }
}

void LPeakViewState::StartColumn() {
    std::fill(high.begin(), high.end(), -std::numeric_limits<float>::infinity());
    std::fill(low.begin(), low.end(), std::numeric_limits<float>::infinity());
}

// Writes the column's extremes; a column nothing (or only NaN) was folded into is {0, 0}.
void LPeakViewState::PutColumn(std::vector<LPeakColumn>& out, long long c) const {
    for (unsigned ch = 0; ch < channels; ++ch) {
        if (low[ch] <= high[ch]) {
            out[static_cast<std::size_t>(ch * columns + c)] = LPeakColumn{low[ch], high[ch]};
        }
    }
}

bool LPeakViewState::PeakColumns(std::vector<LPeakColumn>& out) {
    long long const length = audio->GetLengthFrames();
    for (long long c = 0; c < columns; ++c) {
        Span const span = ColumnSpan(startFrame, framesPerColumn, c);
        long long const first = std::max(span.first, 0LL);
        long long const end = std::min(span.end, length);
        if (first >= end) {
            continue;
        }
        walk.MoveTo(first);
        // Records fold from 0, so a column of peaks always reaches 0.
        std::fill(high.begin(), high.end(), 0.0f);
        std::fill(low.begin(), low.end(), 0.0f);
        long long segmentStart = walk.start;
        for (LCutListSegment const* segment = walk.segment;
             segment != nullptr && segmentStart < end;
             segmentStart += segment->GetLengthFrames(), segment = segment->GetNext()) {
            if (!HasFiles(segment->GetItem())) {
                continue;
            }
            long long const toItem = segment->GetOffsetFrames() - segmentStart;
            long long const itemFirst = std::max(first, segmentStart) + toItem;
            long long const itemEnd =
                std::min(end, segmentStart + segment->GetLengthFrames()) + toItem;
            if (itemEnd <= 0) {
                continue;
            }
            LPeakSummary const* const summary = Summary(segment->GetItem());
            std::fill(codes.begin(), codes.end(), std::uint16_t{0});
            // The groups the range touches, the partial ones at its ends included whole.
            if (summary == nullptr ||
                !FoldRange(*summary, std::max(itemFirst, 0LL) / kLSoundCacheGrfFrames,
                           (itemEnd - 1) / kLSoundCacheGrfFrames + 1)) {
                return false;
            }
            AddCodes(segment->GetGain());
        }
        PutColumn(out, c);
    }
    return true;
}

// Frames [inside, inside + frames) of `segment` into `out`, times its gain; frames its item's
// ".aud" does not hold are silence, as the cut list's source reads them.
bool LPeakViewState::ReadPiece(LCutListSegment const& segment, long long inside, long long frames,
                               float* out) {
    std::size_t const frameSamples = channels;
    if (!HasFiles(segment.GetItem())) {
        std::fill_n(out, frames * frameSamples, 0.0f);
        return true;
    }
    ItemUse& use = Use(segment.GetItem());
    if (!use.audTried) {
        use.audTried = true;
        char path[kLMaxText];
        LSoundCache::GetFilePath(use.item, path, kLSoundCacheExtAud);
        if (use.aud.Open(path, O_RDONLY)) {
            std::int64_t const bytes = use.aud.GetSize();
            use.audFrames = bytes > 0 ? bytes / static_cast<std::int64_t>(frameSamples * 4) : 0;
        }
    }
    if (!use.aud.IsOpen()) {
        return false;
    }
    long long const first = segment.GetOffsetFrames() + inside;
    long long const last = first + frames;
    long long const a = std::clamp(0LL, first, last);
    long long const b = std::clamp(use.audFrames, a, last);
    std::fill_n(out, (a - first) * frameSamples, 0.0f);
    long long got = 0;
    if (b > a) {
        std::uint64_t const frameBytes = frameSamples * sizeof(float);
        std::int64_t const bytes = use.aud.PReadFull(out + (a - first) * frameSamples,
                                                     static_cast<std::uint64_t>(b - a) * frameBytes,
                                                     static_cast<std::uint64_t>(a) * frameBytes);
        if (bytes < 0) {
            return false;
        }
        got = bytes / static_cast<std::int64_t>(frameBytes);
    }
    std::fill(out + (a - first + got) * frameSamples, out + frames * frameSamples, 0.0f);
    float const gain = segment.GetGain();
    if (gain != 1.0f) {
        for (std::size_t i = 0; i < frames * frameSamples; ++i) {
            out[i] *= gain;
        }
    }
    return true;
}

// Document frames [from, from + frames) into `samples`; `from` never goes back within a call.
// Returns the frames read, fewer than asked only when an item's ".aud" failed: those before the
// failing segment are in.
long long LPeakViewState::ReadFrames(long long from, long long frames) {
    float* out = samples.data();
    long long done = 0;
    walk.MoveTo(from);
    LCutListSegment const* segment = walk.segment;
    long long segmentStart = walk.start;
    for (; done < frames && segment != nullptr;
         segmentStart += segment->GetLengthFrames(), segment = segment->GetNext()) {
        long long const inside = from + done - segmentStart;
        long long const n = std::min(frames - done, segment->GetLengthFrames() - inside);
        if (!ReadPiece(*segment, inside, n, out + done * channels)) {
            return done;
        }
        done += n;
    }
    std::fill(out + done * channels, out + frames * channels, 0.0f);
    return frames;
}

// The frames in view are read in chunks, each handed to the columns it overlaps: a column may
// span chunks, and zoomed in past one frame a frame serves several columns.
bool LPeakViewState::SampleColumns(std::vector<LPeakColumn>& out) {
    long long const from = std::max(ColumnSpan(startFrame, framesPerColumn, 0).first, 0LL);
    long long const to = std::min(ColumnSpan(startFrame, framesPerColumn, columns - 1).end,
                                  audio->GetLengthFrames());
    long long c = 0;
    StartColumn();
    for (long long chunk = from; chunk < to; chunk += kChunkFrames) {
        long long const wanted = std::min(kChunkFrames, to - chunk);
        long long const read = ReadFrames(chunk, wanted);
        long long const chunkEnd = chunk + read;
        for (; c < columns; ++c) {
            Span const span = ColumnSpan(startFrame, framesPerColumn, c);
            if (span.first >= chunkEnd) {
                break;
            }
            long long const a = std::max(span.first, chunk);
            long long const b = std::min(span.end, chunkEnd);
            if (a < b) {
                FoldSamples(samples.data() + (a - chunk) * channels, b - a, channels, high.data(),
                            low.data());
            }
            if (span.end > chunkEnd) {
                break; // goes on in the next chunk
            }
            PutColumn(out, c);
            StartColumn();
        }
        if (read < wanted) {
            return false;
        }
    }
    if (c < columns) {
        PutColumn(out, c); // the last one reaching into the document, cut by its end
    }
    return true;
}

} // namespace llib::detail

LPeakView::LPeakView() = default;
LPeakView::~LPeakView() = default;
LPeakView::LPeakView(LPeakView&& other) noexcept = default;
LPeakView& LPeakView::operator=(LPeakView&& other) noexcept = default;

bool LPeakView::GetColumns(LCutListAudio const& audio, double startFrame, double framesPerColumn,
                           int columns, std::vector<LPeakColumn>& out) {
    unsigned const channels = audio.GetChannels();
    out.assign(columns > 0 ? static_cast<std::size_t>(columns) * channels : 0, LPeakColumn{});
    if (out.empty() || !std::isfinite(startFrame) || !std::isfinite(framesPerColumn) ||
        !(framesPerColumn > 0.0)) {
        return true;
    }
    if (m_state == nullptr) {
        m_state = std::make_unique<llib::detail::LPeakViewState>();
    }
    llib::detail::LPeakViewState& state = *m_state;
    state.audio = &audio;
    state.channels = channels;
    state.startFrame = startFrame;
    state.framesPerColumn = framesPerColumn;
    state.columns = columns;
    return state.Run(out);
}

void LPeakView::ReleaseSummaries() {
    SummaryRegistry& r = GetRegistry();
    LMutexLock lock(r.mutex);
    r.kept.clear();
    r.bytes = 0;
}
