// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEWindowManager: the open documents' views in the order they were opened, and which one is
// current (the one commands act on). The application's region list lives beside it
// (SESharedRegions), shared by all documents.

#include "editor/sefilegui.h"

#include <cstddef>
#include <memory>
#include <vector>

class SEWindowManager {
public:
    // Adds a view for `file` and makes it current.
    SEFileGUI& Add(std::shared_ptr<SEFile> file);
    // Removes `view`; the current view becomes its neighbour (the next one, else the previous).
    void Remove(SEFileGUI const* view);

    [[nodiscard]] std::size_t GetCount() const { return m_views.size(); }
    [[nodiscard]] SEFileGUI* At(std::size_t index) const;
    // Null when no document is open.
    [[nodiscard]] SEFileGUI* GetCurrent() const { return At(m_current); }
    [[nodiscard]] std::size_t GetCurrentIndex() const { return m_current; }
    // False when `index` is not a view.
    bool SetCurrent(std::size_t index);
    [[nodiscard]] std::size_t IndexOf(SEFileGUI const* view) const;

private:
    std::vector<std::unique_ptr<SEFileGUI>> m_views;
    std::size_t m_current = 0;
};
