#include "shell/visual.h"

#include <cstring>
#include <mutex>

#include "output/ring.h"
#include "output/wave.h"
#include "session/session.h"

namespace shell {

DisplayWords display_words;
DisplayHost display_host;

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr uint32_t WHITE = 0xFFFFFF;

// The cells the display copies, taken once from the skin so that the wave thread reads only its own
// memory: the spectrum's bar colours, the VU bars lit and held, and the VU scale.
struct Cells {
  uint32_t spectrum[16] = {};
  uint32_t vu_lit[4][64] = {}, vu_held[4][64] = {};
  uint32_t scale[2][64] = {};
};

// The wave thread's own state: the scope's trace, the peaks. Peaks and holds last across entries.
struct Display {
  Skin* skin = nullptr;
  Cells cells;
  uint8_t scope[16][70] = {};
  BarPeak left, right;
  int32_t spectrum_peaks[64] = {};
  std::atomic<int32_t> scope_cleared{0};  // the trace starts afresh at the next frame
};
Display d;

// Puts w x h pixels (0x00RRGGBB, rows of w) at (dx, dy) of the back buffer, then asks for a repaint.
void put_pixels(const uint32_t* px, int32_t w, int32_t h, int32_t dx, int32_t dy) {
  Skin* skin = d.skin;
  if (!skin || !skin->back) return;
  {
    std::lock_guard lock(back_lock);
    cairo_surface_flush(skin->back);
    uint8_t* data = cairo_image_surface_get_data(skin->back);
    const int32_t stride = cairo_image_surface_get_stride(skin->back);
    for (int32_t y = 0; y < h; ++y) std::memcpy(data + (dy + y) * stride + 4 * dx, px + y * w, 4 * size_t(w));
    cairo_surface_mark_dirty_rectangle(skin->back, dx, dy, w, h);
  }
}

void invalidate() {
  if (display_host.invalidate) display_host.invalidate();
}

// One bar, `rows` high: the lit part, the held part, blank to the end. held_from is the column of
// the held strip that lands at `length` (the left bar's length for both bars: see draw_bars).
void compose_bar(uint32_t* px, int32_t rows, int32_t length, int32_t peak, int32_t shown_held, int32_t held_from) {
  for (int32_t y = 0; y < rows; ++y) {
    uint32_t* row = px + 64 * y;
    int32_t x = 0;
    for (; x < length; ++x) row[x] = d.cells.vu_lit[y][x];
    int32_t end = length;
    if (shown_held < peak) {
      for (int32_t k = 0; length + k < peak; ++k) {
        const int32_t c = held_from + k;
        row[length + k] = c < 64 ? d.cells.vu_held[y][c] : 0;
      }
      end = peak;
    }
    for (x = end < 0 ? 0 : end; x < 64; ++x) row[x] = 0;
  }
}

// The two bars. The right bar of a stereo output decides on and copies its held part by the left
// bar's length, so both bars hold alike.
void draw_bars(const PcmView& pcm, int32_t offset, bool shade) {
  const LevelSums sums = level_sums(pcm, offset);
  const int32_t wait = output::wave.wait_ms.load(relaxed);
  const int32_t left = bar_length(sums.left), right = pcm.stereo ? bar_length(sums.right) : left;
  const int32_t rows = shade ? 2 : 4;
  uint32_t px[4 * 64];
  compose_bar(px, rows, left, d.left.peak, left, left);
  put_pixels(px, 64, rows, shade ? 28 : 36, shade ? 14 : 37);
  hold_peak(d.left, left, wait);
  if (pcm.stereo)
    compose_bar(px, rows, right, d.right.peak, left, left);
  else
    compose_bar(px, rows, right, d.right.peak, right, right);
  put_pixels(px, 64, rows, shade ? 28 : 36, shade ? 17 : 42);
  hold_peak(d.right, right, wait);
  if (!shade) {
    put_pixels(&d.cells.scale[0][0], 64, 2, 36, 47);
    const char* label =
        vu_label(pcm.bits16, display_words.mono_stream.load(relaxed) != 0,
                 !pcm.stereo && !display_words.mono_stream.load(relaxed), display_words.hi_fi.load(relaxed) != 0);
    draw_small_text(*d.skin, 34, 30, 0, label, 10);
  }
}

void draw_scope(const PcmView& pcm, int32_t offset, int32_t khz, int32_t shift) {
  const int32_t size = pcm.bits16 ? 2 : 1, channels = pcm.stereo ? 2 : 1;
  const int32_t step = (khz >> shift) & ~1;
  const int32_t span = ((pcm.bits16 ? 140 : 70) >> shift) * khz;
  if (offset > pcm.bytes - span) offset = pcm.bytes - span;
  if (offset < 0) offset = 0;
  if (d.scope_cleared.exchange(0, relaxed)) std::memset(d.scope, 0, sizeof d.scope);
  for (auto& row : d.scope) {
    std::memmove(row, row + 35, 35);
    std::memset(row + 35, 0, 35);
  }
  // A single-channel output pairs neighbouring samples, as a stereo one pairs left and right.
  const int32_t advance = step * size * channels;
  int32_t at = offset;
  for (int32_t x = 35; x < 70; ++x, at += advance) {
    if (at + 2 * size > pcm.bytes || !output::wave.wave_device.load(relaxed)) break;
    const uint8_t* p = pcm.data + at;
    int32_t y;
    if (pcm.bits16)
      y = ((int16_t(uint16_t(p[0] | p[1] << 8)) + int16_t(uint16_t(p[2] | p[3] << 8))) >> 13) + 8;
    else
      y = ((p[0] + p[1] - 255) >> 5) + 8;
    if (y >= 0 && y < 16) d.scope[y][x] = 1;
  }
  uint32_t px[16 * 70];
  for (int32_t y = 0; y < 16; ++y)
    for (int32_t x = 0; x < 70; ++x) px[70 * y + x] = d.scope[y][x] ? WHITE : 0;
  put_pixels(px, 70, 16, 33, 32);
}

void draw_spectrum(const PcmView& pcm, int32_t offset) {
  int32_t bins[64], levels[64];
  spectrum_bins(pcm, offset, bins);
  spectrum_columns(bins, pcm.bits16, levels);
  uint32_t px[18 * 64] = {};
  for (int32_t c = 0; c < 64; ++c) {
    const int32_t level = levels[c];
    for (int32_t y = level; y < 16; ++y) px[64 * y + c] = d.cells.spectrum[y];
    const int32_t peak = step_peak(d.spectrum_peaks[c], level);
    d.spectrum_peaks[c] = peak;
    px[64 * (peak / 2) + c] = d.cells.spectrum[peak / 2];
  }
  std::memcpy(px + 16 * 64, d.cells.scale, sizeof d.cells.scale);
  put_pixels(px, 64, 18, 36, 31);
}

void hook_reset_visualiser() {
  // The session thread, before the wave thread starts: the stream's words for this track.
  display_words.mono_stream.store(session::stream.mode == 3, relaxed);
  display_words.hi_fi.store(session::stream.emphasis_mode >= 4, relaxed);
  display_words.length.store(session::stream.play_seconds, relaxed);
}

void hook_draw_display(int32_t frame) { draw_display(frame); }

}  // namespace

void install_display(Skin& skin) {
  d.skin = &skin;
  for (int32_t y = 0; y < 16; ++y) d.cells.spectrum[y] = surface_pixel(skin.sub, 1802, 12 + y);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 64; ++x) {
      d.cells.vu_lit[y][x] = surface_pixel(skin.sub, x, 24 + y);
      d.cells.vu_held[y][x] = surface_pixel(skin.sub, 64 + x, 24 + y);
    }
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 64; ++x) d.cells.scale[y][x] = surface_pixel(skin.sub, 1738 + x, 12 + y);
  for (int32_t& p : d.spectrum_peaks) p = 32;
  output::wave_hooks.draw_time = draw_time_now;
  output::wave_hooks.draw_display = hook_draw_display;
  output::wave_hooks.clear_display = clear_display;
  output::wave_hooks.reset_visualiser = hook_reset_visualiser;
}

void draw_display(int32_t frame) {
  using output::wave;
  if (!d.skin || !wave.wave_device.load(relaxed)) return;
  const output::WaveBlock* blocks = wave.blocks.load(relaxed);
  int32_t count = wave.block_count.load(relaxed);
  if (!blocks || count < 1 || count > output::BLOCK_COUNT) return;
  const output::WaveBlock& block = blocks[(wave.output_count.load(relaxed) / 16) % count];
  if (!block.data) return;
  const output::WaveFormat& f = wave.format;
  PcmView pcm{block.data, int32_t(output::BLOCK_BYTES), f.bits == 16, f.channels == 2};
  const int32_t khz = wave.seconds_rate.load(relaxed) / 1000, shift = wave.seconds_shift.load(relaxed);
  const int32_t offset = frame_offset(frame, khz, shift, !pcm.stereo);
  const int32_t style = wave.style.load(relaxed);
  if (style == 1) {
    draw_bars(pcm, offset, true);
  } else {
    switch (display_words.graphics.load(relaxed)) {
      case 1:
        draw_scope(pcm, offset, khz, shift);
        break;
      case 2:
        draw_spectrum(pcm, offset);
        break;
      default:
        draw_bars(pcm, offset, false);
        break;
    }
  }
  invalidate();
}

void clear_display() {
  if (!d.skin) return;
  static const uint32_t black[70 * 24] = {};
  d.scope_cleared.store(1, relaxed);  // the trace belongs to the wave thread
  put_pixels(black, 70, 24, 33, 28);
  if (output::wave.style.load(relaxed) == 1) {
    put_pixels(black, 64, 2, 28, 14);
    put_pixels(black, 64, 2, 28, 17);
  }
  invalidate();
}

void draw_time_now() {
  if (!d.skin) return;
  Face f;
  f.shade = output::wave.style.load(relaxed) != 0;
  f.seconds = output::wave.display_seconds.load(relaxed);
  f.length = display_words.length.load(relaxed);
  f.rev_time = display_words.rev_time.load(relaxed) != 0;
  f.damaged = session::state.damaged_flag.load(relaxed) != 0;
  draw_time(*d.skin, f);
  invalidate();
}

uint32_t surface_pixel(cairo_surface_t* s, int32_t x, int32_t y) {
  if (!s) return 0;
  const cairo_format_t f = cairo_image_surface_get_format(s);
  if (f != CAIRO_FORMAT_RGB24 && f != CAIRO_FORMAT_ARGB32) return 0;
  if (x < 0 || y < 0 || x >= cairo_image_surface_get_width(s) || y >= cairo_image_surface_get_height(s)) return 0;
  cairo_surface_flush(s);
  const uint8_t* row = cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s);
  return reinterpret_cast<const uint32_t*>(row)[x] & 0xFFFFFF;
}

void put_back_pixels(const uint32_t* px, int32_t w, int32_t h, int32_t dx, int32_t dy) { put_pixels(px, w, h, dx, dy); }

}  // namespace shell
