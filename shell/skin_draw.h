// The skin's drawing: the five bitmaps as cairo image surfaces (PNGs in the program's GResource),
// and the 288x123 back buffer that every cell is copied into unscaled. The window paints the back
// buffer, doubled with nearest-neighbour filtering when "Double" is on.
//
// Threads: the main thread draws the face; the wave and title threads draw their own rectangles
// (shell/visual.h, shell/title.h). Every write to the back buffer, and the window's paint of it,
// holds back_lock.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "shell/skin.h"

namespace shell {

struct Skin {
  cairo_surface_t* main = nullptr;    // TVRMAIN, 288x123
  cairo_surface_t* sub = nullptr;     // TVRSUB, 1840x28
  cairo_surface_t* font = nullptr;    // TVRFONT, 384x15
  cairo_surface_t* volume = nullptr;  // TVRVOL, 8x154
  cairo_surface_t* effect = nullptr;  // TVREFF, 1156x20
  cairo_surface_t* back = nullptr;    // the face as shown, 288x123
};

// Loads the bitmaps from the resource bundle and makes the back buffer. 1, or 0 when a bitmap is
// missing (its cells then stay blank).
int32_t load_skin(Skin& skin);
void free_skin(Skin& skin);

// What the face shows, as the window reads it from the settings and the session.
struct Face {
  bool shade = false;
  bool active = true;
  int32_t repeat = 0;
  int32_t volume = 80;
  int32_t pan = 45;
  int32_t render = 1;
  int32_t graphics = 1;
  int32_t wait = 33;
  int32_t pressed = 0;
  // Time and title.
  uint32_t seconds = 0;
  int32_t length = 0;
  bool rev_time = false;
  bool damaged = false;
  bool has_entry = false;
  int32_t bitrate_kbps = 0;
  int32_t sample_rate_khz = 0;
  std::string title;  // UTF-8
};

extern std::recursive_mutex back_lock;

// Copies cell c of src to (dx, dy) of the back buffer.
void blit(Skin& skin, cairo_surface_t* src, Cell c, int32_t dx, int32_t dy);

// The whole face.
void repaint(Skin& skin, const Face& face);
// One button up or down in the current mode.
void draw_button(Skin& skin, const Face& face, int32_t id, bool down);
void draw_title_bar(Skin& skin, const Face& face);
void draw_volume(Skin& skin, int32_t volume);
void draw_balance(Skin& skin, int32_t old_pan, int32_t pan);
// Time digits, damage lamp, seek bar.
void draw_time(Skin& skin, const Face& face);
// Title text and the rate digits.
void draw_title(Skin& skin, const Face& face);
// The small font: at most cells characters, blanks after.
void draw_small_text(Skin& skin, int32_t x, int32_t y, int32_t row, const char* text, int32_t cells);

}  // namespace shell
