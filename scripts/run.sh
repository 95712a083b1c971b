#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the dependencies, builds the optimised tessel-cli and runs it with the given
# arguments. Without arguments it runs a short demonstration: it synthesises a tone, converts it
# to another rate, channel count and sample format, edits a copy (cut, paste, reverse, delete)
# and shows what the files hold.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tessel-cli
cli=./build/release/cli/tessel-cli
if [ $# -gt 0 ]; then
    exec "$cli" "$@"
fi
demo=$(mktemp -d "${TMPDIR:-/tmp}/tessel-demo.XXXXXX")
trap 'rm -rf "$demo"' EXIT
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
