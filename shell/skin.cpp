#include "shell/skin.h"

namespace shell {

// clang-format off
const Button BUTTONS[BUTTON_COUNT] = {
    {},
    {{219, 93, 66, 25}, 288, 0, 354, 0, 98, 8, 496, 588},       // play
    {{219, 50, 32, 17}, 906, 0, 938, 0, 109, 8, 504, 596},      // stop
    {{253, 50, 32, 17}, 970, 0, 1002, 0, 119, 8, 512, 604},     // pause
    {{184, 70, 32, 14}, 1168, 0, 1168, 14, 140, 8, 528, 620},   // skip forward
    {{150, 70, 32, 14}, 1136, 0, 1136, 14, 130, 8, 520, 612},   // skip back
    {{253, 70, 32, 19}, 804, 0, 836, 0, 160, 8, 544, 636},      // next
    {{219, 70, 32, 19}, 740, 0, 772, 0, 150, 8, 536, 628},      // previous
    {{102, 86, 56, 14}, 1200, 0, 1200, 14, 177, 9, 552, 644},   // repeat (cells by Repeat)
    {{160, 86, 56, 14}, 1312, 0, 1312, 14, 199, 9, 570, 662},   // convert menu
    {{102, 102, 56, 14}, 1256, 0, 1256, 14, 188, 9, 561, 653},  // info
    {{160, 102, 56, 14}, 1368, 0, 1368, 14, 210, 9, 579, 671},  // load
    {}, {},                                                     // balance steps: no cells
    {{2, 3, 19, 18}, 868, 0, 887, 0, 0, 0, 0, 0},               // system menu
    {{234, 4, 17, 17}, 1034, 0, 1085, 0, 0, 0, 0, 0},           // minimise
    {{268, 4, 17, 17}, 1068, 0, 1119, 0, 0, 0, 0, 0},           // close
    {{251, 4, 17, 17}, 1051, 0, 1102, 0, 0, 0, 0, 0},           // shade
};
// clang-format on

const int16_t TIME_X_FULL[4] = {115, 121, 130, 136};
const int16_t TIME_X_SHADE[4] = {94, 100, 108, 114};

Cell repeat_cell(int32_t repeat, bool down) {
  if (repeat == 2) return {1424, int16_t(down ? 14 : 0), 56, 14};
  if (repeat == 1 && !down) return {1480, 0, 56, 14};
  return {1200, int16_t(down ? 14 : 0), 56, 14};
}

int32_t repeat_shade_x(int32_t repeat, bool down) {
  if (down) return 644;
  return repeat == 1 ? 680 : repeat == 2 ? 689 : 552;
}

int32_t refresh_lamp_x(int32_t wait) { return wait == 17 ? 128 : wait == 33 ? 132 : 136; }

namespace {

bool in(int32_t v, int32_t lo, int32_t hi) { return v >= lo && v <= hi; }

// The shade's row of small buttons, y 14..20; group_end is the right limit of the group from 176
// (215 for moves and releases, where the RMP cell doesn't exist).
int32_t shade_button(int32_t x, int32_t y, int32_t group_end) {
  if (!in(y, 14, 20)) return 0;
  static const int16_t ranges[][3] = {{97, 106, 1},   {107, 117, 2}, {118, 127, 3}, {128, 138, 5},
                                      {139, 148, 4},  {149, 158, 7}, {159, 166, 6}, {176, 185, 8},
                                      {186, 196, 10}, {197, 207, 9}, {208, 218, 11}};
  for (const auto& r : ranges)
    if (in(x, r[0], r[1] > group_end ? group_end : r[1])) return r[2];
  return 0;
}

// The full face's buttons, in the order of the press test.
int32_t full_button(int32_t x, int32_t y) {
  static const int16_t rects[][5] = {{219, 284, 93, 117, 1},   {219, 250, 50, 66, 2},   {253, 284, 50, 66, 3},
                                     {219, 250, 70, 88, 7},    {253, 284, 70, 88, 6},   {150, 181, 70, 83, 5},
                                     {184, 215, 70, 83, 4},    {102, 157, 86, 99, 8},   {160, 215, 86, 99, 9},
                                     {102, 157, 102, 115, 10}, {160, 215, 102, 115, 11}};
  for (const auto& r : rects)
    if (in(x, r[0], r[1]) && in(y, r[2], r[3])) return r[4];
  return 0;
}

}  // namespace

int32_t title_row_button(int32_t x, int32_t y) {
  if (!in(y, 4, 20)) return 0;
  if (in(x, 234, 250)) return BTN_MINIMISE;
  if (in(x, 251, 267)) return BTN_SHADE;
  if (in(x, 268, 284)) return BTN_CLOSE;
  if (in(x, 2, 18)) return BTN_SYSTEM;
  return 0;
}

Press left_press(int32_t x, int32_t y, bool shade, bool capture, bool rmp_stream) {
  if (shade) {
    if (int32_t id = shade_button(x, y, 218)) return {PRESS_BUTTON, id};
    if (in(y, 14, 20) && in(x, 219, 225) && rmp_stream) return {PRESS_RMP, 0};
  } else {
    if (int32_t id = full_button(x, y)) return {PRESS_BUTTON, id};
    if (in(y, 108, 117)) {
      if (in(x, 20, 69)) return {PRESS_BALANCE, x < 23 ? 23 : x > 67 ? 67 : x};
      if (in(x, 11, 19)) return {PRESS_BALANCE_STEP, BTN_BALANCE_LEFT};
      if (in(x, 70, 79)) return {PRESS_BALANCE_STEP, BTN_BALANCE_RIGHT};
    }
    if (in(x, 9, 17) && in(y, 29, 106)) return {PRESS_VOLUME, y >= 102 ? 153 : y + 51};
    if (in(y, 55, 70)) {
      if (in(x, 29, 53)) return {PRESS_COMMAND, 40028};
      if (in(x, 55, 79)) return {PRESS_COMMAND, 40029};
      if (in(x, 80, 103)) return {PRESS_COMMAND, 40030};
    }
    // The gaps between the keys of the two key blocks move the window.
    if ((in(x, 219, 284) && in(y, 50, 117)) || (in(x, 102, 215) && in(y, 70, 115))) return {PRESS_DRAG, 0};
  }
  int32_t id = title_row_button(x, y);
  if (id == BTN_SYSTEM) return {PRESS_SYSTEM, BTN_SYSTEM};
  if (id) return {PRESS_BUTTON, id};
  if (in(y, 4, 20)) return {PRESS_DRAG, 0};
  return capture ? Press{PRESS_DRAG, 0} : Press{};
}

int32_t button_under(int32_t x, int32_t y, bool shade) {
  int32_t id = shade ? shade_button(x, y, 215) : full_button(x, y);
  if (!id && !shade && in(y, 108, 117) && in(x, 11, 79)) {
    if (x < 21) return BTN_BALANCE_LEFT;
    if (x >= 70) return BTN_BALANCE_RIGHT;
  }
  if (!id) {
    int32_t t = title_row_button(x, y);
    if (t != BTN_SYSTEM) id = t;
  }
  return id;
}

int32_t release_button(int32_t x, int32_t y, bool shade) { return shade ? shade_button(x, y, 215) : full_button(x, y); }

int32_t volume_drag(int32_t y, int32_t volume) {
  if (y < 29) return 80;
  if (y >= 109) return 153;
  int32_t v = y + 51;
  return in(v, 80, 153) ? v : volume;
}

int32_t balance_drag(int32_t x) {
  if (x < 23) return 23;
  if (x >= 67) return 67;
  if (in(x, 42, 48)) return 45;  // the centre detent
  return x;
}

DoubleClick double_click(int32_t x, int32_t y, bool shade, bool snapped_full, bool mpeg2, bool render) {
  DoubleClick d;
  auto add = [&d](int32_t action, int32_t value) {
    d.action[d.count] = action;
    d.value[d.count++] = value;
  };
  if (x >= 256 && in(y, 40, 49)) add(DBL_COMMAND, 40066);
  if (in(x, 113, 281) && in(y, 24, 47)) add(DBL_COMMAND, 40016);
  if (in(x, 120, mpeg2 ? 205 : 207) && in(y, 46, 57)) {
    add(DBL_SEEK, x - 120);
    return d;
  }
  if (y < 24) {
    if (in(x, 2, 18) && in(y, 4, 20)) {
      add(DBL_CLOSE, 0);
    } else if (shade && in(x, 94, 119) && in(y, 6, 10)) {
      add(DBL_REVTIME, 0);
    } else {
      if (!snapped_full) add(DBL_IGNORE_UP, 0);
      if (x < 234) add(DBL_COMMAND, 40031);
    }
    return d;
  }
  if (in(x, 30, 104) && in(y, 27, 67)) {
    add(DBL_COMMAND, 40013);
  } else if (in(x, 113, 143) && in(y, 63, 74)) {
    add(DBL_REVTIME, 0);
  } else if (in(x, 89, 106) && in(y, 70, 76) && render) {
    add(DBL_REFRESH_DOWN, 0);
  }
  return d;
}

int32_t right_press_menu(int32_t x, int32_t y, bool shade) {
  if (shade) {
    if (in(x, 124, 228) && in(y, 6, 12)) return 3;
    if (in(x, 24, 91) && in(y, 14, 18)) return 4;
    return 0;
  }
  if (in(x, 113, 281) && in(y, 24, 47)) return 3;
  if (y < 21 && x < 234) return 0;
  if (in(x, 30, 104) && in(y, 27, 67)) return 4;
  if (in(x, 89, 106) && in(y, 70, 76)) return -1;
  return 1;
}

Snap snap_window(int32_t x, int32_t y, int32_t width, int32_t height, int32_t left, int32_t top, int32_t right,
                 int32_t bottom) {
  Snap s{x, y, false};
  int32_t r = right - width, b = bottom - height;
  if (in(x, left - 24, left + 23)) {
    s.x = left;
  } else if (in(x, r - 24, r + 23)) {
    s.x = r;
  }
  if (in(y, top - 24, top + 23)) {
    s.y = top;
  } else if (in(y, b - 24, b + 23)) {
    s.y = b;
    s.bottom = true;
  }
  return s;
}

}  // namespace shell
