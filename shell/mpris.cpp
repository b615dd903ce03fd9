// The MPRIS 2 object: GDBus dispatches every call on the main loop, the thread that owns the
// transport, so calls steer the session directly.
#include "shell/mpris.h"
#include "shell/visual_core.h"

#include <gio/gio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "library/playlist.h"
#include "library/settings.h"
#include "output/wave.h"
#include "session/session.h"
#include "session/transport.h"
#include "shell/window.h"

namespace shell {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr const char* OBJECT_PATH = "/org/mpris/MediaPlayer2";
constexpr const char* ROOT_IFACE = "org.mpris.MediaPlayer2";
constexpr const char* PLAYER_IFACE = "org.mpris.MediaPlayer2.Player";
constexpr const char* NO_TRACK = "/org/mpris/MediaPlayer2/TrackList/NoTrack";
constexpr int64_t USEC = 1000000;
// The volume slider runs from 80 (loudest) to 153 (silent).
constexpr int32_t VOLUME_LOUD = 80, VOLUME_SILENT = 153;

constexpr const char* INTROSPECTION = R"(<node>
  <interface name="org.mpris.MediaPlayer2">
    <method name="Raise"/>
    <method name="Quit"/>
    <property name="CanQuit" type="b" access="read"/>
    <property name="CanRaise" type="b" access="read"/>
    <property name="HasTrackList" type="b" access="read"/>
    <property name="Identity" type="s" access="read"/>
    <property name="DesktopEntry" type="s" access="read"/>
    <property name="SupportedUriSchemes" type="as" access="read"/>
    <property name="SupportedMimeTypes" type="as" access="read"/>
  </interface>
  <interface name="org.mpris.MediaPlayer2.Player">
    <method name="Next"/>
    <method name="Previous"/>
    <method name="Pause"/>
    <method name="PlayPause"/>
    <method name="Stop"/>
    <method name="Play"/>
    <method name="Seek"><arg direction="in" name="Offset" type="x"/></method>
    <method name="SetPosition">
      <arg direction="in" name="TrackId" type="o"/>
      <arg direction="in" name="Position" type="x"/>
    </method>
    <method name="OpenUri"><arg direction="in" name="Uri" type="s"/></method>
    <signal name="Seeked"><arg name="Position" type="x"/></signal>
    <property name="PlaybackStatus" type="s" access="read"/>
    <property name="LoopStatus" type="s" access="read"/>
    <property name="Shuffle" type="b" access="read"/>
    <property name="Rate" type="d" access="read"/>
    <property name="Metadata" type="a{sv}" access="read"/>
    <property name="Volume" type="d" access="readwrite"/>
    <property name="Position" type="x" access="read"/>
    <property name="MinimumRate" type="d" access="read"/>
    <property name="MaximumRate" type="d" access="read"/>
    <property name="CanGoNext" type="b" access="read"/>
    <property name="CanGoPrevious" type="b" access="read"/>
    <property name="CanPlay" type="b" access="read"/>
    <property name="CanPause" type="b" access="read"/>
    <property name="CanSeek" type="b" access="read"/>
    <property name="CanControl" type="b" access="read"/>
  </interface>
</node>)";

const char* const MIME_TYPES[] = {"audio/mpeg", "audio/x-mp3", "audio/mp2", "audio/x-mpegurl", nullptr};
const char* const URI_SCHEMES[] = {"file", nullptr};

// What the bus last heard, to tell what changed.
struct Published {
  std::string status;
  int32_t entry = -1;
  std::string path;
  int32_t seconds = -1;
  int32_t volume = -1;
  int32_t repeat = -1;
  bool has_entry = false;
};

struct Bus {
  guint owner = 0;
  GDBusConnection* connection = nullptr;
  GDBusNodeInfo* node = nullptr;
  guint objects[2] = {};
  guint timer = 0;
  bool instance_name = false;
  Published last;
  // The current entry's tag, read from its file when the entry or its playing stream changes.
  std::string tag_path;
  int32_t tag_seconds = -1;
  std::string title, artist, album;
};
Bus bus;

bool running() { return session::state.decoder_command.load(relaxed) == session::CMD_RUN; }
int32_t current() { return library::playlist.current_entry.load(relaxed); }
bool has_entry() { return library::slot_used(current()); }

const char* playback_status() {
  if (session::state.paused.load(relaxed)) return "Paused";
  return running() || session::state.decoder_running.load(relaxed) ? "Playing" : "Stopped";
}

int64_t position_us() { return running() ? int64_t(output::wave.display_seconds.load(relaxed)) * USEC : 0; }
double volume() { return double(VOLUME_SILENT - library::settings.volume) / (VOLUME_SILENT - VOLUME_LOUD); }

// Repeat 1 loops the playlist; 2 is random order, which the bus calls shuffle.
const char* loop_status() { return session::options.repeat == 1 ? "Playlist" : "None"; }

std::string track_id(int32_t index) { return "/org/tovra/track/" + std::to_string(index); }

// The ID3 version 1 tag at the file's end: title, artist, album (CP932 bytes, shown as UTF-8).
void read_tag(const char* path) {
  bus.title.clear();
  bus.artist.clear();
  bus.album.clear();
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return;
  uint8_t tag[128] = {};
  bool ok = std::fseek(f, -128, SEEK_END) == 0 && std::fread(tag, 1, sizeof tag, f) == sizeof tag;
  std::fclose(f);
  if (!ok || std::memcmp(tag, "TAG", 3) != 0) return;
  bus.title = to_utf8(tag_field(tag + 3, 30).c_str());
  bus.artist = to_utf8(tag_field(tag + 33, 30).c_str());
  bus.album = to_utf8(tag_field(tag + 63, 30).c_str());
}

GVariant* metadata() {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
  int32_t index = current();
  if (!library::slot_used(index)) {
    g_variant_builder_add(&b, "{sv}", "mpris:trackid", g_variant_new_object_path(NO_TRACK));
    return g_variant_builder_end(&b);
  }
  const char* path = library::playlist.entries[index].path;
  if (bus.tag_path != path) {
    bus.tag_path = path;
    read_tag(path);
  }
  g_variant_builder_add(&b, "{sv}", "mpris:trackid", g_variant_new_object_path(track_id(index).c_str()));
  if (running() && session::stream.play_seconds > 0)
    g_variant_builder_add(&b, "{sv}", "mpris:length",
                          g_variant_new_int64(int64_t(session::stream.play_seconds) * USEC));
  std::string title = bus.title;
  if (title.empty()) {
    const char* name = std::strrchr(path, '/');
    title = to_utf8(name && name[1] ? name + 1 : path);
  }
  g_variant_builder_add(&b, "{sv}", "xesam:title", g_variant_new_string(title.c_str()));
  if (!bus.artist.empty()) {
    const char* artists[] = {bus.artist.c_str(), nullptr};
    g_variant_builder_add(&b, "{sv}", "xesam:artist", g_variant_new_strv(artists, -1));
  }
  if (!bus.album.empty()) g_variant_builder_add(&b, "{sv}", "xesam:album", g_variant_new_string(bus.album.c_str()));
  if (gchar* uri = g_filename_to_uri(path, nullptr, nullptr)) {
    g_variant_builder_add(&b, "{sv}", "xesam:url", g_variant_new_string(uri));
    g_free(uri);
  }
  return g_variant_builder_end(&b);
}

GVariant* root_property(const gchar* name) {
  if (!std::strcmp(name, "CanQuit") || !std::strcmp(name, "CanRaise")) return g_variant_new_boolean(TRUE);
  if (!std::strcmp(name, "HasTrackList")) return g_variant_new_boolean(FALSE);
  if (!std::strcmp(name, "Identity")) return g_variant_new_string("TOVRA");
  if (!std::strcmp(name, "DesktopEntry")) return g_variant_new_string("tovra");
  if (!std::strcmp(name, "SupportedUriSchemes")) return g_variant_new_strv(URI_SCHEMES, -1);
  if (!std::strcmp(name, "SupportedMimeTypes")) return g_variant_new_strv(MIME_TYPES, -1);
  return nullptr;
}

GVariant* player_property(const gchar* name) {
  if (!std::strcmp(name, "PlaybackStatus")) return g_variant_new_string(playback_status());
  if (!std::strcmp(name, "LoopStatus")) return g_variant_new_string(loop_status());
  if (!std::strcmp(name, "Shuffle")) return g_variant_new_boolean(session::options.repeat == 2);
  if (!std::strcmp(name, "Rate") || !std::strcmp(name, "MinimumRate") || !std::strcmp(name, "MaximumRate"))
    return g_variant_new_double(1.0);
  if (!std::strcmp(name, "Metadata")) return metadata();
  if (!std::strcmp(name, "Volume")) return g_variant_new_double(volume());
  if (!std::strcmp(name, "Position")) return g_variant_new_int64(position_us());
  if (!std::strcmp(name, "CanGoNext") || !std::strcmp(name, "CanGoPrevious") || !std::strcmp(name, "CanPlay"))
    return g_variant_new_boolean(has_entry());
  if (!std::strcmp(name, "CanPause")) return g_variant_new_boolean(running() || has_entry());
  if (!std::strcmp(name, "CanSeek")) return g_variant_new_boolean(running());
  if (!std::strcmp(name, "CanControl")) return g_variant_new_boolean(TRUE);
  return nullptr;
}

GVariant* get_property(GDBusConnection*, const gchar*, const gchar*, const gchar* iface, const gchar* name,
                       GError** error, gpointer) {
  GVariant* v = std::strcmp(iface, ROOT_IFACE) == 0 ? root_property(name) : player_property(name);
  if (!v) g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "No property %s", name);
  return v;
}

void emit_seeked(int64_t position) {
  if (bus.connection)
    g_dbus_connection_emit_signal(bus.connection, nullptr, OBJECT_PATH, PLAYER_IFACE, "Seeked",
                                  g_variant_new("(x)", position), nullptr);
}

// A position in microseconds: before the start plays from the start; past the end goes on to the
// next track, as a player on the bus is expected to.
void seek_to(int64_t us) {
  if (!running()) return;
  if (us < 0) us = 0;
  if (us > int64_t(session::stream.play_seconds) * USEC) {
    post_command(CMD_NEXT, 0);
    return;
  }
  session::seek_milliseconds(int32_t(us / 1000));
  emit_seeked(us);
}

// A local file to play now: it joins the playlist's end and starts, as a file chosen in the window.
bool open_uri(const gchar* uri) {
  gchar* path = g_filename_from_uri(uri, nullptr, nullptr);
  if (!path) return false;
  int32_t index = g_file_test(path, G_FILE_TEST_IS_REGULAR) ? library::append_entry(path) : -1;
  g_free(path);
  if (index < 0 || session::stop_play() == 0) return false;
  library::playlist.current_entry.store(index, relaxed);
  post_command(CMD_PLAY, 3);
  return true;
}

void method_call(GDBusConnection*, const gchar*, const gchar*, const gchar* iface, const gchar* name, GVariant* args,
                 GDBusMethodInvocation* call, gpointer) {
  bool paused = session::state.paused.load(relaxed) != 0;
  if (!std::strcmp(iface, ROOT_IFACE)) {
    if (!std::strcmp(name, "Raise")) window_foreground();
    if (!std::strcmp(name, "Quit")) post_command(CMD_CLOSE, 0);
  } else if (!std::strcmp(name, "Play")) {
    post_command(CMD_PLAY, 0);  // resumes from a pause, as the play button does
  } else if (!std::strcmp(name, "Pause")) {
    if (running() && !paused) session::pause_command();
  } else if (!std::strcmp(name, "PlayPause")) {
    if (running())
      session::pause_command();
    else
      post_command(CMD_PLAY, 0);
  } else if (!std::strcmp(name, "Stop")) {
    post_command(CMD_STOP, 0);
  } else if (!std::strcmp(name, "Next")) {
    post_command(CMD_NEXT, 0);
  } else if (!std::strcmp(name, "Previous")) {
    post_command(CMD_PREVIOUS, 0);
  } else if (!std::strcmp(name, "Seek")) {
    int64_t offset = 0;
    g_variant_get(args, "(x)", &offset);
    seek_to(position_us() + offset);
  } else if (!std::strcmp(name, "SetPosition")) {
    const gchar* track = nullptr;
    int64_t position = 0;
    g_variant_get(args, "(&ox)", &track, &position);
    if (track_id(current()) == track) seek_to(position);  // a stale track id is ignored
  } else if (!std::strcmp(name, "OpenUri")) {
    const gchar* uri = nullptr;
    g_variant_get(args, "(&s)", &uri);
    if (!open_uri(uri)) {
      g_dbus_method_invocation_return_error(call, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "Cannot play %s", uri);
      return;
    }
  }
  g_dbus_method_invocation_return_value(call, nullptr);
}

gboolean set_property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name, GVariant* value,
                      GError** error, gpointer) {
  if (std::strcmp(name, "Volume") != 0) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_PROPERTY_READ_ONLY, "%s is read-only", name);
    return FALSE;
  }
  double v = g_variant_get_double(value);
  v = v < 0 ? 0 : v > 1 ? 1 : v;
  window_set_volume(VOLUME_SILENT - int32_t(v * (VOLUME_SILENT - VOLUME_LOUD) + 0.5));
  return TRUE;
}

const GDBusInterfaceVTable vtable = {method_call, get_property, set_property, {}};

// Compares what the engine publishes with what the bus last heard and announces the difference.
gboolean publish_changes(gpointer) {
  if (!bus.connection) return G_SOURCE_CONTINUE;
  Published now;
  now.status = playback_status();
  now.entry = current();
  now.has_entry = has_entry();
  now.path = now.has_entry ? library::playlist.entries[now.entry].path : "";
  now.seconds = running() ? session::stream.play_seconds : 0;
  now.volume = library::settings.volume;
  now.repeat = session::options.repeat;
  Published& was = bus.last;
  GVariantBuilder changed;
  g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
  bool any = false;
  auto add = [&](const char* name) {
    g_variant_builder_add(&changed, "{sv}", name, player_property(name));
    any = true;
  };
  if (now.status != was.status) {
    add("PlaybackStatus");
    add("CanSeek");
  }
  if (now.entry != was.entry || now.path != was.path || now.seconds != was.seconds) {
    if (now.path != was.path) bus.tag_path.clear();  // the file may have been retagged
    add("Metadata");
  }
  if (now.has_entry != was.has_entry) {
    for (const char* name : {"CanGoNext", "CanGoPrevious", "CanPlay", "CanPause"}) add(name);
  }
  if (now.volume != was.volume) add("Volume");
  if (now.repeat != was.repeat) {
    add("LoopStatus");
    add("Shuffle");
  }
  bus.last = now;
  GVariant* body = g_variant_builder_end(&changed);
  if (any) {
    const gchar* none[] = {nullptr};
    g_dbus_connection_emit_signal(bus.connection, nullptr, OBJECT_PATH, "org.freedesktop.DBus.Properties",
                                  "PropertiesChanged", g_variant_new("(s@a{sv}^as)", PLAYER_IFACE, body, none),
                                  nullptr);
  } else {
    g_variant_unref(g_variant_ref_sink(body));
  }
  return G_SOURCE_CONTINUE;
}

void on_bus_acquired(GDBusConnection* connection, const gchar*, gpointer) {
  if (bus.objects[0]) return;  // the same connection, under a second name
  bus.connection = connection;
  for (int32_t i = 0; i < 2; ++i)
    bus.objects[i] = g_dbus_connection_register_object(connection, OBJECT_PATH, bus.node->interfaces[i], &vtable,
                                                       nullptr, nullptr, nullptr);
  publish_changes(nullptr);
  // A fifth of a second is quick enough for a sound menu and costs nothing while idle.
  bus.timer = g_timeout_add(200, publish_changes, nullptr);
}

void own_name(const std::string& name);

// A second window (started with -m) finds the name taken and takes one of its own, as players
// with several instances do on the bus.
void on_name_lost(GDBusConnection* connection, const gchar* name, gpointer) {
  if (!connection) {
    std::fprintf(stderr, "tovra: no session bus for %s\n", name);
  } else if (!bus.instance_name) {
    // The lost request stays as it is: releasing a name never owned makes the bus complain.
    bus.instance_name = true;
    own_name("org.mpris.MediaPlayer2.tovra.instance" + std::to_string(getpid()));
  }
}

void own_name(const std::string& name) {
  bus.owner = g_bus_own_name(G_BUS_TYPE_SESSION, name.c_str(), G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, on_bus_acquired,
                             nullptr, on_name_lost, nullptr, nullptr);
}

}  // namespace

void mpris_start() {
  // Only a bus that runs already: GLib would otherwise spawn dbus-launch from a worker thread to
  // start one tied to the X display, which is no business of a player.
  const gchar* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!address || !*address) {
    std::string socket = std::string(g_get_user_runtime_dir()) + "/bus";
    if (!g_file_test(socket.c_str(), G_FILE_TEST_EXISTS)) return;
  }
  bus.node = g_dbus_node_info_new_for_xml(INTROSPECTION, nullptr);
  own_name("org.mpris.MediaPlayer2.tovra");
}

void mpris_stop() {
  if (bus.timer) g_source_remove(bus.timer);
  for (guint& id : bus.objects)
    if (id && bus.connection) g_dbus_connection_unregister_object(bus.connection, id);
  if (bus.owner) g_bus_unown_name(bus.owner);
  if (bus.node) g_dbus_node_info_unref(bus.node);
  bus = Bus{};
}

}  // namespace shell
