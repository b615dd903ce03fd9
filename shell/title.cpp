#include "shell/title.h"

#include <pango/pangocairo.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "shell/visual.h"

namespace shell {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr int32_t W = 160, H = 20, GAP = 20;
constexpr int32_t WIPE_START = 384, WIPE_STEP = 8;
constexpr uint32_t TEXT_COLOUR = 0xFFB029;  // the face's amber

struct Title {
  Skin* skin = nullptr;
  // The skin's cells, copied once: the background, the fade at the right end, the wipe patterns.
  uint32_t background[H][W] = {};
  uint8_t fade[13][68] = {};
  std::vector<uint8_t> wipes;  // H rows of 1088

  std::mutex lock;             // the strip, and one frame's drawing at a time
  std::vector<uint8_t> strip;  // H rows of strip_width: 1 where the text is
  int32_t strip_width = 0;
  std::string text;

  std::atomic<int32_t> title_x{0}, title_width{0}, scroll_counter{-1}, wipe_pattern{1};
  std::atomic<int32_t> stop{0};
  std::thread thread;
};
Title t;

// The text as a one-bit strip, 20 rows high, drawn with the font of the settings without
// smoothing so that it stays crisp when the face is doubled.
void render_strip(const std::string& text, const library::FontSettings& font) {
  PangoFontDescription* desc = pango_font_description_new();
  pango_font_description_set_family(desc, font.face.empty() ? "Sans" : font.face.c_str());
  const int32_t height = font.height < 0 ? -font.height : font.height;
  pango_font_description_set_absolute_size(desc, double(height > 0 ? height : 10) * PANGO_SCALE);
  if (font.weight > 0) pango_font_description_set_weight(desc, PangoWeight(font.weight));
  if (font.italic) pango_font_description_set_style(desc, PANGO_STYLE_ITALIC);

  cairo_surface_t* probe = cairo_image_surface_create(CAIRO_FORMAT_A8, 1, 1);
  cairo_t* cr = cairo_create(probe);
  PangoLayout* layout = pango_cairo_create_layout(cr);
  cairo_font_options_t* options = cairo_font_options_create();
  cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_NONE);
  cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_FULL);
  pango_cairo_context_set_font_options(pango_layout_get_context(layout), options);
  cairo_font_options_destroy(options);
  pango_layout_set_font_description(layout, desc);
  pango_layout_set_text(layout, text.c_str(), -1);
  int32_t width = 0, height_px = 0;
  pango_layout_get_pixel_size(layout, &width, &height_px);
  if (width < 1) width = 1;

  cairo_surface_t* strip = cairo_image_surface_create(CAIRO_FORMAT_A8, width, H);
  cairo_t* sc = cairo_create(strip);
  pango_cairo_update_context(sc, pango_layout_get_context(layout));
  // Low in the row where the text fits: the fade at the right end covers the lower 13 rows only.
  cairo_move_to(sc, 0, height_px <= 13 ? H - 13 : (H - height_px) / 2);
  pango_cairo_show_layout(sc, layout);
  cairo_surface_flush(strip);
  t.strip.assign(size_t(width) * H, 0);
  const uint8_t* data = cairo_image_surface_get_data(strip);
  const int32_t stride = cairo_image_surface_get_stride(strip);
  for (int32_t y = 0; y < H; ++y)
    for (int32_t x = 0; x < width; ++x) t.strip[size_t(y) * width + x] = data[y * stride + x] >= 128;
  t.strip_width = width;
  t.title_width.store(width, relaxed);

  cairo_destroy(sc);
  cairo_surface_destroy(strip);
  g_object_unref(layout);
  cairo_destroy(cr);
  cairo_surface_destroy(probe);
  pango_font_description_free(desc);
}

void sleep_ms(int32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void title_thread_main() {
  // The wipe runs quickly at 40 ms a step, the scroll at 80 ms; either way one pixel per 80 ms.
  int32_t step = 40, fraction = 0;
  while (!t.stop.load(relaxed)) {
    fraction = (fraction + step) % 256;
    if (fraction >= 80) {
      t.title_x.fetch_sub(1, relaxed);
      fraction = 0;
    }
    if (t.title_x.load(relaxed) + t.title_width.load(relaxed) < 0) t.title_x.store(GAP - 1, relaxed);
    int32_t counter = t.scroll_counter.load(relaxed);
    draw_title_frame(true, counter);
    if (counter >= 0) {
      counter -= WIPE_STEP;
      t.scroll_counter.store(counter, relaxed);
      if (counter >= WIPE_START - WIPE_STEP) {
        step = 40;
        // No thread priorities for an ordinary user here; the wipe simply steps faster.
        t.wipe_pattern.store(std::chrono::steady_clock::now().time_since_epoch().count() / 1000000 & 1, relaxed);
      } else if (counter < 0) {
        step = 80;
      }
    }
    sleep_ms(step);
  }
}

}  // namespace

void install_title(Skin& skin) {
  t.skin = &skin;
  for (int32_t y = 0; y < H; ++y)
    for (int32_t x = 0; x < W; ++x) t.background[y][x] = surface_pixel(skin.sub, 420 + x, y);
  for (int32_t y = 0; y < 13; ++y)
    for (int32_t x = 0; x < 68; ++x) t.fade[y][x] = surface_pixel(skin.effect, 1088 + x, y) != 0;
  t.wipes.assign(size_t(H) * 1088, 0);
  for (int32_t y = 0; y < H; ++y)
    for (int32_t x = 0; x < 1088; ++x) t.wipes[size_t(y) * 1088 + x] = surface_pixel(skin.effect, x, y) != 0;
}

bool set_title_text(const std::string& text, const library::FontSettings& font) {
  std::lock_guard lock(t.lock);
  if (text == t.text && t.strip_width > 0) return false;
  t.text = text;
  render_strip(text, font);
  // A new entry starts at the left and wipes in when the scroller runs.
  t.title_x.store(0, relaxed);
  t.scroll_counter.store(t.thread.joinable() ? WIPE_START : -1, relaxed);
  return true;
}

void draw_title_text() {
  if (t.thread.joinable() && t.scroll_counter.load(relaxed) >= 0) return;
  draw_title_frame(true, -1);
}

void draw_title_frame(bool draw_text, int32_t wipe) {
  if (!t.skin) return;
  uint32_t px[H * W];
  {
    // The strip's lock is let go before the back buffer's: the main thread takes them the other way.
    std::lock_guard lock(t.lock);
    if (t.text.empty()) return;
    uint8_t mask[H][W] = {};
    const int32_t width = t.strip_width;
    if (draw_text && width > 0) {
      for (int32_t x0 = t.title_x.load(relaxed); x0 < W; x0 += width + GAP)
        for (int32_t y = 0; y < H; ++y)
          for (int32_t x = x0 < 0 ? -x0 : 0; x < width && x0 + x < W; ++x)
            mask[y][x0 + x] = t.strip[size_t(y) * width + x];
    }
    for (int32_t y = 0; y < 13; ++y)
      for (int32_t x = 0; x < 68; ++x) mask[7 + y][92 + x] &= t.fade[y][x];
    if (wipe >= 0) {
      const int32_t from = wipe + (t.wipe_pattern.load(relaxed) ? 0 : 544);
      for (int32_t y = 0; y < H; ++y)
        for (int32_t x = 0; x < W; ++x) {
          const int32_t c = from + x;
          mask[y][x] &= c < 1088 ? t.wipes[size_t(y) * 1088 + c] : 0;
        }
    }
    for (int32_t y = 0; y < H; ++y)
      for (int32_t x = 0; x < W; ++x) px[y * W + x] = mask[y][x] ? TEXT_COLOUR : t.background[y][x];
  }
  put_back_pixels(px, W, H, 118, 29);
  if (display_host.invalidate) display_host.invalidate();
}

void start_title_thread() {
  if (t.thread.joinable()) return;
  t.stop.store(0, relaxed);
  t.title_x.store(0, relaxed);
  t.scroll_counter.store(WIPE_START, relaxed);
  t.thread = std::thread(title_thread_main);
}

void stop_title_thread() {
  if (!t.thread.joinable()) return;
  t.stop.store(1, relaxed);
  t.thread.join();
  t.stop.store(0, relaxed);
  t.scroll_counter.store(-1, relaxed);
}

}  // namespace shell
