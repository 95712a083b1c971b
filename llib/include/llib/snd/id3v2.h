// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The text of ID3v2 tags (versions 2.2, 2.3 and 2.4), as found before the audio of MP3 files:
// text frames and comments, decoded to UTF-8. Other frames (pictures, private data) are
// skipped without being read, so a tag with a large picture costs only its frame headers.
//
// The tag is read through a callback, since a tag can be far larger than anything worth
// holding in memory. Every size comes from the file and is checked against the tag's own size;
// a frame body is read only when it is a text frame of at most kLID3v2MaxTextBytes. A tag
// unsynchronised as a whole (versions 2.2 and 2.3) must be read whole to find its frames, so
// its text is read only when the tag is at most kLID3v2MaxUnsyncTagBytes.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

inline constexpr std::size_t kLID3v2MaxTextBytes = std::size_t{64} << 10;
inline constexpr std::size_t kLID3v2MaxUnsyncTagBytes = std::size_t{1} << 20;
inline constexpr int kLID3v2MaxFrames = 4096;

// One text frame: "TIT2" (version 2.2: "TT2") and its values joined by " / ". A comment
// ("COMM", "COM") gives its text when its description is empty; comments with a description
// (players' private notes) are left out.
struct LID3v2Text {
    std::string id;
    std::string value;
};

struct LID3v2Tag {
    int version = 0;         // the major version: 2, 3 or 4; 0 when there is no tag
    std::uint64_t bytes = 0; // header, frames, padding and footer
    std::vector<LID3v2Text> text;

    // The value of the first frame among `ids`, or empty.
    [[nodiscard]] std::string Find(std::initializer_list<char const*> ids) const;
};

// Reads `bytes` bytes at `offset` of the file into `data`; returns how many it read.
using LID3v2ReadAt =
    std::function<std::size_t(unsigned char* data, std::size_t bytes, std::uint64_t offset)>;

// The size of the tag whose header is the 10 bytes at `header`, or 0 when they are not an ID3v2
// header.
[[nodiscard]] std::uint64_t LID3v2TagBytes(unsigned char const* header);

// Reads the tag that starts at `offset`: false when there is no ID3v2 header there. A damaged
// or truncated tag gives the text frames found before the damage.
bool LID3v2Read(LID3v2ReadAt const& read, std::uint64_t offset, LID3v2Tag& tag);
