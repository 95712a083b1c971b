# SPDX-License-Identifier: GPL-3.0-or-later
"""A small WAV reader of its own for the benchmark scripts, so that checking an output does not
rest on the tools being compared."""
import struct
import sys


def read_wav(path):
    """The fmt fields (tag, channels, rate, byte rate, block align, bits) and the data bytes."""
    with open(path, 'rb') as f:
        d = f.read()
    if d[:4] != b'RIFF' or d[8:12] != b'WAVE':
        sys.exit(f'{path}: not a RIFF WAVE file')
    at, fmt, data = 12, None, None
    while at + 8 <= len(d):
        cid, size = struct.unpack('<4sI', d[at:at + 8])
        body = d[at + 8:at + 8 + size]
        if cid == b'fmt ':
            fmt = struct.unpack('<HHIIHH', body[:16])
        elif cid == b'data':
            data = body
        at += 8 + size + (size & 1)
    if fmt is None or data is None:
        sys.exit(f'{path}: no fmt or data chunk')
    return fmt, data
