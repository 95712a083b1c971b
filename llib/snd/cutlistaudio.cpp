// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/cutlistaudio.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace {

bool HasReference(unsigned short item) {
    return item <= kLSoundCacheItemLast;
}

long long ClampFrames(long long frames) {
    return std::clamp(frames, -kLCutListMaxFrames, kLCutListMaxFrames);
}

std::unique_ptr<LCutListSegment> MakeSilence(long long frames) {
    return std::make_unique<LCutListSegment>(kLSoundCacheItemNone, 0, frames, 1.0f);
}

} // namespace

LCutListSegment::LCutListSegment(unsigned short item, long long offsetFrames,
                                 long long lengthFrames, float gain)
    : m_item(item), m_lengthFrames(lengthFrames), m_gain(gain),
      m_offsetFrames(item == kLSoundCacheItemNone ? 0 : offsetFrames) {
    m_handle.item = item;
    if (HasReference(item)) {
        LSoundCache::IncRef(item);
    }
}

LCutListSegment::LCutListSegment(LCutListSegment const& other)
    : LListLink<LCutListSegment>(other), m_handle(other.m_handle), m_item(other.m_item),
      m_lengthFrames(other.m_lengthFrames), m_gain(other.m_gain),
      m_offsetFrames(other.m_offsetFrames) {
    if (HasReference(m_item)) {
        LSoundCache::IncRef(m_item);
    }
    (void)LSDFUnknownChunksCopy(other.m_unknown, m_unknown);
}

LCutListSegment& LCutListSegment::operator=(LCutListSegment const& other) {
    if (this == &other) {
        return *this;
    }
    SetItem(other.m_item);
    m_handle = other.m_handle;
    m_lengthFrames = other.m_lengthFrames;
    m_gain = other.m_gain;
    m_offsetFrames = other.m_offsetFrames;
    m_unknown.Clear();
    (void)LSDFUnknownChunksCopy(other.m_unknown, m_unknown);
    return *this;
}

LCutListSegment::~LCutListSegment() {
    if (HasReference(m_item)) {
        LSoundCache::DecRef(m_item);
    }
}

void LCutListSegment::SetItem(unsigned short item) {
    // Take the new reference first: releasing the last one of the same item would delete it.
    if (HasReference(item)) {
        LSoundCache::IncRef(item);
    }
    if (HasReference(m_item)) {
        LSoundCache::DecRef(m_item);
    }
    m_item = item;
    m_handle = LSoundCacheItemHandle{};
    m_handle.item = item;
    if (item == kLSoundCacheItemNone) {
        m_offsetFrames = 0;
    }
}

LCutListAudio::LCutListAudio(LCutListAudio const& other) {
    CopyFrom(other);
}

LCutListAudio& LCutListAudio::operator=(LCutListAudio const& other) {
    if (this != &other) {
        CopyFrom(other);
    }
    return *this;
}

LCutListAudio::LCutListAudio(LCutListAudio&& other) noexcept
    : m_segments(std::move(other.m_segments)), m_sampleRate(other.m_sampleRate),
      m_channels(other.m_channels), m_mp3Lossless(other.m_mp3Lossless),
      m_unknown(std::move(other.m_unknown)), m_lengthFrames(other.m_lengthFrames) {
    other.m_lengthFrames = 0;
}

LCutListAudio& LCutListAudio::operator=(LCutListAudio&& other) noexcept {
    if (this != &other) {
        m_segments = std::move(other.m_segments);
        m_sampleRate = other.m_sampleRate;
        m_channels = other.m_channels;
        m_mp3Lossless = other.m_mp3Lossless;
        m_unknown = std::move(other.m_unknown);
        m_lengthFrames = other.m_lengthFrames;
        other.m_lengthFrames = 0;
    }
    return *this;
}

void LCutListAudio::CopyFrom(LCutListAudio const& other) {
    // Copy before releasing: the old segments may hold the last references of items the new
    // ones share.
    LList<LCutListSegment> segments;
    for (LCutListSegment const& segment : other.m_segments) {
        segments.AddTail(std::make_unique<LCutListSegment>(segment));
    }
    m_segments = std::move(segments);
    m_lengthFrames = other.m_lengthFrames;
    m_sampleRate = other.m_sampleRate;
    m_channels = other.m_channels;
    m_mp3Lossless = other.m_mp3Lossless;
    m_unknown.Clear();
    (void)LSDFUnknownChunksCopy(other.m_unknown, m_unknown);
}

void LCutListAudio::AppendSegment(LCutListSegment const& segment) {
    if (segment.m_lengthFrames < 1 ||
        segment.m_lengthFrames > kLCutListMaxFrames - m_lengthFrames) {
        return;
    }
    AppendSegment(std::make_unique<LCutListSegment>(segment));
}

void LCutListAudio::AppendSegment(std::unique_ptr<LCutListSegment> segment) {
    if (!segment || segment->m_lengthFrames < 1 ||
        segment->m_lengthFrames > kLCutListMaxFrames - m_lengthFrames) {
        return; // dropped here, and its reference with it
    }
    segment->m_offsetFrames = ClampFrames(segment->m_offsetFrames);
    m_lengthFrames += segment->m_lengthFrames;
    m_segments.AddTail(std::move(segment));
}

void LCutListAudio::Clear() {
    m_segments.Clear();
    m_lengthFrames = 0;
}

LCutListAudio::Locate LCutListAudio::Find(long long position) const {
    Locate found;
    long long left = position;
    for (LCutListSegment* segment = m_segments.GetHead(); segment != nullptr;
         segment = segment->GetNext()) {
        if (left < segment->m_lengthFrames) {
            found.at = segment;
            found.offset = left;
            return found;
        }
        left -= segment->m_lengthFrames;
        found.previous = segment;
    }
    found.offset = left;
    return found;
}

LCutListSegment* LCutListAudio::Split(LCutListSegment* segment, long long frames) {
    auto second = std::make_unique<LCutListSegment>(*segment);
    if (!second->IsSilence()) {
        second->m_offsetFrames += frames;
    }
    second->m_lengthFrames -= frames;
    segment->m_lengthFrames = frames;
    m_segments.InsertAfter(segment, std::move(second));
    return segment;
}

LCutListSegment* LCutListAudio::InsertionPoint(long long position) {
    if (position <= 0) {
        return nullptr;
    }
    Locate const found = Find(position);
    if (found.at == nullptr) {
        return m_segments.GetTail();
    }
    if (found.offset == 0) {
        return found.previous;
    }
    return Split(found.at, found.offset);
}

void LCutListAudio::InsertSegmentAfter(LCutListSegment* after,
                                       std::unique_ptr<LCutListSegment> segment) {
    m_lengthFrames += segment->m_lengthFrames;
    m_segments.InsertAfter(after, std::move(segment));
}

void LCutListAudio::InsertCopiesAfter(LCutListSegment* after, LCutListAudio const& source,
                                      unsigned long times) {
    for (unsigned long i = 0; i < times; ++i) {
        for (LCutListSegment const& segment : source.m_segments) {
            auto copy = std::make_unique<LCutListSegment>(segment);
            LCutListSegment* const placed = copy.get();
            InsertSegmentAfter(after, std::move(copy));
            after = placed;
        }
    }
}

bool LCutListAudio::PrepareInsert(long long position, long long frames, LCutListSegment*& after) {
    position = ClampFrames(position);
    long long const gap = position > m_lengthFrames ? position - m_lengthFrames : 0;
    if (frames < 1 || m_lengthFrames + gap + frames > kLCutListMaxFrames) {
        return false;
    }
    if (gap > 0) {
        // Past the end the copies start exactly at `position`, as inserted silence does.
        InsertSegmentAfter(m_segments.GetTail(), MakeSilence(gap));
    }
    after = InsertionPoint(position);
    return true;
}

void LCutListAudio::EfInsert(long long position, LCutListAudio const& other) {
    if (&other == this) {
        LCutListAudio const copy(other); // inserting into what we copy from would chase its tail
        EfInsert(position, copy);
        return;
    }
    LCutListSegment* after = nullptr;
    if (PrepareInsert(position, other.m_lengthFrames, after)) {
        InsertCopiesAfter(after, other, 1);
    }
}

void LCutListAudio::EfDelete(long long start, long long end) {
    if (start > end || end < 0 || start == end) {
        return;
    }
    start = std::max(start, 0LL);
    end = std::min(end, m_lengthFrames);
    if (start >= end) {
        return;
    }
    // The list is singly linked and unlinks only from the head, so it is rebuilt in one pass:
    // O(segments) however many are dropped.
    LList<LCutListSegment> old;
    old.Swap(m_segments);
    long long segmentEnd = 0;
    while (std::unique_ptr<LCutListSegment> segment = old.RemoveHead()) {
        long long const segmentStart = segmentEnd;
        segmentEnd += segment->m_lengthFrames;
        if (segmentEnd <= start || segmentStart >= end) {
            m_segments.AddTail(std::move(segment));
            continue;
        }
        if (segmentStart < start && segmentEnd > end) {
            // The range lies inside: keep both sides, each with its own reference.
            auto second = std::make_unique<LCutListSegment>(*segment);
            if (!second->IsSilence()) {
                second->m_offsetFrames += end - segmentStart;
            }
            second->m_lengthFrames = segmentEnd - end;
            segment->m_lengthFrames = start - segmentStart;
            m_segments.AddTail(std::move(segment));
            m_segments.AddTail(std::move(second));
        } else if (segmentStart < start) {
            segment->m_lengthFrames = start - segmentStart;
            m_segments.AddTail(std::move(segment));
        } else if (segmentEnd > end) {
            long long const cut = end - segmentStart;
            if (!segment->IsSilence()) {
                segment->m_offsetFrames += cut;
            }
            segment->m_lengthFrames -= cut;
            m_segments.AddTail(std::move(segment));
        }
        // else wholly inside the range: dropped here, releasing its reference.
    }
    m_lengthFrames -= end - start;
}

void LCutListAudio::EfInsertSilence(long long position, long long frames) {
    position = ClampFrames(position);
    frames = ClampFrames(frames);
    if (position < 0) {
        if (-position >= frames) {
            return;
        }
        frames += position;
        position = 0;
    }
    if (frames < 1) {
        return;
    }
    if (position > m_lengthFrames) {
        // One segment covers the gap and the silence asked for.
        frames += position - m_lengthFrames;
        position = m_lengthFrames;
    }
    if (frames > kLCutListMaxFrames - m_lengthFrames) {
        return;
    }
    InsertSegmentAfter(InsertionPoint(position), MakeSilence(frames));
}

void LCutListAudio::EfCopy(long long start, long long end, LCutListAudio& out) const {
    if (end < start) {
        return;
    }
    if (&out == this) {
        LCutListAudio copy;
        EfCopy(start, end, copy);
        out = std::move(copy);
        return;
    }
    start = ClampFrames(start);
    end = std::min(ClampFrames(end), start + kLCutListMaxFrames);
    out.Clear();
    out.m_sampleRate = m_sampleRate;
    out.m_channels = m_channels;
    out.m_mp3Lossless = m_mp3Lossless;
    out.m_unknown.Clear();
    (void)LSDFUnknownChunksCopy(m_unknown, out.m_unknown);
    // Built directly rather than by copying everything and deleting, so only the segments of the
    // range take references. Outside the list the range reads as silence.
    if (start < 0) {
        out.AppendSegment(MakeSilence(std::min(end, 0LL) - start));
    }
    long long const from = std::max(start, 0LL);
    long long const to = std::min(end, m_lengthFrames);
    long long segmentEnd = 0;
    for (LCutListSegment const& segment : m_segments) {
        long long const segmentStart = segmentEnd;
        segmentEnd += segment.m_lengthFrames;
        if (segmentStart >= to) {
            break;
        }
        if (segmentEnd <= from) {
            continue;
        }
        long long const a = std::max(from, segmentStart);
        long long const b = std::min(to, segmentEnd);
        auto copy = std::make_unique<LCutListSegment>(segment);
        if (!copy->IsSilence()) {
            copy->m_offsetFrames += a - segmentStart;
        }
        copy->m_lengthFrames = b - a;
        out.AppendSegment(std::move(copy));
    }
    if (out.m_lengthFrames < end - start) {
        out.AppendSegment(MakeSilence(end - start - out.m_lengthFrames));
    }
}

void LCutListAudio::EfTrim(long long start, long long end) {
    start = ClampFrames(start);
    end = ClampFrames(end);
    if (start >= 1) {
        EfDelete(0, start);
    }
    EfDelete(end - start, m_lengthFrames);
}

void LCutListAudio::EfGain(float factor) {
    for (LCutListSegment* s = m_segments.GetHead(); s != nullptr; s = s->GetNext()) {
        s->SetGain(s->GetGain() * factor);
    }
}

void LCutListAudio::EfRepeatLoop(long long start, long long end, unsigned long count) {
    if (count == 0 || end <= start) {
        return;
    }
    LCutListAudio loop;
    EfCopy(start, end, loop);
    long long const loopFrames = loop.m_lengthFrames;
    if (loopFrames < 1) {
        return;
    }
    // As many copies as the length bound allows; the first is checked by PrepareInsert.
    long long const room = kLCutListMaxFrames - m_lengthFrames;
    unsigned long const fit = room > 0 ? static_cast<unsigned long>(room / loopFrames) : 0;
    unsigned long const times = std::min(count, fit);
    LCutListSegment* after = nullptr;
    if (times > 0 && PrepareInsert(start, loopFrames * static_cast<long long>(times), after)) {
        InsertCopiesAfter(after, loop, times);
    }
}

void LCutListAudio::SetSingleCutListSegment(LCutListSegment const& segment, int sampleRateHz,
                                            unsigned char channels) {
    // Copied first: `segment` may be one of ours.
    auto copy = std::make_unique<LCutListSegment>(segment);
    Clear();
    m_unknown.Clear();
    m_sampleRate = sampleRateHz;
    m_channels = channels;
    AppendSegment(std::move(copy));
}
