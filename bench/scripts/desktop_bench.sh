#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Times the desktop's waveform repaint and playback start on three hours of stereo. Playback
# needs a sound server: a private PulseAudio with a null sink is started for the run, so no
# sound card is needed and nothing is heard.
# Usage: bench/scripts/desktop_bench.sh [build/release/bench/tessel_waveformview_bench]
set -euo pipefail
bench=${1:-build/release/bench/tessel_waveformview_bench}
bench=$(realpath "$bench")
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-desktop-bench.XXXXXX")
export XDG_RUNTIME_DIR="$work/runtime"
mkdir -p "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
cleanup() {
    pulseaudio --kill 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
pulseaudio -D -n --exit-idle-time=-1 --system=false --load=module-native-protocol-unix \
    --load="module-null-sink sink_name=tessel_null rate=48000"
for _ in $(seq 50); do
    pactl info >/dev/null 2>&1 && break
    sleep 0.1
done
cd "$work"
QT_QPA_PLATFORM=offscreen "$bench" --benchmark_min_time=0.5
