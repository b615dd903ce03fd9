// The display in the face (oscilloscope, 64-column spectrum, VU bars with the format label) and
// the time digits with the damage lamp and the seek bar. Both are drawn by the wave thread into
// their own rectangles of the back buffer, under the back buffer's lock, and then ask the window to
// repaint through display_host.invalidate; they never call the toolkit. The main thread installs
// them (install_display) and mirrors the settings they read into display_words.
#pragma once

#include <atomic>
#include <cstdint>

#include "shell/skin_draw.h"
#include "shell/visual_core.h"

namespace shell {

// What the wave thread reads of the settings and the stream, mirrored as words it may read at
// any time. The main thread writes the settings; the session thread the stream's, at wave_open.
struct DisplayWords {
  std::atomic<int32_t> graphics{1};  // 1 level, 2 spectrum, 3 VU
  std::atomic<int32_t> rev_time{0};
  std::atomic<int32_t> length{0};  // seconds of the entry playing
  std::atomic<int32_t> mono_stream{0};
  std::atomic<int32_t> hi_fi{0};
};
extern DisplayWords display_words;

struct DisplayHost {
  // Any thread: ask the main thread to repaint the window soon.
  void (*invalidate)() = nullptr;
};
extern DisplayHost display_host;

// Main thread, after the skin is loaded: takes the cells the display copies and sets the wave
// thread's hooks (draw_time, draw_display, clear_display, reset_visualiser).
void install_display(Skin& skin);

// Wave thread: one frame of the display; frame counts from 0 for each block.
void draw_display(int32_t frame);
// Any thread holding no lock: wipes the display (and the shade's bars).
void clear_display();
// The time, the lamp and the seek bar from display_seconds and display_words.
void draw_time_now();

// Pixel (x, y) of an image surface as 0x00RRGGBB; 0 outside it or for other formats.
uint32_t surface_pixel(cairo_surface_t* s, int32_t x, int32_t y);

// Any thread: w x h pixels (0x00RRGGBB, rows of w) to (dx, dy) of the back buffer, under back_lock.
void put_back_pixels(const uint32_t* px, int32_t w, int32_t h, int32_t dx, int32_t dy);

}  // namespace shell
