#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# tessel-cli edit against sox on the same 10-minute 16-bit stereo WAV, in one run: the minute from
# 1:00 to 2:00 is cut and pasted at 5:00 of what is left, so it ends up after what was 6:00.
# tessel-cli does it with its editor commands; sox trims the four pieces in pipes and joins them
# in the new order. Both outputs must hold the same samples (the script stops otherwise) and the
# expected ones, checked from the input by a small independent WAV reader.
#
# Each tool is timed as the best of five runs, after one run that brings the input into the page
# cache. tessel-cli is timed twice: with an empty cache (it decodes the input first, as on a
# file's first opening) and with the input's item already in its cache (as when the file is
# opened again). Prints the times and the ratios sox / tessel-cli (above 1: faster). The cache
# and settings live in the script's temporary folder, never the user's.
#
#   bench/scripts/edit_vs_sox.sh [path/to/tessel-cli]   (default: build/release/cli/tessel-cli)
set -euo pipefail
cli=${1:-build/release/cli/tessel-cli}
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }
command -v python3 >/dev/null || { echo "python3 is not installed" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-edit-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=bench/scripts/timing.sh
source "$(dirname "${BASH_SOURCE[0]}")/timing.sh"
export XDG_CACHE_HOME="$work/cache" XDG_CONFIG_HOME="$work/config"

# Noise rather than a tone: a splice misplaced by a whole number of a tone's periods would still
# compare equal.
rate=44100
sox -R -n -r "$rate" -c 2 -b 16 -e signed-integer "$work/in.wav" synth 600 whitenoise vol 0.5
cat "$work/in.wav" >/dev/null

ours() { # $1: output
    "$cli" edit "$work/in.wav" -o "$1" --do 'select start=1:00 end=2:00' --do cut \
        --do 'cursor position=5:00' --do paste
}
theirs() { # $1: output; the pieces in frames: [0, 1:00) [2:00, 6:00) [1:00, 2:00) [6:00, end)
    local m=$((60 * rate)) in="'$work/in.wav'"
    sox -D "|sox $in -p trim 0 ${m}s" "|sox $in -p trim $((2 * m))s $((4 * m))s" \
        "|sox $in -p trim ${m}s ${m}s" "|sox $in -p trim $((6 * m))s" -b 16 -e signed-integer "$1"
}
empty_cache() { rm -rf "$XDG_CACHE_HOME"; }

# Correctness first, from an empty cache: both outputs, then the comparison.
empty_cache
ours "$work/ours.wav" >/dev/null 2>&1 || { echo "tessel-cli edit failed" >&2; exit 1; }
theirs "$work/sox.wav" || { echo "sox failed" >&2; exit 1; }
PYTHONPATH="$(dirname "${BASH_SOURCE[0]}")" python3 - "$work/in.wav" "$work/ours.wav" "$work/sox.wav" "$((60 * rate))" <<'EOF'
import sys
import wavpcm

pcm = wavpcm.read_wav

(fi, di), (fo, do), (fs, ds) = pcm(sys.argv[1]), pcm(sys.argv[2]), pcm(sys.argv[3])
minute = int(sys.argv[4]) * fi[4]
if fo != fs or do != ds:
    sys.exit(f'the outputs differ: tessel-cli {fo}, {len(do)} bytes; sox {fs}, {len(ds)} bytes')
expected = di[:minute] + di[2 * minute:6 * minute] + di[minute:2 * minute] + di[6 * minute:]
if fo != fi or do != expected:
    sys.exit('both outputs differ from the input with 1:00-2:00 moved after 6:00')
print(f'outputs identical: {len(do)} bytes of samples, 1:00-2:00 moved after 6:00')
EOF

export BENCH_RUNS=5
cold=$(BENCH_PREPARE=empty_cache best ours "$work/ours.wav")
warm=$(best ours "$work/ours.wav")
sox_time=$(best theirs "$work/sox.wav")
report "cut and paste, empty cache" "$cold" "$sox_time"
report "cut and paste, input cached" "$warm" "$sox_time"
