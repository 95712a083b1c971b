// SPDX-License-Identifier: GPL-3.0-or-later
// libsndfile behind a source and a sink, loaded at run time.
#include "llib/snd/audiofilelib.h"

#include "llib/snd/wavefile.h"
#include "llib/unix/fd.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sndfile.h>

#include <algorithm>
#include <cstring>

namespace {

// The entry points we call, with the prototypes of the installed header.
struct SndFileApi {
    decltype(&sf_open_fd) openFd = nullptr;
    decltype(&sf_close) close = nullptr;
    decltype(&sf_readf_float) readFloat = nullptr;
    decltype(&sf_writef_float) writeFloat = nullptr;
    decltype(&sf_seek) seek = nullptr;
    decltype(&sf_format_check) formatCheck = nullptr;
};

template <class F>
bool Resolve(void* library, char const* name, F& function) {
    function = reinterpret_cast<F>(dlsym(library, name));
    return function != nullptr;
}

// Null when the library or one of its entry points is missing. Loaded once; the handle is kept
// for the life of the process, as the sources made from it may outlive any caller.
SndFileApi const* Api() {
    static SndFileApi const* const api = []() -> SndFileApi const* {
        void* library = dlopen("libsndfile.so.1", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            return nullptr;
        }
        static SndFileApi loaded;
        if (!Resolve(library, "sf_open_fd", loaded.openFd) ||
            !Resolve(library, "sf_close", loaded.close) ||
            !Resolve(library, "sf_readf_float", loaded.readFloat) ||
            !Resolve(library, "sf_writef_float", loaded.writeFloat) ||
            !Resolve(library, "sf_seek", loaded.seek) ||
            !Resolve(library, "sf_format_check", loaded.formatCheck)) {
            dlclose(library);
            return nullptr;
        }
        return &loaded;
    }();
    return api;
}

class LAudioFileLibSource final : public LSoundSourceBase {
public:
    LAudioFileLibSource(SndFileApi const& api, LFileDescriptor fd, SNDFILE* file,
                        SF_INFO const& info)
        : LSoundSourceBase(info.samplerate, static_cast<unsigned char>(info.channels)), m_api(api),
          m_fd(std::move(fd)), m_file(file), m_endFrames(std::max<sf_count_t>(info.frames, 0)) {}
    ~LAudioFileLibSource() override { m_api.close(m_file); }

    void Read(float* buffer, long long frames) override {
        if (buffer == nullptr || frames <= 0) {
            return;
        }
        std::size_t const channels = GetChannels();
        long long done = 0;
        if (m_position < 0) {
            done = std::min(frames, -m_position);
            std::memset(buffer, 0, static_cast<std::size_t>(done) * channels * sizeof(float));
        }
        long long const want =
            std::min(frames - done, std::max(m_endFrames - m_position - done, 0LL));
        if (want > 0) {
            if (m_filePosition != m_position + done) {
                m_filePosition = m_api.seek(m_file, m_position + done, SF_SEEK_SET);
            }
            sf_count_t got = 0;
            if (m_filePosition == m_position + done) {
                got = std::max<sf_count_t>(
                    m_api.readFloat(m_file, buffer + static_cast<std::size_t>(done) * channels,
                                    want),
                    0);
                m_filePosition += got;
            }
            done += got;
        }
        std::memset(buffer + static_cast<std::size_t>(done) * channels, 0,
                    static_cast<std::size_t>(frames - done) * channels * sizeof(float));
        m_position += frames;
    }
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_endFrames; }
    void Seek(long long frame) override { m_position = frame; }

private:
    SndFileApi const& m_api;
    LFileDescriptor m_fd;
    SNDFILE* m_file;
    long long m_endFrames;
    long long m_position = 0;
    long long m_filePosition = 0; // where the library's read pointer is, -1 after a failed seek
};

class LAudioFileLibSink final : public LSoundSinkBase {
public:
    LAudioFileLibSink(char const* path, int format, int rate, unsigned char channels)
        : LSoundSinkBase(rate, channels), m_api(Api()) {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = GetChannels();
        info.format = format;
        if (IsFailed() || m_api == nullptr || path == nullptr || rate < 1 ||
            m_api->formatCheck(&info) == 0 || !m_fd.Open(path, O_RDWR | O_CREAT | O_TRUNC, 0666)) {
            SetFailed();
            return;
        }
        m_file = m_api->openFd(m_fd.Get(), SFM_WRITE, &info, SF_FALSE);
        if (m_file == nullptr) {
            SetFailed();
        }
    }
    ~LAudioFileLibSink() override {
        if (m_file != nullptr) {
            m_api->close(m_file);
        }
    }

    void Write(float const* buffer, long long frames) override {
        if (IsFailed() || buffer == nullptr || frames <= 0) {
            return;
        }
        sf_count_t const written = m_api->writeFloat(m_file, buffer, frames);
        if (written > 0) {
            AddFramesWritten(written);
        }
        if (written != frames) {
            SetFailed();
        }
    }

private:
    SndFileApi const* m_api;
    LFileDescriptor m_fd;
    SNDFILE* m_file = nullptr;
};

} // namespace

bool LAudioFileLib::IsAvailable() {
    return Api() != nullptr;
}

LSoundSource LAudioFileLib::OpenSource(char const* path) {
    SndFileApi const* api = Api();
    if (api == nullptr) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCodecRequired);
    }
    LFileDescriptor fd;
    if (path == nullptr || !fd.Open(path, O_RDONLY)) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    }
    SF_INFO info{};
    SNDFILE* file = api->openFd(fd.Get(), SFM_READ, &info, SF_FALSE);
    if (file == nullptr) {
        return LMakeErrorSource(LSoundSourceErrorCode::kUnsupported);
    }
    if (info.channels < 1 || info.channels > 255 || info.samplerate < 1) {
        api->close(file);
        return LMakeErrorSource(LSoundSourceErrorCode::kUnsupported);
    }
    return LMakeSource<LAudioFileLibSource>(*api, std::move(fd), file, info);
}

LSoundSink LAudioFileLib::OpenSinkWav(char const* path, std::uint16_t formatTag, int rate,
                                      unsigned char channels) {
    if (formatTag != kLWaveFormatImaAdpcm) {
        return LMakeSink<LSoundSinkError>();
    }
    return LMakeSink<LAudioFileLibSink>(path, SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM, rate, channels);
}
