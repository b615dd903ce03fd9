// The encode settings "tvrencodedlg" and the resample settings "tvrresampledlg": modal dialogs built
// from their .ui files, run on one WAVE file before its job starts (from the window's converter
// menu and from a batch row's detail command).
#include <gtk/gtk.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "encoder/encoder.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "shell/convert_dialogs.h"
#include "shell/dialogs.h"

namespace shell {

EncodeChoices encode_choices;

namespace {

// What the first 38 bytes of a WAVE file say: its head and a "fmt " chunk that follows at once, as
// the files the encoder takes are written.
struct WaveHead {
  bool riff = false, wave = false, fmt = false;
  int32_t tag = 0, channels = 0, rate = 0, bits = 0;
};

uint32_t le(const unsigned char* p, int32_t n) {
  uint32_t v = 0;
  for (int32_t i = n - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

// Reads the head; size gets the file's length (0 when it cannot be read).
WaveHead read_head(const char* path, long& size) {
  WaveHead h;
  unsigned char b[38] = {};
  size = 0;
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return h;
  size_t got = std::fread(b, 1, sizeof b, f);
  if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
  std::fclose(f);
  if (got < sizeof b) return h;
  h.riff = std::memcmp(b, "RIFF", 4) == 0;
  h.wave = std::memcmp(b + 8, "WAVE", 4) == 0;
  h.fmt = std::memcmp(b + 12, "fmt ", 4) == 0;
  h.tag = int32_t(le(b + 20, 2));
  h.channels = int32_t(le(b + 22, 2));
  h.rate = int32_t(le(b + 24, 4));
  h.bits = int32_t(le(b + 34, 2));
  return h;
}

const char* channel_word(int32_t channels) { return channels == 1 ? "Mono" : "Stereo"; }

GtkWidget* control(GtkBuilder* ui, const char* id) { return GTK_WIDGET(gtk_builder_get_object(ui, id)); }
bool checked(GtkBuilder* ui, const char* id) {
  return gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(control(ui, id)));
}
void check(GtkBuilder* ui, const char* id, bool on) {
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(control(ui, id)), on);
}

// ---- Encode ---------------------------------------------------------------------------------------

constexpr int32_t ENCODE_RATES[6] = {44100, 48000, 32000, 22050, 24000, 16000};  // by MPEG-1 index, then MPEG-2
constexpr int32_t LIST_FIRST_INDEX = 4;                                          // the lowest rates aren't offered
constexpr int32_t LIST_ENTRIES = 11;

struct EncodeDialog {
  GtkBuilder* ui = nullptr;
  int32_t mpeg1 = 1;
};

int32_t chosen_layer(GtkBuilder* ui) { return checked(ui, "1006") ? 1 : checked(ui, "1007") ? 2 : 3; }

// The layer buttons: the list takes this layer's rates, the selection stays where it was, and
// Layer III takes model 2 only.
void layer_changed(GtkToggleButton* button, gpointer data) {
  if (button && !gtk_toggle_button_get_active(button)) return;  // the button being left
  EncodeDialog* d = static_cast<EncodeDialog*>(data);
  int32_t layer = chosen_layer(d->ui);
  GtkComboBoxText* list = GTK_COMBO_BOX_TEXT(control(d->ui, "1004"));
  int32_t selection = gtk_combo_box_get_active(GTK_COMBO_BOX(list));
  gtk_combo_box_text_remove_all(list);
  for (int32_t i = 0; i < LIST_ENTRIES; ++i) {
    char text[16];
    std::snprintf(text, sizeof text, "%d000", encoder::bitrate_kbps(d->mpeg1, layer, LIST_FIRST_INDEX + i));
    gtk_combo_box_text_append_text(list, text);
  }
  gtk_combo_box_set_active(GTK_COMBO_BOX(list), selection);
  if (layer == 3) check(d->ui, "1017", true);
  gtk_widget_set_sensitive(control(d->ui, "1016"), layer != 3);
  gtk_widget_set_sensitive(control(d->ui, "1017"), layer != 3);
}

void refuse_encode(const WaveHead& h, int32_t errors) {
  char line[200] = "";
  if ((errors & 7) == 0) {
    // A file that is WAVE at all is told what it is, with '*' at what the encoder can't take.
    std::snprintf(line, sizeof line, session::message_format(session::TEXT_ENCODE_FORMAT_LINE), errors & 8 ? '*' : ' ',
                  h.tag, errors & 32 ? '*' : ' ', h.rate, channel_word(h.channels), errors & 16 ? '*' : ' ', h.bits);
  }
  show_box(session::TEXT_ENCODE_WAVE_ONLY, line, session::BOX_OK);
}

}  // namespace

int32_t run_encode_dialog(GtkWindow* parent, const char* path, EncodeChoices& c) {
  long size = 0;
  WaveHead h = read_head(path, size);
  int32_t rate_slot = -1;
  for (int32_t i = 0; i < 6; ++i)
    if (ENCODE_RATES[i] == h.rate) rate_slot = i;
  int32_t errors = (h.riff ? 0 : 1) | (h.wave ? 0 : 2) | (h.fmt ? 0 : 4) | (h.tag == 1 ? 0 : 8) |
                   (h.bits == 16 ? 0 : 16) | (rate_slot >= 0 ? 0 : 32);
  if (errors) {
    // The caller's lowering of the bit rate index stays: each refusal moves the remembered rate
    // one step down, as users of this dialog know it.
    refuse_encode(h, errors);
    return 0;
  }
  encoder::EncoderParams& p = c.params;
  const bool mono = h.channels == 1;
  p.mpeg1 = rate_slot < 3;
  p.sample_rate_index = rate_slot % 3;
  if (mono)
    p.mode = 3;
  else if (p.mode == 3)
    p.mode = 0;
  // The caller lowered the stored index by 1; below the list's first entry nothing was chosen yet
  // and the usual rate for the file stands in (Layer II: 64 kbit/s mono, 192 or 96 stereo).
  int32_t position = p.bit_rate_index >= LIST_FIRST_INDEX - 1 ? p.bit_rate_index - (LIST_FIRST_INDEX - 1)
                     : mono                                   ? 1
                     : p.mpeg1                                ? 5
                                                              : 4;
  if (position >= LIST_ENTRIES) position = LIST_ENTRIES - 1;

  EncodeDialog d;
  d.ui = gtk_builder_new_from_resource("/org/tovra/encode_dialog.ui");
  d.mpeg1 = p.mpeg1;
  GtkWidget* dialog = control(d.ui, "tvrencodedlg");
  gtk_window_set_transient_for(GTK_WINDOW(dialog), parent);
  char format[80];
  std::snprintf(format, sizeof format, "MPEG-%d %dHz/%s/%dbit", p.mpeg1 ? 1 : 2, h.rate, channel_word(h.channels),
                h.bits);
  gtk_label_set_text(GTK_LABEL(control(d.ui, "1005")), format);
  check(d.ui, p.emphasis == 1 ? "1010" : p.emphasis == 2 ? "1011" : "1009", true);
  check(d.ui, p.layer == 1 ? "1006" : p.layer == 2 ? "1007" : "1008", true);
  check(d.ui, p.psy_model == 1 ? "1016" : "1017", true);
  const char* flags[5] = {"1018", "1019", "1020", "1021", "1022"};
  int32_t on[5] = {p.extension, p.error_protection, p.copyright, p.original, c.wave_header};
  for (int32_t i = 0; i < 5; ++i) check(d.ui, flags[i], on[i] != 0);
  gtk_combo_box_set_active(GTK_COMBO_BOX(control(d.ui, "1004")), -1);
  layer_changed(nullptr, &d);
  gtk_combo_box_set_active(GTK_COMBO_BOX(control(d.ui, "1004")), position);
  for (const char* id : {"1006", "1007", "1008"})
    g_signal_connect(control(d.ui, id), "toggled", G_CALLBACK(layer_changed), &d);
  // Joint stereo only at the MPEG-2 rates: an MPEG-1 stereo file is coded as plain stereo.
  bool mode_free = !mono && !p.mpeg1;
  check(d.ui, mode_free && p.mode == 1 ? "1013" : "1012", true);
  gtk_widget_set_sensitive(control(d.ui, "1012"), mode_free);
  gtk_widget_set_sensitive(control(d.ui, "1013"), mode_free);

  gtk_widget_grab_focus(control(d.ui, "1"));  // Return takes the settings as they stand
  gint answer = gtk_dialog_run(GTK_DIALOG(dialog));
  if (answer == 1) {
    p.bit_rate_index = gtk_combo_box_get_active(GTK_COMBO_BOX(control(d.ui, "1004"))) + LIST_FIRST_INDEX;
    p.layer = chosen_layer(d.ui);
    p.mode = mono ? 3 : checked(d.ui, "1013") ? 1 : 0;
    p.psy_model = checked(d.ui, "1016") ? 1 : 2;
    p.emphasis = checked(d.ui, "1010") ? 1 : checked(d.ui, "1011") ? 2 : 0;
    p.extension = checked(d.ui, "1018");
    p.error_protection = checked(d.ui, "1019");
    p.copyright = checked(d.ui, "1020");
    p.original = checked(d.ui, "1021");
    c.wave_header = checked(d.ui, "1022");
  } else {
    p.bit_rate_index += 1;
  }
  gtk_widget_destroy(dialog);
  g_object_unref(d.ui);
  return answer == 1 ? 1 : 0;
}

// ---- Resample -------------------------------------------------------------------------------------

namespace {

constexpr int32_t RESAMPLE_RATES[9] = {48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
constexpr int32_t QUALITY_START = 20;
constexpr int32_t MIN_RATE = 2000, MAX_RATE = 96000;

void quality_moved(GtkRange* range, gpointer label) {
  char text[8];
  std::snprintf(text, sizeof text, "%d", int(gtk_range_get_value(range)));
  gtk_label_set_text(GTK_LABEL(label), text);
}

}  // namespace

int32_t run_resample_dialog(GtkWindow* parent, const char* path, ResampleChoices& c) {
  long size = 0;
  WaveHead h = read_head(path, size);
  if (!h.riff || !h.wave || !h.fmt) size = 0;
  if (size == 0 || h.tag != 1) {
    char line[160] = "";
    if (size != 0)
      std::snprintf(line, sizeof line, session::message_format(session::TEXT_RESAMPLE_FORMAT_LINE), h.tag, h.rate,
                    channel_word(h.channels), h.bits);
    show_box(session::TEXT_RESAMPLE_PCM_ONLY, line, session::BOX_OK);
    return 0;
  }
  GtkBuilder* ui = gtk_builder_new_from_resource("/org/tovra/resample_dialog.ui");
  GtkWidget* dialog = control(ui, "tvrresampledlg");
  gtk_window_set_transient_for(GTK_WINDOW(dialog), parent);
  // The fixed rates, from the highest, with the file's own among them where it belongs.
  GtkComboBoxText* list = GTK_COMBO_BOX_TEXT(control(ui, "1080"));
  int32_t selection = -1, n = 0;
  bool own_listed = false;
  auto add = [&](int32_t rate) {
    gtk_combo_box_text_append_text(list, std::to_string(rate).c_str());
    if (selection < 0 && rate <= h.rate) selection = n;
    ++n;
  };
  for (int32_t rate : RESAMPLE_RATES) {
    if (!own_listed && h.rate >= rate) {
      if (h.rate != rate) add(h.rate);
      own_listed = true;
    }
    add(rate);
  }
  if (!own_listed) add(h.rate);
  gtk_combo_box_set_active(GTK_COMBO_BOX(list), selection);
  check(ui, h.bits == 8 ? "1081" : "1082", true);
  check(ui, h.channels == 1 ? "1083" : "1084", true);
  char info[400];
  std::snprintf(info, sizeof info,
                "WAVE\r\nfilesize = %ld\r\nformat = PCM\r\n\r\nsample_rate = %dHz\r\nchannel = %s\r\nresolution = "
                "%dbit\r\n\r\n\r\n※クォリティのレベルは変換時間に影響します",
                size, h.rate, channel_word(h.channels), h.bits);
  gtk_label_set_text(GTK_LABEL(control(ui, "1087")), info);
  GtkRange* slider = GTK_RANGE(control(ui, "1085"));
  g_signal_connect(slider, "value-changed", G_CALLBACK(quality_moved), control(ui, "1086"));
  gtk_range_set_value(slider, c.quality >= 1 && c.quality <= 100 ? c.quality : QUALITY_START);
  quality_moved(slider, control(ui, "1086"));
  gtk_widget_grab_focus(gtk_bin_get_child(GTK_BIN(list)));

  int32_t result = 0;
  for (;;) {
    if (gtk_dialog_run(GTK_DIALOG(dialog)) != 1) break;
    gchar* text = gtk_combo_box_text_get_active_text(list);
    int32_t rate = text ? std::atoi(text) : 0;
    g_free(text);
    if (rate < MIN_RATE || rate > MAX_RATE) {
      show_box(format::ERR_RATE_RANGE, nullptr, session::BOX_OK);
      continue;
    }
    c.rate = rate;
    c.bits = checked(ui, "1081") ? 8 : 16;
    c.channels = checked(ui, "1083") ? 1 : 2;
    // Positions 1 and 2 are the linear and cubic kernels; from 3 on the sinc, with two taps more.
    c.quality = int32_t(gtk_range_get_value(slider)) - 1;
    if (c.quality >= 2) c.quality += 2;
    result = 1;
    break;
  }
  gtk_widget_destroy(dialog);
  g_object_unref(ui);
  return result;
}

}  // namespace shell
