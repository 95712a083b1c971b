// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Effect chains and the effect factory.
//
// LSoundProcessMulti is an ordered list of effects applied one after the other. Its record holds,
// for each effect in order, the effect's type number (an int under 0x2000) followed by a container
// 0x1000 with the effect's record. Loading creates each effect from its type number through the
// factory: types this build cannot process load as LSPUnknown, which keeps the number and the
// record's chunks so that saving the chain gives them back, and passes audio through unchanged.
// The point-list equaliser (type 9) never joins a chain; a container without a type number before
// it, or the type 0x4000, ends the chain. Effect chain files are structured data files of type 11
// holding one chain record at their top level.

#include "llib/snd/soundprocess.h"

#include <memory>
#include <string>

inline constexpr std::uint16_t kLSoundProcessMultiType = 0x2000;
inline constexpr std::uint16_t kLSoundProcessMultiRecord = 0x1000;
inline constexpr int kLSoundProcessTypePointListEq = 9;
inline constexpr int kLSoundProcessTypePlugin = 0x7FFE;
inline constexpr int kLSoundProcessTypeEndOfChain = 0x4000;

// An effect of a type this build cannot create.
class LSPUnknown final : public LSoundProcess {
public:
    explicit LSPUnknown(int type) : m_type(type) {}
    LSPUnknown(LSPUnknown const& other);

    // Audio passes unchanged.
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override { return input; }
    void GetName(char* name) const override;
    [[nodiscard]] int GetSoundProcessType() const override { return m_type; }
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPUnknown>(*this);
    }
    using LSoundProcess::LoadFromSDF;
    // The record is kept chunk for chunk and written back as it was read.
    bool SaveToSDF(LSoundProcessWriter& writer) const override;
    bool LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks) override;

private:
    int m_type;
    LList<LSDFUnknownChunk> m_record;
};

// A new effect of `type` with its default settings; LSPUnknown for types this build has no
// processing for; null for the end-of-chain type.
[[nodiscard]] std::unique_ptr<LSoundProcess> LSoundProcessCreate(int type);

class LSoundProcessMulti {
public:
    LSoundProcessMulti() = default;
    LSoundProcessMulti(LSoundProcessMulti const& other);
    LSoundProcessMulti& operator=(LSoundProcessMulti const& other);

    [[nodiscard]] LList<LSoundProcess>& GetList() { return m_list; }
    [[nodiscard]] LList<LSoundProcess> const& GetList() const { return m_list; }
    void Add(std::unique_ptr<LSoundProcess> effect) { m_list.AddTail(std::move(effect)); }

    // `source` read through every valid, not bypassed effect in order; `source` itself when no
    // effect applies.
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& source) const;

    // Appends the effects of the chain record in the current container.
    bool LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks);
    bool SaveToSDF(LSoundProcessWriter& writer) const;

private:
    LList<LSoundProcess> m_list;
};

// Effect chain files. Loading appends what the file holds (even from a damaged file, as far as
// it could be read) and returns false with a message when the file could not be read to its end.
// Saving writes a temporary file beside `path` and renames it over `path` when complete.
[[nodiscard]] bool LLoadEffectChainFile(char const* path, LSoundProcessMulti& chain,
                                        std::string& error);
[[nodiscard]] bool LSaveEffectChainFile(char const* path, LSoundProcessMulti const& chain,
                                        std::string& error);
