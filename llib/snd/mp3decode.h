// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The layer III decoder: shared tables, the frame decoder (side information, the bit reservoir,
// scale factors, Huffman decoding, requantisation, stereo, alias reduction, IMDCT) and the
// polyphase synthesis. Internal to llib/snd.

#include "llib/snd/mp3file.h"

#include <cstdint>

namespace llib::detail {

inline constexpr int kLMP3MaxFrameBytes = 2881; // MPEG-1 layer III at 320 kbit/s and 32 kHz
inline constexpr int kLMP3MaxFreeFormatBytes = 4608;
inline constexpr int kLMP3MaxFrameSamples = 1152;

// Tables built once on first use (thread-safe) and shared by every decoder.
struct LMP3LookupTables {
    // One Huffman table as a multi-level lookup: an entry is a leaf (bit 31 clear: length in
    // bits 16..20, x in bits 8..15, y in bits 0..7) or a link to the next level (bit 31 set:
    // index bits in 24..27, first entry in bits 0..23).
    struct Huffman {
        std::uint32_t const* lut = nullptr;
        int rootBits = 0;
        int linbits = 0;
    };
    Huffman pairs[32];
    Huffman quadA;
    float pow43[8207];      // |v|^(4/3)
    float pow2Quarter[512]; // 2^((i - 400) / 4)
    float longWindow[4][36];
    float shortWindow[12];
    float aliasCs[8];
    float aliasCa[8];
    float synthWindow[512];
    float dctCos[32]; // 1 / (2 cos(pi (2k + 1) / 64)), k < 16, then the 16-, 8-, 4- and 2-point
    float imdct18[18][18];
    float imdct6[12][6];
    float isRatio[7][2]; // MPEG-1 intensity positions 0..6: left and right factors
    float lsfIntensity[2][32][2];
    std::uint16_t sfbLong[9][23];
    std::uint16_t sfbShort[9][14];

    static void InitTables();
};
[[nodiscard]] LMP3LookupTables const& GetMp3LookUpTable();

// One granule's side information for one channel.
struct LMP3GranuleInfo {
    int part23Length = 0;
    int bigValues = 0;
    int globalGain = 0;
    int scalefacCompress = 0;
    bool windowSwitching = false;
    int blockType = 0;
    bool mixedBlock = false;
    int tableSelect[3] = {};
    int subblockGain[3] = {};
    int region1Start = 0; // in lines
    int region2Start = 0;
    bool preflag = false;
    bool scalefacScale = false;
    bool count1TableB = false;
};

struct LMP3SideInfo {
    int mainDataBegin = 0;
    int scfsi[2][4] = {};
    LMP3GranuleInfo granule[2][2]; // [granule][channel]
};

// Parses side information; false when a field is impossible (big_values beyond 288, window
// switching with block type 0). Region starts are resolved for `rateIndex`.
[[nodiscard]] bool LMP3ReadSideInfo(unsigned char const* data, LMP3FrameHeader const& header,
                                    LMP3SideInfo& side);

// The synthesis filter bank of one channel: 32 subband samples in, 32 time samples out.
class LMP3PolyphaseSynth {
public:
    void Reset();
    // Filters `slots` time slots of 32 subband samples each (`in`, slot-major) into `out`.
    void Synthesise(float const* in, int slots, float* out);
    // The direct matrix form the fast path must equal (tests only).
    static void MatrixMultiplyNoOpt(float const* in32, float* v64);

private:
    // A ring of the last 16 matrixed vectors, each as its halves [0, 32) and [32, 64).
    alignas(64) float m_v[16][64] = {};
    int m_slot = 0;
};

// Decodes whole layer III frames to interleaved float samples, keeping the bit reservoir, the
// IMDCT overlap and the synthesis state between them.
class LMP3FrameDecoder {
public:
    LMP3FrameDecoder();

    // Forgets the reservoir and all filter state (before decoding from a new position).
    void Reset();
    // Decodes `frame` (`bytes` bytes, header included) into `out` (GetFrameSamples() x channels
    // of the header, interleaved). False when the frame cannot be decoded; `out` then holds
    // silence and the state is reset, but the frame's main data still feeds the reservoir.
    [[nodiscard]] bool DecodeFrame(unsigned char const* frame, int bytes,
                                   LMP3FrameHeader const& header, float* out);
    // Appends the frame's main data to the reservoir without decoding it (used to prime the
    // reservoir before a seek target). False when the frame is too short for its side info.
    bool FeedReservoir(unsigned char const* frame, int bytes, LMP3FrameHeader const& header);
    // Bytes of main data the frame carries (after header, CRC and side information).
    [[nodiscard]] static int GetMainDataBytes(int bytes, LMP3FrameHeader const& header);

private:
    struct Channel;
    bool DecodeGranule(LMP3FrameHeader const& header, LMP3SideInfo const& side, int gr,
                       unsigned char const* main, int mainBytes, int& bitPos, float* out);
    void Silence(LMP3FrameHeader const& header, float* out);

    static constexpr int kReservoirBytes = 4096;
    unsigned char m_reservoir[kReservoirBytes + 8] = {};
    int m_reservoirBytes = 0;
    alignas(64) unsigned char m_main[kReservoirBytes + kLMP3MaxFreeFormatBytes + 64] = {};
    int m_scalefactors[2][39] = {}; // kept between granules for scfsi
    alignas(64) float m_xr[2][576] = {};
    alignas(64) float m_overlap[2][18 * 32] = {}; // time slot-major, like m_subband
    alignas(64) float m_subband[2][18 * 32] = {};
    alignas(64) float m_pcm[2][576] = {}; // one granule per channel, before interleaving
    LMP3PolyphaseSynth m_synth[2];
};

} // namespace llib::detail
