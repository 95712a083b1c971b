// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// chain FILE: prints an effect chain file's effects in order, each with its type number, whether
// it is bypassed, and its parameters with their values and units. A damaged file prints what
// could be read, then the reason, and fails.
int LCliRunChain(int argc, char** argv);
