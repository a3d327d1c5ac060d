#!/usr/bin/env python3
"""Draws the display window's icon, a flatbed scanner with a sheet on its
glass and the green light bar, and writes it as scanicon.ico (32x32 and
16x16, 16 colours). Run: python3 make_scanicon.py [output]"""
import struct
import sys

# Standard 16-colour palette (index: B, G, R).
PALETTE = [
    (0, 0, 0), (0, 0, 128), (0, 128, 0), (0, 128, 128),
    (128, 0, 0), (128, 0, 128), (128, 128, 0), (192, 192, 192),
    (128, 128, 128), (0, 0, 255), (0, 255, 0), (0, 255, 255),
    (255, 0, 0), (255, 0, 255), (255, 255, 0), (255, 255, 255),
]
# '.' transparent, 'k' black, 'd' dark grey, 'l' light grey, 'w' white,
# 'g' bright green (the light bar), 'b' dark blue (glass), 'r' red (lamp).
INDEX = {'k': 0, 'd': 8, 'l': 7, 'w': 15, 'g': 10, 'b': 4, 'r': 9}

ART = [
    "................................",
    "................................",
    "................................",
    "..........kkkkkkkkkkkk..........",
    "..........kwwwwwwwwwwk..........",
    "..........kwkkkkkkkwwk..........",
    "..........kwwwwwwwwwwk..........",
    "..........kwkkkkkkwwwk..........",
    "..........kwwwwwwwwwwk..........",
    "..........kwkkkkkkkkwk..........",
    "..........kwwwwwwwwwwk..........",
    "....kkkkkkkkkkkkkkkkkkkkkkkk....",
    "...kddddddddddddddddddddddddk...",
    "..kdllllllllllllllllllllllllldk.",
    "..kdlkkkkkkkkkkkkkkkkkkkkkkkldk.",
    "..kdlkbbbbbbbbbbbbbbbbbbbbbkldk.",
    "..kdlkbbbbbbbbbbbbbbbbbbbbbkldk.",
    "..kdlkgggggggggggggggggggggkldk.",
    "..kdlkbbbbbbbbbbbbbbbbbbbbbkldk.",
    "..kdlkbbbbbbbbbbbbbbbbbbbbbkldk.",
    "..kdlkkkkkkkkkkkkkkkkkkkkkkkldk.",
    "..kdllllllllllllllllllllllllldk.",
    "..kdlllllllllllllllllllrrllllldk",
    "..kdddddddddddddddddddddddddddk.",
    "..kkkkkkkkkkkkkkkkkkkkkkkkkkkkk.",
    "....kk....................kk....",
    "....kk....................kk....",
    "................................",
    "................................",
    "................................",
    "................................",
    "................................",
]


def image(size):
    step = 32 // size
    rows = [[ART[y * step][x * step] for x in range(size)] for y in range(size)]
    # The light bar must survive the reduction.
    if size < 32:
        rows[17 // step] = [c if c in '.k' else 'g' for c in rows[17 // step]]
    header = struct.pack('<IiiHHIIiiII', 40, size, size * 2, 1, 4, 0, 0, 0, 0, 16, 0)
    palette = b''.join(struct.pack('<BBBB', b, g, r, 0) for b, g, r in PALETTE)
    xor_stride = ((size * 4 + 31) // 32) * 4
    and_stride = ((size + 31) // 32) * 4
    xor = b''
    mask = b''
    for row in reversed(rows):  # bottom-up
        nibbles = [INDEX.get(c, 0) for c in row]
        line = bytes((nibbles[i] << 4) | nibbles[i + 1] for i in range(0, size, 2))
        xor += line.ljust(xor_stride, b'\0')
        bits = 0
        out = bytearray()
        for i, c in enumerate(row):
            bits = (bits << 1) | (1 if c == '.' else 0)
            if i % 8 == 7:
                out.append(bits)
                bits = 0
        mask += bytes(out).ljust(and_stride, b'\0')
    return header + palette + xor + mask


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else 'scanicon.ico'
    images = [image(32), image(16)]
    data = struct.pack('<HHH', 0, 1, len(images))
    offset = 6 + 16 * len(images)
    for size, img in zip((32, 16), images):
        data += struct.pack('<BBBBHHII', size, size, 16, 0, 1, 4, len(img), offset)
        offset += len(img)
    with open(out, 'wb') as f:
        f.write(data + b''.join(images))


if __name__ == '__main__':
    main()
