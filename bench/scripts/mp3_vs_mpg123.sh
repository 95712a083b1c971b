#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Our MP3 decoder through tessel-cli convert against mpg123 on 10 minutes of 44.1 kHz stereo that
# behaves like music: an 8-second loop of plucked chords spread across the channels, a noise burst
# on every beat and a low pink-noise floor, repeated. It is encoded by lame at -V2 and at a
# constant 128 kbit/s; each file is then decoded to a 32-bit float WAV file in the same folder by
# both tools, so that both write the same bytes to the same kind of target. Each time is the best
# of three runs, after the inputs are brought into the page cache. Prints the times and the ratio
# mpg123 / tessel-cli (above 1: we are faster). tessel-cli decodes on a thread ahead of the writer;
# mpg123 uses one thread. Every output of ours must match mpg123's in length and within 2^-14 per
# sample.
#
#   bench/scripts/mp3_vs_mpg123.sh [path/to/tessel-cli]   (default: build/release/cli/tessel-cli)
set -euo pipefail
cli=${1:-build/release/cli/tessel-cli}
for tool in lame mpg123 sox python3; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
[ -x "$cli" ] || { echo "$cli is not built" >&2; exit 1; }
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-mp3-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=bench/scripts/timing.sh
source "$scripts/timing.sh"

synth() { sox -D -R -n -r 44100 -c 2 -b 16 "$@"; }
# C, A minor, F, G, two seconds each: the fifth on the left, the third on the right, the octave
# and a bass note in both.
chords=()
for chord in "C3 G4 E4 C5" "A2 E4 C4 A4" "F2 C4 A3 F4" "G2 D4 B3 G4"; do
    read -r bass fifth third octave <<<"$chord"
    synth "$work/chord$bass.wav" synth 2 pluck "$fifth" pluck "$third" \
        synth 2 pluck mix "$octave" synth 2 pluck mix "$bass"
    chords+=("$work/chord$bass.wav")
done
sox "${chords[@]}" "$work/chords.wav"
synth "$work/beat.wav" synth 0.03 whitenoise fade 0 0.03 0.03 pad 0 0.47 repeat 15
synth "$work/floor.wav" synth 8 pinknoise
sox -m -v 0.6 "$work/chords.wav" -v 0.25 "$work/beat.wav" -v 0.02 "$work/floor.wav" \
    "$work/phrase.wav"
sox "$work/phrase.wav" "$work/in.wav" repeat 74
lame --quiet -V 2 "$work/in.wav" "$work/v2.mp3"
lame --quiet -b 128 "$work/in.wav" "$work/cbr128.mp3"
cat "$work"/*.mp3 "$cli" "$(command -v mpg123)" >/dev/null

# close A B: two float WAV files of the same length whose samples differ by at most 2^-14.
close() {
    python3 - "$1" "$2" <<PY
import sys
from array import array
sys.path.insert(0, '$scripts')
from wavpcm import read_wav
(fa, da), (fb, db) = read_wav(sys.argv[1]), read_wav(sys.argv[2])
if fa[1:] != fb[1:] or len(da) != len(db):
    sys.exit(f'{sys.argv[1]}: not the format and length of {sys.argv[2]}')
a, b = array('f', da), array('f', db)
worst = max(map(lambda x, y: abs(x - y), a, b))
if worst > 2.0 ** -14:
    sys.exit(f'{sys.argv[1]}: a sample differs from mpg123 by {worst:.3g}')
print(f'{sys.argv[1].rsplit("/", 1)[1]}: {len(a)} samples, at most {worst:.3g} from mpg123')
PY
}

for name in v2 cbr128; do
    ours=$(best "$cli" convert "$work/$name.mp3" "$work/ours-$name.wav" --bits f32)
    theirs=$(best mpg123 -q -e f32 -w "$work/mpg123-$name.wav" "$work/$name.mp3")
    report "decode lame $name to f32" "$ours" "$theirs" mpg123
done
for name in v2 cbr128; do
    close "$work/ours-$name.wav" "$work/mpg123-$name.wav"
done
