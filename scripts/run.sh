#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the dependencies, builds the optimised tessel-cli and runs it with the given
# arguments. Without arguments it runs a short demonstration: it synthesises a tone, converts it
# to another rate, channel count and sample format, and shows what both files hold.
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
echo "== tessel-cli info tone.wav tone-48k-mono-24bit.wav"
"$cli" info "$demo/tone.wav" "$demo/tone-48k-mono-24bit.wav"
echo
echo "Run ./scripts/run.sh --help for every command."
