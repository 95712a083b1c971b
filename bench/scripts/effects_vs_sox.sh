#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# tessel-cli edit against sox on the same 10-minute 16-bit stereo WAV, in one run: amplify to 50 %
# against sox's vol 0.5, and a linear fade-in over the whole file (what the editor's fade does
# when nothing is selected) against sox's fade t over every frame. sox runs without dither (-D)
# both when checked and when timed, since tessel-cli does not dither by default.
#
# The outputs are checked first, sample by sample over the whole file, by a small independent
# WAV reader: amplify against sox's output, the fade against the ramp gain(frame) = frame / length
# computed here (0 at the first frame, reaching 1 at the end of the file), and sox's fade against
# the same ramp, so that both tools are known to do the same work. Each may differ from its
# reference by 1 LSB where the two round a value near a half step differently; anything more
# stops the script.
#
# Each tool is timed as the best of five runs, after one run that brings the input into the page
# cache. tessel-cli is timed twice: with an empty cache (it decodes the input first, as on a
# file's first opening) and with the input's item already in its cache (as when the file is
# opened again). Prints the times and the ratios sox / tessel-cli (above 1: faster). The cache,
# settings and stored formats live in the script's temporary folder, never the user's.
#
# With the effects benchmark built beside tessel-cli (tessel_effects_bench, or the path given
# second), the script also runs it and sets its in-process figures, from the command to the
# committed document, beside the same sox times: amplify against vol, the fade against fade.
#
#   bench/scripts/effects_vs_sox.sh [path/to/tessel-cli [path/to/tessel_effects_bench]]
#   (default: build/release/cli/tessel-cli and build/release/bench/tessel_effects_bench)
set -euo pipefail
cli=${1:-build/release/cli/tessel-cli}
effects_bench=${2:-$(dirname "$cli")/../bench/tessel_effects_bench}
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }
command -v python3 >/dev/null || { echo "python3 is not installed" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-effects-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=bench/scripts/timing.sh
source "$(dirname "${BASH_SOURCE[0]}")/timing.sh"
# All four folders: a stored WAV format (with dither, say) in the user's data folder would change
# the output. The TESSEL_*_DIR overrides would take precedence over these.
unset TESSEL_CONFIG_DIR TESSEL_CACHE_DIR TESSEL_DATA_DIR TESSEL_STATE_DIR
export XDG_CACHE_HOME="$work/cache" XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data" \
    XDG_STATE_HOME="$work/state"

# Noise rather than a tone, so that a ramp shifted by some frames shows at once; one noise per
# channel, since a single "whitenoise" gives both channels the same value in about half the
# frames, which would hide a channel mix-up.
rate=44100
sox -R -n -r "$rate" -c 2 -b 16 -e signed-integer "$work/in.wav" synth 600 whitenoise whitenoise \
    vol 0.5
frames=$(soxi -s "$work/in.wav")
cat "$work/in.wav" >/dev/null

amplify_ours() { "$cli" edit "$work/in.wav" -o "$1" --do 'amplify gain-percentage=50'; }
amplify_sox() { sox -D "$work/in.wav" "$1" vol 0.5; }
# Given in frames ("s"), so that sox's ramp ends exactly at the last frame, as ours does.
fade_ours() { "$cli" edit "$work/in.wav" -o "$1" --do 'fade-in shape=linear'; }
fade_sox() { sox -D "$work/in.wav" "$1" fade t "${frames}s"; }
empty_cache() { rm -rf "$XDG_CACHE_HOME"; }

# Correctness first, from an empty cache: all four outputs, then the comparisons.
empty_cache
amplify_ours "$work/amplify.wav" >/dev/null 2>&1 || { echo "tessel-cli amplify failed" >&2; exit 1; }
fade_ours "$work/fade.wav" >/dev/null 2>&1 || { echo "tessel-cli fade-in failed" >&2; exit 1; }
amplify_sox "$work/amplify-sox.wav" || { echo "sox vol failed" >&2; exit 1; }
fade_sox "$work/fade-sox.wav" || { echo "sox fade failed" >&2; exit 1; }
PYTHONPATH="$(dirname "${BASH_SOURCE[0]}")" python3 - "$work" <<'EOF'
import array, collections, itertools, operator, sys
import wavpcm

def pcm(path):
    """The fmt fields and the samples of a 16-bit stereo file."""
    fmt, data = wavpcm.read_wav(path)
    if fmt[0] != 1 or fmt[1] != 2 or fmt[5] != 16:
        sys.exit(f'{path}: not 16-bit stereo PCM: {fmt}')
    samples = array.array('h')
    samples.frombytes(data)
    if sys.byteorder == 'big':
        samples.byteswap()
    return fmt, samples

def check(label, got, want):
    """Histogram of got - want; stops on a length mismatch or a difference above 1 LSB."""
    if len(got) != len(want):
        sys.exit(f'{label}: {len(got)} samples, expected {len(want)}')
    diff = collections.Counter(map(operator.sub, got, want))
    worst = max(abs(d) for d in diff)
    off = len(got) - diff[0]
    if worst > 1:
        far = sum(n for d, n in diff.items() if abs(d) > 1)
        sys.exit(f'{label}: {far} samples differ by more than 1 LSB (up to {worst})')
    # Both signs, so that a bias (a gain a step too high or low) shows apart from rounding.
    print(f'{label:34} max {worst} LSB; {diff[1]} samples +1, {diff[-1]} -1 of {len(got)} '
          f'({100.0 * off / len(got):.2f} %)')

def ramp(samples, channels):
    """The input under gain(frame) = frame / frames, rounded to the nearest step."""
    frames = len(samples) // channels
    out = array.array('h', bytes(2 * len(samples)))
    for c in range(channels):
        gains = map(operator.truediv, range(frames), itertools.repeat(frames))
        out[c::channels] = array.array('h', map(round, map(operator.mul, samples[c::channels],
                                                            gains)))
    return out

work = sys.argv[1]
fin, x = pcm(f'{work}/in.wav')
outputs = {name: pcm(f'{work}/{name}.wav') for name in ('amplify', 'amplify-sox', 'fade',
                                                         'fade-sox')}
for name, (fmt, _) in outputs.items():
    if fmt != fin:
        sys.exit(f'{name}.wav: format {fmt}, the input has {fin}')
check('amplify: tessel-cli vs sox vol', outputs['amplify'][1], outputs['amplify-sox'][1])
expected = ramp(x, fin[1])
check('fade-in: tessel-cli vs ramp', outputs['fade'][1], expected)
check('fade-in: sox fade t vs ramp', outputs['fade-sox'][1], expected)
EOF

export BENCH_RUNS=5
amplify_cold=$(BENCH_PREPARE=empty_cache best amplify_ours "$work/amplify.wav")
amplify_warm=$(best amplify_ours "$work/amplify.wav")
amplify_sox_time=$(best amplify_sox "$work/amplify-sox.wav")
fade_cold=$(BENCH_PREPARE=empty_cache best fade_ours "$work/fade.wav")
fade_warm=$(best fade_ours "$work/fade.wav")
fade_sox_time=$(best fade_sox "$work/fade-sox.wav")
report "amplify 50 %, empty cache" "$amplify_cold" "$amplify_sox_time"
report "amplify 50 %, input cached" "$amplify_warm" "$amplify_sox_time"
report "linear fade-in, empty cache" "$fade_cold" "$fade_sox_time"
report "linear fade-in, input cached" "$fade_warm" "$fade_sox_time"

# The in-process figures: the command alone, on a document already open.
if [ -x "$effects_bench" ]; then
    figures=$("$effects_bench" 2>/dev/null) || { echo "tessel_effects_bench failed" >&2; exit 1; }
    amplify_s=$(awk '/^amplify to 50 %/ { print $(NF - 1) / 1e6 }' <<<"$figures")
    fade_s=$(awk '/^linear fade-in/ { for (i = 1; i < NF; ++i) if ($(i + 1) == "ms") { print $i / 1e3; exit } }' <<<"$figures")
    if [ -z "$amplify_s" ] || [ -z "$fade_s" ]; then
        echo "no figures from tessel_effects_bench" >&2
        exit 1
    fi
    report "amplify command (in-process)" "$amplify_s" "$amplify_sox_time"
    report "fade-in command (in-process)" "$fade_s" "$fade_sox_time"
else
    echo "($effects_bench not built: in-process figures left out)"
fi
