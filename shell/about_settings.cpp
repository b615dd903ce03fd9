// The about box "tvraboutdlg" and the wave output settings "tvrsettingdlg": two modal dialogs of
// the main window, on the main thread. The settings dialog changes the values in memory; they reach
// the settings file when the program ends, as every setting does.
#include <gtk/gtk.h>

#include <cstdio>
#include <string>

#include "library/settings.h"
#include "output/wave.h"
#include "output/wave_device.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "session/platform.h"
#include "session/session.h"
#include "shell/dialogs.h"

namespace shell {

namespace {

GtkWidget* control(GtkBuilder* ui, const char* id) { return GTK_WIDGET(gtk_builder_get_object(ui, id)); }

bool checked(GtkBuilder* ui, const char* id) {
  return gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(control(ui, id)));
}
void check(GtkBuilder* ui, const char* id, bool on) {
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(control(ui, id)), on);
}

// What the device layer can do, in the capability words of a wave-out device. Every device is
// played through the same layer (SDL2 over the desktop's sound server), so the text is the layer's,
// the same for each entry: Linux's sound servers name no maker or product numbers (0), the driver
// version is the SDL2 interface's, two channels, a gain per channel (separate L/R and volume), no
// pitch or rate control, blocks played on the device's own thread (not synchronous), and a position
// counted in whole blocks (not sample-accurate).
constexpr const char* CAPABILITIES =
    "VenderID = %d\r\nProductID = %d\r\nDriverVersion = %d.%d\r\nSupported channels = %d\r\n"
    "-----------------------\r\nSeparate L/R = %s\r\nPitch Control = %s\r\nPlaybackRate Ctrl = %s\r\n"
    "Synchronous Playing = %s\r\nVolume Control = %s\r\nReturns Accurate = %s";
constexpr uint32_t DEVICE_SUPPORT = 8 | 4;  // 8 separate L/R, 4 volume

void show_capabilities(GtkComboBox*, gpointer ui) {
  auto word = [](uint32_t bit) { return (DEVICE_SUPPORT & bit) ? "Yes" : "No"; };
  char text[512];
  std::snprintf(text, sizeof text, CAPABILITIES, 0, 0, 2, 0, 2, word(8), word(1), word(2), word(16), word(4), word(32));
  // The label shows lines; the text keeps the CR LF ends of the device text it stands for.
  std::string shown;
  for (const char* c = text; *c; ++c)
    if (*c != '\r') shown += *c;
  gtk_label_set_text(GTK_LABEL(control(static_cast<GtkBuilder*>(ui), "c1058")), shown.c_str());
}

// The rate radio buttons in value order.
constexpr const char* RATE_IDS[] = {"c1051", "c1052", "c1053", "c1054"};

}  // namespace

void run_about_dialog(GtkWindow* parent) {
  GtkBuilder* ui = gtk_builder_new_from_resource("/org/tovra/about_dialog.ui");
  GtkWidget* dialog = control(ui, "tvraboutdlg");
  gtk_window_set_transient_for(GTK_WINDOW(dialog), parent);
  gtk_label_set_text(GTK_LABEL(control(ui, "c1001")), session::system_about_text().c_str());
  gtk_dialog_run(GTK_DIALOG(dialog));  // OK, Escape and the close box all just close it
  gtk_widget_destroy(dialog);
  g_object_unref(ui);
}

void run_wave_settings_dialog(GtkWindow* parent) {
  GtkBuilder* ui = gtk_builder_new_from_resource("/org/tovra/setting_dialog.ui");
  GtkWidget* dialog = control(ui, "tvrsettingdlg");
  gtk_window_set_transient_for(GTK_WINDOW(dialog), parent);
  session::OutputOptions& o = session::options;
  library::Settings& s = library::settings;

  // The default device always exists for the sound server, so the first entry stands even when
  // the device layer can name no device (no sound library, or a server that lists none).
  GtkComboBoxText* devices = GTK_COMBO_BOX_TEXT(control(ui, "c1050"));
  gtk_combo_box_text_append_text(devices, "Wave Mapper [Default]");
  int32_t count = 0;
  if (const output::WaveDeviceOps* ops = output::wave_device_ops()) {
    count = ops->device_count();
    for (int32_t d = 0; d < count; ++d) {
      char name[256] = "";
      if (ops->device_name(d, name, sizeof name) != output::WAVE_OK) std::snprintf(name, sizeof name, "%d", d);
      gtk_combo_box_text_append_text(devices, to_utf8(name).c_str());
    }
  }
  g_signal_connect(devices, "changed", G_CALLBACK(show_capabilities), ui);
  // A device number beyond today's list (a device unplugged since) shows as the default.
  gtk_combo_box_set_active(GTK_COMBO_BOX(devices),
                           s.wave_out_device >= -1 && s.wave_out_device < count ? s.wave_out_device + 1 : 0);

  check(ui, RATE_IDS[o.rate_setting & 3], true);
  check(ui, "c1061", o.rate_setting & 4);
  check(ui, "c1055", o.stereo);
  check(ui, "c1056", o.sixteen_bit);
  check(ui, "c1057", o.alias);
  check(ui, "c1059", o.emphasis);
  check(ui, "c1060", o.hi_fi);
  check(ui, "c1062", o.powersave);

  if (gtk_dialog_run(GTK_DIALOG(dialog)) == 1) {
    s.wave_out_device = gtk_combo_box_get_active(GTK_COMBO_BOX(devices)) - 1;
    output::wave.wave_out_device.store(s.wave_out_device);
    uint32_t rate = 0;
    for (uint32_t r = 3; r > 0 && rate == 0; --r)
      if (checked(ui, RATE_IDS[r])) rate = r;
    o.rate_setting = rate | (checked(ui, "c1061") ? 4u : 0u);
    o.stereo = checked(ui, "c1055");
    o.sixteen_bit = checked(ui, "c1056");
    o.alias = checked(ui, "c1057");
    o.emphasis = checked(ui, "c1059");
    o.hi_fi = checked(ui, "c1060");
    o.powersave = checked(ui, "c1062");
    gtk_widget_hide(dialog);
    // The play session took its copies at the track's start.
    if (session::state.decoder_running.load()) show_box(session::TEXT_NEXT_PLAY, nullptr, session::BOX_OK);
  }
  gtk_widget_destroy(dialog);
  g_object_unref(ui);
}

}  // namespace shell
