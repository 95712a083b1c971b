// SPDX-License-Identifier: GPL-3.0-or-later
// The main of the Qt test binaries: one QApplication for every test (widgets need it before
// they are made), on the offscreen platform unless the caller chose one (the screenshot test
// runs under Xvfb), with its own settings, cache and data folders per test as everywhere else.

#include "tests/support/livelistener.h"

#include <QApplication>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    if (std::getenv("QT_QPA_PLATFORM") == nullptr) {
        setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    InstallLiveObjectListener();
    return RUN_ALL_TESTS();
}
