// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// tessel-cli's audio commands. Each takes the arguments after its name, prints results to
// standard output and messages to standard error, and returns the exit status: 0 done, 1 failed,
// 2 usage error, 130 stopped by Ctrl+C.

inline constexpr int kCliExitOk = 0;
inline constexpr int kCliExitFailed = 1;
inline constexpr int kCliExitUsage = 2;
inline constexpr int kCliExitStopped = 130;

// info FILE...: format, rate, channels, bits, duration, peak level and tags of each file.
int LCliRunInfo(int argc, char** argv);
// convert IN OUT [--bits B] [--rate HZ] [--channels N] [--dither]: the output format by OUT's
// extension; written under a temporary name beside OUT and renamed over it only when complete.
int LCliRunConvert(int argc, char** argv);
// tags FILE [--set KEY=VALUE]... [--remove KEY]...: prints the tags, or changes them in place.
int LCliRunTags(int argc, char** argv);
// synth OUT [--seconds S] [--hz F] [--rate HZ] [--channels N] [--bits B]: writes a sine tone at
// -6 dBFS, for trying the other commands on a file of known content.
int LCliRunSynth(int argc, char** argv);

// A usage message in the program's form; returns kCliExitUsage.
int LCliUsageError(char const* message);
