// The batch window. The list (library::BatchList) is the job store and the view only shows it: every
// change is made to the list and the view is rewritten from it, so the worker always reads what the
// user sees. Rows run on the batch worker (session/batch_run.h), BatchJobs of them at once.
#include "shell/batch_window.h"

#include <gdk/gdkkeysyms.h>
#include <gtk/gtk.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "encoder/encoder.h"
#include "library/batch.h"
#include "library/settings.h"
#include "session/batch_run.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "session/session.h"
#include "shell/convert_dialogs.h"
#include "shell/dialogs.h"

namespace shell {

namespace {

constexpr int32_t MAX_COLUMNS = 2 + library::BATCH_FIELDS + 1;
// A resample batch converts to this rate unless a list names another: the common step down for
// spoken material, and what users of a one-click resample most often want.
constexpr int32_t DEFAULT_RESAMPLE_RATE = 22050;

struct BatchWindow {
  GtkBuilder* ui = nullptr;
  GtkWidget* window = nullptr;
  GtkTreeView* view = nullptr;
  GtkListStore* rows = nullptr;
  library::BatchList list;
  session::BatchRun* run = nullptr;  // while a batch runs
  bool running = false;
  int32_t job_index = 0, job_total = 0;
  int64_t units_total = 0, units_done = 0;
  std::chrono::steady_clock::time_point started;
  guint timer = 0;
  bool closing = false;
};
BatchWindow* bw = nullptr;

std::string& out_dir(int32_t mode) {
  library::Settings& s = library::settings;
  return mode == library::BATCH_ENCODE   ? s.batch_enc_dir
         : mode == library::BATCH_DECODE ? s.batch_dec_dir
                                         : s.batch_res_dir;
}

library::BatchChoices choices() {
  library::BatchChoices c;
  c.out_dir = out_dir(bw->list.mode);
  c.rate = DEFAULT_RESAMPLE_RATE;
  // The window's new encode rows are Layer III, model 2, marked original; the command line's batch
  // keeps the single encode command's defaults, so that its rows match that command's output.
  if (bw->list.mode == library::BATCH_ENCODE) {
    c.layer = 3;
    c.psy_model = 2;
    c.flags = "---o-";
  }
  if (!bw->list.entries.empty() && bw->list.mode == library::BATCH_DECODE) {
    c.ext_filter = library::batch_decode_format(bw->list.entries[0]);
  }
  return c;
}

void set_caption(const std::string& text) { gtk_window_set_title(GTK_WINDOW(bw->window), text.c_str()); }

void show_row(GtkTreeIter* it, const library::BatchEntry& e) {
  int32_t count = library::batch_column_count(bw->list.mode);
  for (int32_t c = 0; c < count; ++c)
    gtk_list_store_set(bw->rows, it, c, to_utf8(library::batch_column_text(bw->list.mode, e, c).c_str()).c_str(), -1);
}

void refill() {
  gtk_list_store_clear(bw->rows);
  for (const library::BatchEntry& e : bw->list.entries) {
    GtkTreeIter it;
    gtk_list_store_append(bw->rows, &it);
    show_row(&it, e);
  }
}

// One row's texts again; the selection stays.
void refresh_row(int32_t row) {
  GtkTreeIter it;
  if (gtk_tree_model_iter_nth_child(GTK_TREE_MODEL(bw->rows), &it, nullptr, row)) show_row(&it, bw->list.entries[row]);
}

bool has_ext(const std::string& name, const char* ext) {
  size_t n = std::strlen(ext);
  return name.size() > n && g_ascii_strcasecmp(name.c_str() + name.size() - n, ext) == 0;
}

bool is_mode_input(const std::string& name) {
  if (bw->list.mode == library::BATCH_DECODE)
    return has_ext(name, ".mp1") || has_ext(name, ".mp2") || has_ext(name, ".mp3");
  return has_ext(name, ".wav");
}

// A folder adds the mode's inputs below it, in name order so that a scan gives the same list each
// time.
void scan_folder(const std::string& dir, const library::BatchChoices& c) {
  GDir* d = g_dir_open(dir.c_str(), 0, nullptr);
  if (!d) return;
  std::vector<std::string> names;
  while (const char* n = g_dir_read_name(d)) names.push_back(n);
  g_dir_close(d);
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) {
    std::string path = dir + "/" + n;
    if (g_file_test(path.c_str(), G_FILE_TEST_IS_DIR))
      scan_folder(path, c);
    else if (is_mode_input(n))
      library::add_batch_entry(bw->list, path, c);
  }
}

void load_list_file(const char* path) {
  if (library::read_batch_list(bw->list, path, choices()) < 0) {
    show_box(format::ERR_OPEN_INPUT, path, session::BOX_OK);
  }
}

// What a drop, a paste or the test hook gives: files, folders and .m3e lists. With clear (Ctrl held
// during a drop) the list is emptied first.
void add_paths(const std::vector<std::string>& paths, bool clear) {
  if (bw->running) return;
  if (clear) bw->list.entries.clear();
  library::BatchChoices c = choices();
  for (const std::string& p : paths) {
    if (g_file_test(p.c_str(), G_FILE_TEST_IS_DIR))
      scan_folder(p, c);
    else if (has_ext(p, ".m3e"))
      load_list_file(p.c_str());
    else
      library::add_batch_entry(bw->list, p, c);
  }
  refill();
}

void on_drop(GtkWidget*, GdkDragContext* context, gint, gint, GtkSelectionData* data, guint, guint time, gpointer) {
  gchar** uris = gtk_selection_data_get_uris(data);
  std::vector<std::string> paths;
  for (gchar** u = uris; u && *u; ++u) {
    gchar* p = g_filename_from_uri(*u, nullptr, nullptr);
    if (p) paths.push_back(p);
    g_free(p);
  }
  g_strfreev(uris);
  GdkModifierType mods{};
  gdk_window_get_device_position(gtk_widget_get_window(bw->window), gdk_drag_context_get_device(context), nullptr,
                                 nullptr, &mods);
  add_paths(paths, (mods & GDK_CONTROL_MASK) != 0);
  gtk_drag_finish(context, TRUE, FALSE, time);
}

// Scripts and the GUI test drop files through TOVRA_BATCH_DROP: a file of paths, one a line, read
// each time the window opens and handed to the drop's handler (an X server without a drag source
// can't drop).
void drop_from_environment() {
  const char* file = std::getenv("TOVRA_BATCH_DROP");
  if (!file) return;
  std::ifstream in(file);
  std::vector<std::string> paths;
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) paths.push_back(line);
  if (!paths.empty()) add_paths(paths, false);
}

std::string choose(GtkFileChooserAction action, const char* title, const char* name) {
  GtkWidget* d = gtk_file_chooser_dialog_new(title, GTK_WINDOW(bw->window), action, "_Cancel", GTK_RESPONSE_CANCEL,
                                             "_OK", GTK_RESPONSE_ACCEPT, nullptr);
  if (name) {
    gtk_file_chooser_set_current_name(GTK_FILE_CHOOSER(d), name);
    gtk_file_chooser_set_do_overwrite_confirmation(GTK_FILE_CHOOSER(d), TRUE);
  }
  std::string path;
  if (gtk_dialog_run(GTK_DIALOG(d)) == GTK_RESPONSE_ACCEPT) {
    gchar* f = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(d));
    if (f) path = f;
    g_free(f);
  }
  gtk_widget_destroy(d);
  return path;
}

void save_command() {
  std::string path = choose(GTK_FILE_CHOOSER_ACTION_SAVE, "EncodeList", library::BATCH_LIST_DEFAULT_NAME);
  if (!path.empty() && !library::write_batch_list(bw->list, path.c_str())) {
    show_box(format::ERR_OPEN_OUTPUT, path.c_str(), session::BOX_OK);
  }
}

// The selected rows in list order.
std::vector<int32_t> selected_rows() {
  std::vector<int32_t> rows;
  GList* paths = gtk_tree_selection_get_selected_rows(gtk_tree_view_get_selection(bw->view), nullptr);
  for (GList* l = paths; l; l = l->next)
    rows.push_back(gtk_tree_path_get_indices(static_cast<GtkTreePath*>(l->data))[0]);
  g_list_free_full(paths, reinterpret_cast<GDestroyNotify>(gtk_tree_path_free));
  std::sort(rows.begin(), rows.end());
  return rows;
}

// 40061-40065: the decode format of every selected row.
void set_decode_format_command(GtkMenuItem*, gpointer code) {
  if (bw->running) return;
  for (int32_t row : selected_rows()) {
    library::set_decode_format(bw->list.entries[row], GPOINTER_TO_INT(code));
    refresh_row(row);
  }
}

// The decoder's context menu: the five formats, in code order from 40061.
gboolean on_list_press(GtkWidget*, GdkEventButton* e, gpointer) {
  if (e->button != GDK_BUTTON_SECONDARY || e->type != GDK_BUTTON_PRESS) return FALSE;
  if (bw->list.mode != library::BATCH_DECODE || bw->running) return FALSE;
  static GtkWidget* menu = nullptr;
  if (!menu) {
    menu = gtk_menu_new();
    g_object_ref_sink(menu);  // kept for the process, as the window's other menus are
    constexpr const char* labels[] = {"_raw", "_wav", "a_if", "_au", "_voc"};
    for (int32_t code = 0; code < 5; ++code) {
      GtkWidget* item = gtk_menu_item_new_with_mnemonic(labels[code]);
      gtk_widget_set_name(item, ("batch_" + std::to_string(40061 + code)).c_str());
      g_signal_connect(item, "activate", G_CALLBACK(set_decode_format_command), GINT_TO_POINTER(code));
      gtk_menu_shell_append(GTK_MENU_SHELL(menu), item);
    }
    gtk_widget_show_all(menu);
  }
  gtk_menu_popup_at_pointer(GTK_MENU(menu), reinterpret_cast<GdkEvent*>(e));
  return TRUE;  // the selection stays as it is: the menu acts on all of it
}

void set_buttons(bool sensitive) {
  for (const char* id : {"batch_add_folder", "batch_load", "batch_clear", "batch_start"})
    gtk_widget_set_sensitive(GTK_WIDGET(gtk_builder_get_object(bw->ui, id)), sensitive);
}

// The data of the rows' WAVE files in units of 256 bytes: what an encoding batch has to get through.
int64_t wave_units(const library::BatchEntry& e) {
  int32_t rate = 0, bits = 0, channels = 0;
  uint32_t size = 0;
  return library::probe_wave(e.source.c_str(), rate, bits, channels, size) ? int64_t(size >> 8) : 0;
}

// The remaining time of an encoding batch, projected from the speed so far: finished rows count with
// their data, the running row with the share of its time gone by.
gboolean remaining_tick(gpointer) {
  if (!bw || !bw->running) return G_SOURCE_REMOVE;
  int64_t elapsed =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - bw->started).count();
  int32_t minutes = library::batch_remaining_minutes(elapsed, bw->units_total, bw->units_done);
  if (minutes > 0) {
    char text[128];
    if (minutes < 60)
      std::snprintf(text, sizeof text, session::message_format(session::TEXT_REMAINING_MINUTES), bw->job_index + 1,
                    bw->job_total, minutes);
    else
      std::snprintf(text, sizeof text, session::message_format(session::TEXT_REMAINING_HOURS), bw->job_index + 1,
                    bw->job_total, minutes / 60, minutes % 60);
    set_caption(text);
  }
  return G_SOURCE_CONTINUE;
}

void finish_batch() {
  if (bw->timer) g_source_remove(bw->timer);
  bw->timer = 0;
  session::wait_job(bw->run->worker);
  delete bw->run;
  bw->run = nullptr;
  bw->running = false;
  bw->job_index = 0;
  set_buttons(true);
  set_caption(library::batch_ready_caption(bw->list.mode));
}

void start_command() {
  if (bw->running || bw->list.entries.empty()) return;
  bool again = std::any_of(bw->list.entries.begin(), bw->list.entries.end(),
                           [](const library::BatchEntry& e) { return e.status != library::STATUS_NONE; });
  if (again && show_box(session::TEXT_AGAIN, nullptr, session::BOX_YES_NO) != session::ANSWER_YES) return;
  if (session::state.decoder_command.load() == session::CMD_RUN) {
    show_box(session::TEXT_NO_CONVERT_WHILE_PLAYING, nullptr, session::BOX_OK);
    return;
  }
  // With "Hold" the progress stays open after each file, so an encoding batch is started only on
  // a second word.
  if (bw->list.mode == library::BATCH_ENCODE && library::settings.hold &&
      show_box(session::TEXT_BATCH_ENCODE_START, nullptr, session::BOX_OK_CANCEL) != session::ANSWER_OK)
    return;
  for (library::BatchEntry& e : bw->list.entries) e.status = library::STATUS_NONE;
  refill();
  bw->run = new session::BatchRun;
  bw->run->list = &bw->list;
  bw->run->jobs = std::max<int32_t>(1, library::settings.batch_jobs);
  bw->job_index = 0;
  bw->job_total = int32_t(bw->list.entries.size());
  bw->units_total = 0;
  bw->units_done = 0;
  if (bw->list.mode == library::BATCH_ENCODE)
    for (const library::BatchEntry& e : bw->list.entries) bw->units_total += wave_units(e);
  session::set_window_open(session::WINDOW_PROGRESS, false);
  if (session::start_batch(*bw->run) != 0) {
    delete bw->run;
    bw->run = nullptr;
    show_box(session::TEXT_BUSY_OTHER, nullptr, session::BOX_OK);
    return;
  }
  bw->running = true;
  bw->started = std::chrono::steady_clock::now();
  set_buttons(false);
  if (bw->list.mode == library::BATCH_ENCODE) bw->timer = g_timeout_add(750, remaining_tick, nullptr);
}

// 40034, a row's detail: the encode dialog rewrites an encode row's choices, a decode row takes
// another output file, the resample dialog rewrites a resample row's target format and quality.
void detail_command(int32_t row) {
  if (bw->running || row < 0 || row >= int32_t(bw->list.entries.size())) return;
  library::BatchEntry& e = bw->list.entries[row];
  GtkWindow* owner = GTK_WINDOW(bw->window);
  library::BatchChoices c = choices();
  if (bw->list.mode == library::BATCH_DECODE) {
    std::string out =
        choose(GTK_FILE_CHOOSER_ACTION_SAVE, "Target (PCM)", e.target.substr(e.target.rfind('/') + 1).c_str());
    if (!out.empty()) e.target = out;
  } else if (bw->list.mode == library::BATCH_RESAMPLE) {
    ResampleChoices r;
    library::batch_resample_params(e, r.rate, r.bits, r.channels, r.quality);
    // The slider starts where this row's quality came from, so that OK alone keeps it.
    r.quality = r.quality <= 1 ? r.quality + 1 : r.quality - 1;
    if (!run_resample_dialog(owner, e.source.c_str(), r)) return;
    c.rate = r.rate;
    c.bits = r.bits;
    c.channels = r.channels;
    c.quality = r.quality;
  } else {
    EncodeChoices enc;
    int32_t kbps = 0;
    enc.params = session::batch_encode_params(e, kbps, enc.wave_header);
    enc.params.mpeg1 = std::atoi(e.fields[0].c_str()) >= 32000;
    // A rate the list doesn't offer for this layer stands in as the usual one (128 or 64 kbit/s
    // at Layer II).
    int32_t index = encoder::bitrate_index(enc.params.mpeg1, enc.params.layer, kbps);
    enc.params.bit_rate_index = (index >= 4 ? index : enc.params.mpeg1 ? 9 : 8) - 1;
    if (!run_encode_dialog(owner, e.source.c_str(), enc)) return;
    const encoder::EncoderParams& p = enc.params;
    c.layer = p.layer;
    c.kbps = encoder::bitrate_kbps(p.mpeg1, p.layer, p.bit_rate_index);
    c.psy_model = p.psy_model;
    c.emphasis = p.emphasis;
    c.mode_letter = p.mode == 3 ? 'm' : p.mode == 1 ? 'j' : 's';
    c.flags = "-----";
    int32_t on[5] = {p.extension, p.error_protection, p.copyright, p.original, enc.wave_header};
    for (int32_t i = 0; i < 5; ++i)
      if (on[i]) c.flags[i] = 'o';
    // The output's extension names the layer it now holds.
    size_t dot = e.target.rfind('.');
    if (dot != std::string::npos && e.target.compare(dot, 3, ".mp") == 0 && e.target.size() == dot + 4)
      e.target[dot + 3] = char('0' + p.layer);
  }
  if (bw->list.mode != library::BATCH_DECODE) {
    // The columns are written as a new row of these choices has them.
    library::BatchList one;
    one.mode = bw->list.mode;
    library::add_batch_entry(one, e.source, c);
    for (int32_t i = 0; i < library::BATCH_FIELDS; ++i) e.fields[i] = one.entries[0].fields[i];
  }
  refill();
}

void cancel_row_command() {
  if (!bw->running) return;
  for (int32_t row : selected_rows()) session::cancel_batch_row(*bw->run, row);
}

// Header clicks: the target's picks the mode's output folder, the source's offers to clear it, and
// the decoder's "Format" moves every row on to the next format.
void on_header(GtkTreeViewColumn*, gpointer column) {
  if (bw->running) return;
  int32_t c = GPOINTER_TO_INT(column);
  if (c == 0) {
    std::string dir = choose(GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER, "Output folder", nullptr);
    if (!dir.empty()) out_dir(bw->list.mode) = dir;
  } else if (c == 1) {
    if (show_box(session::TEXT_RESET_OUTPUT_PATHS, nullptr, session::BOX_YES_NO) == session::ANSWER_YES)
      out_dir(bw->list.mode).clear();
  } else if (c == 2 && bw->list.mode == library::BATCH_DECODE && !bw->list.entries.empty()) {
    int32_t next = (library::batch_decode_format(bw->list.entries[0]) + 1) % 5;
    for (library::BatchEntry& e : bw->list.entries) library::set_decode_format(e, next);
    refill();
  }
}

void destroy_window() {
  session::set_window_open(session::WINDOW_BATCH, false);
  gtk_widget_destroy(bw->window);
  g_object_unref(bw->ui);
  delete bw;
  bw = nullptr;
}

void cancel_and_hide() {
  for (size_t row = 0; row < bw->list.entries.size(); ++row)
    if (bw->list.entries[row].status == library::STATUS_RUNNING) session::cancel_batch_row(*bw->run, int32_t(row));
  session::cancel_batch(*bw->run);
  bw->closing = true;
  gtk_widget_hide(bw->window);
}

// A window closed mid-run hides until the batch's last message, so that the worker never posts to a
// window that is gone.
void close_batch_window() {
  if (bw->running) {
    if (show_box(session::TEXT_CANCEL_BATCH, nullptr, session::BOX_YES_NO) != session::ANSWER_YES) return;
  }
  if (!bw->running) return destroy_window();  // it may have ended during the question
  cancel_and_hide();
}

void on_button(GtkButton* b, gpointer) {
  std::string id = gtk_buildable_get_name(GTK_BUILDABLE(b));
  if (id == "batch_add_folder") {
    std::string dir = choose(GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER, "Folder", nullptr);
    if (!dir.empty()) add_paths({dir}, false);
  } else if (id == "batch_load") {
    std::string path = choose(GTK_FILE_CHOOSER_ACTION_OPEN, "EncodeList", nullptr);
    if (!path.empty()) add_paths({path}, false);
  } else if (id == "batch_save") {
    save_command();
  } else if (id == "batch_cancel_row") {
    cancel_row_command();
  } else if (id == "batch_clear") {
    bw->list.entries.clear();
    refill();
  } else if (id == "batch_start") {
    start_command();
  }
}

gboolean on_key(GtkWidget*, GdkEventKey* e, gpointer) {
  bool ctrl = e->state & GDK_CONTROL_MASK;
  if (e->keyval == GDK_KEY_Delete) {
    if (bw->running) {
      cancel_row_command();
    } else if (std::vector<int32_t> rows = selected_rows(); !rows.empty()) {
      for (size_t i = rows.size(); i-- > 0;) bw->list.entries.erase(bw->list.entries.begin() + rows[i]);
      refill();
    }
  } else if (ctrl && e->keyval == GDK_KEY_s) {
    save_command();
  } else if (ctrl && e->keyval == GDK_KEY_o) {
    std::string path = choose(GTK_FILE_CHOOSER_ACTION_OPEN, "EncodeList", nullptr);
    if (!path.empty()) add_paths({path}, false);
  } else if (e->keyval == GDK_KEY_Escape) {
    close_batch_window();  // as a dialog closes on Escape
  } else if (e->keyval == GDK_KEY_Return && !bw->running) {
    start_command();
  } else {
    return FALSE;
  }
  return TRUE;
}

}  // namespace

bool batch_window_open() { return bw != nullptr; }
bool batch_window_running() { return bw && bw->running; }

bool end_batch_window() {
  if (!bw) return true;
  if (!bw->running) {
    destroy_window();
    return true;
  }
  if (!bw->closing) cancel_and_hide();
  return false;
}

void open_batch_window(int32_t mode) {
  if (bw && bw->closing) {
    show_box(session::TEXT_BUSY_OTHER, nullptr, session::BOX_OK);
    return;
  }
  if (bw && !bw->running && bw->list.mode != mode) destroy_window();
  if (bw) {
    gtk_window_present(GTK_WINDOW(bw->window));
    drop_from_environment();
    return;
  }
  bw = new BatchWindow;
  bw->list.mode = mode;
  bw->ui = gtk_builder_new_from_resource("/org/tovra/batch_window.ui");
  bw->window = GTK_WIDGET(gtk_builder_get_object(bw->ui, "tvrenclistdlg"));
  bw->view = GTK_TREE_VIEW(gtk_builder_get_object(bw->ui, "batch_list"));
  GType types[MAX_COLUMNS];
  int32_t count = library::batch_column_count(mode);
  for (int32_t c = 0; c < count; ++c) types[c] = G_TYPE_STRING;
  bw->rows = gtk_list_store_newv(count, types);
  gtk_tree_view_set_model(bw->view, GTK_TREE_MODEL(bw->rows));
  g_object_unref(bw->rows);
  for (int32_t c = 0; c < count; ++c) {
    GtkCellRenderer* cell = gtk_cell_renderer_text_new();
    // Paths keep their ends in sight (the file's name) so that every column fits the window.
    if (c < 2) g_object_set(cell, "ellipsize", PANGO_ELLIPSIZE_START, "width-chars", 22, nullptr);
    GtkTreeViewColumn* col =
        gtk_tree_view_column_new_with_attributes(library::batch_column_title(mode, c), cell, "text", c, nullptr);
    if (c < 2) gtk_tree_view_column_set_expand(col, TRUE);
    gtk_tree_view_column_set_resizable(col, TRUE);
    gtk_tree_view_column_set_clickable(col, TRUE);
    g_signal_connect(col, "clicked", G_CALLBACK(on_header), GINT_TO_POINTER(c));
    gtk_tree_view_append_column(bw->view, col);
  }
  for (const char* id :
       {"batch_add_folder", "batch_load", "batch_save", "batch_cancel_row", "batch_clear", "batch_start"})
    g_signal_connect(gtk_builder_get_object(bw->ui, id), "clicked", G_CALLBACK(on_button), nullptr);
  g_signal_connect(bw->window, "key-press-event", G_CALLBACK(on_key), nullptr);
  g_signal_connect(bw->view, "row-activated",
                   G_CALLBACK(+[](GtkTreeView*, GtkTreePath* path, GtkTreeViewColumn*, gpointer) {
                     detail_command(gtk_tree_path_get_indices(path)[0]);
                   }),
                   nullptr);
  gtk_tree_selection_set_mode(gtk_tree_view_get_selection(bw->view), GTK_SELECTION_MULTIPLE);
  g_signal_connect(bw->view, "button-press-event", G_CALLBACK(on_list_press), nullptr);
  g_signal_connect(bw->window, "delete-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer) -> gboolean {
                     close_batch_window();
                     return TRUE;
                   }),
                   nullptr);
  static GtkTargetEntry uri_target = {const_cast<gchar*>("text/uri-list"), 0, 0};
  gtk_drag_dest_set(bw->window, GTK_DEST_DEFAULT_ALL, &uri_target, 1, GDK_ACTION_COPY);
  g_signal_connect(bw->window, "drag-data-received", G_CALLBACK(on_drop), nullptr);
  set_caption(library::batch_ready_caption(mode));
  session::set_window_open(session::WINDOW_BATCH, true);
  gtk_widget_show_all(bw->window);
  gtk_widget_grab_focus(GTK_WIDGET(bw->view));  // the keys of the list (Delete, Ctrl+A) work at once
  drop_from_environment();
}

void batch_window_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (!bw || !bw->run) return;
  if (msg != session::MSG_BATCH_JOB_STATE && msg != session::MSG_BATCH_RESAMPLE_STATE) return;
  int32_t state = int32_t(wparam);
  if (state == session::JOB_LIST_FINISHED) {
    finish_batch();
    if (bw->closing) destroy_window();
    return;
  }
  int32_t row = session::apply_batch_state(*bw->run, state, lparam);
  if (row < 0) return;
  refresh_row(row);
  if (state == session::JOB_STARTED) {
    bw->job_index = row;
    if (bw->list.mode != library::BATCH_ENCODE || bw->units_done == 0)
      set_caption(library::batch_running_caption(bw->list.mode, row, bw->job_total));
  } else if (bw->list.mode == library::BATCH_ENCODE) {
    bw->units_done += wave_units(bw->list.entries[row]);
  }
}

}  // namespace shell
