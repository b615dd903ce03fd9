// The playlist editor: a list view that mirrors the playlist table row for row. Every edit is made
// to the view and to the table together (slot, play count and the current entry move with their
// row), so the two never disagree and the play thread always finds a packed table.
#include <gtk/gtk.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "library/id3.h"
#include "library/playlist.h"
#include "library/settings.h"
#include "session/messages.h"
#include "session/stream.h"
#include "session/transport.h"
#include "shell/dialogs.h"
#include "shell/window.h"

namespace shell {

namespace {

enum Column : int32_t { COL_TITLE, COL_TIME, COL_SIZE, COL_SECONDS };
enum EditorCommand : int32_t {
  ED_SAVE = 1,
  ED_ADD = 1041,
  ED_CLEAR = 1042,
  ED_UP = 1043,
  ED_DOWN = 1044,
  ED_DELETE = 40050,
  ED_SHOW_NAMES = 40052,
  ED_SHOW_TAGS = 40053,
  ED_TAGS = 40056,
  ED_SELECT_ALL = 40057,
  ED_TOPMOST = 40068,
};
constexpr int32_t SERIES_LIMIT = 1000;
constexpr const char* FILE_FILTER = "MPEG audio layer-I, II, III (*.mp1;*.mp2;*.mp3)";

struct Editor {
  GtkBuilder* ui = nullptr;
  GtkWidget* window = nullptr;
  GtkTreeView* list = nullptr;
  GtkListStore* rows = nullptr;
  GtkTreeSelection* selection = nullptr;
  GtkLabel* status = nullptr;
  bool refreshing = false, refresh_again = false;
  bool in_series = false;
  bool setting_marks = false;  // the view menu's checks are being set, not clicked
};
Editor* editor = nullptr;

library::Settings& cfg() { return library::settings; }
GObject* object(const char* id) { return gtk_builder_get_object(editor->ui, id); }

// ---- Rows ----------------------------------------------------------------------------------------

struct RowText {
  std::string title, time, size;
  int32_t seconds = -1;  // -1: not known
};

// The file's name, without its extension when that is an MPEG audio one.
std::string file_title(const char* path) {
  const char* slash = std::strrchr(path, '/');
  std::string name = slash ? slash + 1 : path;
  library::PathParts parts = library::split_path(path);
  for (const char* ext : {".mp1", ".mp2", ".mp3"})
    if (g_ascii_strcasecmp(parts.ext, ext) == 0) name.resize(name.size() - std::strlen(ext));
  return to_utf8(name.c_str());
}

RowText row_text(const char* path, int32_t mode) {
  RowText r;
  r.title = file_title(path);
  if (mode != 1) return r;
  r.time = "----";
  library::Id3Record tag;
  if (library::read_tag(path, tag, library::no_genre(cfg().j_idtag)) == format::ERR_OK) {
    library::TagForm f = library::form_from_record(tag);
    if (!f.title.empty()) r.title = library::from_cp932(f.title);
  }
  session::ProbeInfo info;
  int32_t kind = session::probe_file(path, info);
  if (kind >= 0 && kind <= 2 && info.id != 0 && info.play_seconds > 0) {
    r.seconds = info.play_seconds;
    char text[32];
    std::snprintf(text, sizeof text, "%d:%02d", r.seconds / 60, r.seconds % 60);
    r.time = text;
  }
  struct stat st;
  if (stat(path, &st) == 0) r.size = std::to_string(int64_t(st.st_size) / 1024) + "KB";
  return r;
}

int32_t row_count() { return gtk_tree_model_iter_n_children(GTK_TREE_MODEL(editor->rows), nullptr); }

bool row_iter(int32_t index, GtkTreeIter& it) {
  return gtk_tree_model_iter_nth_child(GTK_TREE_MODEL(editor->rows), &it, nullptr, index);
}

// The selected rows in ascending order.
std::vector<int32_t> selected_rows() {
  std::vector<int32_t> out;
  GList* paths = gtk_tree_selection_get_selected_rows(editor->selection, nullptr);
  for (GList* l = paths; l; l = l->next)
    out.push_back(gtk_tree_path_get_indices(static_cast<GtkTreePath*>(l->data))[0]);
  g_list_free_full(paths, reinterpret_cast<GDestroyNotify>(gtk_tree_path_free));
  std::sort(out.begin(), out.end());
  return out;
}

void select_row(int32_t index, bool only, bool scroll) {
  GtkTreeIter it;
  if (!row_iter(index, it)) return;
  if (only) gtk_tree_selection_unselect_all(editor->selection);
  gtk_tree_selection_select_iter(editor->selection, &it);
  if (!scroll) return;
  GtkTreePath* path = gtk_tree_model_get_path(GTK_TREE_MODEL(editor->rows), &it);
  gtk_tree_view_set_cursor(editor->list, path, nullptr, FALSE);
  gtk_tree_view_scroll_to_cell(editor->list, path, nullptr, FALSE, 0, 0);
  gtk_tree_path_free(path);
  // Setting the cursor selects its row alone; the other rows are chosen again.
  if (!only) gtk_tree_selection_select_iter(editor->selection, &it);
}

// ---- Status and title ----------------------------------------------------------------------------

void show_status() {
  int32_t n = row_count();
  std::vector<int32_t> chosen = selected_rows();
  if (cfg().pl_disp == 1) {
    int64_t all = 0, picked = 0;
    GtkTreeIter it;
    for (int32_t i = 0; i < n && row_iter(i, it); ++i) {
      gint s = -1;
      gtk_tree_model_get(GTK_TREE_MODEL(editor->rows), &it, COL_SECONDS, &s, -1);
      if (s > 0) all += s;
    }
    for (int32_t i : chosen) {
      gint s = -1;
      if (row_iter(i, it)) gtk_tree_model_get(GTK_TREE_MODEL(editor->rows), &it, COL_SECONDS, &s, -1);
      if (s > 0) picked += s;
    }
    char text[96];
    std::snprintf(text, sizeof text, "Time %d:%02d:%02d / %d:%02d:%02d", int(picked / 3600), int(picked / 60 % 60),
                  int(picked % 60), int(all / 3600), int(all / 60 % 60), int(all % 60));
    gtk_label_set_text(editor->status, text);
  } else {
    gtk_label_set_text(editor->status, "TOVRA Playlist");
  }
  // The first number is the row with the cursor (0 without one), then selected rows of all rows.
  GtkTreePath* cursor = nullptr;
  gtk_tree_view_get_cursor(editor->list, &cursor, nullptr);
  int32_t focus = cursor ? gtk_tree_path_get_indices(cursor)[0] + 1 : 0;
  if (cursor) gtk_tree_path_free(cursor);
  char title[96];
  std::snprintf(title, sizeof title, "TOVRA - PlayList Editor... %d [%d/%d]", focus, int(chosen.size()), n);
  gtk_window_set_title(GTK_WINDOW(editor->window), title);
}

// ---- Refresh -------------------------------------------------------------------------------------

void refresh() {
  if (editor->refreshing) {
    editor->refresh_again = true;  // a refresh asked for while one reads files: run once more after it
    return;
  }
  editor->refreshing = true;
  do {
    editor->refresh_again = false;
    gtk_list_store_clear(editor->rows);
    int32_t mode = cfg().pl_disp;
    for (int32_t i = 0; editor && library::slot_used(i) && i < library::PLAYLIST_SLOTS; ++i) {
      if (mode == 1) {
        gtk_label_set_text(editor->status, ("Reading... " + std::to_string(i + 1)).c_str());
        while (gtk_events_pending()) gtk_main_iteration();
        if (!editor || editor->refresh_again) break;
      }
      RowText r = row_text(library::playlist.entries[i].path, mode);
      gtk_list_store_insert_with_values(editor->rows, nullptr, -1, COL_TITLE, r.title.c_str(), COL_TIME, r.time.c_str(),
                                        COL_SIZE, r.size.c_str(), COL_SECONDS, r.seconds, -1);
    }
  } while (editor && editor->refresh_again);
  if (!editor) return;  // closed while reading
  editor->refreshing = false;
  select_row(library::playlist.current_entry.load(), true, true);
  show_status();
}

// ---- Edits ---------------------------------------------------------------------------------------

void swap_slots(int32_t a, int32_t b) {
  library::PlaylistEntry e = library::playlist.entries[a];
  library::playlist.entries[a] = library::playlist.entries[b];
  library::playlist.entries[b] = e;
  uint8_t count = library::playlist.play_counts[a].load();
  library::playlist.play_counts[a].store(library::playlist.play_counts[b].load());
  library::playlist.play_counts[b].store(count);
  int32_t current = library::playlist.current_entry.load();
  if (current == a)
    library::playlist.current_entry.store(b);
  else if (current == b)
    library::playlist.current_entry.store(a);
}

void delete_row(int32_t index) {
  GtkTreeIter it;
  if (!row_iter(index, it)) return;
  gtk_list_store_remove(editor->rows, &it);
  library::remove_entry(index);
  // The playing entry keeps playing from its open file; the index then names the row that moved up.
  int32_t current = library::playlist.current_entry.load();
  if (index < current) library::playlist.current_entry.store(current - 1);
}

// tag 1: the entry that failed to start leaves the list (sent by the play start).
void delete_command(int32_t tag) {
  if (tag == 1) {
    delete_row(library::playlist.current_entry.load());
    show_status();
    return;
  }
  std::vector<int32_t> chosen = selected_rows();
  if (chosen.empty()) return;
  for (size_t k = chosen.size(); k-- > 0;) delete_row(chosen[k]);  // from the end: indices stay true
  int32_t n = row_count();
  if (n > 0) select_row(std::min(chosen.back() - int32_t(chosen.size()) + 1, n - 1), true, true);
  show_status();
  window_redraw(2);
}

void move_command(int32_t step) {
  std::vector<int32_t> chosen = selected_rows();
  int32_t n = row_count();
  if (chosen.empty() || (step < 0 && chosen.front() == 0) || (step > 0 && chosen.back() == n - 1)) return;
  if (step > 0) std::reverse(chosen.begin(), chosen.end());
  for (int32_t i : chosen) {
    GtkTreeIter a, b;
    if (!row_iter(i, a) || !row_iter(i + step, b)) continue;
    gtk_list_store_swap(editor->rows, &a, &b);
    swap_slots(i, i + step);
  }
  gtk_tree_selection_unselect_all(editor->selection);
  for (int32_t i : chosen) select_row(i + step, false, false);
  show_status();
  window_redraw(2);
}

void tag_series() {
  if (editor->in_series) return;
  std::vector<int32_t> chosen = selected_rows();
  if (chosen.size() > size_t(SERIES_LIMIT)) chosen.resize(SERIES_LIMIT);
  std::vector<std::string> paths;
  for (int32_t i : chosen) paths.emplace_back(library::playlist.entries[i].path);
  int32_t count = int32_t(paths.size());
  editor->in_series = true;
  for (int32_t i = 0; i >= 0 && i < count;) {
    int32_t exit_value = run_id3_dialog(paths[i].c_str(), i + 1, count);
    if (exit_value == library::ID3_EXIT_END || !editor) break;
    i += exit_value;
  }
  if (editor) editor->in_series = false;
}

void play_row(GtkTreeView*, GtkTreePath* path, GtkTreeViewColumn*, gpointer) {
  int32_t row = gtk_tree_path_get_indices(path)[0];
  if (!gtk_tree_selection_path_is_selected(editor->selection, path) || !library::slot_used(row)) return;
  if (session::stop_play() == 0) {
    show_box(format::ERR_TIMEOUT, nullptr, session::BOX_OK);
    return;
  }
  if (row == library::playlist.current_entry.load()) {
    post_command(CMD_PLAY, 1);
    return;
  }
  library::playlist.current_entry.store(row);
  post_command(CMD_PLAY, 3);
}

// Files to the end of the list: a folder is scanned, a list file read from its own folder.
void add_paths(const std::vector<std::string>& paths) {
  append_paths(paths, true);
  refresh();
  window_redraw(2);
}

void add_command() {
  GtkWidget* chooser =
      gtk_file_chooser_dialog_new("開く", GTK_WINDOW(editor->window), GTK_FILE_CHOOSER_ACTION_OPEN, "_Cancel",
                                  GTK_RESPONSE_CANCEL, "_Open", GTK_RESPONSE_ACCEPT, nullptr);
  gtk_file_chooser_set_select_multiple(GTK_FILE_CHOOSER(chooser), TRUE);
  GtkFileFilter* filter = gtk_file_filter_new();
  gtk_file_filter_set_name(filter, FILE_FILTER);
  for (const char* p : {"*.mp1", "*.mp2", "*.mp3", "*.MP1", "*.MP2", "*.MP3", "*.m3u", "*.pl*"})
    gtk_file_filter_add_pattern(filter, p);
  gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(chooser), filter);
  std::vector<std::string> paths;
  if (gtk_dialog_run(GTK_DIALOG(chooser)) == GTK_RESPONSE_ACCEPT) {
    GSList* files = gtk_file_chooser_get_filenames(GTK_FILE_CHOOSER(chooser));
    for (GSList* l = files; l; l = l->next) paths.emplace_back(static_cast<const char*>(l->data));
    g_slist_free_full(files, g_free);
  }
  gtk_widget_destroy(chooser);
  if (!paths.empty()) add_paths(paths);
}

void save_command() {
  GtkWidget* chooser =
      gtk_file_chooser_dialog_new("Save PlayList (*.m3u)", GTK_WINDOW(editor->window), GTK_FILE_CHOOSER_ACTION_SAVE,
                                  "_Cancel", GTK_RESPONSE_CANCEL, "_Save", GTK_RESPONSE_ACCEPT, nullptr);
  gtk_file_chooser_set_do_overwrite_confirmation(GTK_FILE_CHOOSER(chooser), TRUE);
  const std::string& start = window_playlist_file();
  if (!start.empty()) gtk_file_chooser_set_filename(GTK_FILE_CHOOSER(chooser), start.c_str());
  std::string path;
  if (gtk_dialog_run(GTK_DIALOG(chooser)) == GTK_RESPONSE_ACCEPT) {
    gchar* name = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(chooser));
    if (name) path = name;
    g_free(name);
  }
  gtk_widget_destroy(chooser);
  if (path.empty()) return;
  if (*library::split_path(path.c_str()).ext == 0) path += ".m3u";  // the default extension
  if (!library::write_playlist(path.c_str(), library::WRITE_RELATIVE))
    show_box(session::TEXT_CANNOT_WRITE, path.c_str(), session::BOX_OK);
}

void set_marks() {
  editor->setting_marks = true;
  gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(object("pl_40052")), cfg().pl_disp != 1);
  gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(object("pl_40053")), cfg().pl_disp == 1);
  gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(object("pl_40068")), cfg().pl_top != 0);
  gtk_tree_view_column_set_visible(GTK_TREE_VIEW_COLUMN(object("col_time")), cfg().pl_disp == 1);
  gtk_tree_view_column_set_visible(GTK_TREE_VIEW_COLUMN(object("col_size")), cfg().pl_disp == 1);
  gtk_window_set_keep_above(GTK_WINDOW(editor->window), cfg().pl_top != 0);
  editor->setting_marks = false;
}

void command(int32_t id, int32_t tag) {
  switch (id) {
    case ED_ADD:
      add_command();
      break;
    case ED_SAVE:
      save_command();
      break;
    case ED_DELETE:
      delete_command(tag);
      break;
    case ED_CLEAR:
      library::clear_playlist();
      library::playlist.current_entry.store(0);
      refresh();
      window_redraw(2);
      break;
    case ED_UP:
    case ED_DOWN:
      move_command(id == ED_UP ? -1 : 1);
      break;
    case ED_TAGS:
      tag_series();
      break;
    case ED_SELECT_ALL:
      gtk_tree_selection_select_all(editor->selection);
      break;
    case ED_SHOW_NAMES:
    case ED_SHOW_TAGS:
      cfg().pl_disp = id == ED_SHOW_TAGS ? 1 : 0;
      set_marks();
      refresh();
      break;
    case ED_TOPMOST:
      cfg().pl_top = !cfg().pl_top;
      set_marks();
      break;
    default:
      break;
  }
}

void on_activate(GtkWidget* item, gpointer) {
  if (editor->setting_marks) return;
  const char* name = gtk_buildable_get_name(GTK_BUILDABLE(item));
  const char* number = std::strpbrk(name, "0123456789");
  if (number)
    command(std::atoi(number), 0);
  else if (GTK_IS_CHECK_MENU_ITEM(item))
    set_marks();
}

gboolean on_key(GtkWidget*, GdkEventKey* e, gpointer) {
  bool ctrl = e->state & GDK_CONTROL_MASK;
  guint key = gdk_keyval_to_lower(e->keyval);
  int32_t id = 0;
  if (!ctrl && (key == GDK_KEY_Insert || key == GDK_KEY_KP_Insert))
    id = ED_ADD;
  else if (!ctrl && (key == GDK_KEY_Delete || key == GDK_KEY_KP_Delete))
    id = ED_DELETE;
  else if (ctrl && key == GDK_KEY_a)
    id = ED_SELECT_ALL;
  else if (ctrl && key == GDK_KEY_o)
    id = ED_ADD;
  else if (ctrl && key == GDK_KEY_s)
    id = ED_SAVE;
  else if (ctrl && key == GDK_KEY_t)
    id = ED_TAGS;
  if (!id) return FALSE;
  command(id, 0);
  return TRUE;
}

gboolean on_list_press(GtkWidget*, GdkEventButton* e, gpointer) {
  if (e->type != GDK_BUTTON_PRESS || e->button != 3) return FALSE;
  GtkTreePath* path = nullptr;
  if (gtk_tree_view_get_path_at_pos(editor->list, int(e->x), int(e->y), &path, nullptr, nullptr, nullptr)) {
    if (!gtk_tree_selection_path_is_selected(editor->selection, path)) {
      gtk_tree_selection_unselect_all(editor->selection);
      gtk_tree_selection_select_path(editor->selection, path);
    }
    gtk_tree_path_free(path);
  }
  gtk_menu_popup_at_pointer(GTK_MENU(object("TVRPLPOPUP")), reinterpret_cast<GdkEvent*>(e));
  return TRUE;
}

void on_drop(GtkWidget*, GdkDragContext* context, gint, gint, GtkSelectionData* data, guint, guint time, gpointer) {
  gchar** uris = gtk_selection_data_get_uris(data);
  gtk_drag_finish(context, uris != nullptr, FALSE, time);
  if (!uris) return;
  std::vector<std::string> paths;
  for (gchar** u = uris; *u; ++u)
    if (gchar* p = g_filename_from_uri(*u, nullptr, nullptr)) {
      paths.emplace_back(p);
      g_free(p);
    }
  g_strfreev(uris);
  if (!paths.empty()) add_paths(paths);
}

void close_editor() {
  library::Settings& s = cfg();
  gtk_window_get_position(GTK_WINDOW(editor->window), &s.px, &s.py);
  gtk_window_get_size(GTK_WINDOW(editor->window), &s.pxs, &s.pys);
  session::set_window_open(session::WINDOW_PLAYLIST, false);
  gtk_widget_destroy(editor->window);
  g_object_unref(editor->ui);
  delete editor;
  editor = nullptr;
}

void open_editor() {
  editor = new Editor;
  editor->ui = gtk_builder_new_from_resource("/org/tovra/playlist_editor.ui");
  editor->window = GTK_WIDGET(object("tvrplaylistdlg"));
  editor->list = GTK_TREE_VIEW(object("list"));
  editor->rows = GTK_LIST_STORE(object("rows"));
  editor->selection = GTK_TREE_SELECTION(object("selection"));
  editor->status = GTK_LABEL(object("c1045"));
  GSList* objects = gtk_builder_get_objects(editor->ui);
  for (GSList* l = objects; l; l = l->next) {
    const char* name = GTK_IS_BUILDABLE(l->data) ? gtk_buildable_get_name(GTK_BUILDABLE(l->data)) : nullptr;
    if (!name || (std::strncmp(name, "pl_", 3) != 0 && std::strncmp(name, "pp_", 3) != 0)) continue;
    g_signal_connect(l->data, GTK_IS_BUTTON(l->data) ? "clicked" : "activate", G_CALLBACK(on_activate), nullptr);
  }
  g_slist_free(objects);
  gtk_menu_attach_to_widget(GTK_MENU(object("TVRPLPOPUP")), GTK_WIDGET(editor->list), nullptr);
  g_signal_connect(editor->list, "row-activated", G_CALLBACK(play_row), nullptr);
  g_signal_connect(editor->list, "button-press-event", G_CALLBACK(on_list_press), nullptr);
  g_signal_connect(editor->selection, "changed", G_CALLBACK(+[](GtkTreeSelection*, gpointer) {
                     if (!editor->refreshing) show_status();
                   }),
                   nullptr);
  g_signal_connect(editor->window, "key-press-event", G_CALLBACK(on_key), nullptr);
  g_signal_connect(editor->window, "delete-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer) -> gboolean {
                     if (!editor->in_series) close_editor();
                     return TRUE;
                   }),
                   nullptr);
  static const GtkTargetEntry uri_target = {const_cast<gchar*>("text/uri-list"), 0, 0};
  gtk_drag_dest_set(editor->window, GTK_DEST_DEFAULT_ALL, &uri_target, 1, GDK_ACTION_COPY);
  g_signal_connect(editor->window, "drag-data-received", G_CALLBACK(on_drop), nullptr);

  const library::Settings& s = cfg();
  gtk_window_set_default_size(GTK_WINDOW(editor->window), s.pxs, s.pys);
  if (s.px != library::POSITION_UNSET) gtk_window_move(GTK_WINDOW(editor->window), s.px, s.py);
  set_marks();
  session::set_window_open(session::WINDOW_PLAYLIST, true);
  gtk_widget_show(editor->window);
  refresh();
}

}  // namespace

bool playlist_editor_open() { return editor != nullptr; }

void present_playlist_editor() {
  if (editor) gtk_window_present(GTK_WINDOW(editor->window));
}

void toggle_playlist_editor() {
  if (!editor)
    open_editor();
  else if (!editor->in_series)
    close_editor();
}

void playlist_editor_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (!editor) return;
  if (msg == library::MSG_PLAYLIST_REFRESH)
    refresh();
  else if (msg == session::PLAYLIST_DELETE_COMMAND)
    delete_command(int32_t(wparam));
  else if (msg == 273)
    command(int32_t(wparam), int32_t(lparam));
}

}  // namespace shell
