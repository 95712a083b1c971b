// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEFile: one open audio document. Its audio is a cut list over the sound cache; undo works by
// whole-state snapshots in a ring of 32 slots, each holding its own copy of the cut list (cheap:
// a copy only takes references on cache items), the flags, the selection, the cursor, the
// bookmarks, the view block and the application's shared region list.
//
// The ring: `m_undoCurrent` is the newest snapshot; the two slots after it are always kept free,
// so at most 30 snapshots are held and at most 29 changes can be undone in a row (the first undo
// after a change spends a slot on the "Redo" snapshot of the present state). A slot is free
// exactly when its description is empty.

#include "llib/gen/list.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/cutlistaudio.h"
#include "llib/snd/filetagdata.h"

#include <array>
#include <cstdint>
#include <string>

class LSettingsStore;

inline constexpr int kSEUndoSlots = 32;
inline constexpr std::size_t kSEPathBytes = 520;
inline constexpr std::size_t kSEMenuLabelChars = 340;

class LSEBookmark : public LListLink<LSEBookmark> {
public:
    LSEBookmark() = default;
    LSEBookmark(char const* name, long long position);
    char name[kLMaxText] = {};
    long long position = 0;
};

class SERegion : public LListLink<SERegion> {
public:
    SERegion() = default;
    SERegion(char const* name, long long start, long long end);
    char name[kLMaxText] = {};
    long long start = 0;
    long long end = 0;
};

// The application's region list: one for all documents, snapshotted with every change of any.
[[nodiscard]] LList<SERegion>& SESharedRegions();

// Copies of the two list kinds (each element copied).
void SECopyBookmarks(LList<LSEBookmark> const& from, LList<LSEBookmark>& to);
void SECopyRegions(LList<SERegion> const& from, LList<SERegion>& to);

// The selection as a document keeps it: start == end means none; the secondary bounds (used for
// frequency-band selections) and their flag are only kept and restored.
struct SESelectionState {
    long long start = 0;
    long long end = 0;
    std::uint32_t secondaryLow = 0;
    std::uint32_t secondaryHigh = 0;
    bool secondaryInForce = false;
};

// One snapshot.
class SEFileUndo {
public:
    SEFileUndo();
    // Frees the slot: an empty description, and no audio, bookmarks or regions held.
    void Free();
    [[nodiscard]] bool IsFree() const { return description[0] == '\0'; }

    LCutListAudio audio;
    bool modified = false;
    bool changed = true;
    SESelectionState selection;
    long long cursor = 0;
    LList<LSEBookmark> bookmarks;
    LList<SERegion> regions;
    std::array<std::int64_t, 2> view{};
    char description[kLMaxText] = {};
};

class SEFile {
public:
    // A document for `path` holding a copy of `audio`; modified and changed, stamps taken.
    SEFile(char const* path, LCutListAudio const& audio);
    explicit SEFile(LCutListAudio const& audio);
    SEFile(SEFile const&) = delete;
    SEFile& operator=(SEFile const&) = delete;

    // ---- state ----
    [[nodiscard]] LCutListAudio& GetAudio() { return m_audio; }
    [[nodiscard]] LCutListAudio const& GetAudio() const { return m_audio; }
    [[nodiscard]] bool IsModified() const { return m_modified; }
    [[nodiscard]] bool IsChanged() const { return m_changed; }
    void SetModified(bool modified) { m_modified = modified; }
    // Cleared when the document is written into a full project file.
    void SetChanged(bool changed) { m_changed = changed; }
    [[nodiscard]] SESelectionState const& GetSelection() const { return m_selection; }
    void SetSelection(SESelectionState const& selection) { m_selection = selection; }
    [[nodiscard]] long long GetCursor() const { return m_cursor; }
    void SetCursor(long long cursor) { m_cursor = cursor; }
    [[nodiscard]] std::array<std::int64_t, 2> const& GetViewBlock() const { return m_view; }
    void SetViewBlock(std::array<std::int64_t, 2> const& view) { m_view = view; }
    [[nodiscard]] char const* GetPath() const { return m_path; }
    [[nodiscard]] LFileTagData& GetTags() { return m_tags; }

    // ---- undo ----
    // Takes a snapshot of the present state under `description` (cut to 259 characters).
    void SaveForUndo(char const* description);
    // Copies slot `slot` back into the document.
    void UndoRedoApply(int slot);
    // False when there is nothing to undo or redo.
    [[nodiscard]] bool Undo();
    [[nodiscard]] bool Redo();
    [[nodiscard]] bool CanUndo() const;
    [[nodiscard]] bool CanRedo() const;
    // "Undo %s" / "Redo %s" with the descriptions the menu shows (340 characters at most).
    [[nodiscard]] std::string GetUndoLabel() const;
    [[nodiscard]] std::string GetRedoLabel() const;
    // After a successful save: the document is clean, and the slot the next snapshot lands in
    // will hold the clean state.
    void SetFileClean();
    // Whether the state as last saved can be returned to, and through which slot.
    [[nodiscard]] bool IsUndoLastSaveAvailable(int* slot = nullptr);
    // Returns to the state as last saved ("Revert"); false when it is not available.
    [[nodiscard]] bool UndoToLastSave();
    // Drops the newest snapshot and the slot after it (a modification that did not happen).
    void DropNewestSnapshot();
    [[nodiscard]] int GetUndoCurrent() const { return m_undoCurrent; }
    [[nodiscard]] int GetUndoOldest() const { return m_undoOldest; }
    [[nodiscard]] SEFileUndo const& GetUndoSlot(int slot) const { return m_undo[slot]; }

    // ---- bookmarks ----
    void AddBookmark(char const* name, long long position);
    // False when no bookmark has that name.
    bool DeleteBookmark(char const* name);
    // False when no bookmark has the name `name`.
    bool RenameBookmark(char const* name, char const* newName);
    void DeleteAllBookmarks() { m_bookmarks.Clear(); }
    // Moves the bookmarks at or after `from` by `offset` (those that would fall before `from`
    // land on it).
    void OffsetBookmarks(long long from, long long offset);
    [[nodiscard]] LList<LSEBookmark> const& GetBookmarks() const { return m_bookmarks; }

    // ---- file name and outside changes ----
    void SetFileName(char const* name);
    // Whether the file on disk changed since the last load, save or test (each change is
    // reported once). Never with "FileModAlert" set to 0 in "Settings".
    [[nodiscard]] bool TestForFileModifications(LSettingsStore* settings = nullptr);
    // Takes both modification stamps from the file as it is now (after a load or save).
    void TakeFileTimeStamps();

private:
    // SaveForUndo; with `moveAudio` the document's cut list is moved into the slot rather than
    // copied, for callers that replace it next.
    void TakeSnapshot(char const* description, bool moveAudio);
    static int Step(int slot, int by) { return (slot + by + kSEUndoSlots) % kSEUndoSlots; }
    void AdvanceOldestPastFree();

    LCutListAudio m_audio;
    bool m_modified = true;
    bool m_changed = true;
    SESelectionState m_selection;
    long long m_cursor = 0;
    LList<LSEBookmark> m_bookmarks;
    std::array<std::int64_t, 2> m_view{};
    std::array<SEFileUndo, kSEUndoSlots> m_undo;
    int m_undoCurrent = 0;
    int m_undoOldest = 0;
    bool m_undoWrapped = false;
    char m_path[kSEPathBytes] = {};
    LFileTagData m_tags;
    int m_undoLastSave = kSEUndoSlots; // unknown
    long long m_fileTimeAtLoad = 0;
    long long m_fileTimeSeen = 0;
};

// The name of a new, unsaved document from `format` (or the "FileNameFormat" setting, default
// "Untitled_%autonumber%"): "%autonumber%" becomes `number`, "%YYYY%", "%MM%", "%DD%", "%HH%",
// "%MIN%" and "%SS%" the local date and time, and any other "%" stays as it is. With `advance`
// the application's counter ("iAutoNumber" in "Settings") moves on.
[[nodiscard]] std::string SEGetNewFileName(bool advance, char const* format, int number,
                                           LSettingsStore* settings = nullptr);
