// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/secoreutils.h"

#include "llib/gen/settings.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/cache.h"
#include "llib/snd/gensource.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// Passes everything through to the front end's progress display and keeps the error message,
// which the core shows (and the command line prints) once the work has ended.
class SECapturingProcess final : public LProcessInterfaceForward {
public:
    using LProcessInterfaceForward::LProcessInterfaceForward;
    void SetError(char const* message) override {
        m_error = message != nullptr ? message : "";
        LProcessInterfaceForward::SetError(message);
    }
    [[nodiscard]] std::string const& GetError() const { return m_error; }

private:
    std::string m_error;
};

long long Clamp(long long position, long long length) {
    return std::clamp(position, 0LL, length);
}

} // namespace

bool SEIsUnsavedPath(char const* path) {
    return path == nullptr || std::strchr(path, '/') == nullptr;
}

SECoreUtils::SECoreUtils(SEWindowManager& windows, SEUserInterface& ui, LSettingsStore* settings)
    : m_windows(windows), m_ui(ui), m_settings(settings) {
    m_clipboard.SetSampleRate(kLCutListDefaultSampleRate);
    m_clipboard.SetChannels(1);
}

LSettingsStore& SECoreUtils::GetSettings() const {
    return m_settings != nullptr ? *m_settings : LSettingsStore::GetDefault();
}

SEFileGUI* SECoreUtils::Resolve(SEFileGUI* view) const {
    SEFileGUI* const v = view != nullptr ? view : m_windows.GetCurrent();
    if (v == nullptr || !v->IsShown() || v->GetFile() == nullptr) {
        return nullptr;
    }
    return v;
}

SEResult SECoreUtils::Fail(char const* title, std::string const& text) {
    m_lastError = text;
    (void)m_ui.MessageBox(title, text.c_str(), {"OK"});
    return SEResult::kFailed;
}

void SECoreUtils::SendEvent(SEFileGUI& view, int event) {
    m_ui.DocumentEvent(view, event);
}

// ---- one modification ----

bool SECoreUtils::StartModifyFile(SEFileGUI* view, char const* description, bool redraw) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return false;
    }
    SEFile& file = *v->GetFile();
    file.SaveForUndo(description);
    file.SetModified(true);
    file.SetChanged(true);
    SendEvent(*v, kSEEventDocumentModified);
    if (redraw) {
        m_ui.Redraw(*v);
    }
    return true;
}

bool SECoreUtils::StartModifyCurrentFile(char const* description) {
    return StartModifyFile(nullptr, description);
}

bool SECoreUtils::CheckFreeSpace(SEFileGUI const* view, char const* folder) {
    struct stat info {};
    if (view == nullptr || folder == nullptr || ::stat(folder, &info) != 0 ||
        !S_ISDIR(info.st_mode)) {
        return true;
    }
    struct statvfs space {};
    if (::statvfs(folder, &space) != 0) {
        return true;
    }
    LCutListAudio const& audio = view->GetFile()->GetAudio();
    // In long double: a document of 2^50 frames of 255 channels overflows 64 bits.
    long double const needed = static_cast<long double>(audio.GetLengthFrames()) * 4.0L *
                               static_cast<long double>(audio.GetChannels());
    long double const free =
        static_cast<long double>(space.f_bavail) * static_cast<long double>(space.f_frsize);
    if (free > needed) {
        return true;
    }
    std::string const text = LStrFormat(
        "The last action you performed to the file \"%s\" might not be saved because you have "
        "very low free disk space. Please try saving the file to a different location or making "
        "more space by removing unwanted files then try again.",
        view->GetFile()->GetPath());
    (void)m_ui.MessageBox("Low Disk Space", text.c_str(), {"OK"});
    return false;
}

bool SECoreUtils::EndModifyFile(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return false;
    }
    // A warning only: the edit stays.
    (void)CheckFreeSpace(v, LSoundCache::GetFolder().c_str());
    m_ui.Redraw(*v);
    std::string const play = GetSettings().GetString("Settings", "AutoPlaybackAfterEffects", "");
    if (!play.empty() && play != "0") {
        m_ui.StartPlayback(*v);
    }
    return true;
}

bool SECoreUtils::EndModifyCurrentFile() {
    return EndModifyFile(nullptr);
}

void SECoreUtils::CancelModifyFile(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v != nullptr) {
        v->GetFile()->DropNewestSnapshot();
    }
}

void SECoreUtils::RollBackModifyFile(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return;
    }
    SEFile& file = *v->GetFile();
    file.UndoRedoApply(file.GetUndoCurrent());
    CancelModifyFile(v);
    ShowRestored(*v);
}

void SECoreUtils::ModifySelection(SEFileGUI* view, long long start, long long end, long long cursor,
                                  bool redraw) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return;
    }
    SEFile& file = *v->GetFile();
    long long const length = file.GetAudio().GetLengthFrames();
    SESelectionState selection = file.GetSelection();
    selection.start = Clamp(start, length);
    selection.end = Clamp(end, length);
    if (selection.end < selection.start) {
        std::swap(selection.start, selection.end);
    }
    file.SetSelection(selection);
    file.SetCursor(Clamp(cursor, length));
    if (redraw) {
        m_ui.Redraw(*v);
    }
}

SEResult SECoreUtils::RunProcess(char const* title, char const* failTitle,
                                 SEProcessFunction const& work) {
    std::string error;
    LProcessResult const result = m_ui.RunProcess(title, [&](LProcessInterface& process) {
        SECapturingProcess capture(process);
        LProcessResult const r = work(capture);
        error = capture.GetError();
        return r;
    });
    switch (result) {
    case LProcessResult::kCompleted:
        return SEResult::kDone;
    case LProcessResult::kStopped:
        m_lastError = "Stopped.";
        return SEResult::kCancelled;
    case LProcessResult::kFailed:
        break;
    }
    return Fail(failTitle,
                error.empty() ? std::string("The operation could not be completed.") : error);
}

SEResult SECoreUtils::RunEffect(SEFileGUI* view, SEEfCutListProcess& effect,
                                char const* description) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    LFileModifier modifier(*this, description, v);
    if (!modifier.IsStarted()) {
        return SEResult::kIgnored;
    }
    long long const before = v->GetFile()->GetAudio().GetLengthFrames();
    SEResult const result =
        RunProcess(effect.GetEffectName(), description, [&effect](LProcessInterface& process) {
            return effect.ProcessAndInsertCutList(process);
        });
    if (result != SEResult::kDone) {
        return result;
    }
    // The processed part stays selected, at its new length.
    SESelection const& s = effect.GetSelection();
    long long const end =
        std::min(s.end, before) + v->GetFile()->GetAudio().GetLengthFrames() - before;
    ModifySelection(v, s.start, end, s.start, false);
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

// ---- the ring ----

SEResult SECoreUtils::StepRing(SEFileGUI* view, bool (SEFile::*step)(), char const* nothing) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (!(v->GetFile()->*step)()) {
        m_lastError = nothing;
        return SEResult::kIgnored;
    }
    ShowRestored(*v);
    return SEResult::kDone;
}

void SECoreUtils::ShowRestored(SEFileGUI& view) {
    // The state brought back decides whether the document now differs from its file.
    SendEvent(view,
              view.GetFile()->IsModified() ? kSEEventDocumentModified : kSEEventDocumentClean);
    m_ui.Redraw(view);
}

SEResult SECoreUtils::CmUndo(SEFileGUI* view, int reserved) {
    (void)reserved;
    return StepRing(view, &SEFile::Undo, "There is nothing to undo.");
}

SEResult SECoreUtils::CmRedo(SEFileGUI* view) {
    return StepRing(view, &SEFile::Redo, "There is nothing to redo.");
}

SEResult SECoreUtils::CmUndoToLastSave(SEFileGUI* view) {
    return StepRing(view, &SEFile::UndoToLastSave,
                    "The document is as it was last saved, or that state is no longer kept.");
}

// ---- clipboard and edits ----

void SECoreUtils::SetClipboard(LCutListAudio const& clip) {
    m_clipboard = clip;
    m_hasClipboard = true;
}

SEResult SECoreUtils::CmCopy(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SEFile const& file = *v->GetFile();
    SESelection const selection = SESelectionOf(file);
    if (selection.IsEmpty()) {
        return Fail("Copy", "Nothing is selected: select the audio to copy first.");
    }
    LCutListAudio clip;
    file.GetAudio().EfCopy(selection.start,
                           std::min(selection.end, file.GetAudio().GetLengthFrames()), clip);
    SetClipboard(clip);
    return SEResult::kDone;
}

SEResult SECoreUtils::CmCut(SEFileGUI* view) {
    SEResult const copied = CmCopy(view);
    if (copied != SEResult::kDone) {
        if (copied == SEResult::kFailed) {
            m_lastError = "Nothing is selected: select the audio to cut first.";
        }
        return copied;
    }
    return CmClear(view, "Cut");
}

SEResult SECoreUtils::DeleteRange(SEFileGUI& view, char const* description,
                                  SESelection const& range, SESelectionState const& selection,
                                  long long cursor) {
    LFileModifier modifier(*this, description, &view);
    if (!modifier.IsStarted()) {
        return SEResult::kIgnored;
    }
    SEEfDelete effect(view.GetFilePtr(), range);
    SEResult const result = RunProcess(description, description, [&effect](LProcessInterface& p) {
        return effect.ProcessAndInsertCutList(p);
    });
    if (result != SEResult::kDone) {
        return result;
    }
    // A band keeps the document's length, so nothing after it moves.
    if (!range.band) {
        view.GetFile()->OffsetBookmarks(range.start, range.start - range.end);
    }
    ModifySelection(&view, selection.start, selection.end, cursor, false);
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

SEFileGUI* SECoreUtils::ResolveSelected(SEFileGUI* view, SESelection& selection) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return nullptr;
    }
    selection = SESelectionOf(*v->GetFile());
    if (selection.IsEmpty()) {
        m_lastError = "Nothing is selected.";
        return nullptr;
    }
    return v;
}

SEResult SECoreUtils::CmClear(SEFileGUI* view, char const* description) {
    SESelection selection;
    SEFileGUI* const v = ResolveSelected(view, selection);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SESelectionState collapsed = v->GetFile()->GetSelection();
    collapsed.start = collapsed.end = selection.start;
    return DeleteRange(*v, description, selection, collapsed, selection.start);
}

SEResult SECoreUtils::CmPaste(SEFileGUI* view, long long position) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (!m_hasClipboard) {
        return Fail("Paste", "The clipboard is empty: copy or cut some audio first.");
    }
    SEFile& file = *v->GetFile();
    LCutListAudio& audio = file.GetAudio();
    SESelection selection = SESelectionOf(file);
    if (position >= 0 || selection.IsEmpty()) {
        long long const at =
            Clamp(position >= 0 ? position : file.GetCursor(), audio.GetLengthFrames());
        selection = SESelection{at, at, 0, 0, false};
    }
    LFileModifier modifier(*this, "Paste", v);
    if (!modifier.IsStarted()) {
        return SEResult::kIgnored;
    }
    if (audio.GetLengthFrames() == 0) {
        // An empty document takes the clip's format rather than converting it to a default one.
        audio.SetSampleRate(m_clipboard.GetSampleRate());
        audio.SetChannels(m_clipboard.GetChannels());
    }
    long long const before = audio.GetLengthFrames();
    SEEfPasteOver effect(v->GetFilePtr(), selection, m_clipboard);
    SEResult const result = RunProcess("Paste", "Paste", [&effect](LProcessInterface& p) {
        return effect.ProcessAndInsertCutList(p);
    });
    if (result != SEResult::kDone) {
        return result;
    }
    long long const removed = std::min(selection.end, before) - selection.start;
    long long const pasted = audio.GetLengthFrames() - before + removed;
    file.OffsetBookmarks(selection.start, -removed);
    file.OffsetBookmarks(selection.start, pasted);
    long long const after = selection.start + pasted;
    ModifySelection(v, after, after, after, false);
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

namespace {

// The position the trims cut at: the selection's edge, or the cursor without a selection.
long long TrimPoint(SEFile const& file, bool start) {
    SESelectionState const& s = file.GetSelection();
    if (s.start == s.end) {
        return file.GetCursor();
    }
    return start ? s.start : s.end;
}

} // namespace

SEResult SECoreUtils::CmTrimStart(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SEFile const& file = *v->GetFile();
    long long const cut = Clamp(TrimPoint(file, true), file.GetAudio().GetLengthFrames());
    if (cut == 0) {
        m_lastError = "There is nothing before the cursor to trim.";
        return SEResult::kIgnored;
    }
    SESelectionState moved = file.GetSelection();
    moved.start -= cut;
    moved.end -= cut;
    return DeleteRange(*v, "Trim Start", SESelection{0, cut, 0, 0, false}, moved,
                       file.GetCursor() - cut);
}

SEResult SECoreUtils::CmTrimEnd(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SEFile const& file = *v->GetFile();
    long long const length = file.GetAudio().GetLengthFrames();
    long long const cut = Clamp(TrimPoint(file, false), length);
    if (cut == length) {
        m_lastError = "There is nothing after the cursor to trim.";
        return SEResult::kIgnored;
    }
    return DeleteRange(*v, "Trim End", SESelection{cut, length, 0, 0, false}, file.GetSelection(),
                       file.GetCursor());
}

SEResult SECoreUtils::CmSilence(SEFileGUI* view) {
    SESelection selection;
    SEFileGUI* const v = ResolveSelected(view, selection);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SEEfSilence effect(v->GetFilePtr(), selection);
    return RunEffect(v, effect, "Edit Silence");
}

namespace {

// What an effect works on: the selection, or the whole document without one.
SESelection EffectRange(SEFile const& file) {
    SESelection selection = SESelectionOf(file);
    if (selection.IsEmpty()) {
        selection = SESelection{0, file.GetAudio().GetLengthFrames(), 0, 0, false};
    }
    return selection;
}

} // namespace

template <class Effect, class... Args>
SEResult SECoreUtils::RunOnRange(SEFileGUI* view, char const* description, Args&&... args) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    Effect effect(v->GetFilePtr(), EffectRange(*v->GetFile()), std::forward<Args>(args)...);
    return RunEffect(v, effect, description);
}

SEResult SECoreUtils::CmReverse(SEFileGUI* view) {
    return RunOnRange<SEEfReverse>(view, "Reverse");
}

SEResult SECoreUtils::CmAmplify(SEFileGUI* view, float gain) {
    return RunOnRange<SEEfAmplify>(view, "Amplify", gain);
}

SEResult SECoreUtils::CmFade(SEFileGUI* view, bool in, LEnvelopeShape shape) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SESelection const range = EffectRange(*v->GetFile());
    char const* const name = in ? "Fade In" : "Fade Out";
    SEEfEnvelope effect(v->GetFilePtr(), range, SEFadeEnvelope(in, range.GetLength(), shape), name);
    return RunEffect(v, effect, name);
}

SEResult SECoreUtils::CmNormalize(SEFileGUI* view, float targetPeak) {
    return RunOnRange<SEEfNormalize>(view, "Normalize", targetPeak);
}

SEResult SECoreUtils::CmDCOffsetCorrection(SEFileGUI* view) {
    return RunOnRange<SEDCOffsetCorrection>(view, "DC Offset Correction");
}

SEResult SECoreUtils::CmEnvelope(SEFileGUI* view, LSPEnvelope const& envelope) {
    return RunOnRange<SEEfEnvelope>(view, "Envelope", envelope, "Envelope");
}

SEResult SECoreUtils::CmStereoPan(SEFileGUI* view, LSPPan const& pan) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (v->GetFile()->GetAudio().GetChannels() != 2) {
        return Fail("Stereo Pan", "Panning moves sound between two channels: this file is not "
                                  "stereo. Convert it to stereo first.");
    }
    return RunOnRange<SEEfStereoPan>(v, "Stereo Pan", pan);
}

SEResult SECoreUtils::CmConvertChannels(SEFileGUI* view, unsigned char channels) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    unsigned const have = v->GetFile()->GetAudio().GetChannels();
    if (have == channels) {
        m_lastError = channels == 1 ? "The file has only one channel." : "The file is stereo.";
        return SEResult::kIgnored;
    }
    SEEfConvertChannels effect(v->GetFilePtr(), channels);
    return RunEffect(v, effect, effect.GetEffectName());
}

SEResult SECoreUtils::CmEffectChainApply(SEFileGUI* view,
                                         std::shared_ptr<LSoundProcessMulti const> const& chain) {
    return RunOnRange<SEEfEffectChain>(view, "Apply Effect Chain", chain);
}

SEResult SECoreUtils::CmEffectChainPlay(SEFileGUI* view,
                                        std::shared_ptr<LSoundProcessMulti const> const& chain) {
    return PlayProcessed(view, [&chain](LSoundSource& input) { return chain->OpenSource(input); });
}

SEResult SECoreUtils::CmEffectPreview(SEFileGUI* view, LSoundProcess& effect) {
    return PlayProcessed(view, [&effect](LSoundSource& input) { return effect.OpenSource(input); });
}

SEResult SECoreUtils::PlayProcessed(SEFileGUI* view,
                                    std::function<LSoundSource(LSoundSource&)> const& open) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SESelection const range = EffectRange(*v->GetFile());
    LSoundSource source = range.OpenTrimmedSource(v->GetFile()->GetAudio());
    m_ui.PlaySource(*v, open(source));
    return SEResult::kDone;
}

SEResult SECoreUtils::CmEditSamples(SEFileGUI* view, std::vector<SESamplePoint> const& points) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (points.empty()) {
        m_lastError = "No sample values were given.";
        return SEResult::kIgnored;
    }
    long long const length = v->GetFile()->GetAudio().GetLengthFrames();
    long long first = points.front().position;
    long long last = first;
    for (SESamplePoint const& p : points) {
        if (p.position < 0 || p.position >= length) {
            return Fail("Edit Samples",
                        LStrFormat("Sample %lld is outside the document (0 to %lld).", p.position,
                                   length - 1));
        }
        first = std::min(first, p.position);
        last = std::max(last, p.position);
    }
    // The drawn points arrive in document positions; the effect sees them in its part.
    std::vector<SESamplePoint> local = points;
    for (SESamplePoint& p : local) {
        p.position -= first;
    }
    SEEfEditSamples effect(v->GetFilePtr(), SESelection{first, last + 1, 0, 0, false},
                           std::move(local));
    SESelectionState const old = v->GetFile()->GetSelection();
    long long const cursor = v->GetFile()->GetCursor();
    SEResult const result = RunEffect(v, effect, "Edit Samples");
    if (result == SEResult::kDone) {
        ModifySelection(v, old.start, old.end, cursor, true);
    }
    return result;
}

SEResult SECoreUtils::CmBookmark(SEFileGUI* view, char const* name) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    LFileModifier modifier(*this, "Bookmark", v);
    if (!modifier.IsStarted()) {
        return SEResult::kIgnored;
    }
    v->GetFile()->AddBookmark(name, v->GetFile()->GetCursor());
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

namespace {

SERegion* FindRegion(char const* name) {
    for (SERegion* r = SESharedRegions().GetHead(); r != nullptr; r = r->GetNext()) {
        if (std::strcmp(r->name, name) == 0) {
            return r;
        }
    }
    return nullptr;
}

bool HasBookmark(SEFile const& file, char const* name) {
    for (LSEBookmark const* b = file.GetBookmarks().GetHead(); b != nullptr; b = b->GetNext()) {
        if (std::strcmp(b->name, name) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

SEResult SECoreUtils::CmDeleteBookmark(SEFileGUI* view, char const* name) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (!HasBookmark(*v->GetFile(), name)) {
        return Fail("Delete Bookmark", LStrFormat("There is no bookmark named \"%s\".", name));
    }
    LFileModifier modifier(*this, "Delete Bookmark", v);
    (void)v->GetFile()->DeleteBookmark(name);
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

SEResult SECoreUtils::CmRenameBookmark(SEFileGUI* view, char const* name, char const* newName) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (!HasBookmark(*v->GetFile(), name)) {
        return Fail("Rename Bookmark", LStrFormat("There is no bookmark named \"%s\".", name));
    }
    LFileModifier modifier(*this, "Rename Bookmark", v);
    (void)v->GetFile()->RenameBookmark(name, newName);
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

SEResult SECoreUtils::CmBookmarkDeleteAll(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (v->GetFile()->GetBookmarks().GetCount() == 0) {
        m_lastError = "The file has no bookmarks.";
        return SEResult::kIgnored;
    }
    LFileModifier modifier(*this, "Delete all bookmarks", v);
    v->GetFile()->DeleteAllBookmarks();
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

SEResult SECoreUtils::CmSetRegion(SEFileGUI* view, char const* name) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    SESelectionState const& s = v->GetFile()->GetSelection();
    if (s.start == s.end) {
        return Fail("Add a region", "Select the part of the file the region is to cover.");
    }
    LFileModifier modifier(*this, "Add a region", v);
    SESharedRegions().AddTail(std::make_unique<SERegion>(name, s.start, s.end));
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

SEResult SECoreUtils::CmModifyRegion(SEFileGUI* view, char const* name, long long start,
                                     long long end) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (FindRegion(name) == nullptr) {
        return Fail("Modify Region", LStrFormat("There is no region named \"%s\".", name));
    }
    if (end < start || start < 0) {
        return Fail("Modify Region", "The region's end is before its start.");
    }
    LFileModifier modifier(*this, "Modify Region", v);
    // Found again: the snapshot copied the list, and the region object stays the live one.
    SERegion* const region = FindRegion(name);
    region->start = start;
    region->end = end;
    return modifier.Commit() ? SEResult::kDone : SEResult::kCancelled;
}

// ---- saving ----

SEResult SECoreUtils::SaveTo(SEFileGUI& view, std::string const& path) {
    SEFile& file = *view.GetFile();
    // The work gets its own copy: the document stays the main thread's while a worker saves.
    LCutListAudio const audio = file.GetAudio();
    LFileTagData const tags = file.GetTags();
    std::string const title = LStrFormat("Saving \"%s\"", path.c_str());
    SEResult const result = RunProcess(title.c_str(), "Save", [&](LProcessInterface& process) {
        return ProcessGenSaveCutList(process, audio, path.c_str(), nullptr, &tags);
    });
    if (result != SEResult::kDone) {
        return result;
    }
    if (path != file.GetPath()) {
        file.SetFileName(path.c_str());
    }
    file.SetFileClean();
    file.TakeFileTimeStamps();
    SendEvent(view, kSEEventDocumentClean);
    return SEResult::kDone;
}

SEResult SECoreUtils::CmSave(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (SEIsUnsavedPath(v->GetFile()->GetPath())) {
        return CmSaveAs(v);
    }
    return SaveTo(*v, v->GetFile()->GetPath());
}

SEResult SECoreUtils::CmSaveAs(SEFileGUI* view, char const* path) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    std::string target = path != nullptr ? path : "";
    if (target.empty()) {
        std::string suggested = v->GetFile()->GetPath();
        if (SEIsUnsavedPath(suggested.c_str())) {
            suggested += ".wav";
        }
        if (!m_ui.ChooseFileToSave(suggested.c_str(), target) || target.empty()) {
            m_lastError = "No file was chosen.";
            return SEResult::kCancelled;
        }
    }
    return SaveTo(*v, target);
}

SEResult SECoreUtils::SaveChanges(SEFileGUI* view) {
    SEFileGUI* const v = Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (!v->GetFile()->IsModified()) {
        return SEResult::kDone;
    }
    return CmSave(v);
}

// ---- LFileModifier ----

LFileModifier::LFileModifier(SECoreUtils& core, char const* description, SEFileGUI* view)
    : m_core(core), m_view(view) {
    m_started = view != nullptr ? core.StartModifyFile(view, description)
                                : core.StartModifyCurrentFile(description);
}

LFileModifier::~LFileModifier() {
    if (m_started && !m_committed) {
        m_core.RollBackModifyFile(m_view);
    }
}

bool LFileModifier::Commit() {
    if (!m_started || m_committed) {
        return m_committed;
    }
    m_committed = m_view != nullptr ? m_core.EndModifyFile(m_view) : m_core.EndModifyCurrentFile();
    return m_committed;
}
