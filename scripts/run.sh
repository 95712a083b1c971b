#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the dependencies and builds the optimised programs. Without arguments it synthesises
# a stereo test file and opens it in the desktop editor; with no display to open a window on, it
# runs a short tessel-cli demonstration instead (a tone converted, tagged and edited). Given
# arguments, it runs tessel-cli with them.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tessel-cli tessel
cli=./build/release/cli/tessel-cli
if [ $# -gt 0 ]; then
    exec "$cli" "$@"
fi
demo=$(mktemp -d "${TMPDIR:-/tmp}/tessel-demo.XXXXXX")
trap 'rm -rf "$demo"' EXIT
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
    echo "== tessel-cli synth demo.wav --seconds 20 --hz 440 --channels 2"
    "$cli" synth "$demo/demo.wav" --seconds 20 --hz 440 --channels 2
    echo "== tessel demo.wav"
    ./build/release/app/tessel "$demo/demo.wav"
    exit 0
fi
echo "(No display to open the desktop editor on: build/release/app/tessel FILE opens it.)"
echo "== tessel-cli synth tone.wav --seconds 10 --hz 1000"
"$cli" synth "$demo/tone.wav" --seconds 10 --hz 1000
echo "== tessel-cli convert tone.wav tone-48k-mono-24bit.wav --rate 48000 --channels 1 --bits 24"
"$cli" convert "$demo/tone.wav" "$demo/tone-48k-mono-24bit.wav" --rate 48000 --channels 1 --bits 24
echo "== tessel-cli tags tone-48k-mono-24bit.wav --set TITLE=\"Demo tone\""
"$cli" tags "$demo/tone-48k-mono-24bit.wav" --set "TITLE=Demo tone"
echo "== tessel-cli edit tone.wav -o edited.wav --do 'select start=2 end=4' --do cut --do 'cursor position=6' --do paste --do 'select start=0 end=1' --do reverse --do 'select start=9 end=10' --do delete"
"$cli" edit "$demo/tone.wav" -o "$demo/edited.wav" --do 'select start=2 end=4' --do cut \
    --do 'cursor position=6' --do paste --do 'select start=0 end=1' --do reverse \
    --do 'select start=9 end=10' --do delete
echo "== tessel-cli info tone.wav tone-48k-mono-24bit.wav edited.wav"
"$cli" info "$demo/tone.wav" "$demo/tone-48k-mono-24bit.wav" "$demo/edited.wav"
echo
echo "Run ./scripts/run.sh --help for every command."
