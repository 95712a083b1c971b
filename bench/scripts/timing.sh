# SPDX-License-Identifier: GPL-3.0-or-later
# shellcheck shell=bash
# Sourced by the scripts that time tessel-cli against a peer tool (not run on its own): the
# best-of-N wall-clock timing and the line that reports a pair of times with their ratio.

# The best wall time in seconds of $BENCH_RUNS (default 3) runs of "$@", output discarded. When
# $BENCH_PREPARE is set, that command runs before each run, outside the timing.
best() {
    local best=""
    local i
    for ((i = 0; i < ${BENCH_RUNS:-3}; ++i)); do
        local start end t
        if [ -n "${BENCH_PREPARE:-}" ]; then "$BENCH_PREPARE"; fi
        start=$(date +%s.%N)
        "$@" >/dev/null 2>&1
        end=$(date +%s.%N)
        t=$(awk -v a="$end" -v b="$start" 'BEGIN { printf "%.6f", a - b }')
        if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN { exit !(t < b) }'; then
            best=$t
        fi
    done
    echo "$best"
}

# label, our time, the peer's time[, the peer's name (default sox)]: both times and the ratio
# peer / ours (above 1: tessel-cli is faster).
report() {
    awk -v l="$1" -v o="$2" -v t="$3" -v p="${4:-sox}" \
        'function show(x) { return x < 0.01 ? sprintf("%6.3f ms", x * 1e3) : sprintf("%6.3f s ", x) }
         BEGIN { printf "%-30s tessel-cli %s   %s %s   ratio %.2f\n", l, show(o), p, show(t), t / o }'
}
