// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The FLAC source and sinks behind LFLACFile (llib/include/llib/snd/flacfile.h), for the
// implementation, its tests and the fuzzer.

#include "llib/gen/md5.h"
#include "flaccodec.h"
#include "llib/snd/flacfile.h"
#include "llib/unix/fd.h"
#include "llib/unix/filelock.h"
#include "llib/unix/thread.h"
#include "llib/unix/writebehind.h"

namespace llib::detail {
class LWaveDither;
}

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

// Decodes frames into per-channel integer buffers and hands them out as float. The file is read
// in large pieces into one buffer that always holds a whole frame at the largest size the stream
// may have; every buffer is sized when the source is made.
class LFLACSource final : public LSoundSourceBase {
public:
    // `fd` reads the file; `firstFrame` is the offset where its frames begin.
    LFLACSource(LFileDescriptor fd, LFLACMetaDataBlockStreamInfo const& info,
                std::uint64_t firstFrame);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_endSample; }
    void Seek(long long frame) override;

    // Frames that failed their CRC or did not decode and were read as silence (for tests and
    // for telling the user a file is damaged).
    [[nodiscard]] long long GetLostFrames() const { return m_lostFrames; }

private:
    // Decodes the next frame into the channel buffers; sets m_frameStart and m_frameFrames, or
    // m_ended when no frame follows.
    void DecodeNextFrame();
    // Decodes the frame at m_readAt with `header`; false when it is damaged.
    template <class S>
    [[nodiscard]] bool DecodeFrameBody(llib::detail::LFLACFrameHeader const& header,
                                       std::size_t available, std::size_t& frameBytes);
    // Makes the buffer hold `bytes` from m_readAt on, or as much as the file still has; returns
    // the bytes available.
    std::size_t Fill(std::size_t bytes);
    // Looks for the next sound frame header after a damaged frame; false at the end of the file.
    [[nodiscard]] bool Resync();
    // The sample number at which a frame with `header` starts.
    [[nodiscard]] long long FrameStart(llib::detail::LFLACFrameHeader const& header) const;
    // Finds the length from the last frame of the file when STREAMINFO does not tell it.
    [[nodiscard]] long long ScanLength();
    void Rewind();
    void Deliver(float* out, long long frames);

    LFileDescriptor m_fd;
    LFLACMetaDataBlockStreamInfo m_info;
    std::uint64_t m_firstFrame;
    long long m_position = 0;
    long long m_endSample = 0;
    bool m_wide; // 64-bit channel buffers (more than 24 bits per sample)
    bool m_noSeek = false;
    std::size_t m_frameBound; // the largest frame this stream can have, in bytes

    std::vector<unsigned char> m_buffer; // file bytes, plus the reader's padding
    std::uint64_t m_bufferOffset = 0;    // file offset of m_buffer[0]
    std::size_t m_bufferBytes = 0;       // valid bytes in m_buffer
    std::size_t m_readAt = 0;            // the next frame's index in m_buffer
    bool m_fileEnded = false;            // nothing more to read from the file

    std::vector<std::int32_t> m_samples; // per channel, kLFLACMaxBlockFrames each
    std::vector<std::int64_t> m_samplesWide;
    std::vector<std::int32_t> m_residual;
    std::vector<unsigned char> m_pack; // samples in a stored form, for the shared conversions
    long long m_frameStart = 0;        // sample number of the first sample in the channel buffers
    int m_frameFrames = 0;             // samples per channel held
    long long m_nextStart = 0;         // where the next frame is expected to start
    long long m_fixedBlock = 0;        // the block size of a fixed-blocking stream
    bool m_ended = false;
    bool m_damaged = false; // the last frame was damaged: find the next one by its sync
    long long m_lostFrames = 0;
};

// Encodes blocks of 4096 frames. The caller's thread rounds the samples and computes the MD5;
// a worker thread of the sink encodes them, a batch of blocks behind. T is short for up to 16 bits
// per sample and int for 24 and 32, the containers the samples are rounded to (as the WAV writer of
// the same depth rounds).
template <class T>
class LFLACSink : public LSoundSinkBase {
public:
    LFLACSink(char const* path, int rateHz, unsigned char channels, int bits, int compression);
    ~LFLACSink() override;
    void Write(float const* buffer, long long frames) override;
    [[nodiscard]] bool Finish() override;

protected:
    // Turns floats into integer samples of the stream's depth (interleaved).
    virtual void Quantise(float const* in, std::int32_t* out, long long count);
    [[nodiscard]] int GetBits() const { return m_bits; }

private:
    // Samples of several blocks, filled by the caller's thread and encoded by the worker.
    struct Batch {
        std::vector<std::int32_t> samples; // interleaved
        long long frames = 0;
    };
    // Hands the batch being filled to the worker (waiting while it is busy with the other one),
    // then folds it into the MD5 while the worker encodes it.
    void Submit();
    void Digest(Batch const& batch);
    // Encodes and writes a batch's frames; false when a write fails.
    [[nodiscard]] bool EncodeBatch(Batch const& batch);
    void RunWorker();

    LFileDescriptor m_fd;
    LFileLock m_lock;
    LWriteBehind m_writer;
    LFLACMetaDataBlockStreamInfo m_info;
    int m_bits;
    int m_compression;
    bool m_finished = false;
    bool m_finishResult = false;
    Batch m_batches[2];
    int m_filling = 0;                    // the batch Write fills
    std::vector<unsigned char> m_scratch; // the stored form of the samples being quantised
    std::vector<unsigned char> m_md5Bytes;
    LMD5 m_md5;
    // Owned by the worker while it runs.
    std::uint64_t m_frameNumber = 0;
    std::vector<unsigned char> m_frame;
    std::unique_ptr<llib::detail::LFLACFrame> m_encoder;
    // The hand-over: -1 when the worker has nothing to do.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_queued = -1;
    bool m_busy = false;
    bool m_stop = false;
    bool m_workerFailed = false;
    LThread m_thread;
};

// The 16-bit (and 8-bit) sink with triangular dither added before the samples are rounded.
class LFLACSinkWithDither final : public LFLACSink<short> {
public:
    LFLACSinkWithDither(char const* path, int rateHz, unsigned char channels, int bits,
                        int compression);
    ~LFLACSinkWithDither() override;

private:
    void Quantise(float const* in, std::int32_t* out, long long count) override;

    std::vector<float> m_dithered;
    std::unique_ptr<llib::detail::LWaveDither> m_dither;
};
