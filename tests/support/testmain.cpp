// SPDX-License-Identifier: GPL-3.0-or-later
// The main of every test binary but the Qt ones: GoogleTest plus the live-object listener.

#include "tests/support/livelistener.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    InstallLiveObjectListener();
    return RUN_ALL_TESTS();
}
