// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The main window's command identifiers: menus, toolbar, key bindings and the task list all
// deliver one of these to MainDialog::Command. Grouped by thousands (1000s file, 2000s edit,
// 3000s playback and recording, 4000s effects, 5000s views and windows, 7000s tools, 8000s
// bookmarks, regions and saving all, 9400s undo), except Cut, which is the four characters
// "cut " read as a big-endian number so that it matches the platform's standard edit menu.

#include <cstddef>
#include <span>

namespace SECmd {
inline constexpr int kNew = 1001;
inline constexpr int kOpen = 1002;
inline constexpr int kClose = 1003;
inline constexpr int kSave = 1004;
inline constexpr int kSaveAs = 1005;
inline constexpr int kLoadCD = 1007;
inline constexpr int kSaveChanges = 1010;
inline constexpr int kOpenProject = 1011;
inline constexpr int kCloseProject = 1012;
inline constexpr int kConvertSampleRate = 1015;
inline constexpr int kNewTab = 1054;

inline constexpr int kSelectAll = 2001;
inline constexpr int kSelectNone = 2002;
inline constexpr int kSelect = 2003;
inline constexpr int kCopy = 2004;
inline constexpr int kPaste = 2005;
inline constexpr int kCursor = 2006;
inline constexpr int kEditSamples = 2007;
inline constexpr int kPasteMix = 2009;
inline constexpr int kDelete = 2010;
inline constexpr int kMixFile = 2015;
inline constexpr int kAutoTrimStartEnd = 2017;
inline constexpr int kTrimStart = 2018;
inline constexpr int kTrimEnd = 2019;
inline constexpr int kAutoTrim = 2020;
inline constexpr int kSplit = 2021;
inline constexpr int kSilence = 2025;
inline constexpr int kTrimSilences = 2037;
inline constexpr int kPasteMixMode1 = 2039;
inline constexpr int kPasteMixMode2 = 2040;
inline constexpr int kBatchJoin = 2041;
inline constexpr int kRedact = 2046;
inline constexpr int kPasteAsNew = 2053;
inline constexpr int kRevert = 2070;
inline constexpr int kCut = 0x63757420;

inline constexpr int kRecord = 3001;
inline constexpr int kPlaySpeedNormal = 3003;
inline constexpr int kPlaySpeedHalf = 3004;
inline constexpr int kPlaySpeedDouble = 3005;
inline constexpr int kMetronome = 3028;
inline constexpr int kPreRoll = 3031;

inline constexpr int kAmplify = 4001;
inline constexpr int kNormalize = 4002;
inline constexpr int kFadeIn = 4006;
inline constexpr int kFadeOut = 4007;
inline constexpr int kEnvelope = 4013;
inline constexpr int kDCOffset = 4018;
inline constexpr int kReverse = 4019;
inline constexpr int kToStereo = 4023;
inline constexpr int kEnvelopeDb = 4051;
// Our own, above the settled effect identifiers.
inline constexpr int kPan = 4101;
inline constexpr int kJoinChannels = 4102;
inline constexpr int kEffectChain = 4103;
inline constexpr int kEffectChainPreview = 4104;

inline constexpr int kWindow = 5020;

inline constexpr int kBatchConvert = 7003;
inline constexpr int kBookmark = 8001;
inline constexpr int kDeleteBookmark = 8002;
inline constexpr int kRenameBookmark = 8003;
inline constexpr int kDeleteAllBookmarks = 8004;
inline constexpr int kSetRegion = 8006;
inline constexpr int kModifyRegion = 8007;
inline constexpr int kSaveAll = 8011;

inline constexpr int kUndo = 9401;
inline constexpr int kRedo = 9402;
} // namespace SECmd

struct SECommandInfo {
    int id;
    char const* name;   // the command line's name for it
    char const* text;   // what it does, as the task list and the help show it
    bool needsDocument; // ignored without a current document
    bool built;         // false: the feature behind it is not part of this version
};

// Every command the main window knows, in identifier order within each group.
[[nodiscard]] std::span<SECommandInfo const> SECommandTable();
// Null when no command has that identifier or name.
[[nodiscard]] SECommandInfo const* SEFindCommand(int id);
[[nodiscard]] SECommandInfo const* SEFindCommandByName(char const* name);

// One entry of the main window's task list.
struct SETaskListEntry {
    int group; // 1 file, 2 edit, 3 effects, 4 tools
    int id;
    char const* text;
    char const* tip;
};
[[nodiscard]] std::span<SETaskListEntry const> SETaskList();

inline constexpr char const kSEUndoButtonTip[] = "Undo the previous change to this file";
inline constexpr char const kSERedoButtonTip[] = "Redo the last undone change to this file";
