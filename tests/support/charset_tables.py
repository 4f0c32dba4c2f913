"""Writes the characters of the charsets that the converter's tables are read from, as C++ for
cross_iconv.cpp."""

import itertools
import sys

CHARSETS = {
    "CP932": [range(0x81, 0xFD), range(0x40, 0xFD)],
    "EUC-JP": [[0x8F], range(0xA1, 0xFF), range(0xA1, 0xFF)],
    "ISO-8859-2": [range(0xA0, 0x100)],
}

with open(sys.argv[1], "w", encoding="ascii") as file:
    for charset, ranges in CHARSETS.items():
        for code in map(bytes, itertools.product(*ranges)):
            character = code.decode(charset, errors="replace")
            if len(character) == 1 and character != "\ufffd":
                print(f'{{"{charset}", 0x{code.hex()}, 0x{ord(character):x}}},', file=file)
