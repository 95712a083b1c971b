// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as a structured data file of any type: walk the whole tree reading every value by its
// type, write the kept unknown chunks back (the result must read again), render it as inspect does.
#include "cli/cmdinspect.h"
#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"

#include <cstdint>
#include <string>

namespace {

using Reader = LSDFReader<LInputStreamBuffer>;
using Iterator = LSDFReaderChunkIterator<LInputStreamBuffer>;

// True when the whole tree read without the reader failing.
bool Walk(Reader& reader, Iterator it, LList<LSDFUnknownChunk>& unknown) {
    while (it.StartNextChunk()) {
        bool flag = false;
        int value = 0;
        long long value64 = 0;
        float real = 0;
        char text[kLSDFMaxStringBytes];
        LStringLong longText;
        LSizedArray<unsigned char> data;
        // clang-format off
        switch (it.GetType()) {
        case LSDFValueType::kContainer: (void)Walk(reader, Iterator(reader, it), unknown); break;
        case LSDFValueType::kBool: (void)it.ReadBool(flag); break;
        case LSDFValueType::kInt: (void)it.ReadInt(value); break;
        case LSDFValueType::kInt64: (void)it.ReadInt64(value64); break;
        case LSDFValueType::kFloat: (void)it.ReadFloat(real); break;
        case LSDFValueType::kString: (void)(it.ReadString(text) && it.ReadString(longText)); break;
        case LSDFValueType::kBlob: (void)it.ReadData(data); break;
        default: (void)it.ReadUnknownChunk(unknown); break;
        }
        // clang-format on
    }
    return reader.IsOk();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    LInputStreamBuffer stream(data, size);
    Reader reader;
    LList<LSDFUnknownChunk> unknown;
    LOutputStreamByteArray out;
    LSDFWriter<LOutputStreamByteArray> writer;
    if (reader.OpenAnyType(stream) && Walk(reader, Iterator(reader), unknown) &&
        writer.Open(out, reader.GetFileType(), 1, unknown) && writer.WriteInt(1, 0, 1) &&
        writer.Close()) {
        LInputStreamBuffer again(out.GetData(), out.GetSize());
        Reader check;
        if (!check.OpenAnyType(again) || !Walk(check, Iterator(check), unknown) ||
            !check.HasTrailer()) {
            __builtin_trap(); // the writer made a file its own reader refuses
        }
    }
    std::string text;
    std::string error;
    (void)LInspectStructuredData(data, size, text, error);
    return 0;
}
