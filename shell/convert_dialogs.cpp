#include "shell/convert_dialogs.h"

#include <strings.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "encoder/job.h"
#include "library/settings.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/tool_jobs.h"
#include "shell/dialogs.h"
#include "tools/resample.h"
#include "tools/split.h"
#include "tools/wave.h"

namespace shell {

namespace {

constexpr const char* ALL_FILES = "すべてのﾌｧｲﾙ (*.*)";

struct Filter {
  const char* name;
  const char* patterns;  // ';'-separated globs
  const char* extension;
};

// The decode formats in ExtFilter order after the first: index 1 WAVE .. 5 raw, 6 all files.
constexpr Filter decode_filters[] = {
    {"Save Windows wave (*.wav)", "*.wav", "wav"},         {"Save Apple/SGI AIFF (*.aif)", "*.aif", "aif"},
    {"Save NeXT/Sun (*.au;*.snd)", "*.au;*.snd", "au"},    {"Save Creative Labs VOC (*.voc)", "*.voc", "voc"},
    {"Save Raw File (*.raw;*.pcm)", "*.raw;*.pcm", "raw"}, {ALL_FILES, "*.*", nullptr},
};
constexpr Filter open_mpeg[] = {{"MPEG audio layer-I, II, III (*.mp1;*.mp2;*.mp3)", "*.mp?;*.wav;*.rmp", nullptr},
                                {ALL_FILES, "*.*", nullptr}};
constexpr Filter open_system[] = {{"Load MPEG stream (*.mpg)", "*.mpg", nullptr}, {ALL_FILES, "*.*", nullptr}};
constexpr Filter save_extracted[] = {{"Save MPEG/Audio (*.mp2;*.mp1)", "*.mp2;*.mp1;*.mpa", "mp2"},
                                     {ALL_FILES, "*.*", nullptr}};
constexpr Filter open_wave[] = {{"Load Windows wave (*.wav)", "*.wav", nullptr}, {ALL_FILES, "*.*", nullptr}};
constexpr Filter save_mpeg[] = {{"Save MPEG/Audio (*.mp3;*.mp2;*.mp1)", "*.mp?", nullptr},
                                {"Save RIFF MPEG/Audio (*.wav)", "*.wav", nullptr},
                                {ALL_FILES, "*.*", nullptr}};
constexpr Filter save_resampled[] = {{"Resampled wave (*.wav)", "*.wav", "wav"}, {ALL_FILES, "*.*", nullptr}};

// The folder the last chooser ended in: the next one opens there.
std::string last_folder;

struct Progress {
  GtkBuilder* ui = nullptr;
  GtkWidget* dialog = nullptr;
  GtkWidget* bar = nullptr;
  GtkWidget* text = nullptr;
  GtkWidget* button = nullptr;
  session::Job* job = nullptr;
  int32_t layer = 0;
  int32_t frames = 0;
  bool cancelled = false;  // the job is over for this dialog: ended, or cancelled by its button
  std::chrono::steady_clock::time_point opened;
} progress;

// Runs a chooser; filter_index is 1-based on entry and holds the chosen one on return. Returns the
// path, empty on Cancel.
std::string choose(GtkWindow* parent, bool save, const Filter* filters, int32_t count, int32_t& filter_index,
                   const std::string& proposed) {
  GtkFileChooserNative* chooser =
      gtk_file_chooser_native_new(nullptr, parent, save ? GTK_FILE_CHOOSER_ACTION_SAVE : GTK_FILE_CHOOSER_ACTION_OPEN,
                                  save ? "_Save" : "_Open", "_Cancel");
  GtkFileChooser* fc = GTK_FILE_CHOOSER(chooser);
  GtkFileFilter* made[8] = {};
  for (int32_t i = 0; i < count && i < 8; ++i) {
    made[i] = gtk_file_filter_new();
    gtk_file_filter_set_name(made[i], filters[i].name);
    std::string globs = filters[i].patterns;
    size_t start = 0;
    while (start <= globs.size()) {
      size_t end = globs.find(';', start);
      if (end == std::string::npos) end = globs.size();
      std::string glob = globs.substr(start, end - start);
      // "*.*" means every file, names without a dot too.
      gtk_file_filter_add_pattern(made[i], glob == "*.*" ? "*" : glob.c_str());
      start = end + 1;
    }
    gtk_file_chooser_add_filter(fc, made[i]);
  }
  if (filter_index >= 1 && filter_index <= count) gtk_file_chooser_set_filter(fc, made[filter_index - 1]);
  // Until a chooser has ended somewhere, the working folder is where the user's files are.
  if (last_folder.empty()) {
    char* cwd = g_get_current_dir();
    last_folder = cwd;
    g_free(cwd);
  }
  gtk_file_chooser_set_current_folder(fc, last_folder.c_str());
  if (save) {
    gtk_file_chooser_set_do_overwrite_confirmation(fc, TRUE);
    gtk_file_chooser_set_current_name(fc, proposed.c_str());
  }
  std::string path;
  if (gtk_native_dialog_run(GTK_NATIVE_DIALOG(chooser)) == GTK_RESPONSE_ACCEPT) {
    char* name = gtk_file_chooser_get_filename(fc);
    if (name) path = name;
    g_free(name);
    GtkFileFilter* chosen = gtk_file_chooser_get_filter(fc);
    for (int32_t i = 0; i < count && i < 8; ++i)
      if (made[i] == chosen) filter_index = i + 1;
    char* folder = g_path_get_dirname(path.c_str());
    last_folder = folder;
    g_free(folder);
    // A name typed without an extension takes the filter's.
    const char* ext = filters[filter_index - 1].extension;
    std::string base = path.substr(path.rfind('/') + 1);
    if (save && ext && !path.empty() && base.find('.') == std::string::npos) path += std::string(".") + ext;
  }
  g_object_unref(chooser);
  return path;
}

// The file name without folder and extension.
std::string stem(const std::string& path) {
  std::string base = path.substr(path.rfind('/') + 1);
  size_t dot = base.rfind('.');
  return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

bool has_extension(const std::string& path, const char* ext) {
  size_t n = std::strlen(ext);
  return path.size() >= n && strcasecmp(path.c_str() + path.size() - n, ext) == 0;
}

void box(int32_t code, const std::string& arg = "") { show_box(code, arg.c_str(), session::BOX_OK); }

bool busy() {
  if (!session::window_open(session::WINDOW_PROGRESS) && !session::window_open(session::WINDOW_BATCH)) return false;
  box(session::TEXT_BUSY_OTHER);
  return true;
}

void close_progress() {
  if (!progress.dialog) return;
  gtk_widget_destroy(progress.dialog);
  g_object_unref(progress.ui);
  progress = {};
  session::set_window_open(session::WINDOW_PROGRESS, false);
}

bool hold() { return library::settings.hold != 0; }

void progress_response(GtkDialog*, gint, gpointer) {
  // The button cancels a running job; once the job has ended it only closes the dialog, since
  // nothing is left to interrupt.
  if (!progress.cancelled && progress.job && progress.job->busy.load()) {
    progress.cancelled = true;
    progress.job->cancel.store(1);
    if (hold()) box(session::TEXT_CONVERSION_STOPPED);
    session::wait_job(*progress.job);
  }
  close_progress();
}

void set_bar(double fraction) {
  gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(progress.bar), fraction < 0 ? 0 : fraction > 1 ? 1 : fraction);
}

// The job is done: with "Hold" the button says so and closing is left to the user; without, the
// dialog goes. keep holds it open all the same (a splitter's error text).
void finished(const char* button, bool keep) {
  progress.cancelled = true;
  if (!hold() && !keep) return close_progress();
  set_bar(1);
  gtk_button_set_label(GTK_BUTTON(progress.button), button);
}

// A short job may end before the dialog opened and took its messages; the end shows all the same.
gboolean watch_end(gpointer dialog) {
  if (progress.dialog != dialog) return G_SOURCE_REMOVE;
  if (progress.job && progress.job->busy.load()) return G_SOURCE_CONTINUE;
  if (!progress.cancelled) finished(session::message_format(session::TEXT_DONE), false);
  return G_SOURCE_REMOVE;
}

void open_progress(session::Job& job, GtkWindow* parent, const std::string& input) {
  progress.job = &job;
  progress.ui = gtk_builder_new_from_resource("/org/tovra/progress_dialog.ui");
  progress.dialog = GTK_WIDGET(gtk_builder_get_object(progress.ui, "tvrthreaddlg"));
  progress.bar = GTK_WIDGET(gtk_builder_get_object(progress.ui, "1002"));
  progress.text = GTK_WIDGET(gtk_builder_get_object(progress.ui, "1003"));
  progress.button = GTK_WIDGET(gtk_builder_get_object(progress.ui, "2"));
  progress.opened = std::chrono::steady_clock::now();
  std::string name = input.substr(input.rfind('/') + 1);
  gtk_window_set_title(GTK_WINDOW(progress.dialog), to_utf8(("TOVRA convert - " + name).c_str()).c_str());
  gtk_window_set_transient_for(GTK_WINDOW(progress.dialog), parent);
  g_signal_connect(progress.dialog, "response", G_CALLBACK(progress_response), nullptr);
  g_signal_connect(progress.dialog, "delete-event", G_CALLBACK(gtk_true), nullptr);
  session::set_window_open(session::WINDOW_PROGRESS, true);
  // Below the main window, so that its buttons and the bar stay in sight together.
  int x = 0, y = 0, w = 0, h = 0;
  gtk_window_get_position(parent, &x, &y);
  gtk_window_get_size(parent, &w, &h);
  gtk_window_move(GTK_WINDOW(progress.dialog), x, y + h + 8);
  gtk_widget_show_all(progress.dialog);
  g_timeout_add(200, watch_end, progress.dialog);
}

// Asks for an input with the first of a filter and "all files"; empty on Cancel.
std::string choose_input(GtkWindow* parent, const Filter (&filters)[2]) {
  int32_t index = 1;
  return choose(parent, false, filters, 2, index, "");
}

// Asks for the output until it differs from the input; empty on Cancel.
std::string choose_output(GtkWindow* parent, const Filter* filters, int32_t count, const std::string& in,
                          const std::string& proposed) {
  for (;;) {
    int32_t index = 1;
    std::string out = choose(parent, true, filters, count, index, proposed);
    if (out.empty() || strcasecmp(in.c_str(), out.c_str()) != 0) return out;
    box(format::ERR_SAME_FILE);
  }
}

}  // namespace

void progress_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (!progress.dialog) return;  // posted before the dialog opened, or after it closed
  char text[160] = "";
  switch (msg) {
    case session::MSG_PROGRESS_FRAMES:
      if (progress.frames > 0) set_bar(double(wparam) / progress.frames);
      if (progress.layer == 1 || lparam <= 0) {
        std::snprintf(text, sizeof text, "%d/%d", int(wparam), int(progress.frames));
      } else {
        int64_t left = int64_t(progress.frames - wparam) * 1152 / lparam;
        if (left < 0) left = 0;
        std::snprintf(text, sizeof text, "-%d:%02d (%d)", int(left / 60), int(left % 60), int(wparam));
      }
      gtk_label_set_text(GTK_LABEL(progress.text), text);
      break;
    case session::MSG_SPLIT_PROGRESS:
      if (lparam < 256) break;
      set_bar(double(wparam) / double(lparam));
      std::snprintf(text, sizeof text, "split... %d%%", int(wparam / (lparam / 100)));
      gtk_label_set_text(GTK_LABEL(progress.text), text);
      break;
    case session::MSG_SPLIT_END: {
      // A split without audio packets (9) says nothing here: the button tells it ended.
      const int32_t error = tools::split_end_error(int32_t(wparam));
      const bool said = error != 0 && error != format::ERR_NO_AUDIO_FRAMES;
      gtk_label_set_text(GTK_LABEL(progress.text), said ? session::message_text(error).c_str() : "");
      finished(session::message_format(session::TEXT_SPLIT_DONE), said);
      break;
    }
    case session::MSG_RESAMPLE_PROGRESS:
      if (lparam < 256) break;
      set_bar(double(wparam) / double(lparam));
      std::snprintf(text, sizeof text, "anti-alias/resampling... %d%%", int(wparam / (lparam / 100)));
      gtk_label_set_text(GTK_LABEL(progress.text), text);
      break;
    case session::MSG_PROGRESS_STATUS: {
      // 0 is success and clears the text; the encoder posts it too.
      const std::string said = wparam != 0 ? session::message_text(int32_t(wparam)) : std::string();
      gtk_label_set_text(GTK_LABEL(progress.text), said.c_str());
      break;
    }
    case session::MSG_PROGRESS_ENCODE: {
      int64_t done = lparam - wparam;
      if (lparam < 256) break;
      set_bar(double(done) / double(lparam));
      // The time left follows the speed so far: elapsed * left / done, in whole minutes, at least 1.
      int64_t elapsed =
          std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - progress.opened).count();
      int64_t minutes = done > 0 ? elapsed * wparam / done / 60 + 1 : 1;
      std::snprintf(text, sizeof text, session::message_format(session::TEXT_ENCODING_PROGRESS),
                    int(done / (lparam / 100)), int(minutes));
      gtk_label_set_text(GTK_LABEL(progress.text), text);
      break;
    }
    case session::MSG_PROGRESS_NEXT:
      gtk_widget_queue_draw(progress.dialog);
      break;
    case session::MSG_PROGRESS_END:
      if (!progress.cancelled) finished(session::message_format(session::TEXT_DONE), false);
      break;
    default:
      break;
  }
}

void convert_decode_file(session::Job& job, GtkWindow* parent, const char* given) {
  if (session::state.decoder_running.load()) {  // a play session holds the decoder
    box(session::TEXT_NO_CONVERT_WHILE_PLAYING);
    return;
  }
  if (busy()) return;
  std::string in = given ? given : "";
  if (in.empty() && (in = choose_input(parent, open_mpeg)).empty()) return;
  std::string out;
  for (;;) {
    std::string proposed = stem(in) + (has_extension(in, ".wav") ? "_dec" : "");
    int32_t index = session::options.ext_filter == 0 ? 5 : session::options.ext_filter;
    out = choose(parent, true, decode_filters, 6, index, proposed);
    if (out.empty()) return;
    // Raw is format 0; "all files" keeps the format chosen before.
    if (index <= 5) session::options.ext_filter = index == 5 ? 0 : index;
    if (strcasecmp(in.c_str(), out.c_str()) != 0) break;
    box(format::ERR_SAME_FILE);
  }
  int32_t started = session::start_decode_file(job, in.c_str(), out.c_str());
  if (started == format::ERR_OK) {
    session::StreamInfo info = session::published_stream();
    open_progress(job, parent, in);
    progress.layer = info.layer;
    progress.frames = info.frame_count;
    return;
  }
  if (started == format::ERR_OPEN_INPUT || started == format::ERR_NOT_MPEG)
    box(started, in);
  else if (started == format::ERR_OPEN_OUTPUT || started == format::ERR_SAME_FILE)
    box(started, out);
  else if (started != format::ERR_STREAM_REFUSED)
    box(session::TEXT_ERROR);
}

void convert_split_file(session::Job& job, GtkWindow* parent) {
  if (busy()) return;
  std::string in = choose_input(parent, open_system);
  if (in.empty()) return;
  std::string out = choose_output(parent, save_extracted, 2, in, stem(in) + ".mpa");
  if (out.empty()) return;
  int32_t started = session::start_split(job, in.c_str(), out.c_str());
  if (started == format::ERR_OK || started == format::ERR_BUSY) {
    open_progress(job, parent, in);
    return;
  }
  if (started == format::ERR_OPEN_INPUT)
    box(started, in);
  else if (started == format::ERR_OPEN_OUTPUT || started == format::ERR_SAME_FILE)
    box(started, out);
  else
    box(session::TEXT_ERROR);
}

void convert_encode_file(session::Job& job, GtkWindow* parent, const char* given) {
  if (busy()) return;
  std::string in = given ? given : "";
  if (in.empty() && (in = choose_input(parent, open_wave)).empty()) return;
  encoder::EncoderParams& p = encode_choices.params;
  p.bit_rate_index -= 1;
  if (!run_encode_dialog(parent, in.c_str(), encode_choices)) return;
  bool wrapped = p.layer == 3 && encode_choices.wave_header;
  std::string proposed = stem(in) + (wrapped ? "_mp3.wav" : ".mp" + std::to_string(p.layer));
  std::string out = choose_output(parent, save_mpeg, 3, in, proposed);
  if (out.empty()) return;
  static encoder::EncodeJob enc;  // lives until the job has ended, as the job runner needs
  if (!job.busy.load()) enc = encoder::EncodeJob{};
  int32_t kbps = encoder::bitrate_kbps(p.mpeg1, p.layer, p.bit_rate_index);
  int32_t started = session::start_encode(job, enc, in.c_str(), out.c_str(), p, kbps, encode_choices.wave_header);
  if (started == format::ERR_OK) return open_progress(job, parent, in);
  // An empty WAVE is refused without a word: the encoder had nothing to say about it.
  if (started == format::ERR_WAVE_EMPTY) return;
  if (started == format::ERR_OPEN_INPUT || started == format::ERR_OPEN_OUTPUT)
    box(started, started == format::ERR_OPEN_INPUT ? in : out);
  else if (started == format::ERR_NOT_WAVE || started == format::ERR_BAD_WAVE || started == format::ERR_SAME_FILE)
    box(started);
  else
    box(session::TEXT_ERROR);
}

void convert_resample_file(session::Job& job, GtkWindow* parent) {
  if (busy()) return;
  std::string in = choose_input(parent, open_wave);
  if (in.empty()) return;
  ResampleChoices c;  // no pending quality: the slider starts where it always does
  if (!run_resample_dialog(parent, in.c_str(), c)) return;
  std::string out = choose_output(parent, save_resampled, 2, in, stem(in) + "_rs.wav");
  if (out.empty()) return;
  int32_t started = session::start_resample(job, in.c_str(), out.c_str(), c.rate, c.bits, c.channels, c.quality);
  if (started == format::ERR_OK)
    open_progress(job, parent, in);
  else if (started == format::ERR_SAME_FILE)
    box(started);
  else
    box(session::TEXT_OPEN_FAILED);
}

}  // namespace shell
