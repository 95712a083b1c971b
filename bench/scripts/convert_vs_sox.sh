#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# tessel-cli convert against sox on the same 10-minute 16-bit stereo WAV, in one run: to 16-bit
# and to 32-bit float. Each is timed as the best of three runs, after one run that brings the
# input into the page cache. Prints the times and the ratio sox / tessel-cli (above 1: faster).
#
#   bench/scripts/convert_vs_sox.sh [path/to/tessel-cli]   (default: build/release/cli/tessel-cli)
set -euo pipefail
cli=${1:-build/release/cli/tessel-cli}
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-convert-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=bench/scripts/timing.sh
source "$(dirname "${BASH_SOURCE[0]}")/timing.sh"

"$cli" synth "$work/in.wav" --seconds 600 --hz 997 --rate 44100 --channels 2 --bits 16
cat "$work/in.wav" >/dev/null

ours=$(best "$cli" convert "$work/in.wav" "$work/ours16.wav" --bits 16)
theirs=$(best sox "$work/in.wav" -b 16 "$work/sox16.wav")
report "16-bit -> 16-bit" "$ours" "$theirs"
ours=$(best "$cli" convert "$work/in.wav" "$work/oursf.wav" --bits f32)
theirs=$(best sox "$work/in.wav" -e floating-point -b 32 "$work/soxf.wav")
report "16-bit -> 32-bit float" "$ours" "$theirs"
