// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/seeffectdialog.h"

#include "llib/gen/stringlong.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>

std::string SEParameterValueText(LSoundProcessParameter const& p) {
    switch (p.GetType()) {
    case LSoundProcessParameterType::kInt:
        return std::to_string(p.GetValue<std::int32_t>());
    case LSoundProcessParameterType::kDouble:
        return LStrFormat("%g", p.GetValue<double>());
    case LSoundProcessParameterType::kInt8:
        return std::to_string(p.GetValue<std::int8_t>());
    case LSoundProcessParameterType::kBool:
        return p.GetValue<bool>() ? "1" : "0";
    case LSoundProcessParameterType::kInt64:
        return std::to_string(p.GetValue<std::int64_t>());
    case LSoundProcessParameterType::kUInt16:
        return std::to_string(p.GetValue<std::uint16_t>());
    }
    return "";
}

namespace {

template <class T>
void SetClamped(LSoundProcess& effect, int index, LSoundProcessParameter const& p, double value) {
    double const low = static_cast<double>(p.GetMinimum<T>());
    double const high = static_cast<double>(p.GetMaximum<T>());
    T const v = static_cast<T>(std::clamp(value, low, high));
    effect.SetParameterByIndex(index, &v);
}

template <class T>
SEParameterNumbers NumbersOf(LSoundProcessParameter const& p, bool integral) {
    return {static_cast<double>(p.GetValue<T>()), static_cast<double>(p.GetMinimum<T>()),
            static_cast<double>(p.GetMaximum<T>()), integral, false};
}

// Sets parameter `index` from `text`; false when it is not a number.
bool SetFromText(LSoundProcess& effect, int index, std::string const& text) {
    char* end = nullptr;
    errno = 0;
    double const value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || std::isnan(value)) {
        return false;
    }
    SESetParameterNumber(effect, index, value);
    return true;
}

} // namespace

SEParameterNumbers SEGetParameterNumbers(LSoundProcessParameter const& p) {
    switch (p.GetType()) {
    case LSoundProcessParameterType::kInt:
        return NumbersOf<std::int32_t>(p, true);
    case LSoundProcessParameterType::kDouble:
        return NumbersOf<double>(p, false);
    case LSoundProcessParameterType::kInt8:
        return NumbersOf<std::int8_t>(p, true);
    case LSoundProcessParameterType::kBool:
        return {p.GetValue<bool>() ? 1.0 : 0.0, 0.0, 1.0, true, true};
    case LSoundProcessParameterType::kInt64:
        return NumbersOf<std::int64_t>(p, true);
    case LSoundProcessParameterType::kUInt16:
        return NumbersOf<std::uint16_t>(p, true);
    }
    return {};
}

void SESetParameterNumber(LSoundProcess& effect, int index, double value) {
    if (std::isnan(value)) {
        return;
    }
    LSoundProcessParameter p;
    effect.GetParameterByIndex(index, &p);
    switch (p.GetType()) {
    case LSoundProcessParameterType::kInt:
        SetClamped<std::int32_t>(effect, index, p, std::round(value));
        break;
    case LSoundProcessParameterType::kDouble:
        SetClamped<double>(effect, index, p, value);
        break;
    case LSoundProcessParameterType::kInt8:
        SetClamped<std::int8_t>(effect, index, p, std::round(value));
        break;
    case LSoundProcessParameterType::kBool: {
        bool const on = value != 0.0;
        effect.SetParameterByIndex(index, &on);
        break;
    }
    case LSoundProcessParameterType::kInt64:
        SetClamped<std::int64_t>(effect, index, p, std::round(value));
        break;
    case LSoundProcessParameterType::kUInt16:
        SetClamped<std::uint16_t>(effect, index, p, std::round(value));
        break;
    }
}

std::string SEParameterKey(char const* name) {
    std::string key;
    bool gap = false;
    for (char const* c = name; *c != '\0'; ++c) {
        unsigned char const u = static_cast<unsigned char>(*c);
        if (std::isalnum(u) != 0) {
            if (gap && !key.empty()) {
                key += '-';
            }
            key += static_cast<char>(std::tolower(u));
            gap = false;
        } else {
            gap = true;
        }
    }
    return key;
}

SEResult SEAskEffectSettings(SEUserInterface& ui, char const* title, LSoundProcess& effect,
                             std::string& error) {
    int const count = effect.GetNumParameters();
    SECommandFields fields;
    LSoundProcessParameter p;
    for (int i = 0; i < count; ++i) {
        effect.GetParameterByIndex(i, &p);
        fields.push_back({SEParameterKey(p.GetName()),
                          std::string(p.GetName()) +
                              (p.GetUnit()[0] != '\0' ? std::string(" (") + p.GetUnit() + ")" : ""),
                          SEParameterValueText(p)});
    }
    if (effect.GetNumPresets() > 0) {
        fields.push_back({"preset", "Preset", ""});
    }
    SECommandFields const shown = fields;
    if (!ui.AskValues(title, fields)) {
        return SEResult::kCancelled;
    }
    // A preset first, so that single values given beside it adjust it.
    if (effect.GetNumPresets() > 0 && !fields.back().value.empty()) {
        int found = -1;
        char name[kLMaxText];
        for (int i = 0; i < effect.GetNumPresets() && found < 0; ++i) {
            effect.GetPresetsName(i, name);
            if (fields.back().value == name) {
                found = i;
            }
        }
        if (found < 0) {
            error = LStrFormat("\"%s\" has no preset \"%s\".", title, fields.back().value.c_str());
            return SEResult::kFailed;
        }
        effect.SetPreset(found);
    }
    for (int i = 0; i < count; ++i) {
        std::size_t const at = static_cast<std::size_t>(i);
        if (fields[at].value == shown[at].value) {
            continue;
        }
        effect.GetParameterByIndex(i, &p);
        if (!SetFromText(effect, i, fields[at].value)) {
            error = LStrFormat("\"%s\" is not a number for \"%s\".", fields[at].value.c_str(),
                               p.GetName());
            return SEResult::kFailed;
        }
    }
    return SEResult::kDone;
}

SEResult SEUserInterface::EditEffect(char const* title, LSoundProcess& effect,
                                     SEEffectPreview const& preview, std::string& error) {
    (void)preview; // a list of fields offers no preview
    return SEAskEffectSettings(*this, title, effect, error);
}
