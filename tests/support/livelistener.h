// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Fails any test that ends with more live sources, sinks or cache references than it began with
// (debug builds count them). Every test main installs it after initialising GoogleTest.
void InstallLiveObjectListener();
