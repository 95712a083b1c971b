// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/main.h"

#include "editor/seeffectdialog.h"
#include "llib/gen/settings.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/gain.h"
#include "llib/snd/soundprocessmulti.h"
#include "llib/snd/gensource.h"
#include "llib/snd/soundtime.h"
#include "llib/snd/wavtags.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

std::string PositionText(long long frames, int rateHz) {
    char text[kLSoundTimeTextChars];
    LSoundTime::FromFrames(frames, rateHz)._GetText(text);
    return text;
}

std::string AbsolutePath(char const* path) {
    if (path[0] == '/') {
        return path;
    }
    std::vector<char> folder(PATH_MAX);
    if (::getcwd(folder.data(), folder.size()) == nullptr) {
        return path;
    }
    return std::string(folder.data()) + "/" + path;
}

} // namespace

bool SEParsePosition(char const* text, int rateHz, long long& frames) {
    if (text == nullptr || rateHz < 1) {
        return false;
    }
    std::size_t const length = std::strlen(text);
    if (length > 3 && std::strcmp(text + length - 3, "smp") == 0) {
        long long value = 0;
        auto const [end, error] = std::from_chars(text, text + length - 3, value);
        if (error != std::errc() || end != text + length - 3 || value < 0) {
            return false;
        }
        frames = value;
        return true;
    }
    if (!LSoundTime::IsValid(text)) {
        return false;
    }
    LSoundTime time;
    time.SetText(text);
    if (time.GetMs() < 0) {
        return false;
    }
    frames = time.ToFrames(rateHz);
    return true;
}

bool SEParsePoints(std::string const& text, int rateHz, std::vector<SEParsedPoint>& points,
                   std::string& bad) {
    points.clear();
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const comma = std::min(text.find(',', at), text.size());
        std::string const item = text.substr(at, comma - at);
        std::size_t const colon = item.rfind(':');
        // The value follows the last colon: positions may hold colons of their own (1:30:0.5).
        std::string const value = colon == std::string::npos ? "" : item.substr(colon + 1);
        std::string const position = colon == std::string::npos ? "" : item.substr(0, colon);
        SEParsedPoint point;
        char* end = nullptr;
        errno = 0;
        point.value = std::strtod(value.c_str(), &end);
        if (value.empty() || *end != '\0' || errno != 0 || !std::isfinite(point.value) ||
            !SEParsePosition(position.c_str(), rateHz, point.position)) {
            bad = item;
            return false;
        }
        points.push_back(point);
        at = comma + 1;
    }
    return true;
}

bool SEParseInt(char const* text, long long minimum, long long maximum, long long& value) {
    if (text == nullptr) {
        return false;
    }
    char const* const end = text + std::strlen(text);
    long long parsed = 0;
    auto const [stop, error] = std::from_chars(text, end, parsed);
    if (error != std::errc() || stop != end || stop == text || parsed < minimum ||
        parsed > maximum) {
        return false;
    }
    value = parsed;
    return true;
}

MainDialog::MainDialog(SEUserInterface& ui, LSettingsStore* settings)
    : m_ui(ui), m_core(m_windows, ui, settings) {}

SEResult MainDialog::Command(int id, int notify) {
    (void)notify;
    m_core.ClearLastError();
    SECommandInfo const* const info = SEFindCommand(id);
    SEResult result = SEResult::kDone;
    if (info == nullptr) {
        m_core.SetLastError(LStrFormat("There is no command %d.", id));
        result = SEResult::kUnknown;
    } else if (info->needsDocument && GetCurrentView() == nullptr) {
        m_core.SetLastError("No file is open.");
        result = SEResult::kIgnored;
    } else if (!info->built) {
        std::string const text =
            LStrFormat("\"%s\" is not available in this version of Tessel.", info->text);
        (void)m_ui.MessageBox("Tessel", text.c_str(), {"OK"});
        m_core.SetLastError(text);
        result = SEResult::kUnavailable;
    } else {
        result = Dispatch(id);
    }
    UpdateUndoMenuItem();
    return result;
}

SEResult MainDialog::Dispatch(int id) {
    switch (id) {
    case SECmd::kNew:
        return CmNew();
    case SECmd::kOpen:
        return CmOpen();
    case SECmd::kClose:
        return CmCloseFileWindow();
    case SECmd::kSave:
        return m_core.CmSave(nullptr);
    case SECmd::kSaveAs:
        return CmSaveAs();
    case SECmd::kSaveChanges:
        return m_core.SaveChanges(nullptr);
    case SECmd::kSelectAll:
        return CmSelectAll();
    case SECmd::kSelectNone:
        return CmSelectNone();
    case SECmd::kSelect:
        return CmSelectRange();
    case SECmd::kCopy:
        return m_core.CmCopy(nullptr);
    case SECmd::kPaste:
        return m_core.CmPaste(nullptr);
    case SECmd::kCursor:
        return CmSetCursor();
    case SECmd::kEditSamples:
        return CmEditSamples();
    case SECmd::kDelete:
        return m_core.CmClear(nullptr);
    case SECmd::kTrimStart:
        return m_core.CmTrimStart(nullptr);
    case SECmd::kTrimEnd:
        return m_core.CmTrimEnd(nullptr);
    case SECmd::kSilence:
        return m_core.CmSilence(nullptr);
    case SECmd::kPasteAsNew:
        return CmPasteAsNew();
    case SECmd::kRevert:
        return m_core.CmUndoToLastSave(nullptr);
    case SECmd::kCut:
        return m_core.CmCut(nullptr);
    case SECmd::kAmplify:
        return CmAmplify();
    case SECmd::kNormalize:
        return CmNormalize();
    case SECmd::kFadeIn:
    case SECmd::kFadeOut:
        return CmFade(id == SECmd::kFadeIn);
    case SECmd::kEnvelope:
    case SECmd::kEnvelopeDb:
        return CmEnvelope(id == SECmd::kEnvelopeDb);
    case SECmd::kDCOffset:
        return m_core.CmDCOffsetCorrection(nullptr);
    case SECmd::kToStereo:
    case SECmd::kJoinChannels:
        return m_core.CmConvertChannels(nullptr, id == SECmd::kToStereo ? 2 : 1);
    case SECmd::kPan:
        return CmStereoPan();
    case SECmd::kEffectChain:
    case SECmd::kEffectChainPreview:
        return CmEffectChain(id == SECmd::kEffectChainPreview);
    case SECmd::kReverse:
        return m_core.CmReverse(nullptr);
    case SECmd::kWindow:
        return CmWindow();
    case SECmd::kBookmark:
        return CmBookmark();
    case SECmd::kDeleteBookmark:
    case SECmd::kRenameBookmark:
        return CmBookmarkEdit(id);
    case SECmd::kDeleteAllBookmarks:
        return m_core.CmBookmarkDeleteAll(nullptr);
    case SECmd::kSetRegion:
        return CmSetRegion();
    case SECmd::kModifyRegion:
        return CmModifyRegion();
    case SECmd::kSaveAll:
        return CmSaveAll();
    case SECmd::kUndo:
        return m_core.CmUndo(nullptr);
    case SECmd::kRedo:
        return m_core.CmRedo(nullptr);
    default:
        break;
    }
    m_core.SetLastError(LStrFormat("Command %d has no handler.", id));
    return SEResult::kUnknown;
}

void MainDialog::UpdateUndoMenuItem() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        m_undoText = "Undo ";
        m_redoText = "Redo ";
        m_undoEnabled = false;
        m_redoEnabled = false;
    } else {
        SEFile const& file = *view->GetFile();
        m_undoText = file.GetUndoLabel();
        m_redoText = file.GetRedoLabel();
        m_undoEnabled = file.CanUndo();
        m_redoEnabled = file.CanRedo();
    }
    m_ui.UpdateUndoItems(m_undoText.c_str(), m_undoEnabled, m_redoText.c_str(), m_redoEnabled);
}

// ---- files ----

SEResult MainDialog::CmNew() {
    LSettingsStore& settings = m_core.GetSettings();
    int const number = settings.GetInt("Settings", "iAutoNumber", 1);
    std::string const name = SEGetNewFileName(true, nullptr, number, &settings);
    LCutListAudio audio;
    SEFileGUI& view = m_windows.Add(std::make_shared<SEFile>(name.c_str(), audio));
    m_ui.Redraw(view);
    return SEResult::kDone;
}

SEResult MainDialog::ReadFileAudio(char const* titleFormat, char const* failTitle,
                                   std::string const& path, LCutListAudio& audio) {
    std::string const title = LStrFormat(titleFormat, path.c_str());
    return m_core.RunProcess(title.c_str(), failTitle, [&](LProcessInterface& process) {
        return ProcessGenOpenCutList(process, path.c_str(), audio);
    });
}

void MainDialog::ReadFileTags(std::string const& path, SEFile& file) {
    // Tags travel with the document so that saving it keeps them.
    file.GetTags() = LFileTagData();
    if (LGenFileExtension(path.c_str()) == ".wav") {
        (void)LWavTagsRead(path.c_str(), file.GetTags());
    }
}

SEResult MainDialog::CmOpenFile(char const* path) {
    if (path == nullptr || path[0] == '\0') {
        return m_core.Fail("Open", "No file was given to open.");
    }
    std::string const absolute = AbsolutePath(path);
    LCutListAudio audio;
    if (SEResult const result = ReadFileAudio("Opening \"%s\"", "Open", absolute, audio);
        result != SEResult::kDone) {
        return result;
    }
    auto file = std::make_shared<SEFile>(absolute.c_str(), audio);
    ReadFileTags(absolute, *file);
    file->SetModified(false);
    file->SetFileClean();
    SEFileGUI& view = m_windows.Add(std::move(file));
    m_ui.Redraw(view);
    return SEResult::kDone;
}

SEResult MainDialog::CmReloadFile(SEFileGUI* view) {
    if (view == nullptr || view->GetFile() == nullptr || view->GetFile()->GetPath()[0] == '\0') {
        return SEResult::kIgnored;
    }
    SEFile& file = *view->GetFile();
    std::string const path = file.GetPath();
    LCutListAudio audio;
    if (SEResult const result = ReadFileAudio("Reloading \"%s\"", "Reload", path, audio);
        result != SEResult::kDone) {
        return result;
    }
    if (!m_core.StartModifyFile(view, "Reload")) {
        return SEResult::kFailed;
    }
    file.GetAudio() = audio;
    if (!m_core.EndModifyFile(view)) {
        m_core.RollBackModifyFile(view);
        return SEResult::kFailed;
    }
    long long const cursor = std::min(file.GetCursor(), audio.GetLengthFrames());
    m_core.ModifySelection(view, cursor, cursor, cursor);
    ReadFileTags(path, file);
    file.SetFileClean();
    file.TakeFileTimeStamps();
    UpdateUndoMenuItem();
    m_ui.Redraw(*view);
    return SEResult::kDone;
}

SEResult MainDialog::CmOpen() {
    std::vector<std::string> paths;
    if (!m_ui.ChooseFilesToOpen(paths) || paths.empty()) {
        m_core.SetLastError("No file was chosen.");
        return SEResult::kCancelled;
    }
    for (std::string const& path : paths) {
        SEResult const result = CmOpenFile(path.c_str());
        if (result != SEResult::kDone) {
            return result;
        }
    }
    return SEResult::kDone;
}

SEResult MainDialog::CmCloseFileWindow(SEFileGUI* view) {
    SEFileGUI* const v = m_core.Resolve(view);
    if (v == nullptr) {
        return SEResult::kIgnored;
    }
    if (v->GetFile()->IsModified()) {
        std::string const text =
            LStrFormat("Save the changes to \"%s\" before closing?", v->GetFile()->GetPath());
        int const answer =
            m_ui.MessageBox("Tessel", text.c_str(), {"Save", "Don't Save", "Cancel"});
        if (answer == 2) {
            m_core.SetLastError("The file was not closed.");
            return SEResult::kCancelled;
        }
        if (answer == 0) {
            SEResult const saved = m_core.CmSave(v);
            if (saved != SEResult::kDone) {
                return saved;
            }
        }
    }
    m_windows.Remove(v);
    return SEResult::kDone;
}

SEResult MainDialog::CmSaveAs() {
    return m_core.CmSaveAs(nullptr, nullptr);
}

SEResult MainDialog::CmSaveAll() {
    for (std::size_t i = 0; i < m_windows.GetCount(); ++i) {
        SEFileGUI* const view = m_windows.At(i);
        if (view->GetFile() != nullptr && view->GetFile()->IsModified()) {
            SEResult const result = m_core.CmSave(view);
            if (result != SEResult::kDone) {
                return result;
            }
        }
    }
    return SEResult::kDone;
}

SEResult MainDialog::CmWindow() {
    SECommandFields fields{
        {"index", "File number", std::to_string(m_windows.GetCurrentIndex() + 1)}};
    if (!m_ui.AskValues("Switch to file", fields)) {
        return SEResult::kCancelled;
    }
    long long index = 0;
    char const* const text = fields[0].value.c_str();
    auto const [end, error] = std::from_chars(text, text + fields[0].value.size(), index);
    if (error != std::errc() || *end != '\0' || index < 1 ||
        static_cast<std::size_t>(index) > m_windows.GetCount()) {
        return BadValue("Switch to file",
                        LStrFormat("There is no open file number \"%s\" (%zu are open).", text,
                                   m_windows.GetCount()));
    }
    (void)m_windows.SetCurrent(static_cast<std::size_t>(index - 1));
    return SEResult::kDone;
}

// ---- selection and cursor ----

SEResult MainDialog::CmSelectAll() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    long long const length = view->GetFile()->GetAudio().GetLengthFrames();
    m_core.ModifySelection(view, 0, length, 0);
    return SEResult::kDone;
}

SEResult MainDialog::CmSelectNone() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    long long const cursor = view->GetFile()->GetCursor();
    m_core.ModifySelection(view, cursor, cursor, cursor);
    return SEResult::kDone;
}

SEResult MainDialog::CmSelectRange() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    SEFile& file = *view->GetFile();
    int const rate = file.GetAudio().GetSampleRate();
    SESelectionState const& current = file.GetSelection();
    auto const hzText = [&](std::uint32_t hz) {
        return current.secondaryInForce ? std::to_string(hz) : std::string();
    };
    SECommandFields fields{{"start", "Start", PositionText(current.start, rate)},
                           {"end", "End", PositionText(current.end, rate)},
                           {"low", "Lowest frequency (Hz)", hzText(current.secondaryLow)},
                           {"high", "Highest frequency (Hz)", hzText(current.secondaryHigh)}};
    if (!m_ui.AskValues("Select", fields)) {
        return SEResult::kCancelled;
    }
    long long start = 0;
    long long end = 0;
    for (std::size_t i = 0; i < 2; ++i) {
        SECommandField const& field = fields[i];
        if (!SEParsePosition(field.value.c_str(), rate, i == 0 ? start : end)) {
            return BadValue("Select",
                            LStrFormat("The %s of the selection, \"%s\", is not a time or a "
                                       "sample position.",
                                       field.key.c_str(), field.value.c_str()));
        }
    }
    if (end < start) {
        return BadValue("Select", LStrFormat("The end of the selection (%s) is before its start "
                                             "(%s).",
                                             fields[1].value.c_str(), fields[0].value.c_str()));
    }
    // Both frequencies make the selection a band of them; neither, the whole spectrum.
    std::string const& lowText = fields[2].value;
    std::string const& highText = fields[3].value;
    SESelectionState band = current;
    band.secondaryInForce = !lowText.empty() || !highText.empty();
    if (band.secondaryInForce) {
        long long low = -1;
        long long high = -1;
        if (!SEParseInt(lowText.c_str(), 0, 1000000, low) ||
            !SEParseInt(highText.c_str(), 0, 1000000, high)) {
            return BadValue("Select", "A frequency band needs its lowest and highest frequency, "
                                      "each a whole number of Hz from 0 to 1000000.");
        }
        if (high < low) {
            return BadValue("Select", LStrFormat("The highest frequency (%lld Hz) is below the "
                                                 "lowest (%lld Hz).",
                                                 high, low));
        }
        band.secondaryLow = static_cast<std::uint32_t>(low);
        band.secondaryHigh = static_cast<std::uint32_t>(high);
    }
    file.SetSelection(band);
    // A range reaching past the end means "to the end".
    m_core.ModifySelection(view, start, end, start);
    return SEResult::kDone;
}

SEResult MainDialog::CmSetCursor() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    SEFile const& file = *view->GetFile();
    int const rate = file.GetAudio().GetSampleRate();
    SECommandFields fields{{"position", "Position", PositionText(file.GetCursor(), rate)}};
    if (!m_ui.AskValues("Move the cursor", fields)) {
        return SEResult::kCancelled;
    }
    long long position = 0;
    if (!SEParsePosition(fields[0].value.c_str(), rate, position)) {
        return BadValue("Move the cursor", LStrFormat("\"%s\" is not a time or a sample position.",
                                                      fields[0].value.c_str()));
    }
    m_core.ModifySelection(view, position, position, position);
    return SEResult::kDone;
}

SEResult MainDialog::CmEditSamples() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    int const rate = view->GetFile()->GetAudio().GetSampleRate();
    SECommandFields fields{{"points", "Points (position:value, ...)", ""}};
    if (!m_ui.AskValues("Edit Samples", fields)) {
        return SEResult::kCancelled;
    }
    std::vector<SEParsedPoint> parsed;
    std::string bad;
    if (!SEParsePoints(fields[0].value, rate, parsed, bad)) {
        return BadValue("Edit Samples", LStrFormat("\"%s\" is not a point: write POSITION:VALUE, "
                                                   "for example 1200smp:0.5.",
                                                   bad.c_str()));
    }
    std::vector<SESamplePoint> points;
    for (SEParsedPoint const& p : parsed) {
        points.push_back(SESamplePoint{p.position, static_cast<float>(p.value)});
    }
    return m_core.CmEditSamples(view, points);
}

// ---- clipboard, bookmarks ----

SEResult MainDialog::CmPasteAsNew() {
    if (!m_core.HasClipboard()) {
        return m_core.Fail("Paste as New", "The clipboard is empty: copy or cut some audio first.");
    }
    LSettingsStore& settings = m_core.GetSettings();
    int const number = settings.GetInt("Settings", "iAutoNumber", 1);
    std::string const name = SEGetNewFileName(true, nullptr, number, &settings);
    SEFileGUI& view = m_windows.Add(std::make_shared<SEFile>(name.c_str(), m_core.GetClipboard()));
    m_ui.Redraw(view);
    return SEResult::kDone;
}

SEResult MainDialog::CmBookmark() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    std::size_t const count = view->GetFile()->GetBookmarks().GetCount();
    SECommandFields fields{{"name", "Name", LStrFormat("Bookmark %zu", count + 1)}};
    if (!m_ui.AskValues("Bookmark", fields)) {
        return SEResult::kCancelled;
    }
    return m_core.CmBookmark(view, fields[0].value.c_str());
}

SEResult MainDialog::CmBookmarkEdit(int id) {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    bool const rename = id == SECmd::kRenameBookmark;
    SECommandFields fields{{"name", "Bookmark", ""}};
    if (rename) {
        fields.push_back({"to", "New name", ""});
    }
    if (!m_ui.AskValues(rename ? "Rename Bookmark" : "Delete Bookmark", fields)) {
        return SEResult::kCancelled;
    }
    return rename ? m_core.CmRenameBookmark(view, fields[0].value.c_str(), fields[1].value.c_str())
                  : m_core.CmDeleteBookmark(view, fields[0].value.c_str());
}

SEResult MainDialog::CmSetRegion() {
    std::size_t const count = SESharedRegions().GetCount();
    SECommandFields fields{{"name", "Name", LStrFormat("Region %zu", count + 1)}};
    if (!m_ui.AskValues("Add a region", fields)) {
        return SEResult::kCancelled;
    }
    return m_core.CmSetRegion(GetCurrentView(), fields[0].value.c_str());
}

SEResult MainDialog::CmModifyRegion() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    int const rate = view->GetFile()->GetAudio().GetSampleRate();
    SECommandFields fields{{"name", "Region", ""}, {"start", "Start", "0"}, {"end", "End", "0"}};
    if (!m_ui.AskValues("Modify Region", fields)) {
        return SEResult::kCancelled;
    }
    long long start = 0;
    long long end = 0;
    if (!SEParsePosition(fields[1].value.c_str(), rate, start) ||
        !SEParsePosition(fields[2].value.c_str(), rate, end)) {
        return BadValue("Modify Region", "The region's start and end must be times or sample "
                                         "positions.");
    }
    return m_core.CmModifyRegion(view, fields[0].value.c_str(), start, end);
}

SEResult MainDialog::CmAmplify() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    // The dialog starts from the last gain chosen, which batch jobs repeat.
    LSettingsStore& settings = m_core.GetSettings();
    LSPGain gain;
    int const last = settings.GetInt("StoredValues", "AmplifyGain", 100);
    gain.SetParameterByIndex(0, &last);
    std::string error;
    SEResult const asked = m_ui.EditEffect(
        "Amplify", gain, [this, view](LSoundProcess& e) { (void)m_core.CmEffectPreview(view, e); },
        error);
    if (asked == SEResult::kFailed) {
        return BadValue("Amplify", error);
    }
    if (asked != SEResult::kDone) {
        return asked;
    }
    LSoundProcessParameter percentage;
    gain.GetParameterByIndex(0, &percentage);
    (void)settings.SetInt("StoredValues", "AmplifyGain", percentage.GetValue<int>());
    return m_core.CmAmplify(view, gain.GetGain());
}

SEResult MainDialog::CmFade(bool in) {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    char const* const title = in ? "Fade In" : "Fade Out";
    static char const* const kShapes[] = {"linear", "logarithmic", "exponential", "sinusoidal"};
    SECommandFields fields{{"shape", "Curve", "linear"}};
    if (!m_ui.AskValues(title, fields)) {
        return SEResult::kCancelled;
    }
    for (unsigned shape = 0; shape < 4; ++shape) {
        if (fields[0].value == kShapes[shape]) {
            return m_core.CmFade(view, in, static_cast<LEnvelopeShape>(shape));
        }
    }
    return BadValue(title, LStrFormat("\"%s\" is not a curve: linear, logarithmic, exponential "
                                      "or sinusoidal.",
                                      fields[0].value.c_str()));
}

SEResult MainDialog::CmNormalize() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    LSettingsStore& settings = m_core.GetSettings();
    double const last = settings.GetDouble("Settings", "NormalizeTargetPeak", 1.0);
    double const lastDb = last > 0.0 ? 20.0 * std::log10(last) : 0.0;
    SECommandFields fields{{"peak-db", "Peak level (dB of full scale)", LStrFormat("%g", lastDb)}};
    if (!m_ui.AskValues("Normalize", fields)) {
        return SEResult::kCancelled;
    }
    char* end = nullptr;
    errno = 0;
    double const db = std::strtod(fields[0].value.c_str(), &end);
    if (fields[0].value.empty() || *end != '\0' || errno != 0 || !(db >= -96.0 && db <= 0.0)) {
        return BadValue("Normalize", LStrFormat("The peak level \"%s\" is not a level from -96 "
                                                "to 0 dB.",
                                                fields[0].value.c_str()));
    }
    double const peak = std::pow(10.0, db / 20.0);
    (void)settings.SetDouble("Settings", "NormalizeTargetPeak", peak);
    return m_core.CmNormalize(view, static_cast<float>(peak));
}

SEResult MainDialog::CmEnvelope(bool decibels) {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    char const* const title = "Envelope";
    static char const* const kShapes[] = {"linear", "logarithmic", "exponential", "sinusoidal"};
    SECommandFields fields{
        {"points", decibels ? "Points (position:dB, ...)" : "Points (position:percent, ...)", ""},
        {"shape", "Curve", "linear"}};
    if (!m_ui.AskValues(title, fields)) {
        return SEResult::kCancelled;
    }
    int const rate = view->GetFile()->GetAudio().GetSampleRate();
    std::vector<SEParsedPoint> points;
    std::string bad;
    if (!SEParsePoints(fields[0].value, rate, points, bad) || points.empty()) {
        return BadValue(title,
                        LStrFormat("\"%s\" is not a list of points: write "
                                   "POSITION:LEVEL, ..., positions from the start of the "
                                   "selection, for example 0:%s,2.5:%s.",
                                   bad.c_str(), decibels ? "-20" : "10", decibels ? "0" : "100"));
    }
    LSPEnvelope envelope;
    for (unsigned shape = 0; shape < 4; ++shape) {
        if (fields[1].value == kShapes[shape]) {
            envelope.SetShape(static_cast<LEnvelopeShape>(shape));
        }
    }
    if (fields[1].value != kShapes[static_cast<unsigned>(envelope.GetShape())]) {
        return BadValue(title, LStrFormat("\"%s\" is not a curve: linear, logarithmic, "
                                          "exponential or sinusoidal.",
                                          fields[1].value.c_str()));
    }
    for (SEParsedPoint const& p : points) {
        // Levels: percent from 0 to 1000, or dB up to +20 (silence below -144 dB).
        double const level =
            decibels ? (p.value <= -144.0 ? 0.0 : std::pow(10.0, p.value / 20.0)) : p.value / 100.0;
        if (!(level >= 0.0 && level <= 10.0)) {
            return BadValue(title,
                            LStrFormat("The level %g is out of range: levels go from %s.", p.value,
                                       decibels ? "-144 to 20 dB" : "0 to 1000 percent"));
        }
        envelope.AddPoint(p.position, static_cast<float>(level));
    }
    return m_core.CmEnvelope(view, envelope);
}

SEResult MainDialog::CmStereoPan() {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    char const* const title = "Stereo Pan";
    SECommandFields fields{{"pan", "Pan (-100 left to 100 right)", "0"},
                           {"points", "Or a pan line (position:pan, ...)", ""}};
    if (!m_ui.AskValues(title, fields)) {
        return SEResult::kCancelled;
    }
    SEFile const& file = *view->GetFile();
    LSPPan pan;
    if (!fields[1].value.empty()) {
        std::vector<SEParsedPoint> points;
        std::string bad;
        if (!SEParsePoints(fields[1].value, file.GetAudio().GetSampleRate(), points, bad)) {
            return BadValue(title, LStrFormat("\"%s\" is not a point of a pan line: write "
                                              "POSITION:PAN, for example 1.5:-100.",
                                              bad.c_str()));
        }
        for (SEParsedPoint const& p : points) {
            // Beyond full left or right is full left or right.
            pan.AddPoint(p.position, static_cast<signed char>(std::clamp(p.value, -100.0, 100.0)));
        }
    } else {
        long long value = 0;
        if (!SEParseInt(fields[0].value.c_str(), LLONG_MIN, LLONG_MAX, value)) {
            return BadValue(title, LStrFormat("The pan \"%s\" is not a whole number from -100 "
                                              "(left) to 100 (right).",
                                              fields[0].value.c_str()));
        }
        auto const constant = static_cast<signed char>(std::clamp(value, -100LL, 100LL));
        // A line that holds one value over the whole range.
        SESelection range = SESelectionOf(file);
        long long const length =
            range.IsEmpty() ? file.GetAudio().GetLengthFrames() : range.GetLength();
        pan.AddPoint(0, constant);
        pan.AddPoint(length, constant);
    }
    return m_core.CmStereoPan(view, pan);
}

SEResult MainDialog::CmEffectChain(bool preview) {
    SEFileGUI* const view = GetCurrentView();
    if (view == nullptr) {
        return SEResult::kIgnored;
    }
    char const* const title = preview ? "Preview Effect Chain" : "Apply Effect Chain";
    SECommandFields fields{{"path", "Effect chain file", ""}};
    if (!m_ui.AskValues(title, fields)) {
        return SEResult::kCancelled;
    }
    auto chain = std::make_shared<LSoundProcessMulti>();
    std::string error;
    bool const whole = LLoadEffectChainFile(fields[0].value.c_str(), *chain, error);
    int effects = 0;
    int unknown = 0;
    for (LSoundProcess const* e = chain->GetList().GetHead(); e != nullptr; e = e->GetNext()) {
        ++effects;
        unknown += dynamic_cast<LSPUnknown const*>(e) != nullptr ? 1 : 0;
    }
    if (!whole && effects == 0) {
        return BadValue(title, error);
    }
    // What cannot be applied is said, and the rest applied: a damaged file's readable effects,
    // and effects of kinds this version lacks (they pass the audio on unchanged).
    std::string notice = whole ? "" : error + " ";
    if (unknown > 0) {
        notice += LStrFormat("%d of the chain's %d effects are not available in this version of "
                             "Tessel and are left out.",
                             unknown, effects);
    }
    if (!notice.empty()) {
        (void)m_ui.MessageBox(title, notice.c_str(), {"OK"});
    }
    if (preview) {
        return m_core.CmEffectChainPlay(view, chain);
    }
    return m_core.CmEffectChainApply(view, chain);
}
