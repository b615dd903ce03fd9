// The GTK side of the program: one undecorated window with one drawing area that shows the skin's
// back buffer, the command table, keys, mouse, drag and drop, menus, tray, hot key, and the main
// loop's queue for what other threads post.
#include "shell/window.h"

#include <X11/Xlib.h>
#include <gdk/gdkx.h>
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "decoder/decoder.h"
#include "library/batch.h"
#include "library/instance.h"
#include "library/playlist.h"
#include "library/settings.h"
#include "output/wave.h"
#include "output/wave_device.h"
#include "session/messages.h"
#include "session/platform.h"
#include "session/play.h"
#include "session/session.h"
#include "session/startup.h"
#include "session/transport.h"
#include "shell/batch_window.h"
#include "shell/convert_dialogs.h"
#include "shell/dialogs.h"
#include "shell/mpris.h"
#include "shell/plugins.h"
#include "shell/skin.h"
#include "shell/skin_draw.h"
#include "shell/title.h"
#include "shell/visual.h"
#include "shell/visual_core.h"
#include "tools/wave.h"

namespace shell {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr int32_t MSG_COMMAND = 273;
constexpr int32_t MSG_TRAY = 1040;
constexpr int32_t TRAY_MENU = 1041;

struct Main {
  GtkWidget* window = nullptr;
  GtkWidget* area = nullptr;
  Skin skin;
  GtkBuilder* menus = nullptr;
  GtkStatusIcon* tray = nullptr;
  GThread* main_thread = nullptr;

  int32_t pressed_button = 0;
  bool window_drag = false, volume_drag = false, balance_drag = false, ignore_button_up = false;
  int32_t grab_x = 0, grab_y = 0;  // pointer in the window at the drag's start, real pixels
  int32_t restore_x = 0, restore_y = 0;
  bool snapped_to_bottom = false;
  bool first_paint_done = false;
  bool focused = true;
  bool left_held = false;  // between a left press and its release
  bool scroll_resume = false;
  guint menu_timer = 0;
  bool hot_key_grabbed = false;

  // The instance socket that carries the remote control and the hand-over.
  std::string folder;
  library::InstanceLock lock;
  library::InstanceServer server;

  // The one converter job the window runs at a time (decode, resample, split, encode).
  session::Job converter;
  bool closing_after_batch = false;  // the close waits for a cancelled batch's rows to end
};
Main app;

bool on_main_thread() { return app.main_thread == nullptr || g_thread_self() == app.main_thread; }

library::Settings& cfg() { return library::settings; }
bool shaded() { return cfg().style != 0; }
// The list file named by "PlayList", or the default playlist when it names none.
const std::string& playlist_file() {
  return cfg().playlist_file.empty() ? cfg().default_playlist : cfg().playlist_file;
}
int32_t scale() { return cfg().double_size ? 2 : 1; }
bool session_playing() { return session::state.decoder_command.load(relaxed) == session::CMD_RUN; }

// ---- The queue of posted messages --------------------------------------------------------------

struct Queued {
  int32_t window, msg;
  int64_t wparam, lparam;
  int32_t box_code = 0;  // a box from another thread, with its argument
  std::string box_arg;
  bool* done = nullptr;
};
std::mutex queue_lock;
std::condition_variable queue_done;
std::deque<Queued> queue;
bool drain_pending = false;

void dispatch(int32_t window, int32_t msg, int64_t wparam, int64_t lparam);

gboolean drain_queue(gpointer) {
  for (;;) {
    Queued q;
    {
      std::lock_guard<std::mutex> lock(queue_lock);
      if (queue.empty()) {
        drain_pending = false;
        return G_SOURCE_REMOVE;
      }
      q = std::move(queue.front());
      queue.pop_front();
    }
    if (q.box_code != 0)
      show_box(q.box_code, q.box_arg.c_str(), session::BOX_OK);
    else
      dispatch(q.window, q.msg, q.wparam, q.lparam);
    if (q.done) {
      std::lock_guard<std::mutex> lock(queue_lock);
      *q.done = true;
      queue_done.notify_all();
    }
  }
}

void enqueue(Queued q) {
  std::lock_guard<std::mutex> lock(queue_lock);
  queue.push_back(std::move(q));
  if (!drain_pending) {
    drain_pending = true;
    g_idle_add_full(G_PRIORITY_DEFAULT, drain_queue, nullptr, nullptr);
  }
}

void sink_message(int32_t window, int32_t msg, int64_t wparam, int64_t lparam, bool sent) {
  if (!sent) {
    enqueue({window, msg, wparam, lparam, 0, {}, nullptr});
    return;
  }
  if (on_main_thread()) {
    dispatch(window, msg, wparam, lparam);
    return;
  }
  bool done = false;
  enqueue({window, msg, wparam, lparam, 0, {}, &done});
  std::unique_lock<std::mutex> lock(queue_lock);
  queue_done.wait(lock, [&done] { return done; });
}

// A worker's box is shown by the main loop; the worker goes on (its boxes only inform).
int32_t sink_box(int32_t code, const char* arg, int32_t kind) {
  if (on_main_thread()) return show_box(code, arg, kind);
  enqueue({0, 0, 0, 0, code, arg ? arg : "", nullptr});
  return session::ANSWER_OK;
}

// ---- Drawing -------------------------------------------------------------------------------------

std::atomic<int32_t> redraw_wanted{0};  // bit 0 time, bit 1 title
std::atomic<int32_t> redraw_pending{0};

}  // namespace

std::string to_utf8(const char* bytes) {
  if (g_utf8_validate(bytes, -1, nullptr)) return bytes;
  gchar* text = g_convert(bytes, -1, "UTF-8", "CP932", nullptr, nullptr, nullptr);
  if (!text) text = g_utf8_make_valid(bytes, -1);
  std::string out = text;
  g_free(text);
  return out;
}

namespace {

std::string entry_title() {
  int32_t index = library::playlist.current_entry.load(relaxed);
  if (!library::slot_used(index)) return {};
  return to_utf8(
      title_text(index, library::playlist.entries[index].path, session::published_stream().tag_buffer, cfg().tag_title)
          .c_str());
}

Face face() {
  Face f;
  const session::StreamInfo stream = session::published_stream();
  f.shade = shaded() && cfg().style == 1;
  f.active = app.focused || cfg().double_size;
  f.repeat = session::options.repeat;
  f.volume = cfg().volume;
  f.pan = cfg().pan;
  f.render = cfg().render;
  f.graphics = cfg().graphics;
  f.wait = cfg().wait;
  f.pressed = app.pressed_button;
  bool alive = session::state.decoder_running.load(relaxed) != 0;
  f.seconds = alive ? output::wave.display_seconds.load(relaxed) : 0;
  f.length = stream.play_seconds;
  f.rev_time = cfg().rev_time;
  f.damaged = session::state.damaged_flag.load(relaxed) != 0;
  f.has_entry = library::slot_used(library::playlist.current_entry.load(relaxed));
  f.bitrate_kbps = stream.bitrate_kbps;
  f.sample_rate_khz = stream.sample_rate_khz;
  f.title = entry_title();
  return f;
}

// Only the main thread may call the toolkit; the drawing threads come through post_invalidate.
void require_main_thread() {
  if (!on_main_thread()) {
    std::fputs("tovra: a toolkit call off the main thread\n", stderr);
    std::abort();
  }
}

void invalidate() {
  require_main_thread();
  if (app.area) gtk_widget_queue_draw(app.area);
}

std::atomic<int32_t> invalidate_pending{0};
gboolean invalidate_from_idle(gpointer) {
  invalidate_pending.store(0);
  invalidate();
  return G_SOURCE_REMOVE;
}
// Any thread: a repaint soon, one for many asks.
void post_invalidate() {
  if (invalidate_pending.exchange(1) == 0) g_idle_add(invalidate_from_idle, nullptr);
}

// The words the wave thread reads of the settings.
void mirror_display_settings() {
  if (app.first_paint_done) output::wave.render.store(cfg().render);
  display_words.graphics.store(cfg().graphics);
  display_words.rev_time.store(cfg().rev_time);
}

// The scroller runs while "Scroll" is on and the full face shows.
void update_title_thread() {
  if (cfg().scroll && cfg().style == 0 && app.first_paint_done)
    start_title_thread();
  else
    stop_title_thread();
}

void set_window_title();

void repaint_all() {
  require_main_thread();
  mirror_display_settings();
  set_window_title();
  repaint(app.skin, face());
  app.first_paint_done = true;
  update_title_thread();
  invalidate();
}

// The caption (and the tray's tip): the entry's number and file name, or the program's version.
std::string entry_caption() {
  int32_t index = library::playlist.current_entry.load(relaxed);
  const bool used = library::slot_used(index);
  return to_utf8(caption_text(index, used ? library::playlist.entries[index].path : "", used).c_str());
}

std::string window_caption = "TOVRA version 1.10";

// With "FixedTitle" the caption keeps what it last said; the tray's tip is its first 64 bytes.
void set_window_title() {
  require_main_thread();
  if (!cfg().fixed_title) window_caption = entry_caption();
  gtk_window_set_title(GTK_WINDOW(app.window), window_caption.c_str());
  std::string tip = window_caption.substr(0, 64);
  if (!g_utf8_validate(tip.c_str(), -1, nullptr)) {
    const char* end = nullptr;
    g_utf8_validate(tip.c_str(), -1, &end);
    tip.resize(size_t(end - tip.c_str()));
  }
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS
  if (app.tray) gtk_status_icon_set_tooltip_text(app.tray, tip.c_str());
  G_GNUC_END_IGNORE_DEPRECATIONS
}

gboolean redraw_from_engine(gpointer) {
  redraw_pending.store(0);
  int32_t what = redraw_wanted.exchange(0);
  if (!app.window) return G_SOURCE_REMOVE;
  if (what & 2) set_window_title();
  if (!gtk_widget_get_visible(app.window)) return G_SOURCE_REMOVE;
  mirror_display_settings();
  Face f = face();
  display_words.length.store(f.length);
  if (what & 2) draw_title(app.skin, f);
  if (what & 1) draw_time(app.skin, f);
  invalidate();
  return G_SOURCE_REMOVE;
}

// Engine threads ask for a redraw; the main loop makes it from the published state.
void request_redraw(int32_t what) {
  redraw_wanted.fetch_or(what);
  if (redraw_pending.exchange(1) == 0) g_idle_add(redraw_from_engine, nullptr);
}
void hook_refresh_title(int32_t) { request_redraw(3); }
void hook_title() { request_redraw(3); }
void hook_set_title_display(int32_t) { request_redraw(3); }

// The tip over the title row says what plays. GTK shows the text as it is, so an "&" in a name
// needs no doubling here.
gboolean on_query_tooltip(GtkWidget*, gint x, gint y, gboolean, GtkTooltip* tip, gpointer) {
  int32_t bx = x >> (scale() - 1), by = y >> (scale() - 1);
  if (bx < 2 || bx >= 288 || by < 4 || by >= 17) return FALSE;
  gtk_tooltip_set_text(tip, entry_caption().c_str());
  return TRUE;
}

gboolean on_draw(GtkWidget*, cairo_t* cr, gpointer) {
  if (!app.skin.back) return TRUE;
  std::lock_guard lock(back_lock);
  cairo_surface_flush(app.skin.back);
  if (scale() == 2) cairo_scale(cr, 2, 2);
  cairo_set_source_surface(cr, app.skin.back, 0, 0);
  cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
  cairo_paint(cr);
  return TRUE;
}

// ---- Window geometry -------------------------------------------------------------------------------

library::WorkArea work_area() {
  GdkDisplay* display = gdk_display_get_default();
  GdkMonitor* monitor = gdk_display_get_primary_monitor(display);
  if (!monitor) monitor = gdk_display_get_monitor(display, 0);
  GdkRectangle r{0, 0, 1024, 768};
  if (monitor) gdk_monitor_get_workarea(monitor, &r);
  return {r.x, r.y, r.x + r.width, r.y + r.height};
}

void window_rect(int32_t& x, int32_t& y, int32_t& w, int32_t& h) {
  gtk_window_get_position(GTK_WINDOW(app.window), &x, &y);
  gtk_window_get_size(GTK_WINDOW(app.window), &w, &h);
}

void resize_window(int32_t w, int32_t h) {
  gtk_widget_set_size_request(app.area, w, h);
  gtk_window_resize(GTK_WINDOW(app.window), w, h);
}

// ---- Volume and balance ----------------------------------------------------------------------------

void apply_volume() {
  cfg().volume_level = library::volume_level_of(cfg().volume);
  cfg().pan_level = library::pan_level_of(cfg().pan);
  output::wave.volume_level.store(cfg().volume_level);
  output::wave.pan_level.store(cfg().pan_level);
  output::apply_volume(0);
}

void set_volume(int32_t volume) {
  cfg().volume = volume < 80 ? 80 : volume > 153 ? 153 : volume;
  if (!shaded()) draw_volume(app.skin, cfg().volume);
  apply_volume();
  invalidate();
}

void set_balance(int32_t pan) {
  if (!shaded()) draw_balance(app.skin, cfg().pan, pan);
  cfg().pan = pan;
  apply_volume();
  invalidate();
}

// ---- Buttons -----------------------------------------------------------------------------------

void set_pressed_button(int32_t id) {
  if (id == app.pressed_button || app.ignore_button_up) return;
  Face f = face();
  draw_button(app.skin, f, app.pressed_button, false);
  draw_button(app.skin, f, id, true);
  app.pressed_button = id;
  invalidate();
}

// ---- Menus -----------------------------------------------------------------------------------------

void menu_item_activated(GtkMenuItem* item, gpointer) {
  const char* name = gtk_buildable_get_name(GTK_BUILDABLE(item));
  const char* number = name ? std::strrchr(name, '_') : nullptr;
  if (number) post_command(std::atoi(number + 1), 0);
}

// Check marks and greying by command number, over a menu and its submenus.
struct MenuMarks {
  std::vector<int32_t> checked, greyed;
};
void mark_menu(GtkWidget* menu, const MenuMarks& marks) {
  GList* children = gtk_container_get_children(GTK_CONTAINER(menu));
  for (GList* l = children; l; l = l->next) {
    GtkWidget* item = GTK_WIDGET(l->data);
    const char* name = gtk_buildable_get_name(GTK_BUILDABLE(item));
    const char* number = name ? std::strrchr(name, '_') : nullptr;
    int32_t id = number ? std::atoi(number + 1) : 0;
    if (GTK_IS_CHECK_MENU_ITEM(item)) {
      bool on = false;
      for (int32_t c : marks.checked) on = on || c == id;
      g_signal_handlers_block_matched(item, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, (gpointer)menu_item_activated, nullptr);
      gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(item), on);
      g_signal_handlers_unblock_matched(item, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, (gpointer)menu_item_activated,
                                        nullptr);
    }
    bool grey = false;
    for (int32_t g : marks.greyed) grey = grey || g == id;
    gtk_widget_set_sensitive(item, !grey);
    if (GtkWidget* sub = gtk_menu_item_get_submenu(GTK_MENU_ITEM(item))) mark_menu(sub, marks);
  }
  g_list_free(children);
}

GtkWidget* menu_named(const char* name) {
  GObject* o = app.menus ? gtk_builder_get_object(app.menus, name) : nullptr;
  return o ? GTK_WIDGET(o) : nullptr;
}

MenuMarks common_marks(int32_t kind) {
  MenuMarks m;
  const library::Settings& s = cfg();
  if (id3_dialog_open()) m.checked.push_back(CMD_TAG_DIALOG);
  if (playlist_editor_open()) m.checked.push_back(CMD_PLAYLIST_EDITOR);
  if (kind == 1 || kind == 3) {
    if (s.scroll) m.checked.push_back(40067);
    if (s.tag_title) m.checked.push_back(40042);
  }
  if (kind == 1) {
    int32_t flags[][2] = {
        {s.capture, 40017}, {s.tray, 40025}, {s.snap, 40039}, {s.double_size, 40066}, {s.topmost, 40027}};
    for (auto& f : flags)
      if (f[0]) m.checked.push_back(f[1]);
  }
  if (kind == 4) {
    if (s.render) {
      m.checked.push_back(s.wait == 17 ? 40010 : s.wait == 33 ? 40011 : 40012);
      m.checked.push_back(s.graphics == 1 ? 40028 : s.graphics == 2 ? 40029 : 40030);
    } else {
      m.checked.push_back(40013);
    }
  }
  if ((kind == 1 || kind == 2 || kind == 5) && session_playing()) m.greyed = {40003, 40055};
  if (kind == 5) {  // the tray menu
    if (s.tag_title) m.checked.push_back(40042);
    int32_t repeat = session::options.repeat;
    if (repeat == 1) m.checked.push_back(40026);
    if (repeat == 2) m.checked.push_back(40032);
    if (session::state.paused.load(relaxed))
      m.checked.push_back(40058);
    else if (!session::state.decoder_running.load(relaxed))
      m.checked.push_back(40022);
    else
      m.checked.push_back(40021);
  }
  return m;
}

void show_popup_menu(int32_t kind, int32_t x, int32_t y) {
  static const char* names[] = {"tvrsysmenu", "tvrcommenu", "tvrcnvmenu", "tvrinfomenu", "tvrrendermenu"};
  GtkWidget* menu = menu_named(names[kind]);
  if (!menu) return;
  mark_menu(menu, common_marks(kind));
  GdkRectangle r{x * scale(), y * scale(), 1, 1};
  // A menu opened from the timer has no event of its own to grab the pointer with; it gets a press.
  GdkEvent* trigger = gtk_get_current_event();
  if (!trigger) {
    trigger = gdk_event_new(GDK_BUTTON_PRESS);
    trigger->button.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(app.area)));
    trigger->button.time = GDK_CURRENT_TIME;
    trigger->button.button = 1;
    gdk_event_set_device(trigger, gdk_seat_get_pointer(gdk_display_get_default_seat(gdk_display_get_default())));
  }
  gtk_menu_popup_at_rect(GTK_MENU(menu), gtk_widget_get_window(app.area), &r, GDK_GRAVITY_NORTH_WEST,
                         GDK_GRAVITY_NORTH_WEST, trigger);
  gdk_event_free(trigger);
}

gboolean menu_timer_fired(gpointer) {
  app.menu_timer = 0;
  set_pressed_button(BTN_SYSTEM);
  show_popup_menu(0, 3, 21);  // the button comes up when the menu closes (connect_menus)
  return G_SOURCE_REMOVE;
}

void start_menu_timer(int32_t ms) {
  if (app.menu_timer) g_source_remove(app.menu_timer);
  app.menu_timer = g_timeout_add(guint(ms), menu_timer_fired, nullptr);
}

// ---- Tray and hot key ------------------------------------------------------------------------------

G_GNUC_BEGIN_IGNORE_DEPRECATIONS
void tray_popup(GtkStatusIcon*, guint, guint, gpointer) { dispatch(session::WINDOW_MAIN, MSG_TRAY, 0, TRAY_MENU); }
gboolean tray_press(GtkStatusIcon*, GdkEventButton* e, gpointer) {
  if (e->type == GDK_2BUTTON_PRESS && e->button == 1) post_command(CMD_TRAY_TOGGLE, 2);
  return FALSE;
}

void add_tray_icon() {
  if (app.tray) return;
  app.tray = gtk_status_icon_new_from_icon_name("audio-x-generic");
  gtk_status_icon_set_tooltip_text(app.tray, gtk_window_get_title(GTK_WINDOW(app.window)));
  g_signal_connect(app.tray, "popup-menu", G_CALLBACK(tray_popup), nullptr);
  g_signal_connect(app.tray, "button-press-event", G_CALLBACK(tray_press), nullptr);
}

void delete_tray_icon() {
  if (!app.tray) return;
  g_object_unref(app.tray);
  app.tray = nullptr;
}
G_GNUC_END_IGNORE_DEPRECATIONS

// Ctrl+Shift+Q from anywhere on the display, grabbed on the root window with each lock-key
// combination so that Caps Lock or Num Lock don't defeat it.
constexpr unsigned LOCK_MASKS[] = {0, LockMask, Mod2Mask, LockMask | Mod2Mask};

GdkFilterReturn hot_key_filter(GdkXEvent* xevent, GdkEvent*, gpointer) {
  XEvent* e = static_cast<XEvent*>(xevent);
  if (e->type != KeyPress) return GDK_FILTER_CONTINUE;
  Display* display = e->xkey.display;
  if (e->xkey.keycode == XKeysymToKeycode(display, XK_q) &&
      (e->xkey.state & (ControlMask | ShiftMask)) == (ControlMask | ShiftMask)) {
    if (cfg().style & 4) post_command(CMD_TRAY_TOGGLE, 2);
    return GDK_FILTER_REMOVE;
  }
  return GDK_FILTER_CONTINUE;
}

void register_hot_key() {
  GdkDisplay* display = gdk_display_get_default();
  if (!GDK_IS_X11_DISPLAY(display)) return;
  Display* x = GDK_DISPLAY_XDISPLAY(display);
  Window root = DefaultRootWindow(x);
  KeyCode q = XKeysymToKeycode(x, XK_q);
  gdk_x11_display_error_trap_push(display);
  for (unsigned lock : LOCK_MASKS)
    XGrabKey(x, q, ControlMask | ShiftMask | lock, root, False, GrabModeAsync, GrabModeAsync);
  app.hot_key_grabbed = gdk_x11_display_error_trap_pop(display) == 0;
  gdk_window_add_filter(gdk_get_default_root_window(), hot_key_filter, nullptr);
}

// ---- Commands --------------------------------------------------------------------------------------

void stop_with_box() {
  if (session::stop_play() == 0) show_box(format::ERR_TIMEOUT, nullptr, session::BOX_OK);
}

void to_or_from_tray() {
  if (!(cfg().style & 4)) {
    gtk_window_get_position(GTK_WINDOW(app.window), &app.restore_x, &app.restore_y);
    cfg().style |= 6;
    add_tray_icon();
    gtk_widget_hide(app.window);
  } else {
    delete_tray_icon();
    cfg().style &= ~6;
    gtk_window_move(GTK_WINDOW(app.window), app.restore_x, app.restore_y);
    gtk_widget_show(app.window);
    gtk_window_deiconify(GTK_WINDOW(app.window));
    gtk_window_move(GTK_WINDOW(app.window), app.restore_x, app.restore_y);
    if (app.scroll_resume) post_command(CMD_SCROLL, 1);
  }
}

void toggle_shade() {
  int32_t x, y, w, h;
  window_rect(x, y, w, h);
  library::WorkArea area = work_area();
  bool to_full = cfg().style == 1;
  int32_t new_h = (to_full ? FACE_H : SHADE_H) * scale();
  if (app.snapped_to_bottom) y = area.bottom - new_h;
  if (cfg().double_size) {
    x &= ~1;
    y &= ~1;
  }
  cfg().style = to_full ? 0 : 1;
  gtk_window_move(GTK_WINDOW(app.window), x, y);
  resize_window(FACE_W * scale(), new_h);
  repaint_all();
}

void toggle_double(int32_t tag) {
  int32_t x, y, w, h;
  window_rect(x, y, w, h);
  library::WorkArea area = work_area();
  cfg().double_size = !cfg().double_size;
  if (cfg().double_size) {
    if (app.snapped_to_bottom) y -= FACE_H;
    if (area.right - x == FACE_W) x -= FACE_W;
    if (tag == 1) app.ignore_button_up = true;
    x &= ~1;
    y &= ~1;
    gtk_window_move(GTK_WINDOW(app.window), x, y);
    resize_window(2 * FACE_W, 2 * FACE_H);
  } else {
    if (app.snapped_to_bottom) y += FACE_H;
    if (area.right - x == 2 * FACE_W) {
      x += FACE_W;
      if (tag == 1 && !app.snapped_to_bottom) app.ignore_button_up = true;
    }
    gtk_window_move(GTK_WINDOW(app.window), x, y);
    resize_window(FACE_W, FACE_H);
  }
  invalidate();
}

void set_render(int32_t wait) {
  cfg().render = 1;
  cfg().wait = wait;
  output::wave.render.store(1);
  output::wave.wait_ms.store(wait);
  repaint_all();
}

void display_mode(int32_t graphics) {
  if (cfg().render && cfg().graphics == graphics) {
    cfg().render = 0;
    output::wave.render.store(0);
  } else {
    cfg().render = 1;
    cfg().graphics = graphics;
    output::wave.render.store(1);
  }
  repaint_all();
}

}  // namespace

bool is_list_file(const char* path) {
  library::PathParts parts = library::split_path(path);
  return g_ascii_strcasecmp(parts.ext, ".m3u") == 0 || g_ascii_strncasecmp(parts.ext, ".pl", 3) == 0;
}

// A list file's folder becomes current while it is read, for its relative entries.
void load_list(const char* path) {
  library::PathParts parts = library::split_path(path);
  if (parts.folder_len > 0 && chdir(std::string(path, parts.folder_len).c_str()) != 0) return;
  library::read_playlist(path, 1);
}

void append_paths(const std::vector<std::string>& paths, bool with_dialog) {
  for (const std::string& p : paths) {
    if (library::playlist_length() >= library::PLAYLIST_SLOTS) break;
    if (g_file_test(p.c_str(), G_FILE_TEST_IS_DIR) && with_dialog)
      library::scan_folder_dialog(p.c_str());
    else if (g_file_test(p.c_str(), G_FILE_TEST_IS_DIR))
      library::scan_folder(p.c_str());
    else if (is_list_file(p.c_str()))
      load_list(p.c_str());
    else
      library::append_entry(p.c_str());
  }
}

namespace {

void load_files_command() {
  GtkWidget* dialog =
      gtk_file_chooser_dialog_new("Load MP-X", GTK_WINDOW(app.window), GTK_FILE_CHOOSER_ACTION_OPEN, "_Cancel",
                                  GTK_RESPONSE_CANCEL, "_Open", GTK_RESPONSE_ACCEPT, nullptr);
  gtk_file_chooser_set_select_multiple(GTK_FILE_CHOOSER(dialog), TRUE);
  GtkFileFilter* filter = gtk_file_filter_new();
  gtk_file_filter_set_name(filter, "MPEG audio layer-I, II, III (*.mp1;*.mp2;*.mp3)");
  for (const char* p : {"*.mp1", "*.mp2", "*.mp3", "*.MP1", "*.MP2", "*.MP3", "*.m3u", "*.pl*"})
    gtk_file_filter_add_pattern(filter, p);
  gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(dialog), filter);
  if (gtk_dialog_run(GTK_DIALOG(dialog)) != GTK_RESPONSE_ACCEPT) {
    gtk_widget_destroy(dialog);
    return;
  }
  GSList* files = gtk_file_chooser_get_filenames(GTK_FILE_CHOOSER(dialog));
  gtk_widget_destroy(dialog);
  library::clear_playlist();
  int32_t n = 0;
  for (GSList* l = files; l && n < 200; l = l->next, ++n) {
    const char* path = static_cast<const char*>(l->data);
    if (is_list_file(path))
      load_list(path);
    else
      library::append_entry(path);
  }
  g_slist_free_full(files, g_free);
  library::reset_play_counts(0);
  if (session::stop_play() == 0) {
    show_box(format::ERR_TIMEOUT, nullptr, session::BOX_OK);
    return;
  }
  library::playlist.current_entry.store(0);
  post_command(CMD_PLAY, 3);
}

// Polls every 200 ms for the cancelled batch's window to go, then closes the program.
gboolean close_after_batch(gpointer) {
  if (batch_window_open()) return G_SOURCE_CONTINUE;
  app.closing_after_batch = false;
  post_command(CMD_CLOSE, 0);
  return G_SOURCE_REMOVE;
}

// quiet: the system asked the program to end (SIGTERM, SIGINT, SIGHUP), and nobody is there to answer a
// question; a running job is cancelled and its output removed as a cancel does.
void close_command(bool quiet) {
  if (app.closing_after_batch) return;
  // A batch has no progress dialog of its own: a running one asks as a running job does.
  bool converting = session::window_open(session::WINDOW_PROGRESS) || batch_window_running();
  if (converting && !quiet &&
      show_box(session::TEXT_BUSY_CONVERTING, nullptr, session::BOX_YES_NO) != session::ANSWER_YES)
    return;
  // The batch's rows end (their outputs settled, the forked ones too) before the program does.
  if (!end_batch_window()) {
    app.closing_after_batch = true;
    g_timeout_add(200, close_after_batch, nullptr);
    return;
  }
  if (session::window_open(session::WINDOW_PROGRESS)) {
    app.converter.cancel.store(1);
    session::wait_job(app.converter);
  }
  gtk_widget_destroy(app.window);
}

void command(int32_t id, int32_t tag) {
  library::Settings& s = cfg();
  switch (id) {
    case CMD_CLOSE:
      close_command(tag == 1);
      break;
    case CMD_ABOUT:
      run_about_dialog(GTK_WINDOW(app.window));
      break;
    case CMD_WAVE_SETTINGS:
      run_wave_settings_dialog(GTK_WINDOW(app.window));
      break;
    case CMD_RENDER_60:
      set_render(17);
      break;
    case CMD_RENDER_30:
      set_render(33);
      break;
    case CMD_RENDER_15:
      set_render(67);
      break;
    case CMD_RENDER_TOGGLE:
      s.render = !s.render;
      output::wave.render.store(s.render);
      if (!s.render) g_usleep(67000);  // the visualiser's last frame is drawn by then
      repaint_all();
      if (!s.render) clear_display();
      break;
    case CMD_CAPTURE:
      s.capture = !s.capture;
      break;
    case CMD_TRAY_TOGGLE:
      to_or_from_tray();
      break;
    case CMD_PLAY:
      session::play_command(tag);
      break;
    case CMD_STOP:
      session::stop_command();
      break;
    case CMD_NEXT:
      session::next_command();
      break;
    case CMD_PREVIOUS:
      session::previous_command();
      break;
    case CMD_TRAY_OPTION:
      s.tray = !s.tray;
      break;
    case CMD_REPEAT:
      session::repeat_command(tag != 0);
      repaint_all();
      break;
    case CMD_TOPMOST:
      s.topmost = !s.topmost;
      gtk_window_set_keep_above(GTK_WINDOW(app.window), s.topmost);
      break;
    case CMD_LEVEL:
      display_mode(1);
      break;
    case CMD_SPECTRUM:
      display_mode(2);
      break;
    case CMD_VU:
      display_mode(3);
      break;
    case CMD_SHADE:
      toggle_shade();
      break;
    case CMD_RANDOM:
      session::random_command();
      repaint_all();
      break;
    case CMD_LOAD:
      load_files_command();
      break;
    case CMD_SNAP:
      s.snap = !s.snap;
      break;
    case CMD_TAG_TITLE:
      s.tag_title = !s.tag_title;
      request_redraw(2);
      break;
    case CMD_PAUSE:
      session::pause_command();
      break;
    case CMD_DOUBLE:
      toggle_double(tag);
      break;
    case CMD_SCROLL:
      s.scroll = !s.scroll;
      app.scroll_resume = s.scroll;
      update_title_thread();
      break;
    case CMD_TAG_DIALOG:
      toggle_id3_dialog();
      break;
    case CMD_PLAYLIST_EDITOR:
      toggle_playlist_editor();
      break;
    case 40036:
      open_batch_window(library::BATCH_ENCODE);
      break;
    case 40055:
      open_batch_window(library::BATCH_DECODE);
      break;
    case 40069:
      open_batch_window(library::BATCH_RESAMPLE);
      break;
    case 40003:
      convert_decode_file(app.converter, GTK_WINDOW(app.window), nullptr);
      break;
    case 40004:
      convert_encode_file(app.converter, GTK_WINDOW(app.window), nullptr);
      break;
    case 40005:
      convert_split_file(app.converter, GTK_WINDOW(app.window));
      break;
    case 40015:
      convert_resample_file(app.converter, GTK_WINDOW(app.window));
      break;
    default:
      break;  // the converters' commands belong to their windows
  }
}

// ---- Remote control ------------------------------------------------------------------------------

void foreground() {
  if (cfg().style & 4) to_or_from_tray();
  gtk_window_present(GTK_WINDOW(app.window));
}

int64_t remote_from_socket(void*, const library::RemoteMessage& m) {
  if (m.msg == library::MSG_REMOTE) return remote_control(m.wparam, m.lparam);
  if (m.msg == MSG_COMMAND) post_command(int32_t(m.wparam), int32_t(m.lparam));
  return 0;
}

gboolean socket_ready(GIOChannel*, GIOCondition, gpointer) {
  library::poll_instance_server(app.server, remote_from_socket, nullptr);
  return G_SOURCE_CONTINUE;
}

void dispatch(int32_t window, int32_t msg, int64_t wparam, int64_t lparam) {
  if (window == session::WINDOW_PLAYLIST) playlist_editor_message(msg, wparam, lparam);
  if (window == session::WINDOW_BATCH) batch_window_message(msg, wparam, lparam);
  if (window == session::WINDOW_PROGRESS) progress_message(int32_t(msg), wparam, lparam);
  if (window != session::WINDOW_MAIN || !app.window) return;
  if (msg == MSG_COMMAND) {
    command(int32_t(wparam), int32_t(lparam));
  } else if (msg == library::MSG_REMOTE) {
    remote_control(wparam, lparam);
  } else if (msg == MSG_TRAY) {
    if (lparam == 2) {
      post_command(CMD_CLOSE, 0);
    } else if (lparam == 515) {
      post_command(CMD_TRAY_TOGGLE, 2);
    } else if (lparam == 516) {
      session::post_message(session::WINDOW_MAIN, MSG_TRAY, 0, TRAY_MENU);
    } else if (lparam == TRAY_MENU) {
      GtkWidget* menu = menu_named("tvrmenu");
      if (!menu) return;
      mark_menu(menu, common_marks(5));
      gtk_menu_popup_at_pointer(GTK_MENU(menu), nullptr);
    }
  }
}

// ---- Message boxes ------------------------------------------------------------------------------

}  // namespace

int32_t show_box(int32_t code, const char* arg, int32_t kind) {
  GtkMessageType type = session::message_is_error(code) ? GTK_MESSAGE_ERROR
                        : kind == session::BOX_YES_NO   ? GTK_MESSAGE_WARNING
                                                        : GTK_MESSAGE_INFO;
  const std::string text = session::message_text(code, arg);
  GtkButtonsType buttons = kind == session::BOX_YES_NO      ? GTK_BUTTONS_YES_NO
                           : kind == session::BOX_OK_CANCEL ? GTK_BUTTONS_OK_CANCEL
                                                            : GTK_BUTTONS_OK;
  GtkWidget* box = gtk_message_dialog_new(app.window ? GTK_WINDOW(app.window) : nullptr, GTK_DIALOG_MODAL, type,
                                          buttons, "%s", to_utf8(text.c_str()).c_str());
  gtk_window_set_title(GTK_WINDOW(box), session::message_caption(code));
  gint r = gtk_dialog_run(GTK_DIALOG(box));
  gtk_widget_destroy(box);
  switch (r) {
    case GTK_RESPONSE_YES:
      return session::ANSWER_YES;
    case GTK_RESPONSE_NO:
      return session::ANSWER_NO;
    case GTK_RESPONSE_OK:
      return session::ANSWER_OK;
    default:
      return kind == session::BOX_YES_NO ? session::ANSWER_NO : session::ANSWER_CANCEL;
  }
}

namespace {

// ---- Mouse ---------------------------------------------------------------------------------------

void start_window_drag(int32_t real_x, int32_t real_y) {
  if (app.window_drag) return;
  app.window_drag = true;
  app.grab_x = real_x;
  app.grab_y = real_y;
}

bool rmp_stream() { return session::published_stream().list_info[0][0] != 0; }

void left_down(int32_t rx, int32_t ry) {
  int32_t x = rx >> (scale() - 1), y = ry >> (scale() - 1);
  Press p = left_press(x, y, shaded(), cfg().capture, rmp_stream());
  switch (p.kind) {
    case PRESS_BUTTON:
      set_pressed_button(p.value);
      break;
    case PRESS_SYSTEM:
      set_pressed_button(BTN_SYSTEM);
      start_menu_timer(192);
      break;
    case PRESS_BALANCE:
      set_pressed_button(0);
      set_balance(p.value);
      app.balance_drag = true;
      break;
    case PRESS_BALANCE_STEP:
      set_pressed_button(p.value);
      if (p.value == BTN_BALANCE_LEFT && cfg().pan > 23) set_balance(cfg().pan - 1);
      if (p.value == BTN_BALANCE_RIGHT && cfg().pan < 67) set_balance(cfg().pan + 1);
      break;
    case PRESS_VOLUME:
      set_pressed_button(0);
      set_volume(p.value);
      app.volume_drag = true;
      break;
    case PRESS_COMMAND:
      post_command(p.value, 0);
      break;
    case PRESS_DRAG:
      start_window_drag(rx, ry);
      break;
    default:
      break;
  }
}

void pointer_move(int32_t rx, int32_t ry, int32_t root_x, int32_t root_y, bool shift, bool left_only) {
  if (app.window_drag) {
    int32_t x = root_x - app.grab_x, y = root_y - app.grab_y;
    if (cfg().double_size) {
      x &= ~1;
      y &= ~1;
    }
    app.snapped_to_bottom = false;
    if (cfg().snap && !shift) {
      int32_t wx, wy, w, h;
      window_rect(wx, wy, w, h);
      library::WorkArea a = work_area();
      Snap s = snap_window(x, y, w, h, a.left, a.top, a.right, a.bottom);
      x = s.x;
      y = s.y;
      app.snapped_to_bottom = s.bottom;
    }
    gtk_window_move(GTK_WINDOW(app.window), x, y);
  }
  if (!left_only) return;
  int32_t x = rx >> (scale() - 1), y = ry >> (scale() - 1);
  if (app.volume_drag) {
    int32_t v = volume_drag(y, cfg().volume);
    if (v != cfg().volume) set_volume(v);
  } else if (app.balance_drag) {
    int32_t pan = balance_drag(x);
    if (pan != cfg().pan) set_balance(pan);
  } else if (!app.window_drag && app.pressed_button) {
    set_pressed_button(button_under(x, y, shaded()));
  }
}

void title_row_release(int32_t x, int32_t y) {
  switch (title_row_button(x, y)) {
    case BTN_MINIMISE:
      if (cfg().tray) {
        post_command(CMD_TRAY_TOGGLE, 1);
      } else {
        gtk_window_get_position(GTK_WINDOW(app.window), &app.restore_x, &app.restore_y);
        gtk_window_iconify(GTK_WINDOW(app.window));
      }
      break;
    case BTN_SHADE:
      post_command(CMD_SHADE, 0);
      break;
    case BTN_CLOSE:
      post_command(CMD_CLOSE, 0);
      break;
    default:
      break;
  }
}

void left_up(int32_t rx, int32_t ry) {
  int32_t x = rx >> (scale() - 1), y = ry >> (scale() - 1);
  if (app.ignore_button_up) {
    app.ignore_button_up = false;
    app.window_drag = false;
  } else if (app.window_drag) {
    // The pointer kept its place in the moving window; the release's own coordinates may still
    // be those of the window's old place.
    app.window_drag = false;
    title_row_release(app.grab_x >> (scale() - 1), app.grab_y >> (scale() - 1));
  } else {
    switch (release_button(x, y, shaded())) {
      case BTN_PLAY:
        post_command(CMD_PLAY, 0);
        break;
      case BTN_STOP:
        post_command(CMD_STOP, 0);
        break;
      case BTN_PAUSE:
        session::pause_command();
        break;
      case BTN_SKIP_FORWARD:
        session::seek_forward();
        break;
      case BTN_SKIP_BACK:
        session::seek_back();
        break;
      case BTN_NEXT:
        post_command(CMD_NEXT, 0);
        break;
      case BTN_PREVIOUS:
        post_command(CMD_PREVIOUS, 0);
        break;
      case BTN_REPEAT:
        command(CMD_REPEAT, 1);
        break;
      case BTN_CONVERT:
        show_popup_menu(2, x, y);
        break;
      case BTN_INFO:
        break;  // the tag editor is a window of its own
      case BTN_LOAD:
        post_command(CMD_LOAD, shaded() ? 1 : 2);
        break;
      default:
        title_row_release(x, y);
        break;
    }
  }
  set_pressed_button(0);
  app.volume_drag = app.balance_drag = false;
}

void double_click_at(int32_t rx, int32_t ry) {
  int32_t x = rx >> (scale() - 1), y = ry >> (scale() - 1);
  bool snapped_full = app.snapped_to_bottom && !shaded();
  DoubleClick d = double_click(x, y, shaded(), snapped_full, session::published_stream().mpeg_id == 0, cfg().render);
  for (int32_t i = 0; i < d.count; ++i) {
    switch (d.action[i]) {
      case DBL_SEEK:
        session::seek_percent(d.value[i]);
        break;
      case DBL_CLOSE:
        if (app.menu_timer) g_source_remove(app.menu_timer);
        app.menu_timer = 0;
        post_command(CMD_CLOSE, 0);
        set_pressed_button(0);
        break;
      case DBL_REVTIME:
        cfg().rev_time = !cfg().rev_time;
        mirror_display_settings();
        request_redraw(1);
        break;
      case DBL_IGNORE_UP:
        app.ignore_button_up = true;
        break;
      case DBL_COMMAND:
        post_command(d.value[i], 1);
        break;
      case DBL_REFRESH_DOWN:
        post_command(cfg().wait == 17 ? CMD_RENDER_30 : cfg().wait == 33 ? CMD_RENDER_15 : CMD_RENDER_TOGGLE, 0);
        break;
      default:
        break;
    }
  }
}

gboolean on_button_press(GtkWidget*, GdkEventButton* e, gpointer) {
  int32_t rx = int32_t(e->x), ry = int32_t(e->y);
  if (e->button == 1 && e->type == GDK_BUTTON_PRESS) {
    app.left_held = true;
    left_down(rx, ry);
  }
  if (e->button == 1 && e->type == GDK_2BUTTON_PRESS) double_click_at(rx, ry);
  if (e->button == 3 && e->type == GDK_BUTTON_PRESS) {
    int32_t x = rx >> (scale() - 1), y = ry >> (scale() - 1);
    int32_t kind = right_press_menu(x, y, shaded());
    if (kind >= 0) {
      show_popup_menu(kind, x, y);
    } else if (!cfg().render) {
      post_command(CMD_RENDER_15, 0);
    } else if (cfg().wait != 17) {
      post_command(cfg().wait == 33 ? CMD_RENDER_60 : CMD_RENDER_30, 0);
    }
  }
  return TRUE;
}

gboolean on_button_release(GtkWidget*, GdkEventButton* e, gpointer) {
  if (e->button == 1) {
    app.left_held = false;
    left_up(int32_t(e->x), int32_t(e->y));
  }
  return TRUE;
}

gboolean on_motion(GtkWidget*, GdkEventMotion* e, gpointer) {
  bool left_only = (e->state & (GDK_BUTTON1_MASK | GDK_BUTTON2_MASK | GDK_BUTTON3_MASK)) == GDK_BUTTON1_MASK;
  pointer_move(int32_t(e->x), int32_t(e->y), int32_t(e->x_root), int32_t(e->y_root), e->state & GDK_SHIFT_MASK,
               left_only);
  return TRUE;
}

gboolean on_scroll(GtkWidget*, GdkEventScroll* e, gpointer) {
  if (e->direction == GDK_SCROLL_DOWN) set_volume(cfg().volume + 4);
  if (e->direction == GDK_SCROLL_UP) set_volume(cfg().volume - 4);
  return TRUE;
}

gboolean on_focus(GtkWidget*, GdkEventFocus* e, gpointer) {
  app.focused = e->in;
  // Losing the focus ends a window drag, for its release may then go elsewhere; X also reports a
  // passing focus change at the press itself, so a drag whose button is still down goes on.
  if (!e->in && app.window_drag && !app.left_held) {
    set_pressed_button(0);
    app.volume_drag = app.balance_drag = app.window_drag = false;
  }
  draw_title_bar(app.skin, face());
  invalidate();
  return FALSE;
}

gboolean on_window_state(GtkWidget*, GdkEventWindowState* e, gpointer) {
  if (!(e->changed_mask & GDK_WINDOW_STATE_ICONIFIED)) return FALSE;
  if (e->new_window_state & GDK_WINDOW_STATE_ICONIFIED) {
    if (cfg().tray && !(cfg().style & 4))
      post_command(CMD_TRAY_TOGGLE, 1);
    else
      cfg().style |= 2;
  } else {
    if (cfg().tray && (cfg().style & 4))
      post_command(CMD_TRAY_TOGGLE, 2);
    else
      cfg().style &= 1;
  }
  repaint_all();
  return FALSE;
}

// ---- Keys ----------------------------------------------------------------------------------------

void step_places(int32_t n) {
  stop_with_box();
  int32_t index = library::playlist.current_entry.load();
  for (int32_t i = 0; i < (n < 0 ? -n : n); ++i) {
    if (n < 0) {
      if (--index < 0) index = library::PLAYLIST_SLOTS - 1;
      while (index > 0 && !library::slot_used(index)) --index;
    } else if (++index >= library::PLAYLIST_SLOTS || !library::slot_used(index)) {
      index = 0;
    }
  }
  library::playlist.current_entry.store(index);
  post_command(CMD_PLAY, 3);
}

void balance_key(int32_t step) {
  int32_t pan = cfg().pan + step;
  if (step < 0) {
    if (pan >= 45 && pan <= 48) pan = 45;
    if (pan < 23) pan = 23;
  } else {
    if (pan >= 42 && pan <= 44) pan = 45;
    if (pan > 67) pan = 67;
  }
  set_balance(pan);
}

gboolean on_key(GtkWidget*, GdkEventKey* e, gpointer) {
  switch (gdk_keyval_to_upper(e->keyval)) {
    case GDK_KEY_Return:
    case GDK_KEY_KP_Enter:
    case GDK_KEY_P:
      post_command(CMD_PLAY, 2);
      break;
    case GDK_KEY_space:
      if (session_playing())
        post_command(CMD_STOP, 0);
      else
        post_command(CMD_PLAY, 2);
      break;
    case GDK_KEY_Escape:
      set_pressed_button(BTN_SYSTEM);
      start_menu_timer(50);
      break;
    case GDK_KEY_Page_Up:
      set_volume(cfg().volume - 2);
      break;
    case GDK_KEY_Page_Down:
      set_volume(cfg().volume + 2);
      break;
    case GDK_KEY_O:
      post_command(CMD_LOAD, 1);
      break;
    // The converters' and editors' windows take these numbers.
    case GDK_KEY_D:
      post_command(40055, 0);
      break;
    case GDK_KEY_E:
      post_command(40036, 0);
      break;
    case GDK_KEY_G:
      post_command(40069, 0);
      break;
    case GDK_KEY_L:
      if (playlist_editor_open())
        present_playlist_editor();
      else
        post_command(CMD_PLAYLIST_EDITOR, 0);
      break;
    case GDK_KEY_T:
      post_command(CMD_TAG_DIALOG, 0);
      break;
    case GDK_KEY_R:
      command(CMD_REPEAT, 1);
      set_pressed_button(BTN_REPEAT);
      set_pressed_button(0);
      break;
    case GDK_KEY_KP_1:
    case GDK_KEY_KP_End:
      step_places(-10);
      break;
    case GDK_KEY_KP_3:
    case GDK_KEY_KP_Page_Down:
      step_places(10);
      break;
    case GDK_KEY_KP_4:
    case GDK_KEY_KP_Left:
      step_places(-1);
      break;
    case GDK_KEY_KP_6:
    case GDK_KEY_KP_Right:
      step_places(1);
      break;
    case GDK_KEY_F1:
      post_command(CMD_ABOUT, 0);
      break;
    case GDK_KEY_F4: {
      const std::string& list = playlist_file();
      GtkWidget* dialog =
          gtk_file_chooser_dialog_new("Save PlayList (*.m3u)", GTK_WINDOW(app.window), GTK_FILE_CHOOSER_ACTION_SAVE,
                                      "_Cancel", GTK_RESPONSE_CANCEL, "_Save", GTK_RESPONSE_ACCEPT, nullptr);
      gtk_file_chooser_set_filename(GTK_FILE_CHOOSER(dialog), list.c_str());
      if (gtk_dialog_run(GTK_DIALOG(dialog)) == GTK_RESPONSE_ACCEPT) {
        gchar* name = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(dialog));
        std::string path = name;
        g_free(name);
        if (!g_str_has_suffix(path.c_str(), ".m3u")) path += ".m3u";
        library::write_playlist(path.c_str(), library::WRITE_RELATIVE);
      }
      gtk_widget_destroy(dialog);
      break;
    }
    case GDK_KEY_comma:
      balance_key(-1);
      break;
    case GDK_KEY_period:
      balance_key(1);
      break;
    default:
      break;
  }
  return TRUE;
}

// ---- Drag and drop -------------------------------------------------------------------------------

void on_drop(GtkWidget*, GdkDragContext* context, gint, gint, GtkSelectionData* data, guint, guint time, gpointer) {
  gchar** uris = gtk_selection_data_get_uris(data);
  gtk_drag_finish(context, uris != nullptr, FALSE, time);
  if (!uris) return;
  gtk_window_present(GTK_WINDOW(app.window));
  GdkKeymap* keymap = gdk_keymap_get_for_display(gdk_display_get_default());
  guint mods = gdk_keymap_get_modifier_state(keymap);
  std::vector<std::string> paths;
  for (gchar** u = uris; *u; ++u)
    if (gchar* p = g_filename_from_uri(*u, nullptr, nullptr)) {
      paths.emplace_back(p);
      g_free(p);
    }
  g_strfreev(uris);
  if (paths.empty()) return;
  if ((mods & GDK_MOD1_MASK) && !(mods & GDK_CONTROL_MASK)) {
    // Alt-dropping a file decodes it.
    if (!g_file_test(paths[0].c_str(), G_FILE_TEST_IS_DIR))
      convert_decode_file(app.converter, GTK_WINDOW(app.window), paths[0].c_str());
    return;
  }
  bool append = mods & GDK_CONTROL_MASK;
  if (append && library::playlist_length() >= library::PLAYLIST_SLOTS) return;
  if (!append) library::clear_playlist();
  append_paths(paths, false);
  if (append) {
    session::post_message(session::WINDOW_PLAYLIST, library::MSG_PLAYLIST_REFRESH, 0);
    return;
  }
  if (session::stop_play() == 0) {
    show_box(format::ERR_TIMEOUT, nullptr, session::BOX_OK);
    return;
  }
  library::playlist.current_entry.store(0);
  session::post_message(session::WINDOW_PLAYLIST, library::MSG_PLAYLIST_REFRESH, 1);
  post_command(CMD_PLAY, 2);
}

// ---- Start-up and shut-down ----------------------------------------------------------------------

// Plug-ins beside the program (the build folder, a portable copy), else in the installed tree's
// library folder, found from the program's own place so that any prefix works.
std::string plugin_folder() {
  std::string beside = library::executable_folder() + "/Plugins";
  if (g_file_test(beside.c_str(), G_FILE_TEST_IS_DIR)) return beside;
  return library::executable_folder() + "/../" TOVRA_PLUGIN_SUBDIR;
}

void install_engine_hooks() {
  session::set_sink({sink_message, sink_box});
  session::set_window_open(session::WINDOW_MAIN, true);
  display_host.invalidate = post_invalidate;
  mirror_display_settings();
  output::wave_hooks.refresh_title = hook_refresh_title;
  session::play_hooks.title_new_track = hook_title;
  session::play_hooks.title_next_entry = hook_title;
  session::play_hooks.set_title_display = hook_set_title_display;
#ifdef TOVRA_HAVE_SDL_DEVICE
  output::set_wave_device(output::sdl_wave_device());
#endif
  output::wave.cpu_family.store(session::cpu_family);
  output::wave.wave_out_device.store(cfg().wave_out_device);
  output::wave.volume_level.store(cfg().volume_level);
  output::wave.pan_level.store(cfg().pan_level);
  output::wave.render.store(0);  // no visualiser draws yet
  output::wave.wait_ms.store(cfg().wait);
  output::wave.style.store(cfg().style);
}

void destroy_main_window_state() {
  stop_title_thread();
  if (session::stop_play() == 0) show_box(session::TEXT_TIMEOUT_EXIT, nullptr, session::BOX_OK);
  if (!session::is_not_win9x()) unload_plugins();
  if (cfg().style & 6) {
    cfg().x = app.restore_x;
    cfg().y = app.restore_y;
  } else {
    gtk_window_get_position(GTK_WINDOW(app.window), &cfg().x, &cfg().y);
  }
  if (cfg().style & 4) delete_tray_icon();
  if (app.menu_timer) g_source_remove(app.menu_timer);
  app.menu_timer = 0;
  if (playlist_editor_open()) toggle_playlist_editor();  // its place and size are saved with the rest
  library::save_settings();
  app.window = nullptr;
  gtk_main_quit();
}

gboolean on_delete(GtkWidget*, GdkEvent*, gpointer) {
  post_command(CMD_CLOSE, 0);
  return TRUE;
}

void on_destroy(GtkWidget*, gpointer) { destroy_main_window_state(); }

void connect_menus() {
  app.menus = gtk_builder_new_from_resource("/org/tovra/menus.ui");
  GSList* objects = gtk_builder_get_objects(app.menus);
  for (GSList* l = objects; l; l = l->next)
    if (GTK_IS_MENU_ITEM(l->data) && !gtk_menu_item_get_submenu(GTK_MENU_ITEM(l->data)))
      g_signal_connect(l->data, "activate", G_CALLBACK(menu_item_activated), nullptr);
  g_slist_free(objects);
  for (const char* name : {"tvrmenu", "tvrcommenu", "tvrsysmenu", "tvrcnvmenu", "tvrinfomenu", "tvrrendermenu"})
    if (GtkWidget* m = menu_named(name)) gtk_menu_attach_to_widget(GTK_MENU(m), app.area, nullptr);
  if (GtkWidget* system = menu_named("tvrsysmenu"))
    g_signal_connect(system, "deactivate", G_CALLBACK(+[](GtkMenuShell*, gpointer) {
                       if (app.pressed_button == BTN_SYSTEM) set_pressed_button(0);
                     }),
                     nullptr);
}

// The window's creation: skin, plug-ins, the entry to play, hot key, then the saved window state.
int32_t create_main_window_state() {
  if (!load_skin(app.skin)) {
    show_box(session::TEXT_INIT_FAILED, nullptr, session::BOX_OK);
    return -1;
  }
  install_display(app.skin);
  install_title(app.skin);
  if (!session::is_not_win9x()) load_plugins(plugin_folder().c_str());
  session::validate_start_entry();
  connect_menus();
  register_hot_key();
  if (cfg().style & 1) resize_window(FACE_W * scale(), SHADE_H * scale());
  if (cfg().style & 6) {
    if (cfg().tray) cfg().style = 0;
    gtk_window_get_position(GTK_WINDOW(app.window), &app.restore_x, &app.restore_y);
    gtk_window_iconify(GTK_WINDOW(app.window));
  }
  if (cfg().topmost) gtk_window_set_keep_above(GTK_WINDOW(app.window), TRUE);
  if (library::playlist.command_line_play) post_command(CMD_PLAY, 3);
  return 0;
}

}  // namespace

void window_foreground() { foreground(); }
void window_redraw(int32_t what) { request_redraw(what); }
void window_set_volume(int32_t volume) { set_volume(volume); }
void window_set_balance(int32_t pan) { set_balance(pan); }
const std::string& window_playlist_file() { return playlist_file(); }

void post_command(int32_t id, int32_t tag) { session::post_message(session::WINDOW_MAIN, MSG_COMMAND, id, tag); }

int32_t process_entry(int argc, char** argv) {
  // A skinned window places itself, which only X11 allows; on Wayland this runs under XWayland.
  setenv("GDK_BACKEND", "x11", 1);
  g_set_prgname("tovra");
  // The locale and the messages' language are set up as tovra-cli does it; the toolkit keeps them.
  session::init_messages();
  gtk_disable_setlocale();
  if (!gtk_init_check(&argc, &argv)) {
    std::fputs("tovra: no X display\n", stderr);
    return 0;
  }
  app.main_thread = g_thread_self();
  // A WAVE file of samples alone on the command line is given to be converted (the desktop offers
  // WAVE files to this program for that only): it opens the encode dialog, not the playlist. A
  // WAVE wrapping MPEG audio still plays.
  static std::string to_encode;
  tools::WaveHeader wave;
  if (argc == 2 && tools::probe_wave_file(argv[1], wave) == format::ERR_OK) to_encode = argv[1];
  std::string command_line = to_encode.empty() ? session::join_command_line(argc - 1, argv + 1) : std::string();

  // Instance test. The toolkit comes up first here only because Ctrl's state is asked of it.
  GdkKeymap* keymap = gdk_keymap_get_for_display(gdk_display_get_default());
  bool ctrl_held = gdk_keymap_get_modifier_state(keymap) & GDK_CONTROL_MASK;
  bool shift_held = gdk_keymap_get_modifier_state(keymap) & GDK_SHIFT_MASK;
  app.folder = library::instance_folder();
  // A WAVE to convert runs beside a playing window, as a further one, rather than being handed over.
  if (library::claim_instance(command_line.c_str(), ctrl_held || !to_encode.empty(), app.lock, app.folder) != 0)
    return -1;

  session::StartPlacement place;
  session::start_up_settings(command_line.c_str(), shift_held, work_area(), place);
  decoder::init_decoder_tables();  // after the processor is known: it picks the synthesis variant

  app.window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(app.window), "TOVRA");
  gtk_window_set_decorated(GTK_WINDOW(app.window), FALSE);
  gtk_window_set_resizable(GTK_WINDOW(app.window), FALSE);
  app.area = gtk_drawing_area_new();
  gtk_widget_set_size_request(app.area, FACE_W * scale(), FACE_H * scale());
  gtk_container_add(GTK_CONTAINER(app.window), app.area);
  gtk_widget_add_events(app.area,
                        GDK_BUTTON_PRESS_MASK | GDK_BUTTON_RELEASE_MASK | GDK_POINTER_MOTION_MASK | GDK_SCROLL_MASK);
  gtk_widget_set_can_focus(app.window, TRUE);
  g_signal_connect(app.area, "draw", G_CALLBACK(on_draw), nullptr);
  gtk_widget_set_has_tooltip(app.area, TRUE);
  g_signal_connect(app.area, "query-tooltip", G_CALLBACK(on_query_tooltip), nullptr);
  g_signal_connect(app.area, "button-press-event", G_CALLBACK(on_button_press), nullptr);
  g_signal_connect(app.area, "button-release-event", G_CALLBACK(on_button_release), nullptr);
  g_signal_connect(app.area, "motion-notify-event", G_CALLBACK(on_motion), nullptr);
  g_signal_connect(app.area, "scroll-event", G_CALLBACK(on_scroll), nullptr);
  g_signal_connect(app.window, "key-press-event", G_CALLBACK(on_key), nullptr);
  g_signal_connect(app.window, "focus-in-event", G_CALLBACK(on_focus), nullptr);
  g_signal_connect(app.window, "focus-out-event", G_CALLBACK(on_focus), nullptr);
  g_signal_connect(app.window, "window-state-event", G_CALLBACK(on_window_state), nullptr);
  g_signal_connect(app.window, "delete-event", G_CALLBACK(on_delete), nullptr);
  g_signal_connect(app.window, "destroy", G_CALLBACK(on_destroy), nullptr);
  // A logout or `kill` ends the program the way its close button does, settings saved, without
  // the question a running conversion would ask.
  for (int signal_number : {SIGTERM, SIGINT, SIGHUP})
    g_unix_signal_add(
        signal_number,
        +[](gpointer) -> gboolean {
          post_command(CMD_CLOSE, 1);
          return G_SOURCE_CONTINUE;
        },
        nullptr);
  static const GtkTargetEntry uri_target = {const_cast<gchar*>("text/uri-list"), 0, 0};
  gtk_drag_dest_set(app.window, GTK_DEST_DEFAULT_ALL, &uri_target, 1, GDK_ACTION_COPY);
  g_signal_connect(app.window, "drag-data-received", G_CALLBACK(on_drop), nullptr);
  gtk_window_move(GTK_WINDOW(app.window), place.x, place.y);
  app.snapped_to_bottom = place.snapped_to_bottom;

  install_engine_hooks();
  if (create_main_window_state() != 0) return 0;
  if (app.lock.fd >= 0 && library::open_instance_server(app.server, app.folder)) {
    GIOChannel* channel = g_io_channel_unix_new(library::instance_server_fd(app.server));
    g_io_add_watch(channel, G_IO_IN, socket_ready, nullptr);
    g_io_channel_unref(channel);
  }
  repaint_all();
  gtk_widget_show_all(app.window);
  gtk_window_move(GTK_WINDOW(app.window), place.x, place.y);
  mpris_start();
  if (!to_encode.empty())
    g_idle_add(
        +[](gpointer) -> gboolean {
          convert_encode_file(app.converter, GTK_WINDOW(app.window), to_encode.c_str());
          return G_SOURCE_REMOVE;
        },
        nullptr);

  gtk_main();

  mpris_stop();

  library::close_instance_server(app.server);
  library::release_instance_lock(app.lock);
  free_skin(app.skin);
  return 0;
}

}  // namespace shell
