// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEFileGUI: the view of one document, as far as the editor core sees it: the object commands
// reach a document through. It holds the document by a counted pointer, so work that still runs
// on the document (an effect under its progress display) keeps it alive if the view goes.

#include "editor/sefile.h"

#include <memory>
#include <utility>

class SEFileGUI {
public:
    explicit SEFileGUI(std::shared_ptr<SEFile> file) : m_file(std::move(file)) {}

    [[nodiscard]] SEFile* GetFile() const { return m_file.get(); }
    [[nodiscard]] std::shared_ptr<SEFile> const& GetFilePtr() const { return m_file; }
    // A hidden view (minimised, or being closed) takes no commands.
    [[nodiscard]] bool IsShown() const { return m_shown; }
    void SetShown(bool shown) { m_shown = shown; }

private:
    std::shared_ptr<SEFile> m_file;
    bool m_shown = true;
};
