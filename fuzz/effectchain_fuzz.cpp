// SPDX-License-Identifier: GPL-3.0-or-later
// Effect chain files: any bytes must load what they can or be refused with a message; what
// loaded must save, load back whole with the same effects in the same order, and run over a
// short source without trouble.

#include "llib/snd/soundprocessmulti.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<int> Types(LSoundProcessMulti const& chain) {
    std::vector<int> types;
    for (LSoundProcess const& effect : chain.GetList()) {
        types.push_back(effect.GetSoundProcessType());
    }
    return types;
}

class ConstantSource final : public LSoundSourceBase {
public:
    ConstantSource() : LSoundSourceBase(8000, 2) {}
    void Read(float* buffer, long long frames) override {
        for (long long i = 0; i < frames * 2; ++i) {
            buffer[i] = 0.5f;
        }
        m_position += frames;
    }
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return 64; }

private:
    long long m_position = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static std::string const input = "/tmp/tessel-fuzz-chain-" + std::to_string(::getpid());
    static std::string const output = input + "-saved";
    if (std::FILE* f = std::fopen(input.c_str(), "wb")) {
        if (size > 0 && std::fwrite(data, 1, size, f) != size) {
            std::abort();
        }
        std::fclose(f);
    } else {
        std::abort();
    }
    LSoundProcessMulti chain;
    std::string error;
    if (!LLoadEffectChainFile(input.c_str(), chain, error) && error.empty()) {
        std::abort();
    }
    if (!LSaveEffectChainFile(output.c_str(), chain, error)) {
        std::fprintf(stderr, "cannot save what loaded: %s\n", error.c_str());
        std::abort();
    }
    LSoundProcessMulti again;
    if (!LLoadEffectChainFile(output.c_str(), again, error) || Types(again) != Types(chain)) {
        std::fprintf(stderr, "the saved chain does not load back: %s\n", error.c_str());
        std::abort();
    }
    LSoundSource source = LMakeSource<ConstantSource>();
    LSoundSource out = chain.OpenSource(source);
    float buffer[64 * 2];
    out->Read(buffer, 64);
    return 0;
}
