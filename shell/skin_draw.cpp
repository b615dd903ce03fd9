#include "shell/skin_draw.h"

#include <gio/gio.h>

#include <cstring>

#include "library/settings.h"
#include "shell/title.h"

// The bundle made by glib-compile-resources (compiled as C++); asking for it also keeps it in the
// link.
GResource* tovra_get_resource(void);

namespace shell {

std::recursive_mutex back_lock;

namespace {

struct PngReader {
  const uint8_t* data;
  size_t size, at;
};

cairo_status_t read_png(void* closure, unsigned char* out, unsigned int length) {
  auto* r = static_cast<PngReader*>(closure);
  if (r->at + length > r->size) return CAIRO_STATUS_READ_ERROR;
  std::memcpy(out, r->data + r->at, length);
  r->at += length;
  return CAIRO_STATUS_SUCCESS;
}

cairo_surface_t* load_png(const char* name) {
  std::string path = std::string("/org/tovra/skin/") + name + ".png";
  GBytes* bytes = g_resources_lookup_data(path.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
  if (!bytes) return nullptr;
  gsize size = 0;
  PngReader r{static_cast<const uint8_t*>(g_bytes_get_data(bytes, &size)), size, 0};
  cairo_surface_t* png = cairo_image_surface_create_from_png_stream(read_png, &r);
  g_bytes_unref(bytes);
  if (cairo_surface_status(png) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(png);
    return nullptr;
  }
  return png;
}

// Column of a character in the small font: codes 32-95, small letters as capitals, the rest blank.
int32_t glyph_column(int32_t code) {
  if (code < 32) return -1;
  return code < 96 ? 6 * (code - 32) : 6 * (code - 64) < 384 ? 6 * (code - 64) : -1;
}

void blank_cell(Skin& skin, int32_t x, int32_t y, int32_t w, int32_t h) {
  std::lock_guard lock(back_lock);
  cairo_t* cr = cairo_create(skin.back);
  cairo_set_source_rgb(cr, 0, 0, 0);
  cairo_rectangle(cr, x, y, w, h);
  cairo_fill(cr);
  cairo_destroy(cr);
}

void draw_digit(Skin& skin, int32_t x, int32_t y, int32_t row, int32_t digit) {
  blit(skin, skin.font, {int16_t(6 * digit + 96), int16_t(5 * row), 6, 5}, x, y);
}

}  // namespace

int32_t load_skin(Skin& skin) {
  if (!tovra_get_resource()) return 0;
  skin.main = load_png("TVRMAIN");
  skin.sub = load_png("TVRSUB");
  skin.font = load_png("TVRFONT");
  skin.volume = load_png("TVRVOL");
  skin.effect = load_png("TVREFF");
  skin.back = cairo_image_surface_create(CAIRO_FORMAT_RGB24, FACE_W, FACE_H);
  return skin.main && skin.sub && skin.font && skin.volume && skin.effect;
}

void free_skin(Skin& skin) {
  for (cairo_surface_t* s : {skin.main, skin.sub, skin.font, skin.volume, skin.effect, skin.back})
    if (s) cairo_surface_destroy(s);
  skin = Skin{};
}

void blit(Skin& skin, cairo_surface_t* src, Cell c, int32_t dx, int32_t dy) {
  if (!src || !skin.back) return;
  std::lock_guard lock(back_lock);
  cairo_t* cr = cairo_create(skin.back);
  cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
  cairo_set_source_surface(cr, src, dx - c.x, dy - c.y);
  cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
  cairo_rectangle(cr, dx, dy, c.w, c.h);
  cairo_fill(cr);
  cairo_destroy(cr);
}

void draw_small_text(Skin& skin, int32_t x, int32_t y, int32_t row, const char* text, int32_t cells) {
  std::lock_guard lock(back_lock);
  bool ended = false;
  for (int32_t i = 0; i < cells; ++i) {
    int32_t code = ended ? 0 : static_cast<signed char>(text[i]);
    if (code == 0) ended = true;
    int32_t column = glyph_column(code);
    if (column < 0)
      blank_cell(skin, x + 6 * i, y, 6, 5);
    else
      blit(skin, skin.font, {int16_t(column), int16_t(5 * row), 6, 5}, x + 6 * i, y);
  }
}

void draw_button(Skin& skin, const Face& face, int32_t id, bool down) {
  if (id <= 0 || id >= BUTTON_COUNT || id == BTN_BALANCE_LEFT || id == BTN_BALANCE_RIGHT) return;
  const Button& b = BUTTONS[id];
  if (face.shade && id < BTN_SYSTEM) {
    int32_t x = down ? b.shade_down_x : b.shade_up_x;
    if (id == BTN_REPEAT) x = repeat_shade_x(face.repeat, down);
    blit(skin, skin.sub, {int16_t(x), 20, b.shade_w, 7}, b.shade_x, 14);
    return;
  }
  if (id == BTN_REPEAT) {
    blit(skin, skin.sub, repeat_cell(face.repeat, down), b.full.x, b.full.y);
    return;
  }
  Cell c{down ? b.down_x : b.up_x, down ? b.down_y : b.up_y, b.full.w, b.full.h};
  // The title-row keys are 17 wide by 17 high in the table but stand at y 3 or 4 in both modes.
  blit(skin, skin.sub, c, b.full.x, b.full.y);
}

void draw_title_bar(Skin& skin, const Face& face) {
  if (face.shade)
    blit(skin, skin.sub, face.active ? cell::SHADE_TITLE_ACTIVE : cell::SHADE_TITLE_INACTIVE, place::SHADE_TITLE_X,
         place::SHADE_TITLE_Y);
  else
    blit(skin, skin.sub, face.active ? cell::TITLE_BAR_ACTIVE : cell::TITLE_BAR_INACTIVE, place::TITLE_BAR_X,
         place::TITLE_BAR_Y);
}

void draw_volume(Skin& skin, int32_t volume) {
  blit(skin, skin.volume, {0, int16_t(154 - volume), place::VOLUME_W, place::VOLUME_H}, place::VOLUME_X,
       place::VOLUME_Y);
  if (volume == 80) {
    blit(skin, skin.sub, cell::PERCENT_100, place::PERCENT_X, place::PERCENT_Y);
    return;
  }
  blit(skin, skin.sub, cell::PERCENT_BLANK, place::PERCENT_X, place::PERCENT_Y);
  int32_t p = volume_percent(volume);
  blit(skin, skin.font, {0, 0, 5, 2}, place::PERCENT_X, place::PERCENT_Y);
  if (p / 10) draw_digit(skin, place::PERCENT_X + 2, place::PERCENT_Y, 1, p / 10);
  draw_digit(skin, place::PERCENT_X + 8, place::PERCENT_Y, 1, p % 10);
}

void draw_balance(Skin& skin, int32_t old_pan, int32_t pan) {
  blit(skin, skin.sub, cell::BALANCE_TRACK, old_pan - 2, place::BALANCE_Y);
  blit(skin, skin.sub, cell::BALANCE_KNOB, pan - 2, place::BALANCE_Y);
}

void draw_time(Skin& skin, const Face& face) {
  std::lock_guard lock(back_lock);
  int32_t t = int32_t(face.seconds), length = face.length;
  int32_t v = face.rev_time ? length - t : t;
  int32_t row = face.rev_time ? 2 : 1;
  int32_t digits[4] = {v / 600, v / 60 % 10, v % 60 / 10, v % 60 % 10};
  const int16_t* xs = face.shade ? TIME_X_SHADE : TIME_X_FULL;
  int32_t y = face.shade ? 6 : 67;
  for (int32_t i = 0; i < 4; ++i) {
    if (v < 0)
      blit(skin, skin.font, {0, int16_t(5 * row), 6, 5}, xs[i], y);
    else
      draw_digit(skin, xs[i], y, row, digits[i] % 10);
  }
  if (face.shade) return;
  if (face.damaged) {
    int32_t units_column = 6 * (v < 0 ? 0 : digits[3]) + 96;
    blit(skin, skin.sub, (units_column & 2) ? cell::DAMAGE_ON : cell::DAMAGE_OFF, place::DAMAGE_X, place::DAMAGE_Y);
  }
  int32_t p = length > 0 ? t * 88 / length : 0;
  if (p < 80) {
    if (p > 0) blit(skin, skin.sub, {int16_t(916 - p), cell::SEEK_Y, int16_t(p), 6}, place::SEEK_X, place::SEEK_Y);
  } else {
    if (p > 88) p = 88;
    blit(skin, skin.sub, {cell::SEEK_FILLED_X, cell::SEEK_Y, int16_t(p), 6}, place::SEEK_X, place::SEEK_Y);
  }
  if (p < 88)
    blit(skin, skin.sub, {int16_t(p + cell::SEEK_EMPTY_X), cell::SEEK_Y, int16_t(88 - p), 6}, place::SEEK_X + p,
         place::SEEK_Y);
}

void draw_title(Skin& skin, const Face& face) {
  if (face.shade) {
    if (!face.has_entry) {
      blit(skin, skin.sub, cell::SMALL_TITLE_EMPTY, place::SMALL_TITLE_X, place::SMALL_TITLE_Y);
      return;
    }
    draw_small_text(skin, place::SMALL_TITLE_X, place::SMALL_TITLE_Y, 0, face.title.c_str(), 16);
    return;
  }
  if (!face.has_entry) {
    blit(skin, skin.sub, cell::TITLE_EMPTY, place::TITLE_X, place::TITLE_Y);
  } else {
    // The text in the font of the settings; the scroller draws it itself while it wipes in.
    set_title_text(face.title, library::settings.font);
    draw_title_text();
  }
  blank_cell(skin, place::BITRATE_X, place::BITRATE_Y, 18, 5);
  blank_cell(skin, place::RATE_X, place::RATE_Y, 12, 5);
  if (face.bitrate_kbps > 0) {
    int32_t b = face.bitrate_kbps;
    if (b / 100) draw_digit(skin, place::BITRATE_X, place::BITRATE_Y, 1, b / 100 % 10);
    draw_digit(skin, place::BITRATE_X + 6, place::BITRATE_Y, 1, b / 10 % 10);
    draw_digit(skin, place::BITRATE_X + 12, place::BITRATE_Y, 1, b % 10);
  }
  if (face.sample_rate_khz > 0) {
    draw_digit(skin, place::RATE_X, place::RATE_Y, 1, face.sample_rate_khz / 10 % 10);
    draw_digit(skin, place::RATE_X + 6, place::RATE_Y, 1, face.sample_rate_khz % 10);
  }
}

void repaint(Skin& skin, const Face& face) {
  std::lock_guard lock(back_lock);
  if (face.shade) {
    blit(skin, skin.sub, cell::SHADE_FACE, 0, 0);
    draw_title_bar(skin, face);
    if (face.repeat == 1 || face.repeat == 2)
      blit(skin, skin.sub, {int16_t(face.repeat == 1 ? 680 : 689), 20, 9, 7}, 177, 14);
  } else {
    blit(skin, skin.main, {0, 0, FACE_W, FACE_H}, 0, 0);
    blit(skin, skin.sub, cell::BALANCE_KNOB, face.pan - 2, place::BALANCE_Y);
    draw_title_bar(skin, face);
    if (face.repeat == 1) blit(skin, skin.sub, {1480, 0, 56, 14}, 102, 86);
    if (face.repeat == 2) blit(skin, skin.sub, {1424, 0, 56, 14}, 102, 86);
    if (face.render) {
      blit(skin, skin.sub, {int16_t(cell::MODE_LAMP_X + cell::MODE_LAMP_W * face.graphics), 0, 76, 12},
           place::MODE_LAMP_X, place::MODE_LAMP_Y);
      blit(skin, skin.sub, {int16_t(refresh_lamp_x(face.wait)), cell::REFRESH_LAMP_Y, 12, 3}, place::REFRESH_X,
           place::REFRESH_Y);
    }
    draw_volume(skin, face.volume);
  }
  draw_time(skin, face);
  draw_title(skin, face);
  if (face.pressed) draw_button(skin, face, face.pressed, true);
}

}  // namespace shell
