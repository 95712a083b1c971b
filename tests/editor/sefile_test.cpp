// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/sefile.h"

#include "llib/gen/settings.h"
#include "llib/snd/cache.h"
#include "tests/support/tempdir.h"

#include <sys/time.h>

#include <string>

namespace {

// Documents whose audio is silence of a given length: each state is told apart by its length.
class SEFileTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
        SESharedRegions().Clear();
    }
    void TearDown() override {
        SESharedRegions().Clear();
        LTempDirTest::TearDown();
    }

    static LCutListAudio Silence(long long frames) {
        LCutListAudio audio;
        audio.SetSampleRate(44100);
        audio.SetChannels(1);
        audio.EfInsertSilence(0, frames);
        return audio;
    }

    // A change as the editor makes one: snapshot, then the new state.
    static void Change(SEFile& file, long long frames, char const* what) {
        file.SaveForUndo(what);
        file.GetAudio() = Silence(frames);
        file.SetModified(true);
        file.SetChanged(true);
    }
};

TEST_F(SEFileTest, OneChangeUndoesAndRedoesOnce) {
    SEFile file(Silence(10));
    EXPECT_FALSE(file.CanUndo());
    EXPECT_EQ(file.GetUndoLabel(), "Undo ");
    Change(file, 20, "Delete");
    EXPECT_EQ(file.GetUndoLabel(), "Undo Delete");
    EXPECT_FALSE(file.CanRedo());
    EXPECT_EQ(file.GetRedoLabel(), "Redo ");

    ASSERT_TRUE(file.Undo());
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 10);
    EXPECT_FALSE(file.Undo());
    EXPECT_TRUE(file.CanRedo());
    EXPECT_EQ(file.GetRedoLabel(), "Redo Delete");
    ASSERT_TRUE(file.Redo());
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 20);
    EXPECT_FALSE(file.Redo());

    // Undo, then a new change: the redo state is gone.
    ASSERT_TRUE(file.Undo());
    Change(file, 30, "Paste");
    EXPECT_FALSE(file.CanRedo());
    EXPECT_FALSE(file.Redo());
}

TEST_F(SEFileTest, TheRingHoldsTwentyNineUndosAndAsManyRedos) {
    for (int changes : {29, 30, 45}) {
        SEFile file(Silence(1));
        for (int i = 2; i <= changes + 1; ++i) {
            Change(file, i, ("Change " + std::to_string(i)).c_str());
        }
        int undone = 0;
        while (file.Undo()) {
            ++undone;
        }
        EXPECT_EQ(undone, 29) << changes << " changes";
        // The oldest reachable state: before the first change when there were 29.
        EXPECT_EQ(file.GetAudio().GetLengthFrames(), changes + 1 - 29) << changes << " changes";
        int redone = 0;
        while (file.Redo()) {
            ++redone;
        }
        EXPECT_EQ(redone, 29) << changes << " changes";
        EXPECT_EQ(file.GetAudio().GetLengthFrames(), changes + 1);
    }
}

TEST_F(SEFileTest, SnapshotsKeepEverythingAndCaretTheEmptySelection) {
    SEFile file(Silence(1000));
    file.SetCursor(500);
    file.SetSelection({100, 100, 0, 0, false});
    file.SetViewBlock({7, 9});
    file.AddBookmark("intro", 40);
    SESharedRegions().AddTail(std::make_unique<SERegion>("verse", 10, 90));
    file.SaveForUndo("Cut");
    SEFileUndo const& slot = file.GetUndoSlot(file.GetUndoCurrent());
    EXPECT_EQ(slot.selection.start, 500);
    EXPECT_EQ(slot.selection.end, 500);
    EXPECT_EQ(std::string(slot.description), "Cut");

    // Everything changes; undo brings all of it back, the shared regions included.
    file.GetAudio() = Silence(5);
    file.SetCursor(3);
    file.SetViewBlock({1, 1});
    ASSERT_TRUE(file.DeleteBookmark("intro"));
    EXPECT_FALSE(file.DeleteBookmark("intro"));
    SESharedRegions().Clear();
    ASSERT_TRUE(file.Undo());
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 1000);
    EXPECT_EQ(file.GetCursor(), 500);
    EXPECT_EQ(file.GetSelection().start, 500);
    EXPECT_EQ(file.GetViewBlock()[1], 9);
    ASSERT_NE(file.GetBookmarks().GetHead(), nullptr);
    EXPECT_EQ(file.GetBookmarks().GetHead()->position, 40);
    ASSERT_NE(SESharedRegions().GetHead(), nullptr);
    EXPECT_EQ(std::string(SESharedRegions().GetHead()->name), "verse");

    // A description longer than 259 characters is cut.
    file.SaveForUndo(std::string(400, 'x').c_str());
    EXPECT_EQ(std::string(file.GetUndoSlot(file.GetUndoCurrent()).description).size(), 259u);
}

TEST_F(SEFileTest, UndoingBackToTheSavedStateMakesTheDocumentClean) {
    SEFile file(Silence(10));
    file.SetFileClean();
    EXPECT_FALSE(file.IsModified());
    Change(file, 20, "Amplify");
    EXPECT_TRUE(file.IsModified());
    ASSERT_TRUE(file.Undo());
    EXPECT_FALSE(file.IsModified()) << "back at the saved state";
    ASSERT_TRUE(file.Redo());
    EXPECT_TRUE(file.IsModified());

    // Revert: several changes later, straight back to the saved state.
    Change(file, 30, "Fade In");
    Change(file, 40, "Reverse");
    EXPECT_TRUE(file.IsUndoLastSaveAvailable());
    ASSERT_TRUE(file.UndoToLastSave());
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 10);
    EXPECT_FALSE(file.IsModified());
}

TEST_F(SEFileTest, ReleasedHistoryReleasesItsAudio) {
    unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
    {
        SEFile file(Silence(10));
        LCutListAudio withItem;
        withItem.SetSingleCutListSegment(LCutListSegment(item, 0, 100), 44100, 1);
        file.GetAudio() = withItem;
        // References: the test's own, `withItem`'s, and the "Delete" snapshot's.
        Change(file, 20, "Delete");
        EXPECT_EQ(LSoundCache::GetRefCount(item), 3);
        // Undo brings the item back into the document; the next change's snapshot takes the
        // undone slot's place (its copy replaces the old one) and frees the "Redo" slot.
        ASSERT_TRUE(file.Undo());
        EXPECT_EQ(LSoundCache::GetRefCount(item), 4);
        Change(file, 30, "Paste");
        EXPECT_EQ(LSoundCache::GetRefCount(item), 3);
    }
    EXPECT_EQ(LSoundCache::GetRefCount(item), 1) << "only the test's own reference is left";
    LSoundCache::DecRef(item);
}

TEST_F(SEFileTest, NewNamesFollowTheFormatAndItsTokens) {
    LSettingsStore settings(PathOf("settings.ini"));
    EXPECT_EQ(SEGetNewFileName(false, "Take %autonumber% 100%", 1, &settings), "Take 1 100%");
    EXPECT_EQ(SEGetNewFileName(false, nullptr, 7, &settings), "Untitled_7");
    std::string const dated = SEGetNewFileName(false, "%YYYY%-%MM%-%DD% %i", 3, &settings);
    ASSERT_EQ(dated.size(), std::string("2026-11-22 %i").size());
    EXPECT_EQ(dated.substr(4, 1), "-");
    EXPECT_EQ(dated.substr(10), " %i") << "a user's own %i is text";
    ASSERT_TRUE(settings.SetString("Settings", "FileNameFormat", "Rec %autonumber%"));
    EXPECT_EQ(SEGetNewFileName(true, nullptr, 2, &settings), "Rec 2");
    EXPECT_EQ(settings.GetInt("Settings", "iAutoNumber", 0), 2);
}

TEST_F(SEFileTest, OutsideChangesAreReportedOnceAndCanBeSilenced) {
    std::string const path = PathOf("song.wav");
    ASSERT_TRUE(WriteFileBytes(path, "one", 3));
    timeval const past[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(path.c_str(), past), 0);
    SEFile file(path.c_str(), Silence(5));
    LSettingsStore settings(PathOf("settings.ini"));
    EXPECT_FALSE(file.TestForFileModifications(&settings));
    timeval const later[2] = {{1000000100, 0}, {1000000100, 0}};
    ASSERT_EQ(utimes(path.c_str(), later), 0);
    EXPECT_TRUE(file.TestForFileModifications(&settings));
    EXPECT_FALSE(file.TestForFileModifications(&settings)) << "each change is reported once";
    timeval const again[2] = {{1000000200, 0}, {1000000200, 0}};
    ASSERT_EQ(utimes(path.c_str(), again), 0);
    ASSERT_TRUE(settings.SetString("Settings", "FileModAlert", "0"));
    EXPECT_FALSE(file.TestForFileModifications(&settings));

    // A bare new name goes into the file's folder with its extension.
    file.SetFileName("other");
    EXPECT_EQ(std::string(file.GetPath()), PathOf("other.wav"));
    file.SetFileName("/elsewhere/x.flac");
    EXPECT_EQ(std::string(file.GetPath()), "/elsewhere/x.flac");
}

} // namespace
