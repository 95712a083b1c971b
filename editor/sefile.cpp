// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/sefile.h"

#include "llib/gen/settings.h"
#include "llib/snd/cache.h"

#include <ctime>
#include <cstring>
#include <memory>
#include <utility>

LSEBookmark::LSEBookmark(char const* bookmarkName, long long at) : position(at) {
    LStrCopy(name, sizeof name, bookmarkName != nullptr ? bookmarkName : "");
}

SERegion::SERegion(char const* regionName, long long from, long long to) : start(from), end(to) {
    LStrCopy(name, sizeof name, regionName != nullptr ? regionName : "");
}

LList<SERegion>& SESharedRegions() {
    static LList<SERegion> regions;
    return regions;
}

void SECopyBookmarks(LList<LSEBookmark> const& from, LList<LSEBookmark>& to) {
    to.Clear();
    for (LSEBookmark const* b = from.GetHead(); b != nullptr; b = b->GetNext()) {
        to.AddTail(std::make_unique<LSEBookmark>(b->name, b->position));
    }
}

void SECopyRegions(LList<SERegion> const& from, LList<SERegion>& to) {
    to.Clear();
    for (SERegion const* r = from.GetHead(); r != nullptr; r = r->GetNext()) {
        to.AddTail(std::make_unique<SERegion>(r->name, r->start, r->end));
    }
}

namespace {

// No selection is kept as a caret at the cursor, so undo puts the caret back where it was.
void CaretIfEmpty(SESelectionState& selection, long long cursor) {
    bool const empty =
        selection.start == selection.end ||
        (selection.secondaryInForce && selection.secondaryLow == selection.secondaryHigh);
    if (empty) {
        selection.start = cursor;
        selection.end = cursor;
    }
}

} // namespace

// ---- SEFileUndo ----

SEFileUndo::SEFileUndo() {
    audio.SetSampleRate(44100);
    audio.SetChannels(1);
}

void SEFileUndo::Free() {
    description[0] = '\0';
    // The audio of a state nobody can return to must not keep cache items alive.
    audio = LCutListAudio();
    audio.SetSampleRate(44100);
    audio.SetChannels(1);
    bookmarks.Clear();
    regions.Clear();
}

// ---- SEFile ----

SEFile::SEFile(LCutListAudio const& audio) : m_audio(audio) {}

SEFile::SEFile(char const* path, LCutListAudio const& audio) : m_audio(audio) {
    LStrCopy(m_path, sizeof m_path, path != nullptr ? path : "");
    TakeFileTimeStamps();
}

void SEFile::AdvanceOldestPastFree() {
    if (m_undo[m_undoOldest].IsFree()) {
        m_undoOldest = Step(m_undoOldest, 1);
    }
}

void SEFile::SaveForUndo(char const* description) {
    TakeSnapshot(description, false);
}

void SEFile::TakeSnapshot(char const* description, bool moveAudio) {
    if (m_undoCurrent == kSEUndoSlots - 2) {
        m_undoWrapped = true;
    }
    m_undoCurrent = Step(m_undoCurrent, 1);
    SEFileUndo& slot = m_undo[m_undoCurrent];
    if (moveAudio) {
        slot.audio = std::move(m_audio);
    } else {
        slot.audio = m_audio;
    }
    slot.modified = m_modified;
    slot.changed = m_changed;
    slot.selection = m_selection;
    slot.cursor = m_cursor;
    slot.view = m_view;
    SECopyBookmarks(m_bookmarks, slot.bookmarks);
    SECopyRegions(SESharedRegions(), slot.regions);
    LStrCopy(slot.description, sizeof slot.description, description != nullptr ? description : "");
    CaretIfEmpty(slot.selection, slot.cursor);
    m_undo[Step(m_undoCurrent, 1)].Free();
    m_undo[Step(m_undoCurrent, 2)].Free();
    AdvanceOldestPastFree();
}

void SEFile::UndoRedoApply(int slot) {
    SEFileUndo const& from = m_undo[Step(slot, 0)];
    m_audio = from.audio;
    m_modified = from.modified;
    m_changed = from.changed;
    m_selection = from.selection;
    m_cursor = from.cursor;
    m_view = from.view;
    SECopyBookmarks(from.bookmarks, m_bookmarks);
    SECopyRegions(from.regions, SESharedRegions());
    CaretIfEmpty(m_selection, m_cursor);
}

bool SEFile::CanUndo() const {
    return !m_undo[m_undoCurrent].IsFree();
}

bool SEFile::CanRedo() const {
    return !m_undo[Step(m_undoCurrent, 2)].IsFree();
}

bool SEFile::Undo() {
    if (!CanUndo()) {
        return false;
    }
    if (m_undo[Step(m_undoCurrent, 1)].IsFree()) {
        // The first undo after a change keeps the present state, so it can be redone. Its audio
        // is moved, not copied: the state undone to replaces it at once.
        TakeSnapshot("Redo", true);
        m_undoCurrent = Step(m_undoCurrent, -1);
    }
    UndoRedoApply(m_undoCurrent);
    m_undoCurrent = Step(m_undoCurrent, -1);
    AdvanceOldestPastFree();
    return true;
}

bool SEFile::Redo() {
    if (!CanRedo()) {
        return false;
    }
    UndoRedoApply(Step(m_undoCurrent, 2));
    m_undoCurrent = Step(m_undoCurrent, 1);
    AdvanceOldestPastFree();
    return true;
}

std::string SEFile::GetUndoLabel() const {
    std::string label = std::string("Undo ") + m_undo[m_undoCurrent].description;
    label.resize(std::min(label.size(), kSEMenuLabelChars - 1));
    return label;
}

std::string SEFile::GetRedoLabel() const {
    std::string label =
        std::string("Redo ") + (CanRedo() ? m_undo[Step(m_undoCurrent, 1)].description : "");
    label.resize(std::min(label.size(), kSEMenuLabelChars - 1));
    return label;
}

void SEFile::SetFileClean() {
    m_modified = false;
    for (SEFileUndo& slot : m_undo) {
        slot.modified = true;
    }
    // The next snapshot (or the "Redo" snapshot of the next undo) lands in this slot and holds
    // the clean state, so returning to it makes the document clean again.
    int const next = Step(m_undoCurrent, 1);
    m_undo[next].modified = false;
    m_undoLastSave = next;
}

bool SEFile::IsUndoLastSaveAvailable(int* slot) {
    if (m_undoLastSave == Step(m_undoCurrent, 1)) {
        return false;
    }
    if (m_undoLastSave != kSEUndoSlots && !m_undo[m_undoLastSave].IsFree()) {
        if (slot != nullptr) {
            *slot = m_undoLastSave;
        }
        return true;
    }
    if (m_undo[m_undoCurrent].IsFree()) {
        return false;
    }
    int walk = m_undoCurrent;
    for (int i = 0; i < kSEUndoSlots && !m_undo[walk].IsFree(); ++i) {
        if (!m_undo[walk].modified) {
            m_undoLastSave = walk;
            if (slot != nullptr) {
                *slot = walk;
            }
            return true;
        }
        walk = Step(walk, -1);
    }
    return false;
}

bool SEFile::UndoToLastSave() {
    int slot = 0;
    if (!IsUndoLastSaveAvailable(&slot)) {
        return false;
    }
    LStrCopy(m_undo[slot].description, sizeof m_undo[slot].description, "Revert");
    m_undo[Step(slot, 1)].Free();
    m_undo[Step(slot, 2)].Free();
    UndoRedoApply(slot);
    m_undoCurrent = Step(slot, -1);
    return true;
}

void SEFile::DropNewestSnapshot() {
    m_undo[m_undoCurrent].Free();
    m_undo[Step(m_undoCurrent, 1)].Free();
    m_undoCurrent = Step(m_undoCurrent, -1);
}

void SEFile::AddBookmark(char const* name, long long position) {
    m_bookmarks.AddTail(std::make_unique<LSEBookmark>(name, position));
}

bool SEFile::DeleteBookmark(char const* name) {
    for (LSEBookmark* b = m_bookmarks.GetHead(); b != nullptr; b = b->GetNext()) {
        if (std::strcmp(b->name, name != nullptr ? name : "") == 0) {
            std::unique_ptr<LSEBookmark> gone = m_bookmarks.Remove(b);
            return true;
        }
    }
    return false;
}

bool SEFile::RenameBookmark(char const* name, char const* newName) {
    for (LSEBookmark* b = m_bookmarks.GetHead(); b != nullptr; b = b->GetNext()) {
        if (std::strcmp(b->name, name != nullptr ? name : "") == 0) {
            LStrCopy(b->name, sizeof b->name, newName != nullptr ? newName : "");
            return true;
        }
    }
    return false;
}

void SEFile::OffsetBookmarks(long long from, long long offset) {
    for (LSEBookmark* b = m_bookmarks.GetHead(); b != nullptr; b = b->GetNext()) {
        if (b->position >= from) {
            b->position = std::max(from, b->position + offset);
        }
    }
}

void SEFile::SetFileName(char const* name) {
    std::string const text = name != nullptr ? name : "";
    std::string const current = m_path;
    std::size_t const slash = current.find_last_of('/');
    if (slash != std::string::npos && !text.empty() && text.front() != '/') {
        // A bare name goes into the current file's folder, with its extension if it has none.
        std::string made = current.substr(0, slash + 1) + text;
        std::size_t const dot = current.find_last_of('.');
        bool const hasExtension = text.find('.') != std::string::npos;
        if (!hasExtension && dot != std::string::npos && dot > slash) {
            made += current.substr(dot);
        }
        LStrCopy(m_path, sizeof m_path, made.c_str());
    } else {
        LStrCopy(m_path, kLMaxText, text.c_str());
    }
    TakeFileTimeStamps();
}

void SEFile::TakeFileTimeStamps() {
    long long modifiedNs = 0;
    unsigned long long size = 0;
    long long seconds = 0;
    if (LSoundCacheFileModifiedTimeAndSizeGet(m_path, modifiedNs, size)) {
        seconds = modifiedNs / 1000000000LL;
    }
    m_fileTimeAtLoad = seconds;
    m_fileTimeSeen = seconds;
}

bool SEFile::TestForFileModifications(LSettingsStore* settings) {
    LSettingsStore& store = settings != nullptr ? *settings : LSettingsStore::GetDefault();
    if (store.GetString("Settings", "FileModAlert", "1") == "0") {
        return false;
    }
    long long modifiedNs = 0;
    unsigned long long size = 0;
    if (!LSoundCacheFileModifiedTimeAndSizeGet(m_path, modifiedNs, size)) {
        return false;
    }
    long long const seconds = modifiedNs / 1000000000LL;
    if (seconds == 0 || seconds == m_fileTimeSeen) {
        return false;
    }
    m_fileTimeSeen = seconds;
    return seconds != m_fileTimeAtLoad;
}

std::string SEGetNewFileName(bool advance, char const* format, int number,
                             LSettingsStore* settings) {
    LSettingsStore& store = settings != nullptr ? *settings : LSettingsStore::GetDefault();
    std::string pattern =
        format != nullptr ? std::string(format)
                          : store.GetString("Settings", "FileNameFormat", "Untitled_%autonumber%");
    // Every "%" doubled first, so a lone "%" of the user's text comes out as itself.
    std::string doubled;
    for (char const c : pattern) {
        doubled += c;
        if (c == '%') {
            doubled += '%';
        }
    }
    std::time_t const now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    auto const two = [](int v) { return LStrFormat("%02d", v); };
    struct Token {
        char const* text;
        std::string value;
    };
    Token const tokens[] = {
        {"%%autonumber%%", "%i"},          {"%%YYYY%%", LStrFormat("%04d", local.tm_year + 1900)},
        {"%%MM%%", two(local.tm_mon + 1)}, {"%%DD%%", two(local.tm_mday)},
        {"%%HH%%", two(local.tm_hour)},    {"%%MIN%%", two(local.tm_min)},
        {"%%SS%%", two(local.tm_sec)}};
    for (Token const& token : tokens) {
        std::size_t const length = std::strlen(token.text);
        for (std::size_t at = doubled.find(token.text); at != std::string::npos;
             at = doubled.find(token.text, at + token.value.size())) {
            doubled.replace(at, length, token.value);
        }
    }
    // The pattern is a format now: "%i" takes the number, "%%" gives "%".
    std::string name;
    for (std::size_t i = 0; i < doubled.size(); ++i) {
        if (doubled[i] == '%' && i + 1 < doubled.size() && doubled[i + 1] == 'i') {
            name += std::to_string(number);
            ++i;
        } else if (doubled[i] == '%' && i + 1 < doubled.size() && doubled[i + 1] == '%') {
            name += '%';
            ++i;
        } else {
            name += doubled[i];
        }
    }
    if (name.size() > kLMaxText - 1) {
        name.resize(kLMaxText - 1);
    }
    if (advance) {
        int const counter = store.GetInt("Settings", "iAutoNumber", 1);
        (void)store.SetInt("Settings", "iAutoNumber", counter + 1);
    }
    return name;
}
