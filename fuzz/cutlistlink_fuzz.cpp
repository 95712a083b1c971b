// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as a structured data file whose root containers are cut lists: load each, read and
// edit the result, write it back, and require the written link to load to the same list.
#include "llib/gen/memstream.h"
#include "llib/snd/cutlistaudio.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using Reader = LSDFReader<LInputStreamBuffer>;
using Iterator = LSDFReaderChunkIterator<LInputStreamBuffer>;

bool SameSegments(LCutListAudio const& a, LCutListAudio const& b) {
    LCutListSegment const* x = a.GetHead();
    LCutListSegment const* y = b.GetHead();
    for (; x != nullptr && y != nullptr; x = x->GetNext(), y = y->GetNext()) {
        if (x->GetItem() != y->GetItem() || x->GetOffsetFrames() != y->GetOffsetFrames() ||
            x->GetLengthFrames() != y->GetLengthFrames()) {
            return false;
        }
    }
    return x == y && a.GetSampleRate() == b.GetSampleRate() && a.GetChannels() == b.GetChannels();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Loaded segments take references on arbitrary item numbers; keep the cache in a scratch
    // folder so releasing them touches nothing real.
    std::string folder = "/tmp/tessel-fuzz-cache-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr) {
        std::abort();
    }
    LSoundCache::SetFolder(folder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    LInputStreamBuffer stream(data, size);
    Reader reader;
    if (!reader.OpenAnyType(stream)) {
        return 0;
    }
    Iterator root(reader);
    while (root.StartNextChunk()) {
        LProcessInterfaceBasic process;
        LCutListAudio list;
        if (ProcessLoadCutListAudioLink(process, reader, root, list) !=
            LProcessResult::kCompleted) {
            continue;
        }
        long long const end = list.GetLengthFrames();
        float buffer[2 * 64];
        LSoundSource source = list.OpenSource();
        source->Seek(end / 2 - 16);
        source->Read(buffer, 128 / source->GetChannels());
        LOutputStreamByteArray out;
        LSDFWriter<LOutputStreamByteArray> writer;
        if (!writer.Open(out, 1, 1) || !WriteCutListAudioLink(writer, 5, list) || !writer.Close()) {
            __builtin_trap(); // a loaded list must always be writable
        }
        LInputStreamBuffer again(out.GetData(), out.GetSize());
        Reader check;
        LCutListAudio reloaded;
        if (!check.Open(again, 1)) {
            __builtin_trap();
        }
        Iterator checkRoot(check);
        if (!checkRoot.StartNextChunk() ||
            ProcessLoadCutListAudioLink(process, check, checkRoot, reloaded) !=
                LProcessResult::kCompleted ||
            !SameSegments(list, reloaded)) {
            __builtin_trap(); // the link we wrote does not load to what we wrote
        }
        list.EfRepeatLoop(end / 3, end / 2, 2);
        list.EfDelete(end / 4, end);
        (void)list.ZeroCrossCutpointFind(end / 5, 64);
    }
    return 0;
}
