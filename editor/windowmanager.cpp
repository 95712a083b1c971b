// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/windowmanager.h"

#include <utility>

SEFileGUI& SEWindowManager::Add(std::shared_ptr<SEFile> file) {
    m_views.push_back(std::make_unique<SEFileGUI>(std::move(file)));
    m_current = m_views.size() - 1;
    return *m_views.back();
}

void SEWindowManager::Remove(SEFileGUI const* view) {
    std::size_t const index = IndexOf(view);
    if (index >= m_views.size()) {
        return;
    }
    m_views.erase(m_views.begin() + static_cast<std::ptrdiff_t>(index));
    if (m_current > index || m_current >= m_views.size()) {
        m_current = m_current > 0 ? m_current - 1 : 0;
    }
}

SEFileGUI* SEWindowManager::At(std::size_t index) const {
    return index < m_views.size() ? m_views[index].get() : nullptr;
}

bool SEWindowManager::SetCurrent(std::size_t index) {
    if (index >= m_views.size()) {
        return false;
    }
    m_current = index;
    return true;
}

std::size_t SEWindowManager::IndexOf(SEFileGUI const* view) const {
    for (std::size_t i = 0; i < m_views.size(); ++i) {
        if (m_views[i].get() == view) {
            return i;
        }
    }
    return m_views.size();
}
