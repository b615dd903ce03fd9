// The tag dialog: shows a file's tag (or the playing stream's) and its stream information, and
// saves, deletes or brings back the previous tag through library/id3. The fields are shown and
// typed in UTF-8 and stored as code page 932; a character that code page cannot hold is refused
// with a box rather than written as something else.
#include <gtk/gtk.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "library/id3.h"
#include "library/playlist.h"
#include "library/settings.h"
#include "session/messages.h"
#include "session/tag_view.h"
#include "shell/dialogs.h"
#include "shell/window.h"

namespace shell {

namespace {

struct Id3Dialog {
  GtkBuilder* ui = nullptr;
  GtkWidget* window = nullptr;
  std::string path;           // the file the buttons act on (bytes, as in the playlist)
  GMainLoop* loop = nullptr;  // set while run modally
  int32_t exit_value = library::ID3_EXIT_END;
};
Id3Dialog* dialog = nullptr;

constexpr const char* FIELD_IDS[] = {"c1024", "c1025", "c1026", "c1027", "c1029"};

GtkWidget* control(const char* id) { return GTK_WIDGET(gtk_builder_get_object(dialog->ui, id)); }
GtkEntry* genre_entry() { return GTK_ENTRY(gtk_bin_get_child(GTK_BIN(control("c1028")))); }

std::string* form_field(library::TagForm& f, int32_t i) {
  std::string* fields[] = {&f.title, &f.artist, &f.album, &f.year, &f.comment};
  return fields[i];
}

void fill(library::TagForm f) {
  gtk_entry_set_text(GTK_ENTRY(control("c1023")), to_utf8(dialog->path.c_str()).c_str());
  for (int32_t i = 0; i < 5; ++i)
    gtk_entry_set_text(GTK_ENTRY(control(FIELD_IDS[i])), library::from_cp932(*form_field(f, i)).c_str());
  gtk_entry_set_text(genre_entry(), f.genre.c_str());
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(control("c1033")), f.v11 != 0);
  gtk_entry_set_text(GTK_ENTRY(control("c1037")), f.v11 ? std::to_string(f.track).c_str() : "");
  gtk_widget_set_sensitive(control("c1037"), f.v11 != 0);
}

// The fields in code page 932; false (after telling the user) when one holds a character that
// code page 932 has no code for.
bool take_form(library::TagForm& f) {
  for (int32_t i = 0; i < 5; ++i) {
    std::string text = gtk_entry_get_text(GTK_ENTRY(control(FIELD_IDS[i])));
    if (size_t bad = library::to_cp932(text, *form_field(f, i))) {
      const char* at = text.c_str() + bad - 1;
      std::string shown(at, g_utf8_next_char(at) - at);
      show_box(session::TEXT_BAD_ID3_CHARACTER, shown.c_str(), session::BOX_OK);
      gtk_widget_grab_focus(control(FIELD_IDS[i]));
      return false;
    }
  }
  f.genre = gtk_entry_get_text(genre_entry());
  f.v11 = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(control("c1033")));
  f.track = std::clamp(std::atoi(gtk_entry_get_text(GTK_ENTRY(control("c1037")))), 0, 255);
  return true;
}

bool is_current(const std::string& path) {
  int32_t index = library::playlist.current_entry.load();
  return library::slot_used(index) && path == library::playlist.entries[index].path;
}

void close_dialog() {
  if (!dialog) return;
  gtk_window_get_position(GTK_WINDOW(dialog->window), &library::settings.tx, &library::settings.ty);
  gtk_widget_destroy(dialog->window);
  g_object_unref(dialog->ui);
  delete dialog;
  dialog = nullptr;
}

void finish(int32_t value) {
  dialog->exit_value = value;
  if (dialog->loop)
    g_main_loop_quit(dialog->loop);
  else
    close_dialog();
}

// After a change of the file's tag: the editor's tag column and the main title follow.
void tag_changed(bool current) {
  if (playlist_editor_open() && library::settings.pl_disp == 1)
    session::post_message(session::WINDOW_PLAYLIST, library::MSG_PLAYLIST_REFRESH, 0);
  if (current) window_redraw(3);
}

void on_button(GtkButton* button, gpointer) {
  const char* id = gtk_buildable_get_name(GTK_BUILDABLE(button));
  int32_t no_genre = library::no_genre(library::settings.j_idtag);
  bool current = is_current(dialog->path);
  if (std::strcmp(id, "c1") == 0) {
    library::TagForm f;
    if (!take_form(f)) return;
    if (int32_t r = session::save_form(dialog->path.c_str(), f, no_genre, current); r != format::ERR_OK) {
      show_box(r, nullptr, session::BOX_OK);
      return;  // the dialog stays open with what was typed
    }
    tag_changed(current);
    finish(library::ID3_EXIT_NEXT);
  } else if (std::strcmp(id, "c1030") == 0) {
    if (session::delete_form(dialog->path.c_str(), no_genre, current) != format::ERR_OK) return;
    tag_changed(current);
    finish(library::ID3_EXIT_NEXT);
  } else if (std::strcmp(id, "c1032") == 0) {
    fill(library::previous_form());
  } else if (std::strcmp(id, "c1034") == 0) {
    finish(library::ID3_EXIT_NEXT);
  } else if (std::strcmp(id, "c1035") == 0) {
    finish(library::ID3_EXIT_PREVIOUS);
  }
}

gboolean on_key(GtkWidget*, GdkEventKey* e, gpointer) {
  if (e->keyval != GDK_KEY_Escape) return FALSE;
  finish(library::ID3_EXIT_END);
  return TRUE;
}

// Builds the dialog on path (empty: the playing stream) and shows it.
void create(const char* path, int32_t n, int32_t count) {
  dialog = new Id3Dialog;
  dialog->ui = gtk_builder_new_from_resource("/org/tovra/id3_dialog.ui");
  dialog->window = control("tvrid3tagdlg");
  const library::Settings& s = library::settings;
  session::Id3View view = session::open_view(path, n, count, s.j_idtag);
  if (path && *path) {
    dialog->path = path;
  } else {
    int32_t index = library::playlist.current_entry.load();
    if (library::slot_used(index)) dialog->path = library::playlist.entries[index].path;
  }
  GtkListStore* genres = GTK_LIST_STORE(gtk_builder_get_object(dialog->ui, "genres"));
  for (int32_t i = 0; i <= library::last_offered_genre(s.j_idtag); ++i)
    if (library::genre_table[i][0])
      gtk_list_store_insert_with_values(genres, nullptr, -1, 0, library::genre_table[i], -1);
  // Without a file there is nothing to write to.
  bool have_file = !dialog->path.empty();
  gtk_widget_set_sensitive(control("c1"), view.can_save && have_file);
  gtk_widget_set_sensitive(control("c1030"), view.can_delete && have_file);
  gtk_widget_set_sensitive(control("c1035"), count > 0);  // there is no previous file outside a series
  gtk_frame_set_label(GTK_FRAME(control("c1036")), view.group_title.c_str());
  std::string info = view.info;
  for (size_t at; (at = info.find("\r\n")) != std::string::npos;) info.erase(at, 1);
  gtk_label_set_text(GTK_LABEL(control("c1031")), info.c_str());
  fill(view.form);
  gtk_window_set_default(GTK_WINDOW(dialog->window), control("c1"));
  for (const char* id : {"c1", "c1030", "c1032", "c1034", "c1035"})
    g_signal_connect(control(id), "clicked", G_CALLBACK(on_button), nullptr);
  g_signal_connect(control("c1033"), "toggled", G_CALLBACK(+[](GtkToggleButton* b, gpointer) {
                     gtk_widget_set_sensitive(control("c1037"), gtk_toggle_button_get_active(b));
                   }),
                   nullptr);
  g_signal_connect(dialog->window, "key-press-event", G_CALLBACK(on_key), nullptr);
  g_signal_connect(dialog->window, "delete-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer) -> gboolean {
                     finish(library::ID3_EXIT_END);
                     return TRUE;
                   }),
                   nullptr);
  if (s.tx != library::POSITION_UNSET) gtk_window_move(GTK_WINDOW(dialog->window), s.tx, s.ty);
  gtk_widget_show(dialog->window);
  gtk_widget_grab_focus(control("c1024"));
}

}  // namespace

bool id3_dialog_open() { return dialog != nullptr; }

void toggle_id3_dialog() {
  if (dialog) {
    if (!dialog->loop) finish(library::ID3_EXIT_END);
    return;
  }
  create(nullptr, 0, 0);
}

int32_t run_id3_dialog(const char* path, int32_t n, int32_t count) {
  if (dialog && dialog->loop) return library::ID3_EXIT_END;
  close_dialog();  // an open modeless dialog gives way
  create(path, n, count);
  gtk_window_set_modal(GTK_WINDOW(dialog->window), TRUE);
  dialog->loop = g_main_loop_new(nullptr, FALSE);
  g_main_loop_run(dialog->loop);
  g_main_loop_unref(dialog->loop);
  int32_t value = dialog->exit_value;
  close_dialog();
  return value;
}

}  // namespace shell
