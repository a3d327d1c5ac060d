#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets (seed-* files in each target's
directory): well-formed sessions that reach deep into each parser, for the
fuzzer to start from. Inputs that once failed are kept beside them under
other names and are not touched here."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    os.makedirs(os.path.join(HERE, target), exist_ok=True)
    with open(os.path.join(HERE, target, 'seed-' + name), 'wb') as f:
        f.write(bytes(data))


# command_string: return length pick, driver result (2 bytes), the return
# field (16 bytes), then "verb params".
for i, text in enumerate([
        'scanread at 10 20 300 400 wait', 'status mode wait', 'status scanner notify',
        'capability can halftone wait', 'where destination wait', 'put destination at 1 2 3 4 notify',
        'info product wait', 'scanmode resolution 200 contrast 5 colorstep 4 wait', 'window handle 123 wait',
        'set time format dots wait', 'save x.bmp wait', 'open shareable alias s wait', 'copy notify',
        'window state hide wait', 'stop wait', 'close notify'
]):
    write('command_string', '%02d' % i, [9, 0x40, 0x00] + list(struct.pack('<4i', 1, -2, 300, 4)) +
          list(text.encode()))

# block_frames: model pick, resolution pick, colour step pick, colour mode
# pick, dither, left and top offsets, width and length words, capacity word,
# blocks before a stop (0: none), length word of what the scanner sends after
# DC2, those bytes, then its reply to the abort. Model 2 at 200 dpi, two levels,
# 160 x 10 pixels: 20 bytes a line.
def info(fmt, line):
    b = [0] * 38
    b[12] = fmt
    b[13], b[14] = line >> 8, line & 0xFF
    b[37] = 0x17
    return b


def frame(kind, body, trailer):
    n = len(body) + 1
    return [0x02, n >> 8, n & 0xFF, kind] + body + [trailer]


END = frame(0x80, [], 0x03)
head = [1, 3, 0, 0, 16, 0, 0] + [0, 159] + [0, 9]


def block_seed(name, capacity, scan, abort_after=0, reply=()):
    write('block_frames', name, head + [capacity >> 8, capacity & 0xFF, abort_after, len(scan) >> 8,
                                        len(scan) & 0xFF] + scan + list(reply))


raw = info(1, 20)
for y in range(10):
    raw += frame(0x40, [(y * 7 + x) & 0xFF for x in range(20)], 0x17)
block_seed('raw', 19, raw + END)
packed = info(5, 20)
for y in range(10):
    packed += frame(0x40, [0x85, 1, 2, 3, 4, y, 0x0A, 0x55, 0x05, 0xF0], 0x17)
block_seed('compressed-split', 6, packed + END)
block_seed('abnormal-end', 39, raw[:38 + 25] + [0x02, 0x00, 0x01, 0x82, 0x03])
block_seed('stopped', 19, raw + END, 3, frame(0x40, [1] * 20, 0x17) + END)

# polled: resolution pick, colour step pick, dither, contrast, width and
# length words, capacity word, count of device states, the states, then the
# talk messages. States follow the start, the ready checks, the fifteen
# parameter commands and the scan information (see polled_fuzz.cpp).
IDLE, REPLY, DATA = 0x10, 0x80 | 0x11, 0x80 | 0x01
states = [0x80 | IDLE, REPLY, IDLE, REPLY, IDLE, REPLY] + [IDLE] * 15 + [REPLY, REPLY, DATA, IDLE]
q3 = [3, 0x1B, ord('Q'), ord('3')]
scan_info = [0] * 24
scan_info[0] = 5  # 200 dpi
scan_info[17], scan_info[18] = 0, 24  # 20 bytes a line
scan_info[22], scan_info[23] = 0, 4  # 4 lines
image = [(i * 13) & 0xFF for i in range(80)]
talk = q3 * 4 + [24] + scan_info + [80] + image
write('polled', 'scan', [4, 0, 16, 5, 0, 24, 0, 4, 0, 79, len(states)] + states + talk)
write('polled', 'small-blocks', [4, 0, 16, 5, 0, 24, 0, 4, 0, 6, len(states)] + states + talk)

# scsi_read: model, resolution, colour step, colour mode picks, the
# rectangle (left, top, width, length), the control answers, then the reads.
# Model 2 at 100 dpi, two levels, 16 x 4 pixels: 2 bytes a line.
control = [0, 0, 0, 0, 0, 0, 4, 4, 4, 0]
reads = []
for y in range(4):
    reads += [2, 0xF0 ^ y, 0x0F]
write('scsi_read', 'scan', [0, 1, 0, 0, 20, 10, 15, 3, len(control)] + control + reads)
control6 = [0, 0, 0, 0, 0, 0, 0, 4, 4, 4, 0]
write('scsi_read', 'model6-grey', [3, 3, 3, 0, 8, 8, 7, 3, len(control6)] + control6 +
      sum(([8] + [y * 16 + x for x in range(8)] for y in range(4)), []))
write('scsi_read', 'not-ready-then-short', [1, 2, 0, 0, 40, 0, 31, 7, 6, 0, 4, 1, 1, 0, 0, 1, 0xAA, 255])

# profile: buffer size pick, then win.ini.
write('profile', 'settings', [5] + list(
    b'[windows]\r\nload=\r\n[TAMRIX]\r\nScanner=2\r\nInterface=3\r\nID=5\r\nBaudrate=2\r\n[mci]\r\nx = y\r\n'))
write('profile', 'odd', [1] + list(
    b'\xef\xbb\xbf; comment\n[tamrix]\nscanner = 7\ninterface=0x2\nID=-1\nBaudrate=99999999999\n[ TAMRIX ]\nID=3\n'
    b'[Other]\nnoequals\n=empty\n[unterminated\n'))
