// SPDX-License-Identifier: GPL-3.0-or-later
// The WAV factories: which source or sink a format gets, the stored format file, and what the
// command line and the error messages learn from a header.
#include "llib/snd/wavefile.h"

#include "llib/snd/mp3file.h"

#include "wavepcm.h"

#include "llib/gen/filestream.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/audiofilelib.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace llib::detail;

namespace {

constexpr float kIntegerLevel = 32767.0f / 32768.0f;
constexpr float kFloatLevel = 16.0f;
constexpr float kG711Level = 1.0f;

// How the audio of a format tag is stored, or the error it fails with.
struct LWaveLayout {
    LSoundSourceErrorCode error = LSoundSourceErrorCode::kNone;
    int bytesPerSample = 0;
};

LWaveLayout LayoutOf(LWaveFormatEx const& format) {
    int const bits = format.bitsPerSample;
    switch (format.formatTag) {
    case kLWaveFormatPCM:
        if (bits < 1) {
            return {LSoundSourceErrorCode::kCorrupt, 0};
        }
        return {LSoundSourceErrorCode::kNone, bits <= 8 ? 1 : bits <= 16 ? 2 : bits <= 24 ? 3 : 4};
    case kLWaveFormatFloat:
        if (bits == 32 || bits == 64) {
            return {LSoundSourceErrorCode::kNone, bits / 8};
        }
        return {LSoundSourceErrorCode::kUnsupported, 0};
    case kLWaveFormatALaw:
    case kLWaveFormatMuLaw:
        return {LSoundSourceErrorCode::kNone, 1};
    // MPEG layer 3 goes to our MP3 decoder, over the data chunk (MakeSource).
    case kLWaveFormatMpegLayer3:
        return {LSoundSourceErrorCode::kNone, 0};
    // Compressed formats that a codec elsewhere (the platform decoder) may read. GSM 6.10 is
    // among them until this reader decodes it itself.
    case kLWaveFormatImaAdpcm:
    case 34: // DSP Group TrueSpeech
    case 69:
    case kLWaveFormatGSM610:
        return {LSoundSourceErrorCode::kCodecRequired, 0};
    default:
        return {LSoundSourceErrorCode::kUnsupported, 0};
    }
}

LSoundSource MakeSource(LFileDescriptor fd, LWaveHeader const& header) {
    LWaveFormatEx const& format = header.format;
    int const rate = static_cast<int>(format.samplesPerSec);
    auto const channels = static_cast<unsigned char>(format.channels);
    std::uint64_t const start = header.dataStart;
    std::uint32_t const bytes = header.dataBytes;
    switch (format.formatTag) {
    case kLWaveFormatFloat:
        if (format.bitsPerSample == 64) {
            return LMakeSource<LSRCPCMFile<LSFF64>>(std::move(fd), rate, channels, kFloatLevel,
                                                    start, bytes);
        }
        return LMakeSource<LSRCPCMFile<LSFF32>>(std::move(fd), rate, channels, kFloatLevel, start,
                                                bytes);
    case kLWaveFormatALaw:
        return LMakeSource<LSRCPCMFile<LSFALAW>>(std::move(fd), rate, channels, kG711Level, start,
                                                 bytes);
    case kLWaveFormatMuLaw:
        return LMakeSource<LSRCPCMFile<LSFULAW>>(std::move(fd), rate, channels, kG711Level, start,
                                                 bytes);
    case kLWaveFormatMpegLayer3: {
        // The stream decides its rate and channels; a data chunk that disagrees with its own
        // fmt chunk is still read as the frames say.
        std::int64_t const size = fd.GetSize();
        std::uint64_t const end = size < 0 ? start : static_cast<std::uint64_t>(size);
        std::uint64_t const available = end > start ? end - start : 0;
        return LMP3File::OpenSourceRange(std::move(fd), start,
                                         std::min<std::uint64_t>(bytes, available), 0);
    }
    default:
        break;
    }
    switch (LayoutOf(format).bytesPerSample) {
    case 1:
        return LMakeSource<LSRCPCMFile<LSFU8>>(std::move(fd), rate, channels, kIntegerLevel, start,
                                               bytes);
    case 2:
        return LMakeSource<LSRCPCMFile<LSF16>>(std::move(fd), rate, channels, kIntegerLevel, start,
                                               bytes);
    case 3:
        return LMakeSource<LSRCPCMFile<LSFLE24>>(std::move(fd), rate, channels, kIntegerLevel,
                                                 start, bytes);
    default:
        return LMakeSource<LSRCPCMFile<LSF32>>(std::move(fd), rate, channels, kIntegerLevel, start,
                                               bytes);
    }
}

// Reads the header; kNone or the code an open fails with.
LSoundSourceErrorCode ReadHeader(char const* path, LFileDescriptor& fd, LWaveHeader& header) {
    if (path == nullptr || !fd.Open(path, O_RDONLY)) {
        return LSoundSourceErrorCode::kCannotOpen;
    }
    return LReadWaveHeader(fd, header);
}

// Forwards to the WAV source it wraps and unlinks the file when the last reference goes.
class LWavSourceDeleteWhenClosed final : public LSoundSourceBase {
public:
    LWavSourceDeleteWhenClosed(LSoundSource inner, char const* path)
        : LSoundSourceBase(inner->GetSampleRate(), inner->GetChannels()), m_inner(inner),
          m_path(path) {
        SetError(inner->GetError());
        SetMaxMagnitude(inner->GetMaxMagnitude());
    }
    ~LWavSourceDeleteWhenClosed() override {
        m_inner.Close(); // the descriptor goes before the name
        (void)unlink(m_path.c_str());
    }

    void Read(float* buffer, long long frames) override { m_inner->Read(buffer, frames); }
    [[nodiscard]] long long GetPositionSample() const override {
        return m_inner->GetPositionSample();
    }
    [[nodiscard]] long long GetEndSample() const override { return m_inner->GetEndSample(); }
    void Seek(long long frame) override { m_inner->Seek(frame); }
    [[nodiscard]] bool IsStreaming() const override { return m_inner->IsStreaming(); }
    void WaitForStreamingData(int ms) override { m_inner->WaitForStreamingData(ms); }

private:
    LSoundSource m_inner;
    std::string m_path;
};

struct LCodecName {
    std::uint16_t tag;
    char const* name;
};

constexpr LCodecName kCodecNames[] = {
    {1, "PCM"},
    {2, "Microsoft ADPCM"},
    {3, "IEEE Float"},
    {6, "CCITT A-Law"},
    {7, "CCITT u-Law"},
    {16, "OKI ADPCM"},
    {17, "IMA ADPCM"},
    {20, "G.723 ADPCM"},
    {34, "DSP Group TrueSpeech"},
    {49, "GSM 6.10"},
    {64, "G.721 ADPCM"},
    {66, "MSN Audio G.723.1"},
    {69, "G.726 ADPCM"},
    {80, "MPEG Layer-2"},
    {85, "MPEG Layer-3"},
    {98, "Voxware"},
    {112, "Lernout & Hauspie CELP"},
    {304, "ACELP.net"},
    {305, "Sipro Lab ACELP"},
    {353, "Windows Media Audio"},
    {354, "Windows Media Audio Professional"},
    {355, "Windows Media Audio Lossless"},
    {5632, "AAC"},
};

constexpr char kUnknownCodecName[] = "Microsoft Unknown Wave Format";

// The stored format file: magic, layout version, the 18 header bytes, extra bytes, dither.
constexpr char kWffMagic[4] = {'T', 'W', 'F', 'F'};
constexpr std::uint16_t kWffVersion = 1;
constexpr std::size_t kWffFixedBytes = 4 + 2 + 18 + 1;
constexpr std::uint16_t kWffMaxExtraBytes = kWaveMaxFmtBytes - 18;

} // namespace

LSoundSource LWaveFile::OpenSource(char const* path) {
    LFileDescriptor fd;
    LWaveHeader header;
    LSoundSourceErrorCode const code = ReadHeader(path, fd, header);
    if (code != LSoundSourceErrorCode::kNone) {
        return LMakeErrorSource(code);
    }
    LWaveLayout const layout = LayoutOf(header.format);
    if (layout.error != LSoundSourceErrorCode::kNone) {
        return LMakeErrorSource(layout.error);
    }
    return MakeSource(std::move(fd), header);
}

LSoundSource LWaveFile::OpenSourceDeletingFileWhenClosed(char const* path) {
    LSoundSource inner = OpenSource(path);
    if (path == nullptr) {
        return inner;
    }
    return LMakeSource<LWavSourceDeleteWhenClosed>(inner, path);
}

LSoundSink LWaveFile::OpenSinkPCM(char const* path, int rate, unsigned char channels, int bits,
                                  bool dither) {
    // Below 8 kHz and at 8 kHz the dither's noise falls within the audible band.
    bool const wantDither = dither && rate > 8000;
    if (bits < 1) {
        return LMakeSink<LSoundSinkError>();
    }
    if (bits <= 8) {
        return LMakeSink<LSNKPCMFile<LSFU8>>(path, rate, channels, wantDither);
    }
    if (bits <= 16) {
        return LMakeSink<LSNKPCMFile<LSF16>>(path, rate, channels, wantDither);
    }
    if (bits <= 24) {
        return LMakeSink<LSNKPCMFile<LSFLE24>>(path, rate, channels, false);
    }
    return LMakeSink<LSNKPCMFile<LSF32>>(path, rate, channels, false);
}

LSoundSink LWaveFile::OpenSink(char const* path, LWaveFileFormat const& format) {
    if (format.channels < 1 || format.channels > 255 || format.samplesPerSec < 1 ||
        format.samplesPerSec > 0x7FFFFFFF) {
        return LMakeSink<LSoundSinkError>();
    }
    int const rate = static_cast<int>(format.samplesPerSec);
    auto const channels = static_cast<unsigned char>(format.channels);
    switch (format.formatTag) {
    case kLWaveFormatPCM:
        return OpenSinkPCM(path, rate, channels, format.bitsPerSample, format.dither);
    case kLWaveFormatFloat:
        if (format.bitsPerSample == 32) {
            return LMakeSink<LSNKPCMFile<LSFF32>>(path, rate, channels, false, kLWaveFormatFloat);
        }
        return LMakeSink<LSoundSinkError>();
    case kLWaveFormatALaw:
        return LMakeSink<LSNKG711WaveFile<LSFALAW>>(path, rate, channels);
    case kLWaveFormatMuLaw:
        return LMakeSink<LSNKG711WaveFile<LSFULAW>>(path, rate, channels);
    case kLWaveFormatImaAdpcm:
        return LAudioFileLib::OpenSinkWav(path, format.formatTag, rate, channels);
    default:
        return LMakeSink<LSoundSinkError>();
    }
}

bool LGetWaveFileCodecName(char const* path, char* name) {
    LFileDescriptor fd;
    LWaveHeader header;
    (void)ReadHeader(path, fd, header);
    if (!header.fmtRead) {
        return false;
    }
    char const* found = kUnknownCodecName;
    for (LCodecName const& codec : kCodecNames) {
        if (codec.tag == header.format.formatTag) {
            found = codec.name;
        }
    }
    LStrCopy(name, kLMaxText, found);
    return true;
}

bool LWaveFileInfoGet(char const* path, LWaveFileInfo& info) {
    LFileDescriptor fd;
    LWaveHeader header;
    if (ReadHeader(path, fd, header) != LSoundSourceErrorCode::kNone) {
        return false;
    }
    LWaveFormatEx const& format = header.format;
    std::vector<LWaveDataRegion> const regions =
        LScanWaveDataRegions(fd, header.dataStart, header.dataBytes);
    LWaveDataRegion const& last = regions.back();
    info.formatTag = format.formatTag;
    info.bits = format.bitsPerSample;
    info.rate = static_cast<int>(format.samplesPerSec);
    info.channels = format.channels;
    info.dataBytes = last.dataOffset + (last.fileEnd - last.fileStart);
    LWaveLayout const layout = LayoutOf(format);
    info.frames = -1;
    if (layout.bytesPerSample > 0) {
        info.frames = static_cast<long long>(
            info.dataBytes / (static_cast<unsigned>(layout.bytesPerSample) * format.channels));
    } else if (format.formatTag == kLWaveFormatGSM610) {
        info.frames = static_cast<long long>(info.dataBytes / 65 * 320);
    }
    return true;
}

bool LWaveFileFormat::LoadFromPCMWaveFile(char const* path) {
    LFileDescriptor fd;
    LWaveHeader header;
    (void)ReadHeader(path, fd, header);
    if (!header.fmtRead) {
        return false;
    }
    LWaveFormatEx const& read = header.format;
    formatTag = read.formatTag;
    channels = read.channels;
    samplesPerSec = read.samplesPerSec;
    avgBytesPerSec = read.avgBytesPerSec;
    blockAlign = read.blockAlign;
    bitsPerSample = read.bitsPerSample;
    extraSize = static_cast<std::uint16_t>(read.extra.size());
    extra = read.extra;
    dither = false;
    return true;
}

bool LWaveFileFormat::LoadFromWavCodecFile(char const* path) {
    LInputStreamFileShared stream;
    if (path == nullptr || !stream.Open(path) || stream.GetSize() < kWffFixedBytes ||
        stream.GetSize() > kWffFixedBytes + kWffMaxExtraBytes) {
        return false;
    }
    unsigned char fixed[4 + 2 + 18];
    if (!stream.Read(fixed, sizeof fixed) || std::memcmp(fixed, kWffMagic, 4) != 0) {
        return false;
    }
    auto u16 = [&fixed](std::size_t at) {
        return static_cast<std::uint16_t>(fixed[at] | fixed[at + 1] << 8);
    };
    auto u32 = [&u16](std::size_t at) {
        return static_cast<std::uint32_t>(u16(at) | static_cast<std::uint32_t>(u16(at + 2)) << 16);
    };
    std::uint16_t const extraBytes = u16(22);
    if (u16(4) != kWffVersion || extraBytes > kWffMaxExtraBytes ||
        stream.GetSize() != kWffFixedBytes + extraBytes) {
        return false;
    }
    std::vector<unsigned char> extraRead(extraBytes);
    unsigned char ditherByte = 0;
    if ((extraBytes > 0 && !stream.Read(extraRead.data(), extraBytes)) ||
        !stream.Read(&ditherByte, 1) || ditherByte > 1) {
        return false;
    }
    formatTag = u16(6);
    channels = u16(8);
    samplesPerSec = u32(10);
    avgBytesPerSec = u32(14);
    blockAlign = u16(18);
    bitsPerSample = u16(20);
    extraSize = extraBytes;
    extra = std::move(extraRead);
    dither = ditherByte != 0;
    return true;
}

bool LWaveFileFormat::SaveToWavCodecFile(char const* path) const {
    std::size_t const extraBytes = std::min<std::size_t>(extra.size(), extraSize);
    if (path == nullptr || extraBytes > kWffMaxExtraBytes) {
        return false;
    }
    std::vector<unsigned char> out;
    auto put = [&out](std::uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            out.push_back(static_cast<unsigned char>(value >> (8 * i)));
        }
    };
    out.insert(out.end(), kWffMagic, kWffMagic + 4);
    put(kWffVersion, 2);
    put(formatTag, 2);
    put(channels, 2);
    put(samplesPerSec, 4);
    put(avgBytesPerSec, 4);
    put(blockAlign, 2);
    put(bitsPerSample, 2);
    put(static_cast<std::uint32_t>(extraBytes), 2);
    out.insert(out.end(), extra.begin(), extra.begin() + static_cast<std::ptrdiff_t>(extraBytes));
    out.push_back(dither ? 1 : 0);
    LOutputStreamFile stream;
    return stream.Open(path) && stream.Write(out.data(), out.size()) && stream.Close();
}
