#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Writes a seed corpus for mp3source_fuzz into DIR: short MP3 files (a fraction of a second, each
# under 16 KB) made by `lame` across constant and variable bitrates, mono and every stereo mode, the
# MPEG-1, 2 and 2.5 rates, CRC-protected and free-format frames, with and without the Xing/Info
# frame and with ID3v1 and ID3v2 tags. A few are damaged on purpose (cut in the middle of a frame,
# junk between frames, a frame whose bytes are overwritten, an APE tag) so the fuzzer starts inside
# the recovery paths too. The signals are synthesised by sox, the same on every run; the generated
# files are not committed.
#
#   fuzz/make-mp3-seeds.sh DIR
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
out=$1
for tool in lame sox; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
mkdir -p "$out"
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-mp3-seeds.XXXXXX")
trap 'rm -rf "$work"' EXIT

# wav NAME RATE CHANNELS SECONDS: $work/NAME.wav, plucked notes (a sharp attack, on which the
# encoder switches to short blocks) over pink noise.
wav() {
    sox -D -R -n -r "$2" -c "$3" -b 16 "$work/$1.wav" synth "$4" pluck 220 pluck 277 \
        synth "$4" pinknoise mix vol 0.7
}

# seed NAME WAV [lame option]...: $out/NAME.mp3.
seed() {
    local name=$1 input=$2
    shift 2
    lame --quiet --noreplaygain "$@" "$work/$input.wav" "$out/$name.mp3"
}

wav stereo 44100 2 0.3
wav mono 44100 1 0.3
for kbps in 32 64 128 192 320; do seed "cbr$kbps" stereo -b "$kbps"; done
for quality in 0 2 5 9; do seed "vbr$quality" stereo -V "$quality"; done
seed abr stereo --abr 96
for mode in s j f d m; do seed "mode$mode" stereo -m "$mode" -b 96; done
seed mono mono -b 64
seed monovbr mono -V 4
for rate in 48000 32000 22050 24000 16000 11025 12000 8000; do
    wav "rate$rate" "$rate" 2 0.3
    seed "rate$rate" "rate$rate" -V 5
    seed "rate$rate-mono-cbr" "rate$rate" -m m -b 16
done
seed crc stereo -p -b 128
seed crcvbr rate22050 -p -V 3
seed free stereo --freeformat -b 200
seed freelow rate16000 --freeformat -b 40
seed notag stereo -t -b 128
seed novbrtag stereo -t -V 2
seed nores stereo --nores -b 128
seed id3v1 stereo -b 128 --id3v1-only --tt Seed --ta Someone --tl Album --ty 2024 --tc Comment
seed id3v2 stereo -b 128 --id3v2-only --tt Seed --ta Someone
seed id3both stereo -V 4 --add-id3v2 --tt Seed --tn 3

# Damaged copies: cut in the middle of a frame, junk between the Info frame and the audio, a frame
# in the middle overwritten, and an APE tag before the ID3v1 one.
size=$(stat -c %s "$out/cbr128.mp3")
head -c $((size / 2 + 100)) "$out/cbr128.mp3" >"$out/truncated.mp3"
{
    head -c 417 "$out/cbr128.mp3"
    printf 'junk\xff\xfb\x00'
    tail -c +418 "$out/cbr128.mp3"
} >"$out/junk.mp3"
cp "$out/vbr2.mp3" "$out/overwritten.mp3"
printf '\x55\xaa%.0s' $(seq 100) | dd of="$out/overwritten.mp3" bs=1 seek=1500 conv=notrunc \
    status=none
{
    cat "$out/notag.mp3"
    printf 'APETAGEX\xd0\x07\x00\x00\x20\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x80'
    head -c 8 /dev/zero
    printf 'TAG'
    head -c 125 /dev/zero
} >"$out/apetag.mp3"

echo "$(find "$out" -name '*.mp3' | wc -l) seeds in $out, the largest $(
    find "$out" -name '*.mp3' -printf '%s\n' | sort -n | tail -1) bytes"
