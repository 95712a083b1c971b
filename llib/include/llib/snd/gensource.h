// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The format dispatch: every file the editor opens, imports or batch-converts goes through
// ProcessGenSourceOpenSource, and every save through LGenSinkOpenSink. Both decide by the file
// name's extension, lower-cased first; nothing is sniffed from the content here, each decoder
// checks its own header.
//
// Opening: ".wav" goes to the WAV reader and, when that fails, to the platform decoder (which
// reads, for example, IMA ADPCM WAV); ".flac" goes to our own FLAC decoder only. Any other
// extension goes to the platform decoder. Readers
// for further formats join the chain in their places as they arrive. A failure leaves an error
// source in `result`; ProcessGenSourceGetError turns it into the message for the user.
//
// Saving: ".wav" reads "WavSettings" and the stored WAVE format ("WavCodec.wff" in the user data
// folder); ".flac" reads "FlacEncoder" ("Compression" 0 to 8, default 5; "BitDepth" 8, 16, 24 or
// 32, default 16); an unknown extension gives an error sink.

#include "llib/gen/process.h"
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"

#include <string>
#include <vector>

class LCutListAudio;
class LFileTagData;
class LSettingsStore;
struct LWaveFileFormat;

// The extension of `path` with its dot, lower-cased ("" when it has none).
[[nodiscard]] std::string LGenFileExtension(char const* path);

// The process interface handed to decoders that take long: everything goes to the caller's.
class LGenSourceOpenInterfaceProcess final : public LProcessInterfaceForward {
public:
    using LProcessInterfaceForward::LProcessInterfaceForward;
};

// Opens `path` as a source. With `reportError`, a failure's message goes to the process
// (ProcessGenSourceGetError). `extension`, when not null, is used instead of the path's (for
// files whose name does not tell their format, such as temporary files). Returns kCompleted
// with a working source, kStopped when the process asked to stop, kFailed otherwise.
[[nodiscard]] LProcessResult ProcessGenSourceOpenSource(LSoundSource& result, char const* path,
                                                        LProcessInterface& process,
                                                        bool reportError = true,
                                                        char const* extension = nullptr);

// The message for a source that failed to open, by its error code and the file's extension;
// also passed to the process with SetError.
std::string ProcessGenSourceGetError(LProcessInterface& process, LSoundSource const& source,
                                     char const* path, char const* extension = nullptr);

// How a save should be encoded where the caller decides rather than the stored settings (the
// command line's --bits). Zero or default values leave the stored settings in charge.
struct LGenSinkFormat {
    int bits = 0;              // 8, 16, 24 or 32 integer bits
    bool floatSamples = false; // 32-bit float
    int g711 = 0;              // 6 A-law, 7 mu-law
    bool dither = false;
    // Encoder settings for this save only, read before the stored ones (the command line's
    // --set FlacEncoder.Compression=8).
    struct Setting {
        std::string group;
        std::string key;
        std::string value;
    };
    std::vector<Setting> settings;
};

// Opens the sink for `path` at `rate` and `channels`, by extension, reading the format's stored
// settings from `settings` (the user's store when null). `format` overrides the stored sample
// format. An unknown extension or a file that cannot be created gives a failed sink.
[[nodiscard]] LSoundSink LGenSinkOpenSink(char const* path, int rate, unsigned char channels,
                                          LFileTagData const* tags,
                                          LGenSinkFormat const* format = nullptr,
                                          LSettingsStore* settings = nullptr);

// The stored WAVE format for ".wav" output: "WavCodec.wff" in the user data folder, or 16-bit
// PCM at 44100 Hz stereo when there is none.
[[nodiscard]] LWaveFileFormat LGenStoredWaveFormat();

// Writes `source` to `path` at `rate` and `channels` through LGenSinkOpenSink: into a temporary
// file beside `path`, with the same extension, renamed over `path` only once it is complete (and
// its tags written, for WAV). A failure or stop deletes the temporary file, so whatever was at
// `path` before is untouched. Messages go to the process.
[[nodiscard]] LProcessResult ProcessGenSaveSource(LProcessInterface& process, LSoundSource& source,
                                                  char const* path, int rate,
                                                  unsigned char channels,
                                                  LGenSinkFormat const* format,
                                                  LFileTagData const* tags);

// Opens `path` as a document's audio: `list` becomes one segment over a cache item of the file.
// When the file is unchanged since an item was made from it (same path, size and modification
// time), that item is used again and nothing is decoded; otherwise the file is decoded through
// the dispatch into a new item.
[[nodiscard]] LProcessResult ProcessGenOpenCutList(LProcessInterface& process, char const* path,
                                                   LCutListAudio& list);

// Saves `list` to `path` at its own rate and channel count, as ProcessGenSaveSource does.
[[nodiscard]] LProcessResult ProcessGenSaveCutList(LProcessInterface& process,
                                                   LCutListAudio const& list, char const* path,
                                                   LGenSinkFormat const* format,
                                                   LFileTagData const* tags);
