// The skin's geometry: where every cell of the five bitmaps lies, where each button sits on the
// face, and what a mouse press, move, release, double click or right click at a point means. All of
// it is toolkit-free tables and pure functions in the 288-wide base space (the window halves its
// pointer first when "Double" is on); the drawing lives in skin_draw.*, the acting in window.cpp.
#pragma once

#include <cstdint>

namespace shell {

constexpr int32_t FACE_W = 288, FACE_H = 123, SHADE_H = 24;

struct Cell {
  int16_t x, y, w, h;
};

enum ButtonId : int32_t {
  BTN_NONE = 0,
  BTN_PLAY = 1,
  BTN_STOP = 2,
  BTN_PAUSE = 3,
  BTN_SKIP_FORWARD = 4,
  BTN_SKIP_BACK = 5,
  BTN_NEXT = 6,
  BTN_PREVIOUS = 7,
  BTN_REPEAT = 8,
  BTN_CONVERT = 9,
  BTN_INFO = 10,
  BTN_LOAD = 11,
  BTN_BALANCE_LEFT = 12,
  BTN_BALANCE_RIGHT = 13,
  BTN_SYSTEM = 14,
  BTN_MINIMISE = 15,
  BTN_CLOSE = 16,
  BTN_SHADE = 17,
  BUTTON_COUNT = 18
};

// One button: its place on the full face with the up and down cells in TVRSUB, and the same for
// the shade (cells at y 20, 7 high). Buttons 14-17 use the full cells in both modes.
struct Button {
  Cell full;
  int16_t up_x, up_y, down_x, down_y;
  int16_t shade_x, shade_w, shade_up_x, shade_down_x;
};
extern const Button BUTTONS[BUTTON_COUNT];

// The repeat button's full cells for Repeat 0, 1, 2 (up, down) and the shade's up cell.
Cell repeat_cell(int32_t repeat, bool down);
int32_t repeat_shade_x(int32_t repeat, bool down);

// Fixed cells of TVRSUB and places on the face.
namespace cell {
constexpr Cell SHADE_FACE{0, 0, 288, 24};
constexpr Cell TITLE_BAR_ACTIVE{1480, 14, 161, 14}, TITLE_BAR_INACTIVE{1641, 14, 161, 14};
constexpr Cell SHADE_TITLE_ACTIVE{1012, 22, 57, 6}, SHADE_TITLE_INACTIVE{1069, 22, 57, 6};
constexpr Cell TITLE_BACKGROUND{420, 0, 160, 20}, TITLE_EMPTY{580, 0, 160, 20};
constexpr Cell SMALL_TITLE_EMPTY{1040, 17, 96, 5};
constexpr Cell DAMAGE_OFF{420, 20, 38, 8}, DAMAGE_ON{458, 20, 38, 8};
constexpr Cell PERCENT_100{1012, 14, 17, 5}, PERCENT_BLANK{1026, 14, 17, 5};
constexpr Cell BALANCE_KNOB{1126, 22, 5, 6}, BALANCE_TRACK{1131, 22, 5, 6};
constexpr int16_t SEEK_FILLED_X = 836, SEEK_EMPTY_X = 924, SEEK_Y = 22;
constexpr int16_t MODE_LAMP_X = 1536, MODE_LAMP_W = 76;
constexpr int16_t REFRESH_LAMP_Y = 24;
}  // namespace cell
namespace place {
constexpr int16_t TITLE_BAR_X = 53, TITLE_BAR_Y = 5, SHADE_TITLE_X = 30, SHADE_TITLE_Y = 6;
constexpr int16_t TITLE_X = 118, TITLE_Y = 29, SMALL_TITLE_X = 126, SMALL_TITLE_Y = 7;
constexpr int16_t VOLUME_X = 11, VOLUME_Y = 29, VOLUME_W = 7, VOLUME_H = 80;
constexpr int16_t PERCENT_X = 36, PERCENT_Y = 89;
constexpr int16_t BALANCE_Y = 108;
constexpr int16_t SEEK_X = 120, SEEK_Y = 49;
constexpr int16_t DAMAGE_X = 36, DAMAGE_Y = 79;
constexpr int16_t MODE_LAMP_X = 30, MODE_LAMP_Y = 57, REFRESH_X = 92, REFRESH_Y = 72;
constexpr int16_t BITRATE_X = 156, BITRATE_Y = 63, RATE_X = 190, RATE_Y = 63;
}  // namespace place

// The time's four digit cells: full face at y 67, shade at y 6.
extern const int16_t TIME_X_FULL[4], TIME_X_SHADE[4];

// The refresh lamp's window for a "Wait".
int32_t refresh_lamp_x(int32_t wait);

// What a left press means.
enum PressKind : int32_t {
  PRESS_NOTHING = 0,
  PRESS_BUTTON,        // value: button id
  PRESS_BALANCE,       // value: the new Pan; a balance drag starts
  PRESS_BALANCE_STEP,  // value: button 12 or 13
  PRESS_VOLUME,        // value: the new Volume; a volume drag starts
  PRESS_COMMAND,       // value: command to post
  PRESS_SYSTEM,        // button 14 with the menu timer
  PRESS_RMP,           // the RMP tag box (the caller decides whether the stream has one)
  PRESS_DRAG,          // a window drag starts
};
struct Press {
  int32_t kind = PRESS_NOTHING;
  int32_t value = 0;
};
// x, y in base space; shade is Style non-zero; capture is the "Capture" setting.
Press left_press(int32_t x, int32_t y, bool shade, bool capture, bool rmp_stream);

// The button a pointer over (x, y) shows down while a press is held: 0 outside every button.
int32_t button_under(int32_t x, int32_t y, bool shade);
// The button a release at (x, y) acts on, 0 when none (the title row is asked separately).
int32_t release_button(int32_t x, int32_t y, bool shade);
// The title row of a release: 15, 17, 16, 14, or 0.
int32_t title_row_button(int32_t x, int32_t y);

// The sliders' drag rules: the new value, or the old one when the pointer says nothing new.
int32_t volume_drag(int32_t y, int32_t volume);
int32_t balance_drag(int32_t x);
// Percentage of a Volume (100 at 80, 0 at 153).
inline int32_t volume_percent(int32_t volume) { return (153 - volume) * 100 / 73; }

// A double click: the actions in order (up to three), each a command number or one of these.
enum DoubleAction : int32_t {
  DBL_SEEK = 1,       // value: seek bar pixel
  DBL_CLOSE = 2,      // kill the menu timer, post 40001
  DBL_REVTIME = 3,    // flip RevTime
  DBL_IGNORE_UP = 4,  // set ignore_button_up
  DBL_COMMAND = 5,    // value: command to post
  DBL_REFRESH_DOWN = 6,
};
struct DoubleClick {
  int32_t count = 0;
  int32_t action[3] = {};
  int32_t value[3] = {};
};
DoubleClick double_click(int32_t x, int32_t y, bool shade, bool snapped_full, bool mpeg2, bool render);

// A right press: a menu kind 0-4, or -1 for the refresh step up (handled by the caller).
int32_t right_press_menu(int32_t x, int32_t y, bool shade);

// Snapping a dragged window's corner to the work area's edges (24 pixels either side).
struct Snap {
  int32_t x, y;
  bool bottom;
};
Snap snap_window(int32_t x, int32_t y, int32_t width, int32_t height, int32_t left, int32_t top, int32_t right,
                 int32_t bottom);

}  // namespace shell
