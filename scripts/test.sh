#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the dependencies, checks the source rules, builds everything with AddressSanitizer
# and UndefinedBehaviorSanitizer (the dev preset) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
./scripts/check-source.sh
cmake --preset dev >/dev/null
cmake --build --preset dev -j "$(nproc)"
ctest --preset dev -j "$(nproc)"
