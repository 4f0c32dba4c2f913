"""Writes what this machine's iconv makes of every character of the charsets that the converter's
tables are read from, as C++ for cross_iconv.cpp."""

import ctypes
import itertools
import sys

CHARSETS = {
    "CP932": [range(0x81, 0xFD), range(0x40, 0xFD)],
    "EUC-JP": [[0x8F], range(0xA1, 0xFF), range(0xA1, 0xFF)],
    "ISO-8859-2": [range(0xA0, 0x100)],
}

libc = ctypes.CDLL(None)
libc.iconv_open.restype = ctypes.c_void_p
libc.iconv.restype = ctypes.c_ssize_t
libc.iconv.argtypes = [ctypes.c_void_p] + 4 * [ctypes.c_void_p]


def decode(handle, code):
    """The character, or None where the bytes are not one."""
    out = ctypes.create_string_buffer(8)
    in_at, out_at = ctypes.c_char_p(code), ctypes.c_void_p(ctypes.addressof(out))
    in_left, out_left = ctypes.c_size_t(len(code)), ctypes.c_size_t(len(out))
    libc.iconv(handle, None, None, None, None)
    result = libc.iconv(handle, *map(ctypes.byref, (in_at, in_left, out_at, out_left)))
    if result != 0 or out_left.value != 4:
        return None
    return int.from_bytes(out.raw[:4], "little")


def write(charset, ranges, file):
    handle = libc.iconv_open(b"UTF-32LE", charset.encode())
    if handle == ctypes.c_void_p(-1).value:
        sys.exit(f"this machine's iconv does not know {charset}")
    print(f'const character k{charset.title().replace("-", "")}[] = {{', file=file)
    for code in map(bytes, itertools.product(*ranges)):
        character = decode(handle, code)
        if character is not None:
            print(f"{{0x{code.hex()}, 0x{character:x}}},", file=file)
    print("};", file=file)


if __name__ == "__main__":
    with open(sys.argv[1], "w", encoding="ascii") as output:
        for each in CHARSETS.items():
            write(*each, output)
