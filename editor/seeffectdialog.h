// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The generic effect dialog, as far as the core sees it: one field per parameter of an effect
// (its name made into a key: "Gain Percentage" is "gain-percentage"), preset with the current
// value, and a "preset" field that takes a preset's name. The front end shows and fills the
// fields; the answers are set back into the effect, each clamped into its parameter's range.

#include "editor/seui.h"
#include "llib/snd/soundprocess.h"

#include <string>

// The key of a parameter's field: lower case, every run of other characters one "-".
[[nodiscard]] std::string SEParameterKey(char const* name);

// A parameter's current value as the dialog shows it ("150", "0.5", "1" for a switch that is on).
[[nodiscard]] std::string SEParameterValueText(LSoundProcessParameter const& parameter);

// A parameter as numbers, for a dialog's controls (a switch is 0 or 1).
struct SEParameterNumbers {
    double value = 0.0;
    double minimum = 0.0;
    double maximum = 0.0;
    bool integral = true;
    bool isSwitch = false;
};
[[nodiscard]] SEParameterNumbers SEGetParameterNumbers(LSoundProcessParameter const& parameter);
// Sets parameter `index` of `effect` to `value`: rounded for whole-number types, clamped into the
// parameter's range; a switch is on for any value but 0. NaN sets nothing.
void SESetParameterNumber(LSoundProcess& effect, int index, double value);

// Asks for the effect's settings under `title`. kCancelled when the user cancelled, kFailed (with
// `error` set) for a value that is not a number or a preset name that does not exist.
[[nodiscard]] SEResult SEAskEffectSettings(SEUserInterface& ui, char const* title,
                                           LSoundProcess& effect, std::string& error);
