#!/usr/bin/env python3
"""Prints the stored decoder tables of decoder/tables.cpp from the standard's published figures.

Usage: python3 decoder/gen_tables.py /work/shared/iso > /tmp/tables.inc
The output is pasted into decoder/tables.cpp by hand; every value is the float nearest to the
double-precision figure computed here (struct.pack('f') rounds to nearest).
"""
import math
import struct
import sys


def f32(x):
    return struct.unpack('f', struct.pack('f', x))[0]


def lit(x):
    v = f32(x)
    if v == 0.0:
        return '0.0f'
    s = repr(v)
    # Shortest decimal that reads back as the same float.
    for digits in range(6, 12):
        t = '%.*g' % (digits, v)
        if f32(float(t)) == v:
            s = t
            break
    if 'e' not in s and '.' not in s:
        s += '.0'
    return s + 'f'


def main(iso):
    d = {}
    for line in open(iso + '/synth_window.txt'):
        if line.startswith('#') or not line.strip():
            continue
        i, v = line.split()
        d[int(i)] = float(v)
    print('// SYNTH_WINDOW: row j = 16383.5 * D[32e + j], e = 0..15, twice.')
    for j in range(17):
        row = [lit(16383.5 * d[32 * e + j]) for e in range(16)]
        print('    {' + ', '.join(row + row) + '},')
    sf = {}
    for line in open(iso + '/misc.txt'):
        p = line.split()
        if p and p[0] == 'SF':
            sf[int(p[1])] = float(p[2])
    print('// scale_factor_table')
    vals = [lit(sf[i]) for i in range(62)] + ['1E-20f', '0.0f']
    for k in range(0, 64, 8):
        print('    ' + ', '.join(vals[k:k + 8]) + ',')
    print('// transform constants 2cos((2k+1)pi/(2N))')
    for n in (32, 16, 8, 4, 2):
        print('N=%d: ' % n + ', '.join(lit(2 * math.cos((2 * k + 1) * math.pi / (2 * n))) for k in range(n // 2)))


if __name__ == '__main__':
    main(sys.argv[1] if len(sys.argv) > 1 else '/work/shared/iso')
