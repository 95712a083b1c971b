// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/cmdchain.h"

#include "cli/cmdaudio.h"
#include "editor/seeffectdialog.h"
#include "llib/snd/soundprocessmulti.h"

#include <cstdio>
#include <string>

int LCliRunChain(int argc, char** argv) {
    if (argc != 1) {
        return LCliUsageError(argc == 0 ? "chain needs a FILE" : "chain takes exactly one FILE");
    }
    LSoundProcessMulti chain;
    std::string error;
    bool const ok = LLoadEffectChainFile(argv[0], chain, error);
    if (!ok && chain.GetList().GetCount() == 0) {
        std::fprintf(stderr, "tessel-cli: %s\n", error.c_str());
        return kCliExitFailed;
    }
    if (chain.GetList().GetCount() == 0) {
        std::puts("(no effects)");
    }
    int number = 0;
    LSoundProcessParameter parameter;
    for (LSoundProcess& effect : chain.GetList()) {
        char name[kLMaxText];
        effect.GetName(name);
        std::printf("%d. %s (type %d)%s\n", ++number, name, effect.GetSoundProcessType(),
                    effect.IsBypassed() ? ", bypassed" : "");
        for (int i = 0; i < effect.GetNumParameters(); ++i) {
            effect.GetParameterByIndex(i, &parameter);
            std::printf("   %s: %s%s%s\n", parameter.GetName(),
                        SEParameterValueText(parameter).c_str(),
                        parameter.GetUnit()[0] != '\0' ? " " : "", parameter.GetUnit());
        }
        int const preset = effect.GetIndexInPreset();
        if (preset >= 0) {
            effect.GetPresetsName(preset, name);
            std::printf("   (preset \"%s\")\n", name);
        }
    }
    if (!ok) {
        // What was read comes first, then why the rest could not be.
        std::fflush(stdout);
        std::fprintf(stderr, "tessel-cli: %s\n", error.c_str());
        return kCliExitFailed;
    }
    return kCliExitOk;
}
