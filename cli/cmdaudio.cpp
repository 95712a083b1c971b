// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/cmdaudio.h"

#include "cli/cliprocess.h"
#include "llib/gen/md5.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/filetagdata.h"
#include "llib/snd/flacfile.h"
#include "llib/snd/mp3file.h"
#include "llib/snd/gensource.h"
#include "llib/snd/prsourcesink.h"
#include "llib/snd/soundtime.h"
#include "llib/snd/wavefile.h"
#include "llib/snd/wavtags.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr long long kReadFrames = 65536;

bool ParseInt(char const* text, long long low, long long high, long long& value) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long long const parsed = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

bool ParseDouble(char const* text, double low, double high, double& value) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    double const parsed = std::strtod(text, &end);
    if (*end != '\0' || !(parsed >= low && parsed <= high)) {
        return false;
    }
    value = parsed;
    return true;
}

// "--bits" values: 8, 16, 24, 32, f32, alaw, ulaw.
bool ParseBits(char const* text, LGenSinkFormat& format) {
    std::string const value = text != nullptr ? text : "";
    if (value == "f32") {
        format.floatSamples = true;
    } else if (value == "alaw") {
        format.g711 = 6;
    } else if (value == "ulaw") {
        format.g711 = 7;
    } else if (value == "8" || value == "16" || value == "24" || value == "32") {
        format.bits = std::atoi(value.c_str());
    } else {
        return false;
    }
    return true;
}

// The options convert and synth share: --bits, --rate and --channels. Returns 1 when argv[i]
// was one of them (i then stands on its value), 0 when it was not, and -1 after a usage error
// has been printed into `status`.
int ParseFormatOption(int argc, char** argv, int& i, LGenSinkFormat& format, long long& rate,
                      long long& channels, int& status) {
    std::string const arg = argv[i];
    bool const hasValue = i + 1 < argc;
    if (arg == "--bits") {
        if (!hasValue || !ParseBits(argv[++i], format)) {
            status = LCliUsageError("--bits takes 8, 16, 24, 32, f32, alaw or ulaw");
            return -1;
        }
    } else if (arg == "--rate") {
        if (!hasValue || !ParseInt(argv[++i], 1, 196000, rate)) {
            status = LCliUsageError("--rate takes a sample rate from 1 to 196000 Hz");
            return -1;
        }
    } else if (arg == "--channels") {
        if (!hasValue || !ParseInt(argv[++i], 1, 255, channels)) {
            status = LCliUsageError("--channels takes a count from 1 to 255");
            return -1;
        }
    } else {
        return 0;
    }
    return 1;
}

void PrintFailure(char const* what, std::string const& message) {
    std::fprintf(stderr, "tessel-cli: %s%s%s\n", what, *what != '\0' ? ": " : "", message.c_str());
}

char const* WaveFormatName(std::uint16_t tag, int bits) {
    switch (tag) {
    case 1:
        return bits <= 8 ? "unsigned integer PCM" : "integer PCM";
    case 3:
        return "IEEE float";
    case 6:
        return "G.711 A-law";
    case 7:
        return "G.711 mu-law";
    default:
        return "compressed";
    }
}

// The peak magnitude of the whole source, read in blocks under `process`; false when stopped.
bool ReadPeak(LSoundSource& source, LCliProcess& process, float& peak) {
    long long const total = source->GetEndSample();
    unsigned const channels = source->GetChannels();
    std::vector<float> buffer(static_cast<std::size_t>(kReadFrames) * channels);
    peak = 0.0f;
    for (long long done = 0; done < total; done += kReadFrames) {
        if (process.IsToStop()) {
            return false;
        }
        long long const n = std::min(kReadFrames, total - done);
        source->Read(buffer.data(), n);
        for (long long i = 0; i < n * channels; ++i) {
            peak = std::max(peak, std::fabs(buffer[static_cast<std::size_t>(i)]));
        }
        process.SetProgress(static_cast<double>(done + n) / static_cast<double>(total));
    }
    return true;
}

// The encoder settings convert accepts with --set, and the values each takes.
struct EncoderSetting {
    char const* group;
    char const* key;
    int lowest;
    int highest;
    bool depth; // only 8, 16, 24 or 32
};
constexpr EncoderSetting kEncoderSettings[] = {
    {"FlacEncoder", "Compression", 0, kLFLACMaxCompression, false},
    {"FlacEncoder", "BitDepth", 8, 32, true},
};

// "GROUP.KEY=VALUE" into the save's own settings; false with a message for anything else.
bool ParseEncoderSetting(std::string const& text, LGenSinkFormat& format, std::string& error) {
    std::size_t const dot = text.find('.');
    std::size_t const equals = text.find('=');
    if (dot == std::string::npos || equals == std::string::npos || dot > equals) {
        error = "--set takes GROUP.KEY=VALUE";
        return false;
    }
    std::string const group = text.substr(0, dot);
    std::string const key = text.substr(dot + 1, equals - dot - 1);
    std::string const value = text.substr(equals + 1);
    for (EncoderSetting const& known : kEncoderSettings) {
        if (group != known.group || key != known.key) {
            continue;
        }
        char* end = nullptr;
        long const v = std::strtol(value.c_str(), &end, 10);
        bool const inRange = end != value.c_str() && *end == '\0' && v >= known.lowest &&
                             v <= known.highest && (!known.depth || (v % 8 == 0 && v != 0));
        if (!inRange) {
            error = known.depth ? group + "." + key + " takes 8, 16, 24 or 32"
                                : group + "." + key + " takes " + std::to_string(known.lowest) +
                                      " to " + std::to_string(known.highest);
            return false;
        }
        format.settings.push_back({group, key, value});
        return true;
    }
    error = "unknown setting '" + group + "." + key +
            "' (known: FlacEncoder.Compression, "
            "FlacEncoder.BitDepth)";
    return false;
}

void PrintMp3(LMP3FileInfo const& mp3) {
    LMP3FrameHeader const& h = mp3.header;
    std::printf("  Format:      %s layer %s\n", LMP3File::VersionName(h.version),
                h.layer == 3   ? "III"
                : h.layer == 2 ? "II"
                               : "I");
    char const* mode = "constant bitrate";
    if (mp3.vbr.kind == LMP3VbrHeader::kXing || mp3.vbr.kind == LMP3VbrHeader::kVbri) {
        // LAME's methods 3 to 5 and 8 are ABR-like (2 and 8) or VBR (3 to 6).
        mode = mp3.lame.present && (mp3.lame.vbrMethod == 2 || mp3.lame.vbrMethod == 8)
                   ? "average bitrate"
                   : "variable bitrate";
    }
    if (h.bitrateKbps == 0) {
        std::printf("  Bitrate:     free format\n");
    } else if (mp3.vbr.kind == LMP3VbrHeader::kXing || mp3.vbr.kind == LMP3VbrHeader::kVbri) {
        std::printf("  Bitrate:     %s\n", mode);
    } else {
        std::printf("  Bitrate:     %s, %d kbit/s\n", mode, h.bitrateKbps);
    }
    char const* const vbrNames[] = {"", "Xing", "Info", "VBRI"};
    if (mp3.vbr.kind != LMP3VbrHeader::kNone) {
        std::printf("  VBR header:  %s, %u frames, %u bytes%s\n", vbrNames[mp3.vbr.kind],
                    mp3.vbr.frames, mp3.vbr.bytes, mp3.vbr.hasToc ? ", table of contents" : "");
    }
    if (mp3.lame.present) {
        LMP3LameHeader const& l = mp3.lame;
        std::printf("  Encoder:     %s (VBR method %d, quality %d: digits %d %d)\n", l.encoder,
                    l.vbrMethod, l.quality, l.qualityDigits[0], l.qualityDigits[1]);
        std::printf("  LAME tag:    low-pass %d Hz, bitrate %d kbit/s, delay %d, padding %d, "
                    "preset %d\n",
                    l.lowpass * 100, l.bitrate, l.encoderDelay, l.encoderPadding, l.preset);
    }
    std::printf("  Mode:        %s%s\n",
                h.mode == LMP3FrameHeader::kStereo        ? "stereo"
                : h.mode == LMP3FrameHeader::kJointStereo ? "joint stereo"
                : h.mode == LMP3FrameHeader::kDualChannel ? "dual channel"
                                                          : "mono",
                h.crc ? ", CRC protected" : "");
    if (mp3.lengthEstimated) {
        std::printf("  Length:      estimated from the bitrate (no frame count)\n");
    }
    if (mp3.id3v2Bytes > 0) {
        std::printf("  ID3v2 tag:   %llu bytes", static_cast<unsigned long long>(mp3.id3v2Bytes));
        if (mp3.id3v2.version > 0) {
            std::printf(", version 2.%d", mp3.id3v2.version);
        }
        // The frames people look for, by the names of both frame sets (2.2 and later).
        struct Field {
            char const* name;
            std::initializer_list<char const*> ids;
        };
        Field const fields[] = {{"title", {"TIT2", "TT2"}},  {"artist", {"TPE1", "TP1"}},
                                {"album", {"TALB", "TAL"}},  {"year", {"TDRC", "TYER", "TYE"}},
                                {"track", {"TRCK", "TRK"}},  {"genre", {"TCON", "TCO"}},
                                {"comment", {"COMM", "COM"}}};
        char const* separator = "\n               ";
        for (Field const& field : fields) {
            std::string const value = mp3.id3v2.Find(field.ids);
            if (!value.empty()) {
                std::printf("%s%s \"%s\"", separator, field.name, value.c_str());
                separator = ", ";
            }
        }
        std::printf("\n");
    }
    if (mp3.id3v1) {
        std::printf("  ID3v1 tag:   title \"%s\", artist \"%s\", album \"%s\", year \"%s\", "
                    "comment \"%s\"\n",
                    mp3.title.c_str(), mp3.artist.c_str(), mp3.album.c_str(), mp3.year.c_str(),
                    mp3.comment.c_str());
    }
}

int InfoOne(char const* path) {
    LCliProcess process("Reading");
    LSoundSource source;
    if (ProcessGenSourceOpenSource(source, path, process) != LProcessResult::kCompleted) {
        process.EndProgress();
        PrintFailure("", process.GetError());
        return kCliExitFailed;
    }
    std::printf("%s\n", path);
    LWaveFileInfo wave{};
    bool const isWave = LGenFileExtension(path) == ".wav" && LWaveFileInfoGet(path, wave);
    LFLACFileInfo flac;
    LMP3FileInfo mp3;
    bool const isMp3 = LGenFileExtension(path) == ".mp3" && LMP3File::GetInfo(path, mp3);
    if (isWave) {
        std::printf("  Format:      WAV, %s\n", WaveFormatName(wave.formatTag, wave.bits));
        std::printf("  Bits:        %d\n", wave.bits);
    } else if (LGenFileExtension(path) == ".flac" && LFLACFile::GetInfo(path, flac)) {
        std::printf("  Format:      FLAC\n");
        std::printf("  Bits:        %u\n", flac.streamInfo.bitsPerSample);
        if (!flac.vendor.empty()) {
            std::printf("  Encoder:     %s\n", flac.vendor.c_str());
        }
        std::printf("  Block size:  %u to %u frames\n",
                    static_cast<unsigned>(flac.streamInfo.minBlockFrames),
                    static_cast<unsigned>(flac.streamInfo.maxBlockFrames));
        std::printf("  MD5:         %s\n", LMD5::ToHex(flac.streamInfo.md5).c_str());
    } else if (isMp3) {
        PrintMp3(mp3);
    } else {
        std::printf("  Format:      read by the platform decoder\n");
    }
    std::printf("  Sample rate: %d Hz\n", source->GetSampleRate());
    std::printf("  Channels:    %u\n", static_cast<unsigned>(source->GetChannels()));
    char text[kLMaxText];
    LSoundTime::FromFrames(source->GetEndSample(), source->GetSampleRate())._GetText(text);
    std::printf("  Duration:    %s (%lld frames)\n", text, source->GetEndSample());
    std::fflush(stdout);
    float peak = 0.0f;
    if (!ReadPeak(source, process, peak)) {
        process.EndProgress();
        std::fprintf(stderr, "tessel-cli: stopped\n");
        return kCliExitStopped;
    }
    process.EndProgress();
    if (peak > 0.0f) {
        std::printf("  Peak level:  %.2f dBFS\n", 20.0 * std::log10(static_cast<double>(peak)));
    } else {
        std::printf("  Peak level:  -inf dBFS (silence)\n");
    }
    LFileTagData tags;
    if (isWave && LWavTagsRead(path, tags) && tags.GetCount() > 0) {
        std::printf("  Tags:\n");
        for (std::size_t i = 0; i < tags.GetCount(); ++i) {
            std::printf("    %s=%s\n", tags.GetKeyAt(i), tags.GetValueAt(i));
        }
    }
    return kCliExitOk;
}

// Writes `source` to `out` through a temporary file (see ProcessGenSaveSource) under a progress
// bar, and reports how it ended.
int WriteThroughTemporary(LSoundSource& source, std::string const& out, int rate,
                          unsigned char channels, LGenSinkFormat const& format,
                          LFileTagData const* tags, char const* label) {
    LCliProcess process(label);
    LProcessResult const result =
        ProcessGenSaveSource(process, source, out.c_str(), rate, channels, &format, tags);
    process.EndProgress();
    if (result == LProcessResult::kStopped) {
        std::fprintf(stderr, "tessel-cli: stopped; %s was not written\n", out.c_str());
        return kCliExitStopped;
    }
    if (result == LProcessResult::kFailed) {
        std::string const error = process.GetError();
        PrintFailure("", error.empty() ? "the file could not be written" : error);
        return kCliExitFailed;
    }
    return kCliExitOk;
}

// A sine at -6 dBFS on every channel.
class ToneSource final : public LSoundSourceBase {
public:
    ToneSource(int rate, unsigned char channels, long long frames, double hz)
        : LSoundSourceBase(rate, channels), m_frames(frames),
          m_step(2.0 * 3.14159265358979323846 * hz / rate) {}
    void Read(float* buffer, long long frames) override {
        unsigned const channels = GetChannels();
        for (long long f = 0; f < frames; ++f, ++m_position) {
            float const v = m_position >= 0 && m_position < m_frames
                                ? static_cast<float>(0.5 * std::sin(m_step * m_position))
                                : 0.0f;
            for (unsigned c = 0; c < channels; ++c) {
                buffer[f * channels + c] = v;
            }
        }
    }
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_frames; }
    void Seek(long long frame) override { m_position = frame; }

private:
    long long m_frames;
    double m_step;
    long long m_position = 0;
};

} // namespace

int LCliUsageError(char const* message) {
    std::fprintf(stderr, "tessel-cli: %s\nTry 'tessel-cli --help' for more information.\n",
                 message);
    return kCliExitUsage;
}

int LCliRunInfo(int argc, char** argv) {
    if (argc < 1) {
        return LCliUsageError("info needs at least one FILE");
    }
    int status = kCliExitOk;
    for (int i = 0; i < argc; ++i) {
        int const one = InfoOne(argv[i]);
        if (one == kCliExitStopped) {
            return one;
        }
        if (one != kCliExitOk) {
            status = one;
        }
    }
    return status;
}

int LCliRunConvert(int argc, char** argv) {
    std::vector<char const*> files;
    LGenSinkFormat format;
    long long rate = 0;
    long long channels = 0;
    for (int i = 0; i < argc; ++i) {
        std::string const arg = argv[i];
        int status = kCliExitOk;
        int const shared = ParseFormatOption(argc, argv, i, format, rate, channels, status);
        if (shared < 0) {
            return status;
        }
        if (shared > 0) {
            continue;
        }
        if (arg == "--dither") {
            format.dither = true;
        } else if (arg == "--set") {
            if (i + 1 >= argc) {
                return LCliUsageError("--set takes GROUP.KEY=VALUE");
            }
            std::string error;
            if (!ParseEncoderSetting(argv[++i], format, error)) {
                return LCliUsageError(error.c_str());
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            return LCliUsageError(("unknown option '" + arg + "'").c_str());
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.size() != 2) {
        return LCliUsageError("convert needs IN and OUT");
    }
    if (LGenFileExtension(files[1]) == ".flac" && (format.floatSamples || format.g711 != 0)) {
        return LCliUsageError("FLAC holds integer samples: --bits takes 8, 16, 24 or 32 there");
    }
    LCliProcess opening("Opening");
    LSoundSource source;
    if (ProcessGenSourceOpenSource(source, files[0], opening) != LProcessResult::kCompleted) {
        opening.EndProgress();
        PrintFailure("", opening.GetError());
        return LCliInterrupted() ? kCliExitStopped : kCliExitFailed;
    }
    opening.EndProgress();
    LFileTagData tags;
    bool const haveTags = LGenFileExtension(files[0]) == ".wav" && LWavTagsRead(files[0], tags);
    int const outRate = rate > 0 ? static_cast<int>(rate) : source->GetSampleRate();
    auto const outChannels =
        static_cast<unsigned char>(channels > 0 ? channels : source->GetChannels());
    return WriteThroughTemporary(source, files[1], outRate, outChannels, format,
                                 haveTags ? &tags : nullptr, "Converting");
}

int LCliRunTags(int argc, char** argv) {
    if (argc < 1) {
        return LCliUsageError("tags needs a FILE");
    }
    char const* const path = argv[0];
    std::vector<std::pair<std::string, std::string>> sets;
    std::vector<std::string> removes;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if ((arg == "--set" || arg == "--remove") && i + 1 < argc) {
            std::string value = argv[++i];
            std::string key = value;
            std::string text;
            if (arg == "--set") {
                std::size_t const equals = value.find('=');
                if (equals == std::string::npos || equals == 0) {
                    return LCliUsageError("--set takes KEY=VALUE");
                }
                key = value.substr(0, equals);
                text = value.substr(equals + 1);
            }
            std::transform(key.begin(), key.end(), key.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            if (!LWavTagWriter::TagFieldIsValid(key.c_str())) {
                return LCliUsageError(("'" + key + "' is not a tag a WAV file can hold").c_str());
            }
            if (arg == "--set") {
                sets.emplace_back(key, text);
            } else {
                removes.push_back(key);
            }
        } else {
            return LCliUsageError(("unexpected argument '" + arg + "'").c_str());
        }
    }
    if (LGenFileExtension(path) != ".wav") {
        PrintFailure(path, "tags can be read and written in WAV files only, for now");
        return kCliExitFailed;
    }
    LFileTagData tags;
    if (!LWavTagsRead(path, tags)) {
        PrintFailure(path, "not a readable WAV file");
        return kCliExitFailed;
    }
    if (sets.empty() && removes.empty()) {
        for (std::size_t i = 0; i < tags.GetCount(); ++i) {
            std::printf("%s=%s\n", tags.GetKeyAt(i), tags.GetValueAt(i));
        }
        return kCliExitOk;
    }
    for (std::string const& key : removes) {
        tags.Remove(key.c_str());
    }
    for (auto const& [key, value] : sets) {
        tags.Set(key.c_str(), value.c_str());
    }
    if (!LWavTagsWrite(path, tags)) {
        PrintFailure(path, "the tags could not be written");
        return kCliExitFailed;
    }
    return kCliExitOk;
}

int LCliRunSynth(int argc, char** argv) {
    std::vector<char const*> files;
    LGenSinkFormat format;
    double seconds = 5.0;
    double hz = 440.0;
    long long rate = 44100;
    long long channels = 2;
    for (int i = 0; i < argc; ++i) {
        std::string const arg = argv[i];
        bool const hasValue = i + 1 < argc;
        if (arg == "--seconds") {
            if (!hasValue || !ParseDouble(argv[++i], 0.0, 24.0 * 3600.0, seconds)) {
                return LCliUsageError("--seconds takes a length from 0 to 86400");
            }
        } else if (arg == "--hz") {
            if (!hasValue || !ParseDouble(argv[++i], 0.0, 98000.0, hz)) {
                return LCliUsageError("--hz takes a frequency from 0 to 98000");
            }
        } else if (int status = kCliExitOk;
                   ParseFormatOption(argc, argv, i, format, rate, channels, status) != 0) {
            if (status != kCliExitOk) {
                return status;
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            return LCliUsageError(("unknown option '" + arg + "'").c_str());
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.size() != 1) {
        return LCliUsageError("synth needs OUT");
    }
    auto const frames = static_cast<long long>(seconds * static_cast<double>(rate) + 0.5);
    LSoundSource tone = LMakeSource<ToneSource>(static_cast<int>(rate),
                                                static_cast<unsigned char>(channels), frames, hz);
    return WriteThroughTemporary(tone, files[0], static_cast<int>(rate),
                                 static_cast<unsigned char>(channels), format, nullptr, "Writing");
}
