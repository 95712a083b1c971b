#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the dependencies, builds the optimised tessel-cli and runs it with the given
# arguments (default: --help).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tessel-cli
if [ $# -eq 0 ]; then
    set -- --help
fi
exec ./build/release/cli/tessel-cli "$@"
