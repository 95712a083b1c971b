// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// `tessel-cli inspect FILE`: prints the chunk tree of any structured data file (presets, effect
// chains, projects, cache item information, cut-list links): the file type and version, then
// one line per chunk with its identifier, value type, data length and value, children indented
// under their container. Types the format does not define are shown by their length only. A
// corrupt file produces no tree, only a one-line reason.

#include <cstdint>
#include <string>

// Renders the tree of the `bytes` bytes at `data`. On failure returns false and sets `error` to
// a sentence (without the file name) saying what is wrong and where.
[[nodiscard]] bool LInspectStructuredData(unsigned char const* data, std::uint64_t bytes,
                                          std::string& out, std::string& error);

// Reads `path` and renders it; false with `error` set when the file cannot be read or is corrupt.
[[nodiscard]] bool LInspectStructuredDataFile(char const* path, std::string& out,
                                              std::string& error);
