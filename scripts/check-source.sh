#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Source rules the compiler cannot check: failures are values (no exceptions in the engine, the
# editor or the command line), and only the platform layer and the desktop program see Qt.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0

# The statements, not the words: messages may well tell the user to "try again".
if hits=$(grep -rnE '(^|[^A-Za-z0-9_])(try[[:space:]]*\{|catch[[:space:]]*\(|throw[[:space:]]*;|throw[[:space:]]+[A-Za-z_:]+[({])' \
        --include='*.cpp' --include='*.h' llib editor cli | grep -vE '^\S+:\s*//'); then
    echo "Exceptions are not used in llib/, editor/ or cli/:"
    echo "$hits"
    status=1
fi

if hits=$(grep -rnE '#\s*include\s*[<"](Q[A-Za-z]+|Qt[A-Za-z]+/)' \
        --include='*.cpp' --include='*.h' llib editor cli fuzz \
        $(find tests bench -mindepth 1 -maxdepth 1 ! -name platform ! -name app)); then
    echo "Qt headers belong only in platform/ and app/:"
    echo "$hits"
    status=1
fi

if [ $status -eq 0 ]; then
    echo "source rules: ok"
fi
exit $status
