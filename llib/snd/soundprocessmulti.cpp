// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundprocessmulti.h"

#include "llib/snd/gain.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

LSPUnknown::LSPUnknown(LSPUnknown const& other) : LSoundProcess(other), m_type(other.m_type) {
    (void)LSDFUnknownChunksCopy(other.m_record, m_record);
}

void LSPUnknown::GetName(char* name) const {
    LStrCopy(name, kLMaxText, "Unknown");
}

bool LSPUnknown::SaveToSDF(LSoundProcessWriter& writer) const {
    for (LSDFUnknownChunk const& chunk : m_record) {
        if (!writer.WriteUnknownChunk(chunk)) {
            return false;
        }
    }
    return writer.IsOk();
}

bool LSPUnknown::LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks) {
    m_record.Clear();
    while (chunks.StartNextChunk()) {
        if (chunks.GetId() == kLSoundProcessBaseRecord) {
            // The bypass flag is ours to honour even for an effect we cannot run.
            LSoundProcessChunks base(reader, chunks);
            while (base.StartNextChunk()) {
                bool bypass = false;
                if (base.GetId() == kLSoundProcessBypass && base.ReadBool(bypass)) {
                    SetBypassed(bypass);
                }
            }
        }
        if (!chunks.ReadUnknownChunk(m_record)) {
            break;
        }
    }
    return reader.IsOk();
}

std::unique_ptr<LSoundProcess> LSoundProcessCreate(int type) {
    switch (type) {
    case kLSPGainType:
        return std::make_unique<LSPGain>();
    case kLSoundProcessTypeEndOfChain:
        return nullptr;
    default:
        // Effects whose processing this build lacks, the reserved numbers and plug-ins (which
        // this build does not host) keep their place and record without touching the audio.
        return std::make_unique<LSPUnknown>(type);
    }
}

LSoundProcessMulti::LSoundProcessMulti(LSoundProcessMulti const& other) {
    *this = other;
}

LSoundProcessMulti& LSoundProcessMulti::operator=(LSoundProcessMulti const& other) {
    if (this == &other) {
        return *this;
    }
    LList<LSoundProcess> copy;
    for (LSoundProcess const& effect : other.m_list) {
        if (std::unique_ptr<LSoundProcess> c = effect.GetNewCopy()) {
            c->SetBypassed(effect.IsBypassed());
            copy.AddTail(std::move(c));
        }
    }
    m_list = std::move(copy);
    return *this;
}

LSoundSource LSoundProcessMulti::OpenSource(LSoundSource& source) const {
    LSoundSource current = source;
    for (LSoundProcess& effect : const_cast<LList<LSoundProcess>&>(m_list)) {
        if (effect.IsValid() && !effect.IsBypassed()) {
            current = effect.OpenSource(current);
        }
    }
    return current;
}

bool LSoundProcessMulti::LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks) {
    int pending = 0;
    while (chunks.StartNextChunk()) {
        if (chunks.GetId() == kLSoundProcessMultiType) {
            pending = 0;
            (void)chunks.ReadInt(pending);
            continue;
        }
        if (chunks.GetId() != kLSoundProcessMultiRecord) {
            continue;
        }
        if (pending == 0) {
            break;
        }
        std::unique_ptr<LSoundProcess> effect = LSoundProcessCreate(pending);
        if (effect == nullptr) {
            break;
        }
        LSoundProcessChunks record(reader, chunks);
        // An effect whose record is damaged is left out rather than run half-loaded.
        if (!effect->LoadFromSDF(reader, record) || !reader.IsOk()) {
            break;
        }
        if (effect->GetSoundProcessType() != kLSoundProcessTypePointListEq) {
            m_list.AddTail(std::move(effect));
        }
        pending = 0;
    }
    return reader.IsOk();
}

bool LSoundProcessMulti::SaveToSDF(LSoundProcessWriter& writer) const {
    for (LSoundProcess const& effect : m_list) {
        if (!writer.WriteInt(kLSoundProcessMultiType, effect.GetSoundProcessType()) ||
            !writer.StartContainer(kLSoundProcessMultiRecord) || !effect.SaveToSDF(writer) ||
            !writer.EndContainer(kLSoundProcessMultiRecord)) {
            return false;
        }
    }
    return writer.IsOk();
}

bool LLoadEffectChainFile(char const* path, LSoundProcessMulti& chain, std::string& error) {
    LInputStreamFile file;
    if (!file.Open(path)) {
        error = LStrFormat("Cannot open the file \"%s\" (%s).", path, std::strerror(errno));
        return false;
    }
    LSoundProcessReader reader;
    if (!reader.OpenSalvage(file, kLSDFFileEffectChain)) {
        error =
            LStrFormat("\"%s\" is not an effect chain file: %s.", path, reader.GetErrorReason());
        return false;
    }
    LSoundProcessChunks chunks(reader);
    if (!chain.LoadFromSDF(reader, chunks) || reader.IsTruncated()) {
        if (reader.IsOk()) {
            error = LStrFormat("The effect chain file \"%s\" is cut off; the effects before the "
                               "cut were loaded.",
                               path);
            return false;
        }
        error = LStrFormat("The effect chain file \"%s\" is damaged (%s at byte %llu); the effects "
                           "before the damage were loaded.",
                           path, reader.GetErrorReason(),
                           static_cast<unsigned long long>(reader.GetErrorOffset()));
        return false;
    }
    return true;
}

bool LSaveEffectChainFile(char const* path, LSoundProcessMulti const& chain, std::string& error) {
    std::string const temporary = std::string(path) + ".tmp" + std::to_string(::getpid());
    bool ok = false;
    {
        LOutputStreamFile file;
        LSoundProcessWriter writer;
        ok = file.Open(temporary.c_str()) && writer.Open(file, kLSDFFileEffectChain, 1) &&
             chain.SaveToSDF(writer) && writer.Close() && file.Close();
    }
    if (ok && std::rename(temporary.c_str(), path) != 0) {
        ok = false;
    }
    if (!ok) {
        error = LStrFormat("Cannot write the effect chain file \"%s\" (%s).", path,
                           std::strerror(errno));
        (void)::unlink(temporary.c_str());
    }
    return ok;
}
