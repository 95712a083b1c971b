// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/qt/qtaudiodevice.h"

#include "llib/gen/muldiv.h"
#include "llib/snd/sampleformats.h"

#include <QAudioSink>
#include <QAudioSource>
#include <QIODevice>
#include <QMediaDevices>

#include <algorithm>
#include <vector>

namespace {

constexpr long long kScratchFrames = 2048;

// Interleaved float frames to and from the bytes of the chosen sample format. The tags of
// sampleformats.h have alignment 1, so Qt's byte buffers need no alignment.
void FloatsToBytes(QAudioFormat::SampleFormat format, char* out, float const* in,
                   long long samples) {
    if (format == QAudioFormat::Float) {
        ConvertSamplesOut<LSFF32>(reinterpret_cast<LSFF32*>(out), in, samples);
    } else {
        ConvertSamplesOut<LSF16>(reinterpret_cast<LSF16*>(out), in, samples);
    }
}

void BytesToFloats(QAudioFormat::SampleFormat format, float* out, char const* in,
                   long long samples) {
    if (format == QAudioFormat::Float) {
        ConvertSamplesIn<LSFF32>(out, reinterpret_cast<LSFF32 const*>(in), samples);
    } else {
        ConvertSamplesIn<LSF16>(out, reinterpret_cast<LSF16 const*>(in), samples);
    }
}

// What a pulling QAudioSink reads: frames out of the ring, as many whole frames as are there.
// An empty ring gives 0 bytes, which the sink takes as an underrun and plays silence for.
class RingReader final : public QIODevice {
public:
    RingReader(LAudioRing& ring, QAudioFormat const& format)
        : m_ring(ring), m_sampleFormat(format.sampleFormat()),
          m_bytesPerFrame(format.bytesPerFrame()),
          m_scratch(static_cast<std::size_t>(kScratchFrames) * ring.GetChannels()) {}

    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override {
        return m_ring.GetReadableFrames() * m_bytesPerFrame + QIODevice::bytesAvailable();
    }

protected:
    qint64 readData(char* data, qint64 maxBytes) override {
        long long frames = maxBytes / m_bytesPerFrame;
        qint64 bytes = 0;
        while (frames > 0) {
            long long const got = m_ring.Read(m_scratch.data(), std::min(frames, kScratchFrames));
            if (got == 0) {
                break;
            }
            FloatsToBytes(m_sampleFormat, data + bytes, m_scratch.data(),
                          got * m_ring.GetChannels());
            bytes += got * m_bytesPerFrame;
            frames -= got;
        }
        return bytes;
    }
    qint64 writeData(char const*, qint64) override { return -1; }

private:
    LAudioRing& m_ring;
    QAudioFormat::SampleFormat m_sampleFormat;
    qint64 m_bytesPerFrame;
    std::vector<float> m_scratch;
};

// What a QAudioSource writes into: whole frames go into the ring (what does not fit is counted
// there as refused); a frame split across two writes waits in a carry until it is complete.
class RingWriter final : public QIODevice {
public:
    RingWriter(LAudioRing& ring, QAudioFormat const& format)
        : m_ring(ring), m_sampleFormat(format.sampleFormat()),
          m_bytesPerFrame(format.bytesPerFrame()),
          m_scratch(static_cast<std::size_t>(kScratchFrames) * ring.GetChannels()) {}

    bool isSequential() const override { return true; }

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(char const* data, qint64 bytes) override {
        qint64 used = 0;
        if (!m_carry.empty()) {
            qint64 const need = m_bytesPerFrame - static_cast<qint64>(m_carry.size());
            qint64 const take = std::min(need, bytes);
            m_carry.append(data, static_cast<std::size_t>(take));
            used = take;
            if (take < need) {
                return bytes;
            }
            Push(m_carry.data(), 1);
            m_carry.clear();
        }
        long long const frames = (bytes - used) / m_bytesPerFrame;
        for (long long done = 0; done < frames;) {
            long long const n = std::min(frames - done, kScratchFrames);
            Push(data + used + done * m_bytesPerFrame, n);
            done += n;
        }
        used += frames * m_bytesPerFrame;
        m_carry.assign(data + used, static_cast<std::size_t>(bytes - used));
        return bytes;
    }

private:
    void Push(char const* bytes, long long frames) {
        BytesToFloats(m_sampleFormat, m_scratch.data(), bytes, frames * m_ring.GetChannels());
        (void)m_ring.Write(m_scratch.data(), frames);
    }

    LAudioRing& m_ring;
    QAudioFormat::SampleFormat m_sampleFormat;
    qint64 m_bytesPerFrame;
    std::vector<float> m_scratch;
    std::string m_carry;
};

QAudioDevice FindDevice(QList<QAudioDevice> const& devices, QAudioDevice const& fallback,
                        QByteArray const& id) {
    if (id.isEmpty()) {
        return fallback;
    }
    for (QAudioDevice const& device : devices) {
        if (device.id() == id) {
            return device;
        }
    }
    return {};
}

std::string NoDeviceText(char const* kind, QByteArray const& id) {
    if (id.isEmpty()) {
        return std::string("the system lists no audio ") + kind +
               "; the sound server may not be running";
    }
    return std::string("there is no audio ") + kind + " called \"" + id.toStdString() + "\"";
}

bool PickFormat(QAudioDevice const& device, int rateHz, unsigned channels, LQtSampleFormats formats,
                QAudioFormat& out) {
    QAudioFormat const preferred = device.preferredFormat();
    int const rates[3] = {
        rateHz, std::clamp(rateHz, device.minimumSampleRate(), device.maximumSampleRate()),
        preferred.sampleRate()};
    int const counts[3] = {static_cast<int>(channels),
                           std::clamp(static_cast<int>(channels), device.minimumChannelCount(),
                                      device.maximumChannelCount()),
                           preferred.channelCount()};
    for (int k = 0; k < 3; ++k) {
        for (QAudioFormat::SampleFormat const sampleFormat :
             {QAudioFormat::Float, QAudioFormat::Int16}) {
            if (sampleFormat == QAudioFormat::Float && formats == LQtSampleFormats::kInt16Only) {
                continue;
            }
            QAudioFormat format;
            format.setSampleRate(rates[k]);
            format.setChannelCount(counts[k]);
            format.setSampleFormat(sampleFormat);
            if (rates[k] > 0 && counts[k] > 0 && device.isFormatSupported(format)) {
                out = format;
                return true;
            }
        }
    }
    return false;
}

// Shared by both directions: find the device, then a format it takes; a failure leaves no
// device chosen.
bool OpenDevice(QList<QAudioDevice> const& devices, QAudioDevice const& fallback, char const* kind,
                QByteArray const& id, LQtSampleFormats formats, int rateHz, unsigned channels,
                QAudioDevice& device, QAudioFormat& format, LAudioFormat& actual,
                std::string& error) {
    device = FindDevice(devices, fallback, id);
    if (device.isNull()) {
        error = NoDeviceText(kind, id);
        return false;
    }
    if (!PickFormat(device, rateHz, channels, formats, format)) {
        error = "the audio " + std::string(kind) + " \"" + device.description().toStdString() +
                (formats == LQtSampleFormats::kInt16Only
                     ? "\" does not take 16-bit samples"
                     : "\" takes neither 32-bit float nor 16-bit samples");
        device = {};
        return false;
    }
    actual.rateHz = format.sampleRate();
    actual.channels = static_cast<unsigned>(format.channelCount());
    return true;
}

std::string StartErrorText(QAudio::Error error) {
    switch (error) {
    case QAudio::OpenError:
        return "the device could not be opened";
    case QAudio::IOError:
        return "the device stopped moving audio";
    case QAudio::UnderrunError:
        return "the device ran out of audio";
    case QAudio::FatalError:
        return "the sound server is not running or refused the stream";
    case QAudio::NoError:
        break;
    }
    return "the device stopped as soon as it started";
}

// Makes the Qt object (QAudioSink or QAudioSource) and starts it on `feed`; Qt reports a failed
// start only through error() and state().
template <class TQtAudio>
bool StartQtAudio(QAudioDevice const& device, QAudioFormat const& format, QIODevice& feed,
                  std::unique_ptr<TQtAudio>& audio, std::string& error) {
    if (device.isNull()) {
        error = "the device was not opened";
        return false;
    }
    audio = std::make_unique<TQtAudio>(device, format);
    audio->start(&feed);
    if (audio->error() != QAudio::NoError || audio->state() == QAudio::StoppedState) {
        error = StartErrorText(audio->error());
        return false;
    }
    return true;
}

// A started Qt object that stopped on its own with an error: the server went away or the device
// was unplugged. An idle one (a pulling sink that found the ring empty) has not failed.
template <class TQtAudio>
bool QtAudioFailed(std::unique_ptr<TQtAudio> const& audio, std::string& reason) {
    if (!audio || audio->state() != QAudio::StoppedState || audio->error() == QAudio::NoError) {
        return false;
    }
    reason = StartErrorText(audio->error());
    return true;
}

// The Qt object goes first: it may still read from or write to the feed while it stops.
template <class TQtAudio>
void StopQtAudio(std::unique_ptr<TQtAudio>& audio, std::unique_ptr<QIODevice>& feed) {
    if (audio) {
        audio->stop();
        audio.reset();
    }
    feed.reset();
}

} // namespace

std::vector<LQtAudioDeviceEntry> LQtListAudioDevices(bool inputs) {
    std::vector<LQtAudioDeviceEntry> entries;
    for (QAudioDevice const& device :
         inputs ? QMediaDevices::audioInputs() : QMediaDevices::audioOutputs()) {
        entries.push_back({device.id(), device.description().toStdString()});
    }
    return entries;
}

LQtAudioOutput::LQtAudioOutput(QByteArray deviceId, LQtSampleFormats formats)
    : m_deviceId(std::move(deviceId)), m_formats(formats) {}

LQtAudioOutput::~LQtAudioOutput() {
    Stop();
}

bool LQtAudioOutput::Open(int rateHz, unsigned channels, LAudioFormat& actual, std::string& error) {
    Stop();
    return OpenDevice(QMediaDevices::audioOutputs(), QMediaDevices::defaultAudioOutput(), "output",
                      m_deviceId, m_formats, rateHz, channels, m_device, m_format, actual, error);
}

bool LQtAudioOutput::Start(LAudioRing& ring, std::string& error) {
    Stop();
    m_ring = &ring;
    m_feed = std::make_unique<RingReader>(ring, m_format);
    m_feed->open(QIODevice::ReadOnly);
    // The default buffer size on purpose: Qt 6.4's pulling sink may never pull with a small one.
    return StartQtAudio(m_device, m_format, *m_feed, m_sink, error);
}

void LQtAudioOutput::Stop() {
    StopQtAudio(m_sink, m_feed);
    m_ring = nullptr;
    m_playedHigh = 0;
}

bool LQtAudioOutput::HasFailed(std::string& reason) const {
    return QtAudioFailed(m_sink, reason);
}

long long LQtAudioOutput::GetPlayedFrames() const {
    if (!m_sink || m_ring == nullptr) {
        return 0;
    }
    long long const processed =
        LMulDivFloor(m_sink->processedUSecs(), m_format.sampleRate(), 1000000);
    m_playedHigh = std::max(m_playedHigh, std::min(processed, m_ring->GetFramesRead()));
    return m_playedHigh;
}

LQtAudioInput::LQtAudioInput(QByteArray deviceId, LQtSampleFormats formats)
    : m_deviceId(std::move(deviceId)), m_formats(formats) {}

LQtAudioInput::~LQtAudioInput() {
    Stop();
}

bool LQtAudioInput::Open(int rateHz, unsigned channels, LAudioFormat& actual, std::string& error) {
    Stop();
    return OpenDevice(QMediaDevices::audioInputs(), QMediaDevices::defaultAudioInput(), "input",
                      m_deviceId, m_formats, rateHz, channels, m_device, m_format, actual, error);
}

bool LQtAudioInput::Start(LAudioRing& ring, std::string& error) {
    Stop();
    m_feed = std::make_unique<RingWriter>(ring, m_format);
    m_feed->open(QIODevice::WriteOnly);
    return StartQtAudio(m_device, m_format, *m_feed, m_source, error);
}

void LQtAudioInput::Stop() {
    StopQtAudio(m_source, m_feed);
}

bool LQtAudioInput::HasFailed(std::string& reason) const {
    return QtAudioFailed(m_source, reason);
}
