#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what Tessel needs to build and test on Debian 12. Idempotent and non-interactive:
# when every package is already installed it touches nothing (not even the package lists).
set -euo pipefail

packages=(
    # toolchain and build
    g++ cmake ninja-build pkg-config git
    # every FFT (the equaliser, band selections)
    libfftw3-dev
    # tests and benchmarks
    libgtest-dev libgmock-dev libbenchmark-dev
    # the peer the resampler benchmark is measured against
    libsamplerate0-dev
    # oracles the file-format tests compare with and benchmarks time against
    sox libsox-fmt-all ffmpeg flac lame mpg123
    # headers of the audio file library loaded at run time (IMA ADPCM WAV writing)
    libsndfile1-dev
    # locale sources, so the settings tests can check a comma-decimal locale
    locales
    # the audio device tests start their own sound server with a null sink
    pulseaudio pulseaudio-utils
    # the desktop program: Qt 6 widgets, its platform plugins, Qt Multimedia for the audio device
    qt6-base-dev qt6-qpa-plugins qt6-multimedia-dev
    # the screenshot test runs the window under a virtual X server
    xvfb xauth
)
if [ "${TESSEL_WITH_FUZZ:-0}" = 1 ]; then
    packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
