// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as a WAV file: read every tag, then rewrite its tags from a fixed record. A rewrite
// that succeeds must leave a file whose RIFF size is right and whose tags read back.
#include "llib/snd/wavtags.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_path;

void FileWrite(std::uint8_t const* data, std::size_t size) {
    int const fd = ::open(g_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || (size > 0 && ::write(fd, data, size) != static_cast<ssize_t>(size))) {
        std::abort();
    }
    ::close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string folder = "/tmp/tessel-fuzz-wavtags-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr) {
        std::abort();
    }
    g_path = folder + "/a.wav";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    FileWrite(data, size);
    LFileTagData read;
    bool const readable = LWavTagsRead(g_path.c_str(), read);

    LFileTagData tags;
    tags.Set("TITLE", "fuzz title");
    tags.Set("ORIGINATOR", "o");
    tags.Set("CUTID", "c");
    tags.Set("marker_count", "2");
    tags.Set("marker_0_pos", "12");
    tags.Set("marker_1_pos", "3400");
    if (size > 0 && data[0] & 1) {
        tags.Clear(); // also exercise turning every slot into JUNK
    }
    if (!LWavTagsWrite(g_path.c_str(), tags)) {
        return 0;
    }
    LFileTagData again;
    if (!readable || !LWavTagsRead(g_path.c_str(), again)) {
        __builtin_trap(); // a file the writer accepted no longer reads
    }
    char const* title = again.Get("TITLE");
    if (tags.GetCount() > 0 && (title == nullptr || std::strcmp(title, "fuzz title") != 0)) {
        __builtin_trap();
    }
    return 0;
}
