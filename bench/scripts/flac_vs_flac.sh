#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Our FLAC codec through tessel-cli convert against the reference `flac` tool (and ffmpeg's
# decoder) on 10 minutes of 44.1 kHz 16-bit stereo that behaves like music: a 30-second phrase of
# chords of decaying harmonic notes panned apart, a bass line both channels share, short noise
# bursts on the beat and a low noise floor, repeated. Each time is the best of three runs, after
# the inputs are brought into the page cache. Prints the times and the ratio peer / tessel-cli
# (above 1: we are faster) and our file's size against flac -5's. Every decode is checked to give
# back the input's samples, and `flac -t` must pass on our file.
#
# The marks to meet: decoding at least 1.2 times as fast as flac -d, encoding at least as fast as
# flac -5, our file at most 2% larger than flac -5's.
#
#   bench/scripts/flac_vs_flac.sh [path/to/tessel-cli]   (default: build/release/cli/tessel-cli)
set -euo pipefail
cli=${1:-build/release/cli/tessel-cli}
for tool in flac ffmpeg sox python3; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-flac-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=bench/scripts/timing.sh
source "$scripts/timing.sh"

# The phrase as ffmpeg expressions. Variables: 0 the chord's root in semitones from middle C
# (C, A minor, F, G, two seconds each), 1 the time since the chord began, 2 the time since the
# beat (every half second). note FREQUENCY TIME DECAY: four harmonics, the upper ones dying faster.
note() {
    local f=$1 t=$2 d=$3
    echo "(sin(2*PI*$f*$t)+0.5*sin(4*PI*$f*$t)*exp(-$d*$t)+0.33*sin(6*PI*$f*$t)*exp(-2*$d*$t)+0.25*sin(8*PI*$f*$t)*exp(-3*$d*$t))*exp(-$d*$t)"
}
pitch() { echo "261.63*pow(2,($1)/12)"; }
chord="mod(floor(t/2),4)"
setup="st(0,if(eq($chord,0),0,if(eq($chord,1),-3,if(eq($chord,2),-7,-5))));st(1,mod(t,2));st(2,mod(t,0.5))"
root=$(note "$(pitch 'ld(0)')" 'ld(1)' 1.2)
third=$(note "$(pitch "ld(0)+if(eq($chord,1),3,4)")" 'ld(1)' 1.2)
fifth=$(note "$(pitch 'ld(0)+7')" 'ld(1)' 1.2)
octave=$(note "$(pitch 'ld(0)+12')" 'ld(1)' 1.2)
bass=$(note "$(pitch "ld(0)-24+if(eq(mod(floor(t/0.5),4),1)+eq(mod(floor(t/0.5),4),3),7,12*eq(mod(floor(t/0.5),4),2))")" 'ld(2)' 3)
# Each channel has its own random state (variable 8 for bursts, 9 for the floor), seeded apart.
noise="if(lt(ld(2),0.03),0.15*exp(-150*ld(2))*(2*random(8)-1),0)+0.0003*(2*random(9)-1)"
left="$setup;0.09*(0.8*$root+0.2*$third+0.65*$fifth+0.35*$octave)+0.25*$bass+$noise"
right="if(eq(n,0),st(8,777)+st(9,4242),0);$setup;0.09*(0.2*$root+0.8*$third+0.35*$fifth+0.65*$octave)+0.25*$bass+$noise"
ffmpeg -v error -f lavfi -i "aevalsrc=exprs='$left|$right':s=44100:d=30" -c:a pcm_s16le \
    "$work/phrase.wav"
sox "$work/phrase.wav" "$work/in.wav" repeat 19
flac -s -5 -f -o "$work/in.flac" "$work/in.wav"
cat "$work/in.wav" "$work/in.flac" "$cli" "$(command -v flac)" >/dev/null

# same_pcm A B: the two WAV files hold the same format and samples.
same_pcm() {
    python3 - "$1" "$2" <<PY
import sys
sys.path.insert(0, '$scripts')
from wavpcm import read_wav
(fa, da), (fb, db) = read_wav(sys.argv[1]), read_wav(sys.argv[2])
if fa[1:] != fb[1:] or da != db:
    sys.exit(f'{sys.argv[2]}: not the samples of {sys.argv[1]}')
PY
}

ours=$(best "$cli" convert "$work/in.wav" "$work/ours.flac")
theirs=$(best flac -5 -f -o "$work/theirs.flac" "$work/in.wav")
report "encode (flac -5)" "$ours" "$theirs" flac

ours=$(best "$cli" convert "$work/in.flac" "$work/out-ours.wav")
theirs=$(best flac -d -f -o "$work/out-flac.wav" "$work/in.flac")
report "decode flac -5's file" "$ours" "$theirs" flac
theirs=$(best ffmpeg -v error -y -i "$work/in.flac" "$work/out-ffmpeg.wav")
report "decode flac -5's file" "$ours" "$theirs" ffmpeg
ours=$(best "$cli" convert "$work/ours.flac" "$work/out-own.wav")
theirs=$(best flac -d -f -o "$work/out-flac-own.wav" "$work/ours.flac")
report "decode our file" "$ours" "$theirs" flac

awk -v o="$(stat -c %s "$work/ours.flac")" -v t="$(stat -c %s "$work/theirs.flac")" \
    'BEGIN { printf "%-30s ours %d bytes   flac -5 %d bytes   %+.2f%%\n", "size", o, t, 100 * (o - t) / t }'

same_pcm "$work/in.wav" "$work/out-ours.wav"
same_pcm "$work/in.wav" "$work/out-own.wav"
same_pcm "$work/in.wav" "$work/out-flac-own.wav"
flac -s -t "$work/ours.flac"
echo "checked: both decodes give back the input's samples, flac -t passes on our file"
