// SPDX-License-Identifier: GPL-3.0-or-later
// The background thread that analyses cache items and stores its findings in their ".audinfo".
#include "cacheinfo.h"

#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"
#include "llib/gen/settings.h"
#include "llib/unix/thread.h"

#include <bitset>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

namespace {

constexpr long long kAnalyzeBlockFrames = 65536;
constexpr float kSilenceCeiling = 1e-4f; // -80 dBFS

struct ManagerState {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<unsigned short> queue;
    std::bitset<65536> queued;
    bool running = false;
    bool stop = false;
    bool busy = false;
    LThread thread;
};

ManagerState& Manager() {
    static ManagerState state;
    return state;
}

bool StopRequested() {
    ManagerState& m = Manager();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.stop;
}

// Peak and RMS of the whole item, and whether it is silence. False when the item cannot be read
// or the manager is asked to stop meanwhile.
bool AnalyzeType(unsigned short item, LSizedArray<unsigned char>& update) {
    LSoundSource source = LSoundCacheOpenSource(item);
    if (!source->IsOk()) {
        return false;
    }
    long long const frames = source->GetEndSample();
    unsigned const channels = source->GetChannels();
    std::vector<float> block(static_cast<std::size_t>(kAnalyzeBlockFrames) * channels);
    float peak = 0.0f;
    double energy = 0.0;
    for (long long done = 0; done < frames; done += kAnalyzeBlockFrames) {
        if (StopRequested()) {
            return false;
        }
        long long const n = std::min(kAnalyzeBlockFrames, frames - done);
        source->Read(block.data(), n);
        double blockEnergy = 0.0;
        for (long long i = 0; i < n * channels; ++i) {
            float const v = block[static_cast<std::size_t>(i)];
            peak = std::max(peak, std::fabs(v));
            blockEnergy += static_cast<double>(v) * v;
        }
        energy += blockEnergy;
    }
    double const samples = static_cast<double>(frames) * channels;
    auto const rms = static_cast<float>(samples > 0 ? std::sqrt(energy / samples) : 0.0);

    LOutputStreamByteArray out;
    LSDFWriter<LOutputStreamByteArray> writer;
    bool const ok = writer.Open(out, kLSDFFileCacheItemInfoUpdate, 1) &&
                    writer.StartContainer(kLSoundCacheInfoTypeAnalysis) &&
                    writer.WriteFloat(kLSoundCacheInfoTypePeak, peak) &&
                    writer.WriteFloat(kLSoundCacheInfoTypeRms, rms) &&
                    writer.WriteInt(kLSoundCacheInfoTypeKind, peak < kSilenceCeiling ? 0 : 1) &&
                    writer.EndContainer(kLSoundCacheInfoTypeAnalysis) && writer.Close();
    std::vector<unsigned char> const& bytes = out.GetBytes();
    if (!ok || !update.Allocate(bytes.size())) {
        return false;
    }
    std::memcpy(update.GetData(), bytes.data(), bytes.size());
    return true;
}

void AnalyzeItem(unsigned short item) {
    // Only the type analyzer exists so far; the beat analyzer will join it here under its own
    // setting.
    if (LSoundCacheItemAnalyzerManager::IsEnabled(
            LSoundCacheItemAnalyzerManager::Analyzer::kType) &&
        LSoundCacheItemIsValid(item) &&
        !LSoundCacheItemAnalyzerChunkExists(item, kLSoundCacheInfoTypeAnalysis)) {
        LSizedArray<unsigned char> update;
        // Merging only into an item that is still there: a deleted item must not come back as a
        // lone information file.
        if (AnalyzeType(item, update) && LSoundCacheItemIsValid(item)) {
            (void)LSoundCacheItemInfoUpdate(item, update, false);
        }
    }
}

void Run() {
    ManagerState& m = Manager();
    std::unique_lock<std::mutex> lock(m.mutex);
    for (;;) {
        m.wake.wait(lock, [&m] { return m.stop || !m.queue.empty(); });
        if (m.stop) {
            break;
        }
        unsigned short const item = m.queue.front();
        m.queue.pop_front();
        m.queued[item] = false;
        m.busy = true;
        lock.unlock();
        AnalyzeItem(item);
        lock.lock();
        m.busy = false;
        m.wake.notify_all();
    }
    m.busy = false;
    m.wake.notify_all();
}

} // namespace

LSoundCacheItemAnalyzerManager& LSoundCacheItemAnalyzerManager::Get() {
    static LSoundCacheItemAnalyzerManager manager;
    return manager;
}

bool LSoundCacheItemAnalyzerManager::Start() {
    ManagerState& m = Manager();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        if (m.running) {
            return true;
        }
        m.stop = false;
        m.running = true;
    }
    if (!m.thread.Start(Run)) {
        std::lock_guard<std::mutex> lock(m.mutex);
        m.running = false;
        return false;
    }
    return true;
}

void LSoundCacheItemAnalyzerManager::Stop() {
    ManagerState& m = Manager();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        if (!m.running) {
            return;
        }
        m.stop = true;
    }
    m.wake.notify_all();
    m.thread.Join();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.running = false;
    m.queue.clear();
    m.queued.reset();
}

bool LSoundCacheItemAnalyzerManager::IsEnabled(Analyzer analyzer) {
    char const* const key =
        analyzer == Analyzer::kType ? "EnableTypeAnalyzer" : "EnableBeatAnalyzer";
    return LSettingsStore::GetDefault().GetBool("Analyzers", key, true);
}

bool LSoundCacheItemAnalyzerManager::IsRunning() const {
    ManagerState& m = Manager();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.running;
}

void LSoundCacheItemAnalyzerManager::SignalChange(unsigned short item) {
    if (item > kLSoundCacheItemLast) {
        return;
    }
    ManagerState& m = Manager();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        // Without the thread nothing would ever take the items; the folder scan of the next
        // start finds them again.
        if (!m.running || m.queued[item]) {
            return;
        }
        m.queued[item] = true;
        m.queue.push_back(item);
    }
    m.wake.notify_all();
}

bool LSoundCacheItemAnalyzerManager::WaitIdle(int ms) {
    ManagerState& m = Manager();
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.wake.wait_for(lock, std::chrono::milliseconds(ms),
                           [&m] { return m.queue.empty() && !m.busy; });
}
