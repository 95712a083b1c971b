// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/seheadless.h"

#include <utility>

namespace {

// Counts progress reports and raises the stop request once the given number has passed.
class SEStoppingProcess final : public LProcessInterfaceBasic {
public:
    explicit SEStoppingProcess(int stopAfter) : m_left(stopAfter) {
        if (m_left == 0) {
            RequestStop();
        }
    }
    void SetProgress(double fraction) override {
        LProcessInterfaceBasic::SetProgress(fraction);
        if (m_left > 0 && --m_left == 0) {
            RequestStop();
        }
    }

private:
    int m_left;
};

} // namespace

void SEHeadlessUI::SetValues(std::map<std::string, std::string> values) {
    m_values = std::move(values);
    m_used.clear();
}

std::vector<std::string> SEHeadlessUI::GetUnusedValues() const {
    std::vector<std::string> unused;
    for (auto const& [key, value] : m_values) {
        if (m_used.count(key) == 0) {
            unused.push_back(key);
        }
    }
    return unused;
}

int SEHeadlessUI::MessageBox(char const* title, char const* text,
                             std::vector<std::string> const& buttons) {
    int chosen = static_cast<int>(buttons.size()) - 1;
    if (!m_answers.empty()) {
        for (std::size_t i = 0; i < buttons.size(); ++i) {
            if (buttons[i] == m_answers.front()) {
                chosen = static_cast<int>(i);
            }
        }
        m_answers.pop_front();
    }
    m_messages.push_back(
        Shown{title, text, chosen >= 0 ? buttons[static_cast<std::size_t>(chosen)] : ""});
    return chosen < 0 ? 0 : chosen;
}

LProcessResult SEHeadlessUI::RunWork(char const* title, SEProcessFunction const& work) {
    (void)title;
    SEStoppingProcess process(m_stopAfter);
    return work(process);
}

LProcessResult SEHeadlessUI::RunProcess(char const* title, SEProcessFunction const& work) {
    return RunWork(title, work);
}

bool SEHeadlessUI::TakePath(std::string& path) {
    auto const given = m_values.find("path");
    if (given != m_values.end() && m_used.count("path") == 0) {
        m_used["path"] = true;
        path = given->second;
        return true;
    }
    if (m_paths.empty()) {
        return false;
    }
    path = m_paths.front();
    m_paths.pop_front();
    return true;
}

bool SEHeadlessUI::ChooseFilesToOpen(std::vector<std::string>& paths) {
    std::string path;
    if (!TakePath(path)) {
        return false;
    }
    paths.assign(1, path);
    return true;
}

bool SEHeadlessUI::ChooseFileToSave(char const* suggestedPath, std::string& path) {
    (void)suggestedPath;
    return TakePath(path);
}

bool SEHeadlessUI::AskValues(char const* title, SECommandFields& fields) {
    (void)title;
    for (SECommandField& field : fields) {
        auto const given = m_values.find(field.key);
        if (given != m_values.end()) {
            field.value = given->second;
            m_used[field.key] = true;
        }
    }
    return true;
}

void SEHeadlessUI::DocumentEvent(SEFileGUI& view, int event) {
    (void)view;
    m_events.push_back(event);
}

void SEHeadlessUI::Redraw(SEFileGUI& view) {
    (void)view;
    ++m_redraws;
}

void SEHeadlessUI::StartPlayback(SEFileGUI& view) {
    (void)view;
    ++m_playbackStarts;
}

void SEHeadlessUI::PlaySource(SEFileGUI& view, LSoundSource const& source) {
    (void)view;
    m_preview = source;
}

void SEHeadlessUI::UpdateUndoItems(char const* undoLabel, bool undoEnabled, char const* redoLabel,
                                   bool redoEnabled) {
    m_undoText = undoLabel;
    m_undoEnabled = undoEnabled;
    m_redoText = redoLabel;
    m_redoEnabled = redoEnabled;
}
