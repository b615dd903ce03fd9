#!/usr/bin/env python3
"""Quality of a coded signal against its original: SNR and a simple noise-to-mask ratio.

Usage: encode_quality.py ORIGINAL.wav DECODED.wav
Both are 16-bit PCM WAVE files of the same rate and channels. The decoded file is aligned to the
original by the delay (0 to 3000 samples) that minimises the error on a loud stretch; then, over
all but the first and last second:
  SNR  = 10 log10(signal energy / error energy), all channels together;
  NMR  = per 1024-sample block (Hann window) and critical band of the first channel, the error's
         energy against a mask of the original's band energy 13 dB down (at least a fixed
         threshold in quiet near -96 dBFS per line), averaged as powers over bands and blocks and
         given in dB. Below 0 dB the noise lies under this mask on average.
Prints "snr_db nmr_db delay".
"""
import array
import cmath
import math
import sys
import wave


def read(path):
    w = wave.open(path, 'rb')
    assert w.getsampwidth() == 2, path
    ch, rate = w.getnchannels(), w.getframerate()
    data = array.array('h', w.readframes(w.getnframes()))
    if sys.byteorder == 'big':
        data.byteswap()
    return [data[c::ch] for c in range(ch)], rate


def fft(x):
    n = len(x)
    if n == 1:
        return [x[0]]
    even, odd = fft(x[0::2]), fft(x[1::2])
    out = [0j] * n
    for k in range(n // 2):
        t = cmath.exp(-2j * math.pi * k / n) * odd[k]
        out[k], out[k + n // 2] = even[k] + t, even[k] - t
    return out


EDGES = [0, 100, 200, 300, 400, 510, 630, 770, 920, 1080, 1270, 1480, 1720, 2000, 2320, 2700, 3150, 3700,
         4400, 5300, 6400, 7700, 9500, 12000, 15500, 22050]


def main():
    (orig, rate), (dec, rate2) = read(sys.argv[1]), read(sys.argv[2])
    assert rate == rate2 and len(orig) == len(dec)
    a, b = orig[0], dec[0]
    # Alignment on the loudest 2048-sample stretch among a few candidates.
    start = max(range(rate, len(a) - rate - 8192, 4096), key=lambda i: sum(abs(v) for v in a[i:i + 2048:16]))
    seg = a[start:start + 2048]
    best = min(range(0, 3001), key=lambda d: sum((seg[i] - b[start + d + i]) ** 2 for i in range(0, 2048, 4)))
    lo, hi = rate, min(len(a), len(b) - best) - rate
    sig = err = 0.0
    for c in range(len(orig)):
        o, d = orig[c], dec[c]
        for i in range(lo, hi):
            e = o[i] - d[i + best]
            sig += o[i] * o[i]
            err += e * e
    snr = 10 * math.log10(sig / err) if err > 0 else 200.0
    n = 1024
    win = [0.5 - 0.5 * math.cos(2 * math.pi * (i + 0.5) / n) for i in range(n)]
    bands = []
    for k in range(len(EDGES) - 1):
        lines = [j for j in range(1, n // 2) if EDGES[k] <= j * rate / n < EDGES[k + 1]]
        if lines:
            bands.append(lines)
    quiet = (n * 0.5 * 32768 * 10 ** (-96 / 20)) ** 2  # per line
    total, count = 0.0, 0
    for s in range(lo, hi - n, n * 4):
        so = fft([a[s + i] * win[i] for i in range(n)])
        se = fft([(a[s + i] - b[s + i + best]) * win[i] for i in range(n)])
        for lines in bands:
            sig_e = sum(abs(so[j]) ** 2 for j in lines)
            err_e = sum(abs(se[j]) ** 2 for j in lines)
            mask = max(sig_e * 10 ** (-13 / 10), quiet * len(lines))
            total += err_e / mask
            count += 1
    nmr = 10 * math.log10(total / count) if total > 0 else -200.0
    print('%.2f %.2f %d' % (snr, nmr, best))


main()
