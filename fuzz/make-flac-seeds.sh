#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Writes a seed corpus for flacsource_fuzz into DIR: tiny FLAC files (a few hundred frames, each
# under 8 KB) made by the reference `flac` encoder across its levels, bit depths, channel counts,
# block sizes, sample rates, predictor settings and metadata layouts, and by our own encoder
# through tessel-cli convert at each of its bit depths. A few are damaged on purpose (a leading
# ID3v2 tag, a cut-off tail) so the fuzzer starts inside the recovery paths too. The samples are
# synthesised here, the same on every run; the generated files are not committed.
#
#   fuzz/make-flac-seeds.sh DIR [path/to/tessel-cli]   (default: build/fuzz/cli/tessel-cli)
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: $0 DIR [tessel-cli]" >&2; exit 2; }
out=$1
cli=${2:-build/fuzz/cli/tessel-cli}
for tool in flac python3; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
[ -x "$cli" ] || { echo "$cli is not built" >&2; exit 1; }
mkdir -p "$out"
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-flac-seeds.XXXXXX")
trap 'rm -rf "$work"' EXIT

# wav NAME RATE CHANNELS BITS KIND [FRAMES]: $work/NAME.wav. BITS may be any of 4..32 (odd
# depths go into the next whole byte with the valid bits in the extensible header, as `flac`
# reads them; more than two channels carry no channel mask). KIND: tone (a chord and a little noise), noise (full scale: verbatim frames),
# silence (constant frames), steps (a staircase, which the fixed predictors take), coarse (a tone
# with its 4 lowest bits zero, for the wasted-bits field).
wav() {
    python3 - "$work/$1.wav" "$2" "$3" "$4" "$5" "${6:-400}" <<'PY'
import math, random, struct, sys
path, rate, ch, bits, kind, n = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), \
    int(sys.argv[4]), sys.argv[5], int(sys.argv[6])
rng = random.Random(7)
top = 2 ** (bits - 1) - 1
box = (bits + 7) // 8 * 8
def sample(i, c):
    if kind == 'noise':
        return rng.randint(-top - 1, top)
    if kind == 'silence':
        return 0
    if kind == 'steps':
        return ((i // 37) % 7 - 3) * (top // 4) + c
    v = sum(math.sin(2 * math.pi * f * (1 + 0.01 * c) * i / rate) for f in (220, 277, 330, 55))
    v = int(0.2 * top * v + rng.uniform(-0.002, 0.002) * top)
    return v & ~15 if kind == 'coarse' and bits > 8 else v
data = bytearray()
for i in range(n):
    for c in range(ch):
        v = sample(i, c) << (box - bits)
        data += (v + 128 if box == 8 else v).to_bytes(box // 8, 'little', signed=box > 8)
align = ch * box // 8
if bits == box and bits <= 16 and ch <= 2:
    fmt = struct.pack('<HHIIHH', 1, ch, rate, rate * align, align, box)
else:
    fmt = struct.pack('<HHIIHHHHI16s', 0xFFFE, ch, rate, rate * align, align, box, 22, bits, 0,
                      bytes.fromhex('0100000000001000800000aa00389b71'))
body = b'WAVEfmt ' + struct.pack('<I', len(fmt)) + fmt + b'data' + struct.pack('<I', len(data))
open(path, 'wb').write(b'RIFF' + struct.pack('<I', len(body) + len(data)) + body + data)
PY
}

# seed NAME WAV [flac option]...: $out/NAME.flac by the reference encoder.
seed() {
    local name=$1 input=$2
    shift 2
    flac -s -f --no-padding "$@" -o "$out/$name.flac" "$work/$input.wav"
}

wav tone 44100 2 16 tone
for level in 0 1 2 3 4 5 6 7 8; do seed "level$level" tone "-$level"; done
for bits in 8 12 16 20 24 32; do
    wav "mono$bits" 44100 1 "$bits" tone
    wav "stereo$bits" 48000 2 "$bits" tone
    seed "mono$bits" "mono$bits" -5
    seed "stereo$bits" "stereo$bits" -8
done
for channels in 3 4 5 6 8; do
    wav "ch$channels" 44100 "$channels" 16 tone 300
    seed "ch$channels" "ch$channels" -5 --channel-map=none
done
for size in 16 100 192 576 1000 1152 4096; do seed "block$size" tone -5 -b "$size"; done
for rate in 8000 11025 22050 32000 37000 88200 96000 12345 100000 192000; do
    wav "rate$rate" "$rate" 1 16 tone 300
    seed "rate$rate" "rate$rate" -5
done
wav rate700000 700000 1 16 tone 300
seed rate700000 rate700000 -5 --lax
for kind in noise silence steps coarse; do
    wav "$kind" 44100 2 16 "$kind"
    seed "$kind" "$kind" -8
done
wav noise24 96000 2 24 noise 300
seed noise24 noise24 -5
wav noise32 44100 2 32 noise 200
seed noise32 noise32 -8 --lax -l 32
seed lpc32 stereo24 --lax -l 32 -b 192
seed fixedonly tone -5 -l 0
seed precision15 tone -5 -q 15
seed exhaustive tone -8 -e -p -r 0,6 -b 192
seed midside tone -5 -m
seed adaptive tone -5 -M
seed independent tone -5 --no-mid-side
seed noseektable tone -5 --no-seektable
seed padding tone -5 -P 64
seed tags tone -5 -T ARTIST=Someone -T TITLE=Seed -T "COMMENT=a longer comment value"
flac -s -f --no-padding --ogg -o "$out/ogg.flac" "$work/tone.wav"

# Damaged copies: an ID3v2 tag of 16 bytes before the marker, and the last 300 bytes cut off.
{
    printf 'ID3\x04\x00\x00\x00\x00\x00\x10'
    head -c 16 /dev/zero
    cat "$out/level5.flac"
} >"$out/id3.flac"
size=$(stat -c %s "$out/stereo24.flac")
head -c $((size - 300)) "$out/stereo24.flac" >"$out/truncated.flac"

# Our own encoder, at each bit depth it writes and three compression levels.
for bits in 8 16 24 32; do
    for level in 0 5 8; do
        "$cli" convert "$work/tone.wav" "$out/ours${bits}-$level.flac" \
            --set "FlacEncoder.BitDepth=$bits" --set "FlacEncoder.Compression=$level" >/dev/null
    done
done
"$cli" convert "$work/mono24.wav" "$out/oursmono.flac" --set FlacEncoder.BitDepth=24 >/dev/null
"$cli" convert "$work/ch6.wav" "$out/ours6ch.flac" >/dev/null
"$cli" convert "$work/noise.wav" "$out/oursnoise.flac" >/dev/null
"$cli" convert "$work/silence.wav" "$out/ourssilence.flac" >/dev/null

echo "$(find "$out" -name '*.flac' | wc -l) seeds in $out, the largest $(
    find "$out" -name '*.flac' -printf '%s\n' | sort -n | tail -1) bytes"
