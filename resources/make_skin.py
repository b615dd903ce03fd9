#!/usr/bin/python3
"""Draws TOVRA's skin: the face, the cells, the small font, the volume bar and the title masks.

Every cell lies where the window's tables look for it (shell/skin.h); only the art is ours. The
look: a graphite case with bevelled keys, an amber-on-black readout, and small capitals in the
program's own 6x5 font. Run: make_skin.py OUTDIR (needs python3-pil); the program's icon goes to OUTDIR/icons.
"""
import sys
from PIL import Image, ImageDraw

# Palette of the face.
CASE = (58, 62, 70)
CASE_HI = (96, 102, 114)
CASE_LO = (30, 32, 38)
GROOVE = (22, 24, 28)
KEY = (78, 84, 96)
KEY_HI = (132, 140, 156)
KEY_LO = (36, 38, 44)
KEY_DOWN = (52, 56, 64)
LCD = (0, 0, 0)  # black: the digits are ORed onto it
LCD_EDGE = (40, 46, 42)
AMBER = (255, 176, 40)
AMBER_DIM = (90, 62, 20)
GREEN = (90, 230, 120)
GREEN_DIM = (24, 70, 36)
RED = (240, 60, 50)
RED_DIM = (80, 24, 20)
INK = (220, 226, 236)
INK_DIM = (140, 146, 158)
TITLE_ACTIVE = (46, 96, 170)
TITLE_INACTIVE = (70, 74, 84)
WHITE = (255, 255, 255)
BLACK = (0, 0, 0)

# The small font: 64 glyphs of 5x5 in cells of 6, codes 32 to 95.
GLYPHS = {
    ' ': "..... ..... ..... ..... .....", '!': "..#.. ..#.. ..#.. ..... ..#..",
    '"': ".#.#. .#.#. ..... ..... .....", '#': ".#.#. ##### .#.#. ##### .#.#.",
    '$': ".####. ", '%': "##..# ##.#. ..#.. .#.## #..##",
    '&': ".##.. #..#. .##.# #..#. .##.#", "'": "..#.. ..#.. ..... ..... .....",
    '(': "...#. ..#.. ..#.. ..#.. ...#.", ')': ".#... ..#.. ..#.. ..#.. .#...",
    '*': "..... .#.#. ..#.. .#.#. .....", '+': "..... ..#.. .###. ..#.. .....",
    ',': "..... ..... ..... ..#.. .#...", '-': "..... ..... .###. ..... .....",
    '.': "..... ..... ..... ..... ..#..", '/': "....# ...#. ..#.. .#... #....",
    '0': ".###. #..## #.#.# ##..# .###.", '1': "..#.. .##.. ..#.. ..#.. .###.",
    '2': ".###. #...# ..##. .#... #####", '3': "####. ....# .###. ....# ####.",
    '4': "#..#. #..#. ##### ...#. ...#.", '5': "##### #.... ####. ....# ####.",
    '6': ".###. #.... ####. #...# .###.", '7': "##### ...#. ..#.. .#... .#...",
    '8': ".###. #...# .###. #...# .###.", '9': ".###. #...# .#### ....# .###.",
    ':': "..... ..#.. ..... ..#.. .....", ';': "..... ..#.. ..... ..#.. .#...",
    '<': "...#. ..#.. .#... ..#.. ...#.", '=': "..... .###. ..... .###. .....",
    '>': ".#... ..#.. ...#. ..#.. .#...", '?': ".###. #...# ..##. ..... ..#..",
    '@': ".###. #.### #.##. #.... .###.", 'A': ".###. #...# ##### #...# #...#",
    'B': "####. #...# ####. #...# ####.", 'C': ".###. #...# #.... #...# .###.",
    'D': "####. #...# #...# #...# ####.", 'E': "##### #.... ####. #.... #####",
    'F': "##### #.... ####. #.... #....", 'G': ".###. #.... #.### #...# .###.",
    'H': "#...# #...# ##### #...# #...#", 'I': ".###. ..#.. ..#.. ..#.. .###.",
    'J': "..### ...#. ...#. #..#. .##..", 'K': "#..#. #.#.. ##... #.#.. #..#.",
    'L': "#.... #.... #.... #.... #####", 'M': "#...# ##.## #.#.# #...# #...#",
    'N': "#...# ##..# #.#.# #..## #...#", 'O': ".###. #...# #...# #...# .###.",
    'P': "####. #...# ####. #.... #....", 'Q': ".###. #...# #.#.# #..#. .##.#",
    'R': "####. #...# ####. #.#.. #..##", 'S': ".####. #.... .###. ....# ####.",
    'T': "##### ..#.. ..#.. ..#.. ..#..", 'U': "#...# #...# #...# #...# .###.",
    'V': "#...# #...# #...# .#.#. ..#..", 'W': "#...# #...# #.#.# ##.## #...#",
    'X': "#...# .#.#. ..#.. .#.#. #...#", 'Y': "#...# .#.#. ..#.. ..#.. ..#..",
    'Z': "##### ...#. ..#.. .#... #####", '[': ".###. .#... .#... .#... .###.",
    '\\': "#.... .#... ..#.. ...#. ....#", ']': ".###. ...#. ...#. ...#. .###.",
    '^': "..#.. .#.#. ..... ..... .....", '_': "..... ..... ..... ..... #####",
}
GLYPHS['$'] = ".#### #.#.. .###. ..#.# ####."
GLYPHS['S'] = ".#### #.... .###. ....# ####."


def glyph_rows(ch):
    rows = GLYPHS.get(ch.upper(), GLYPHS[' ']).split()
    return [r[:5].ljust(5, '.') for r in rows]


def text(img, x, y, s, colour, bg=None):
    """The small font onto any image; bg fills the cell first."""
    px = img.load()
    for i, ch in enumerate(s):
        for r, row in enumerate(glyph_rows(ch)):
            for c in range(6):
                on = c < 5 and row[c] == '#'
                if on:
                    px[x + 6 * i + c, y + r] = colour
                elif bg is not None:
                    px[x + 6 * i + c, y + r] = bg


def text_width(s):
    return 6 * len(s) - 1


def bevel(d, x, y, w, h, face, hi, lo, down=False):
    d.rectangle([x, y, x + w - 1, y + h - 1], fill=face)
    a, b = (lo, hi) if down else (hi, lo)
    d.line([x, y, x + w - 1, y], fill=a)
    d.line([x, y, x, y + h - 1], fill=a)
    d.line([x, y + h - 1, x + w - 1, y + h - 1], fill=b)
    d.line([x + w - 1, y, x + w - 1, y + h - 1], fill=b)


def key(img, x, y, w, h, down, label=None, icon=None, accent=INK):
    d = ImageDraw.Draw(img)
    d.rectangle([x, y, x + w - 1, y + h - 1], fill=GROOVE)
    bevel(d, x + 1, y + 1, w - 2, h - 2, KEY_DOWN if down else KEY, KEY_HI, KEY_LO, down)
    off = 1 if down else 0
    colour = accent if not down else tuple(min(255, v + 30) for v in accent)
    if icon:
        icon(d, x + w // 2 + off, y + h // 2 + off, colour)
    if label:
        tx = x + (w - text_width(label)) // 2 + off
        ty = y + (h - 5) // 2 + off
        text(img, tx, ty, label, colour)


# Icons, centred on (cx, cy).
def ic_play(d, cx, cy, c, s=1):
    d.polygon([(cx - 3 * s, cy - 4 * s), (cx - 3 * s, cy + 4 * s), (cx + 4 * s, cy)], fill=c)


def ic_play_big(d, cx, cy, c):
    d.polygon([(cx - 5, cy - 7), (cx - 5, cy + 7), (cx + 7, cy)], fill=c)


def ic_stop(d, cx, cy, c):
    d.rectangle([cx - 4, cy - 4, cx + 3, cy + 3], fill=c)


def ic_pause(d, cx, cy, c):
    d.rectangle([cx - 4, cy - 4, cx - 2, cy + 3], fill=c)
    d.rectangle([cx + 1, cy - 4, cx + 3, cy + 3], fill=c)


def ic_next(d, cx, cy, c):
    d.polygon([(cx - 5, cy - 4), (cx - 5, cy + 4), (cx + 1, cy)], fill=c)
    d.rectangle([cx + 2, cy - 4, cx + 3, cy + 4], fill=c)


def ic_prev(d, cx, cy, c):
    d.rectangle([cx - 4, cy - 4, cx - 3, cy + 4], fill=c)
    d.polygon([(cx + 3, cy - 4), (cx + 3, cy + 4), (cx - 3, cy)], fill=c)


def ic_fwd(d, cx, cy, c):
    d.polygon([(cx - 6, cy - 3), (cx - 6, cy + 3), (cx - 1, cy)], fill=c)
    d.polygon([(cx, cy - 3), (cx, cy + 3), (cx + 5, cy)], fill=c)


def ic_back(d, cx, cy, c):
    d.polygon([(cx + 5, cy - 3), (cx + 5, cy + 3), (cx, cy)], fill=c)
    d.polygon([(cx - 1, cy - 3), (cx - 1, cy + 3), (cx - 6, cy)], fill=c)


def tiny_icon(img, x, y, w, h, kind, down):
    """The shade's 8x7 and 9x7 keys."""
    d = ImageDraw.Draw(img)
    bevel(d, x, y, w, h, KEY_DOWN if down else KEY, KEY_HI, KEY_LO, down)
    c = AMBER if down else INK
    cx, cy = x + w // 2, y + 3
    if kind == 'play':
        d.polygon([(cx - 2, cy - 2), (cx - 2, cy + 2), (cx + 2, cy)], fill=c)
    elif kind == 'stop':
        d.rectangle([cx - 2, cy - 2, cx + 1, cy + 1], fill=c)
    elif kind == 'pause':
        d.line([cx - 2, cy - 2, cx - 2, cy + 2], fill=c)
        d.line([cx + 1, cy - 2, cx + 1, cy + 2], fill=c)
    elif kind == 'back':
        d.line([cx - 2, cy, cx + 2, cy - 2], fill=c)
        d.line([cx - 2, cy, cx + 2, cy + 2], fill=c)
    elif kind == 'fwd':
        d.line([cx + 2, cy, cx - 2, cy - 2], fill=c)
        d.line([cx + 2, cy, cx - 2, cy + 2], fill=c)
    elif kind == 'prev':
        d.line([cx - 2, cy - 2, cx - 2, cy + 2], fill=c)
        d.polygon([(cx + 2, cy - 2), (cx + 2, cy + 2), (cx - 1, cy)], fill=c)
    elif kind == 'next':
        d.line([cx + 2, cy - 2, cx + 2, cy + 2], fill=c)
        d.polygon([(cx - 2, cy - 2), (cx - 2, cy + 2), (cx + 1, cy)], fill=c)
    else:  # a letter
        text(img, x + (w - 5) // 2, y + 1, kind, c)


def lcd(d, x, y, w, h):
    d.rectangle([x - 1, y - 1, x + w, y + h], fill=LCD_EDGE)
    d.rectangle([x, y, x + w - 1, y + h - 1], fill=LCD)


def title_bar(img, x, y, w, h, active):
    d = ImageDraw.Draw(img)
    base = TITLE_ACTIVE if active else TITLE_INACTIVE
    for i in range(h):
        k = 1.0 - 0.35 * i / max(1, h - 1)
        d.line([x, y + i, x + w - 1, y + i], fill=tuple(int(v * k) for v in base))
    label = "TOVRA" if w > 60 else "TOVRA"
    text(img, x + (w - text_width(label)) // 2, y + (h - 5) // 2, label, WHITE if active else INK_DIM)


def main_face():
    img = Image.new('RGB', (288, 123), CASE)
    d = ImageDraw.Draw(img)
    # Case: a bevel all round and a darker title strip.
    bevel(d, 0, 0, 288, 123, CASE, CASE_HI, CASE_LO)
    d.rectangle([1, 1, 286, 22], fill=(44, 47, 54))
    d.line([1, 23, 286, 23], fill=CASE_LO)
    d.line([1, 24, 286, 24], fill=CASE_HI)
    # Title row keys in their up state, so the face is complete on its own.
    sys_key(img, 2, 3, False)
    for x, kind in ((234, 'min'), (251, 'shade'), (268, 'close')):
        cap_key(img, x, 4, kind, False)
    title_bar(img, 53, 5, 161, 14, True)
    # Volume: a recessed well with the bar, and "VOL" below.
    lcd(d, 11, 29, 7, 80)
    text(img, 22, 29, "V", INK_DIM)
    text(img, 22, 35, "O", INK_DIM)
    text(img, 22, 41, "L", INK_DIM)
    # Display window and readouts.
    lcd(d, 30, 27, 75, 28)
    for i, label in enumerate(("LVL", "SPC", "VU")):
        x = 30 + 25 * i
        bevel(d, x, 57, 24, 12, KEY_DOWN, KEY_LO, KEY_HI)
        text(img, x + (24 - text_width(label)) // 2, 60, label, INK_DIM)
    text(img, 30, 72, "REFRESH", INK_DIM)
    lcd(d, 92, 72, 12, 3)
    # A faint grid in the display window, for the visualisers to draw over.
    for gx in range(30, 105, 8):
        for gy in range(28, 55, 2):
            d.point([gx, gy], fill=(18, 34, 22))
    for gy in range(30, 55, 6):
        for gx in range(30, 105, 2):
            d.point([gx, gy], fill=(18, 34, 22))
    # Percent readout and damage lamp (off).
    lcd(d, 34, 88, 21, 7)
    text(img, 58, 89, "%", INK_DIM)
    lcd(d, 36, 79, 38, 8)
    text(img, 39, 80, "DAMAGE", RED_DIM)
    # Title window, seek bar, time, rates.
    lcd(d, 118, 29, 160, 20)
    bevel(d, 119, 48, 90, 8, GROOVE, CASE_LO, CASE_HI)
    lcd(d, 112, 62, 30, 11)
    d.rectangle([127, 68, 128, 68], fill=AMBER_DIM)
    d.rectangle([127, 70, 128, 70], fill=AMBER_DIM)
    lcd(d, 154, 62, 22, 7)
    text(img, 178, 63, "K", INK_DIM)
    lcd(d, 188, 62, 16, 7)
    text(img, 206, 63, "K", INK_DIM)
    # Balance: end keys and the track.
    bevel(d, 11, 108, 9, 10, KEY, KEY_HI, KEY_LO)
    text(img, 13, 110, "<", INK)
    bevel(d, 70, 108, 10, 10, KEY, KEY_HI, KEY_LO)
    text(img, 72, 110, ">", INK)
    balance_track(img, 21, 108, 49)
    d.line([45, 115, 45, 116], fill=INK_DIM)  # the centre
    text(img, 30, 100, "BALANCE", INK_DIM)
    # Keys in the up state.
    for bid, (x, y, w, h) in FULL_KEYS.items():
        draw_full_key(img, x, y, w, h, bid, False)
    repeat_key(img, 102, 86, False, 0)
    return img


def balance_track(img, x, y, w):
    d = ImageDraw.Draw(img)
    d.rectangle([x, y, x + w - 1, y + 5], fill=CASE)
    d.line([x, y + 3, x + w - 1, y + 3], fill=GROOVE)
    d.line([x, y + 2, x + w - 1, y + 2], fill=CASE_LO)



FULL_KEYS = {
    1: (219, 93, 66, 25), 2: (219, 50, 32, 17), 3: (253, 50, 32, 17), 4: (184, 70, 32, 14),
    5: (150, 70, 32, 14), 6: (253, 70, 32, 19), 7: (219, 70, 32, 19), 9: (160, 86, 56, 14),
    10: (102, 102, 56, 14), 11: (160, 102, 56, 14),
}
KEY_ART = {
    1: (None, ic_play_big, GREEN), 2: (None, ic_stop, INK), 3: (None, ic_pause, INK),
    4: (None, ic_fwd, INK), 5: (None, ic_back, INK), 6: (None, ic_next, INK), 7: (None, ic_prev, INK),
    9: ("CONV", None, INK), 10: ("INFO", None, INK), 11: ("LOAD", None, AMBER),
}


def draw_full_key(img, x, y, w, h, bid, down):
    label, icon, accent = KEY_ART[bid]
    key(img, x, y, w, h, down, label, icon, accent)


def repeat_key(img, x, y, down, mode):
    label = ("REPEAT", "REPEAT", "RANDOM")[mode]
    accent = INK if mode == 0 else AMBER
    key(img, x, y, 56, 14, down, label, None, accent)
    if mode:
        ImageDraw.Draw(img).rectangle([x + 4, y + 6, x + 5, y + 7], fill=GREEN)


def sys_key(img, x, y, down):
    d = ImageDraw.Draw(img)
    bevel(d, x, y, 19, 18, KEY_DOWN if down else KEY, KEY_HI, KEY_LO, down)
    o = 1 if down else 0
    # A small "T" badge in amber.
    d.rectangle([x + 4 + o, y + 4 + o, x + 14 + o, y + 13 + o], fill=LCD)
    d.rectangle([x + 6 + o, y + 6 + o, x + 12 + o, y + 7 + o], fill=AMBER)
    d.rectangle([x + 8 + o, y + 8 + o, x + 10 + o, y + 11 + o], fill=AMBER)


def cap_key(img, x, y, kind, down):
    # 17x14 of key over a 3-row shadow slot: the slot's black is shared with the percentage cell
    # that overlaps the minimise key's cell.
    d = ImageDraw.Draw(img)
    d.rectangle([x, y + 14, x + 16, y + 16], fill=LCD)
    bevel(d, x, y, 17, 14, KEY_DOWN if down else KEY, KEY_HI, KEY_LO, down)
    o = 1 if down else 0
    c = AMBER if down else INK
    if kind == 'min':
        d.rectangle([x + 4 + o, y + 9 + o, x + 11 + o, y + 10 + o], fill=c)
    elif kind == 'shade':
        d.rectangle([x + 4 + o, y + 3 + o, x + 11 + o, y + 4 + o], fill=c)
        d.rectangle([x + 4 + o, y + 3 + o, x + 11 + o, y + 10 + o], outline=c)
    else:
        d.line([x + 4 + o, y + 3 + o, x + 11 + o, y + 10 + o], fill=c, width=2)
        d.line([x + 11 + o, y + 3 + o, x + 4 + o, y + 10 + o], fill=c, width=2)


SHADE_KEYS = [  # id, x in the shade, width, up x in sub, down x in sub, kind
    (1, 98, 8, 496, 588, 'play'), (2, 109, 8, 504, 596, 'stop'), (3, 119, 8, 512, 604, 'pause'),
    (5, 130, 8, 520, 612, 'back'), (4, 140, 8, 528, 620, 'fwd'), (7, 150, 8, 536, 628, 'prev'),
    (6, 160, 8, 544, 636, 'next'), (8, 177, 9, 552, 644, 'R'), (10, 188, 9, 561, 653, 'I'),
    (9, 199, 9, 570, 662, 'C'), (11, 210, 9, 579, 671, 'L'),
]


def shade_face():
    img = Image.new('RGB', (288, 24), CASE)
    d = ImageDraw.Draw(img)
    bevel(d, 0, 0, 288, 24, (44, 47, 54), CASE_HI, CASE_LO)
    sys_key(img, 2, 3, False)
    for x, kind in ((234, 'min'), (251, 'shade'), (268, 'close')):
        cap_key(img, x, 4, kind, False)
    title_bar(img, 30, 6, 57, 6, True)
    lcd(d, 24, 14, 68, 5)
    lcd(d, 93, 5, 27, 7)
    d.point([106, 7], fill=AMBER_DIM)
    d.point([106, 9], fill=AMBER_DIM)
    lcd(d, 125, 6, 97, 6)
    for bid, x, w, up, dn, kind in SHADE_KEYS:
        tiny_icon(img, x, 14, w, 7, kind, False)
    return img


def sub_cells(main):
    img = Image.new('RGB', (1840, 28), CASE)
    d = ImageDraw.Draw(img)
    img.paste(shade_face(), (0, 0))
    # VU bars lit and peak, 64x4 each.
    for i in range(64):
        c = GREEN if i < 44 else (AMBER if i < 54 else RED)
        d.line([i, 24, i, 27], fill=c if i % 2 == 0 else tuple(v // 2 for v in c))
        d.line([64 + i, 24, 64 + i, 27], fill=WHITE if i % 2 == 0 else INK_DIM)
    # Refresh lamps: three 12x3 windows over one strip from 128: 60, 30 and 15 frames a second.
    for x in range(128, 152):
        d.line([x, 24, x, 26], fill=LCD)
    for x in range(128, 140):  # three segments: a window from 128 shows 3, 132 two, 136 one
        if (x - 128) % 4 != 3:
            d.line([x, 24, x, 26], fill=GREEN)
    # Title background, damage lamps, empty title.
    d.rectangle([420, 0, 579, 19], fill=LCD)
    d.rectangle([420, 20, 457, 27], fill=LCD)
    text(img, 423, 21, "DAMAGE", RED_DIM)
    d.rectangle([458, 20, 495, 27], fill=LCD)
    text(img, 461, 21, "DAMAGE", RED)
    d.rectangle([580, 0, 739, 19], fill=LCD)
    text(img, 580 + (160 - text_width("NO FILE - DROP ONE HERE")) // 2, 8, "NO FILE - DROP ONE HERE", AMBER_DIM)
    # Shade keys up and down.
    for bid, x, w, up, dn, kind in SHADE_KEYS:
        tiny_icon(img, up, 20, w, 7, kind, False)
        tiny_icon(img, dn, 20, w, 7, kind, True)
    tiny_icon(img, 680, 20, 9, 7, 'R', False)
    ImageDraw.Draw(img).point([682, 21], fill=AMBER)
    tiny_icon(img, 689, 20, 9, 7, 'S', False)
    # Keys of the full face, up and down.
    pairs = {1: ((288, 0), (354, 0)), 2: ((906, 0), (938, 0)), 3: ((970, 0), (1002, 0)),
             4: ((1168, 0), (1168, 14)), 5: ((1136, 0), (1136, 14)), 6: ((804, 0), (836, 0)),
             7: ((740, 0), (772, 0)), 9: ((1312, 0), (1312, 14)), 10: ((1256, 0), (1256, 14)),
             11: ((1368, 0), (1368, 14))}
    for bid, (up, dn) in pairs.items():
        _, _, w, h = FULL_KEYS[bid]
        draw_full_key(img, up[0], up[1], w, h, bid, False)
        draw_full_key(img, dn[0], dn[1], w, h, bid, True)
    repeat_key(img, 1200, 0, False, 0)
    repeat_key(img, 1200, 14, True, 0)
    repeat_key(img, 1424, 0, False, 2)
    repeat_key(img, 1424, 14, True, 2)
    repeat_key(img, 1480, 0, False, 1)
    # Seek bar: the filled strip from 836 to 915 with a bright head at its right end, the empty
    # part from 924 on (its 88 columns are all the bar needs).
    for x in range(836, 924):
        k = (x - 836) / 88
        c = tuple(int(a + (b - a) * k) for a, b in zip(AMBER_DIM, AMBER))
        d.line([x, 22, x, 27], fill=c)
    for x in range(912, 916):
        d.line([x, 22, x, 27], fill=(255, 230, 160))
    for x in range(916, 924):
        d.line([x, 22, x, 27], fill=AMBER)
    for x in range(924, 1012):
        d.line([x, 22, x, 27], fill=GROOVE)
        if (x - 924) % 11 == 0:
            d.point([x, 24], fill=CASE_LO)
    # Title-row keys: system up/down, then minimise, shade, close up and down.
    sys_key(img, 868, 0, False)
    sys_key(img, 887, 0, True)
    for up, dn, kind in ((1034, 1085, 'min'), (1051, 1102, 'shade'), (1068, 1119, 'close')):
        cap_key(img, up, 0, kind, False)
        cap_key(img, dn, 0, kind, True)
    # Percentage "100" and its blank.
    d.rectangle([1012, 14, 1042, 18], fill=LCD)
    text(img, 1010, 14, "1", GREEN)  # the 1's stem lands in column 1012
    text(img, 1015, 14, "00", GREEN)
    # Shade title bars, small empty title.
    title_bar(img, 1012, 22, 57, 6, True)
    title_bar(img, 1069, 22, 57, 6, False)
    d.rectangle([1040, 17, 1135, 21], fill=LCD)
    text(img, 1046, 17, "NO FILE", AMBER_DIM)  # its first columns are the percentage blank's last
    # Balance knob and a plain piece of the track it covers.
    d.rectangle([1126, 22, 1130, 27], fill=KEY_HI)
    d.rectangle([1127, 23, 1129, 26], fill=AMBER)
    balance_track(img, 1131, 22, 5)
    # Big title bars, active and inactive.
    title_bar(img, 1480, 14, 161, 14, True)
    title_bar(img, 1641, 14, 161, 14, False)
    # Display mode lamps, 76x12, modes 1 to 3: the lit key among the three.
    for mode in (1, 2, 3):
        x0 = 1536 + 76 * mode
        if x0 + 76 > 1840:
            continue
        for i, label in enumerate(("LVL", "SPC", "VU")):
            x = x0 + 25 * i
            lit = i == mode - 1
            bevel(d, x, 0, 24, 12, LCD if lit else KEY_DOWN, KEY_LO, KEY_HI)
            text(img, x + (24 - text_width(label)) // 2, 3, label, GREEN if lit else INK_DIM)
    # VU scale and spectrum colours.
    for i in range(64):
        d.line([1738 + i, 12, 1738 + i, 13], fill=INK_DIM if i % 8 == 0 else LCD)
    for i in range(16):
        c = RED if i < 3 else (AMBER if i < 7 else GREEN)
        d.point([1802, 12 + i], fill=c)
    return img


def font_image():
    img = Image.new('RGB', (384, 15), LCD)
    for row, colour in enumerate((INK, AMBER, GREEN)):
        for code in range(32, 96):
            text(img, 6 * (code - 32), 5 * row, chr(code), colour, LCD)
    return img


def volume_image():
    img = Image.new('RGB', (8, 154), LCD)
    d = ImageDraw.Draw(img)
    # Lit from row 77 down: the loud end of the scale is the top of the visible window.
    for y in range(154):
        if y >= 77:
            k = (y - 77) / 76
            c = RED if k < 0.12 else (AMBER if k < 0.3 else GREEN)
            if y % 2 == 0:
                d.line([0, y, 6, y], fill=c)
        elif y % 2 == 0:
            d.line([0, y, 6, y], fill=GREEN_DIM)
    return img


def effect_image():
    img = Image.new('1', (1156, 20), 0)
    px = img.load()
    bayer = [[0, 8, 2, 10], [12, 4, 14, 6], [3, 11, 1, 9], [15, 7, 13, 5]]
    # Wipe 0: a straight edge at 192 softened by a 16-column dither; wipe 1: a diagonal edge.
    for x in range(544):
        for y in range(20):
            edge = 192
            a = (edge - x) / 16.0
            px[x, y] = 1 if a * 16 > bayer[y % 4][x % 4] else 0
            e2 = 192 + (y - 10) * 2
            px[544 + x, y] = 1 if x < e2 else 0
    # The fade at the title's right end: solid on the left, dissolving to nothing.
    for x in range(68):
        for y in range(13):
            px[1088 + x, y] = 1 if (1 - x / 67.0) * 16 > bayer[y % 4][x % 4] else 0
    return img


ICON_SIZES = (16, 22, 24, 32, 48, 64, 128, 256)


def app_icon(size):
    """The program's icon in the skin's colours: a graphite key with an amber play mark above a
    readout of level bars. Drawn four times larger and scaled down, so small sizes stay smooth."""
    n = size * 4
    img = Image.new('RGBA', (n, n), (0, 0, 0, 0))
    d = ImageDraw.Draw(img)
    m = n // 16
    r = n // 6
    d.rounded_rectangle([m, m, n - m - 1, n - m - 1], r, fill=GROOVE + (255,))
    e = m + max(4, n // 48)
    d.rounded_rectangle([e, e, n - e - 1, n - e - 1], r - (e - m), fill=CASE + (255,), outline=CASE_HI + (255,),
                        width=max(2, n // 96))
    # The readout with level bars along the bottom.
    lx0, ly0, lx1, ly1 = n * 0.22, n * 0.64, n * 0.78, n * 0.80
    d.rectangle([lx0, ly0, lx1, ly1], fill=LCD + (255,))
    bars = 6
    w = (lx1 - lx0) / bars
    for i in range(bars):
        h = (ly1 - ly0) * (0.35 + 0.55 * ((i * 7) % 5) / 4)
        d.rectangle([lx0 + i * w + w * 0.2, ly1 - h, lx0 + (i + 1) * w - w * 0.2, ly1 - (ly1 - ly0) * 0.12],
                    fill=GREEN + (255,))
    # The play mark.
    d.polygon([(n * 0.36, n * 0.18), (n * 0.36, n * 0.56), (n * 0.70, n * 0.37)], fill=AMBER + (255,))
    return img.resize((size, size), Image.LANCZOS)


def icons(out):
    import os
    for size in ICON_SIZES:
        folder = f'{out}/icons/hicolor/{size}x{size}/apps'
        os.makedirs(folder, exist_ok=True)
        app_icon(size).save(f'{folder}/tovra.png')


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else '.'
    icons(out)
    main_img = main_face()
    sub = sub_cells(main_img)
    main_img.save(f'{out}/TVRMAIN.png')
    sub.save(f'{out}/TVRSUB.png')
    font_image().save(f'{out}/TVRFONT.png')
    volume_image().save(f'{out}/TVRVOL.png')
    effect_image().save(f'{out}/TVREFF.png')


if __name__ == '__main__':
    main()
