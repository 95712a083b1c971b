// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/gensource.h"

#include "llib/gen/settings.h"
#include "llib/gen/stringlong.h"
#include "llib/gen/userdirs.h"
#include "llib/snd/audiofilelib.h"
#include "llib/snd/flacfile.h"
#include "llib/snd/mp3file.h"
#include "llib/snd/wavefile.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char const* kUnknownWaveCodec = "Microsoft Unknown Wave Format";

bool Failed(LSoundSource const& source) {
    return !source->IsOk();
}

// The platform decoder reads what our own readers do not (IMA ADPCM WAV, and every format the
// audio file library knows); its failure keeps the first reader's error, which says more.
void TryPlatformDecoder(LSoundSource& result, char const* path) {
    LSoundSource platform = LAudioFileLib::OpenSource(path);
    if (platform->IsOk()) {
        result = platform;
    } else if (result->GetError() == LSoundSourceErrorCode::kNoSource) {
        result = platform;
    }
}

// The extension that decides: the caller's when given (with or without its dot), else the
// path's; lower-cased either way.
std::string DecidingExtension(char const* path, char const* extension) {
    if (extension == nullptr) {
        return LGenFileExtension(path);
    }
    std::string const name = std::string("x") + (*extension == '.' ? "" : ".") + extension;
    return LGenFileExtension(name.c_str());
}

// An integer encoder setting: the save's own value when it has one, else the stored one.
int SettingInt(LSettingsStore& store, LGenSinkFormat const* format, char const* group,
               char const* key, int def) {
    if (format != nullptr) {
        for (LGenSinkFormat::Setting const& s : format->settings) {
            if (s.group == group && s.key == key) {
                char* end = nullptr;
                long const v = std::strtol(s.value.c_str(), &end, 10);
                if (end != s.value.c_str() && *end == '\0') {
                    return static_cast<int>(v);
                }
            }
        }
    }
    return store.GetInt(group, key, def);
}

} // namespace

std::string LGenFileExtension(char const* path) {
    if (path == nullptr) {
        return {};
    }
    char const* const slash = std::strrchr(path, '/');
    char const* const name = slash != nullptr ? slash + 1 : path;
    char const* const dot = std::strrchr(name, '.');
    if (dot == nullptr || dot == name) {
        return {};
    }
    std::string extension(dot);
    for (char& c : extension) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return extension;
}

LProcessResult ProcessGenSourceOpenSource(LSoundSource& result, char const* path,
                                          LProcessInterface& process, bool reportError,
                                          char const* extension) {
    result = LMakeErrorSource(LSoundSourceErrorCode::kNoSource);
    if (path == nullptr || *path == '\0') {
        result = LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    } else {
        std::string const ext = DecidingExtension(path, extension);
        LGenSourceOpenInterfaceProcess forward(process);
        if (ext == ".wav") {
            result = LWaveFile::OpenSource(path);
            if (Failed(result)) {
                TryPlatformDecoder(result, path);
            }
        } else if (ext == ".flac") {
            result = LFLACFile::OpenSource(path);
        } else if (ext == ".mp3") {
            // Our own decoder first; what it refuses (layers I and II, say) the platform
            // decoder may still read.
            result = LMP3File::OpenSource(path);
            if (Failed(result)) {
                TryPlatformDecoder(result, path);
            }
        } else {
            TryPlatformDecoder(result, path);
        }
        if (forward.IsToStop()) {
            result = LMakeErrorSource(LSoundSourceErrorCode::kNoSource);
            return LProcessResult::kStopped;
        }
    }
    if (!Failed(result)) {
        return LProcessResult::kCompleted;
    }
    if (reportError) {
        (void)ProcessGenSourceGetError(process, result, path, extension);
    }
    return LProcessResult::kFailed;
}

std::string ProcessGenSourceGetError(LProcessInterface& process, LSoundSource const& source,
                                     char const* path, char const* extension) {
    char const* const name = path != nullptr ? path : "";
    LSoundSourceErrorCode const code = source->GetError();
    std::string message;
    if (code == LSoundSourceErrorCode::kCannotOpen) {
        message = LStrFormat(
            "Cannot open the file \"%s\". Check it exists and you have read access.", name);
    } else if (code == LSoundSourceErrorCode::kCorrupt) {
        message = LStrFormat("Cannot open the file \"%s\" because it is corrupt.", name);
    } else {
        message = LStrFormat("Cannot open the file \"%s\". It is possible the file format is not "
                             "supported by Tessel.",
                             name);
    }
    std::string const ext = DecidingExtension(name, extension);
    // A WAV file that is readable but not decodable says which codec it needs. (Missing and
    // corrupt files keep the messages above: naming a codec would mislead there.)
    bool const undecodable = code == LSoundSourceErrorCode::kUnsupported ||
                             code == LSoundSourceErrorCode::kCodecRequired;
    if (ext == ".wav" && undecodable) {
        char codec[kLMaxText] = {};
        if (!LGetWaveFileCodecName(name, codec)) {
            message = LStrFormat("Cannot open the file \"%s\" because it is using an unknown codec "
                                 "or is possibly not a real wave file.",
                                 name);
        } else if (std::strcmp(codec, kUnknownWaveCodec) != 0) {
            message = LStrFormat(
                "Cannot open the file \"%s\" because the required codec (\"%s\") is not installed.",
                name, codec);
        }
    }
    process.SetError(message.c_str());
    return message;
}

LWaveFileFormat LGenStoredWaveFormat() {
    LWaveFileFormat format;
    std::string const stored = LGetUserDir(LUserDir::kData) + "/WavCodec.wff";
    if (!format.LoadFromWavCodecFile(stored.c_str())) {
        format = LWaveFileFormat{};
        format.formatTag = 1;
        format.channels = 2;
        format.samplesPerSec = 44100;
        format.bitsPerSample = 16;
        format.blockAlign = 4;
        format.avgBytesPerSec = 44100 * 4;
        format.extraSize = 0;
        format.extra.clear();
        format.dither = false;
    }
    return format;
}

LSoundSink LGenSinkOpenSink(char const* path, int rate, unsigned char channels,
                            LFileTagData const* tags, LGenSinkFormat const* format,
                            LSettingsStore* settings) {
    // WAV tags live in chunks the tag writer adds once the audio is complete; formats that carry
    // tags inside the stream will take them here.
    (void)tags;
    LSettingsStore& store = settings != nullptr ? *settings : LSettingsStore::GetDefault();
    std::string const ext = LGenFileExtension(path);
    if (ext == ".wav") {
        LWaveFileFormat wave = LGenStoredWaveFormat();
        if (store.GetBool("WavSettings", "SampleRateAuto", true) || rate <= 0) {
            wave.samplesPerSec = static_cast<std::uint32_t>(rate > 0 ? rate : 44100);
        }
        if (store.GetBool("WavSettings", "ChansAuto", true) || channels == 0) {
            wave.channels = channels > 0 ? channels : 1;
        }
        if (format != nullptr && (format->bits != 0 || format->floatSamples || format->g711 != 0)) {
            wave.extra.clear();
            wave.extraSize = 0;
            if (format->g711 != 0) {
                wave.formatTag = static_cast<std::uint16_t>(format->g711);
                wave.bitsPerSample = 8;
            } else if (format->floatSamples) {
                wave.formatTag = 3;
                wave.bitsPerSample = 32;
            } else {
                wave.formatTag = 1;
                wave.bitsPerSample = static_cast<std::uint16_t>(format->bits);
            }
        }
        if (format != nullptr) {
            wave.dither = format->dither;
        }
        if (wave.formatTag == 1 || wave.formatTag == 3 || wave.formatTag == 6 ||
            wave.formatTag == 7) {
            std::uint16_t const bytes = static_cast<std::uint16_t>((wave.bitsPerSample + 7) / 8);
            wave.blockAlign = static_cast<std::uint16_t>(bytes * wave.channels);
            wave.avgBytesPerSec = wave.samplesPerSec * wave.blockAlign;
        }
        return LWaveFile::OpenSink(path, wave);
    }
    if (ext == ".flac") {
        int const compression =
            SettingInt(store, format, "FlacEncoder", "Compression", kLFLACDefaultCompression);
        int bits = SettingInt(store, format, "FlacEncoder", "BitDepth", 16);
        if (format != nullptr && format->bits != 0) {
            bits = format->bits;
        }
        if (format != nullptr && (format->floatSamples || format->g711 != 0)) {
            bits = 0; // FLAC holds integer samples only
        }
        bool const dither = format != nullptr && format->dither;
        return LFLACFile::OpenSink(path, rate > 0 ? rate : 44100, channels > 0 ? channels : 1, bits,
                                   dither, compression);
    }
    return LMakeSink<LSoundSinkError>();
}
