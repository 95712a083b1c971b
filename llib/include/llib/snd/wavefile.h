// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// RIFF/WAVE files as sound sources and sinks.
//
// LWaveFile::OpenSource reads integer PCM (1 to 32 bits), IEEE float (32 and 64 bits) and G.711
// A-law and mu-law, also when they are wrapped in WAVE_FORMAT_EXTENSIBLE. The source owns its
// descriptor, reads through positioned reads (so it never depends on a shared file offset) and
// delivers silence wherever the file runs short. Integer files report a level of 32767/32768,
// G.711 files 1.0 and float files 16.0. A failed open gives an error source at 11025 Hz mono
// with one of the codes: kCorrupt (malformed header, channels outside 1..255, rate outside
// 1..196000), kCannotOpen, kUnsupported (a format we do not decode), kCodecRequired (a
// compressed format the platform decoder may know: IMA ADPCM, TrueSpeech, tag 69, and for now
// GSM 6.10 and MPEG layer 3).
//
// Files beyond 4 GB are plain RIFF files whose audio continues in consecutive "data" chunks right
// after the first one; the writer caps the first chunk at 0xFFFFFFD8 bytes (so the RIFF size stays
// at or below 0xFFFFFFFE) and every later one at 0xFFFFFFF0 bytes. A header that was never
// finalised (data size 0xFFFFFFD9 from the provisional header) is read to the end of the file.
//
// The sinks write the header provisionally when opened and finalise it when their last reference
// goes; a failed open or write sets the sink's failed flag and later writes are ignored. One
// thread drives a source or a sink at a time.

#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"

#include <cstdint>
#include <vector>

// Format tags that the readers and writers name.
inline constexpr std::uint16_t kLWaveFormatPCM = 1;
inline constexpr std::uint16_t kLWaveFormatADPCM = 2;
inline constexpr std::uint16_t kLWaveFormatFloat = 3;
inline constexpr std::uint16_t kLWaveFormatALaw = 6;
inline constexpr std::uint16_t kLWaveFormatMuLaw = 7;
inline constexpr std::uint16_t kLWaveFormatImaAdpcm = 17;
inline constexpr std::uint16_t kLWaveFormatGSM610 = 49;
inline constexpr std::uint16_t kLWaveFormatMpegLayer3 = 85;
inline constexpr std::uint16_t kLWaveFormatExtensible = 65534;

// The WAVEFORMATEX fields in file order, the extra bytes that follow them, and whether a sink
// made from it dithers 8- and 16-bit output.
//
// The stored format file (conventionally "WavCodec.wff" in the user data folder) is little-endian:
// the magic "TWFF", a u16 layout version (1), the seven WAVEFORMATEX fields as they appear in a
// "fmt " chunk, the extra bytes (extraSize of them, at most 8174), and one dither byte (0 or 1).
// It is written under an exclusive and read under a shared advisory lock.
struct LWaveFileFormat {
    std::uint16_t formatTag = kLWaveFormatPCM;
    std::uint16_t channels = 2;
    std::uint32_t samplesPerSec = 44100;
    std::uint32_t avgBytesPerSec = 176400;
    std::uint16_t blockAlign = 4;
    std::uint16_t bitsPerSample = 16;
    std::uint16_t extraSize = 0;
    std::vector<unsigned char> extra;
    bool dither = false;

    // Fills the fields from the "fmt " chunk of an existing WAV file (EXTENSIBLE mapped to the
    // plain tag); dither is cleared. False, leaving the object unchanged, when no fmt chunk reads.
    [[nodiscard]] bool LoadFromPCMWaveFile(char const* path);
    // False, leaving the object unchanged, when the file is missing or malformed.
    [[nodiscard]] bool LoadFromWavCodecFile(char const* path);
    [[nodiscard]] bool SaveToWavCodecFile(char const* path) const;
};

namespace LWaveFile {
[[nodiscard]] LSoundSource OpenSource(char const* path);
// The same source, which unlinks the file when its last reference goes (temporary decodes).
[[nodiscard]] LSoundSource OpenSourceDeletingFileWhenClosed(char const* path);
// By format tag: 1 integer PCM (OpenSinkPCM), 3 with 32 bits float, 6 A-law, 7 mu-law, 17 IMA
// ADPCM through the platform audio file library. Anything else, 64-bit float included, gives a
// failed sink.
[[nodiscard]] LSoundSink OpenSink(char const* path, LWaveFileFormat const& format);
// Integer PCM: bits 1-8 are stored as unsigned bytes, 9-16, 17-24 and 25 or more in 2, 3 and 4
// bytes. Dither applies to the 8- and 16-bit containers only, and only above 8000 Hz.
[[nodiscard]] LSoundSink OpenSinkPCM(char const* path, int rate, unsigned char channels, int bits,
                                     bool dither);
} // namespace LWaveFile

// The display name of the codec that a WAV file's fmt chunk names (for example "IMA ADPCM";
// "Microsoft Unknown Wave Format" for a tag we have no name for) into `name`, a buffer of
// kLMaxText characters. False when no fmt chunk can be read.
[[nodiscard]] bool LGetWaveFileCodecName(char const* path, char* name);

// What a WAV file holds. `formatTag` is after the EXTENSIBLE mapping; `frames` is -1 where the
// length cannot be told from the header (compressed formats); `dataBytes` counts the audio bytes
// of every "data" chunk of the file (to its end when the header was never finalised).
struct LWaveFileInfo {
    std::uint16_t formatTag = 0;
    int bits = 0;
    int rate = 0;
    int channels = 0;
    long long frames = -1;
    unsigned long long dataBytes = 0;
};

// False when the file is not a WAV file whose "fmt " and "data" chunks read.
[[nodiscard]] bool LWaveFileInfoGet(char const* path, LWaveFileInfo& info);
