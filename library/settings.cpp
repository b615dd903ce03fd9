// The settings store. One table lists every key in file order with where its value lives and its
// default; load, save and the listing walk it. The few keys with a rule of their own ("Build",
// "Rate" and "Overdrive" sharing rate_setting, "Pentium", "PlayNum", "CurrentDir") have a kind of
// their own in the table.
#include "library/settings.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "library/playlist.h"

namespace library {

Settings settings;
OutputOptions options;

namespace {

enum Kind : int32_t {
  KIND_INT,
  KIND_BYTE,
  KIND_STRING,
  KIND_BUILD,
  KIND_CURRENT_DIR,
  KIND_PLAY_NUM,
  KIND_RATE,
  KIND_OVERDRIVE,
  KIND_PENTIUM,
};

// Settings files written on Windows hold folder names of at most 260 bytes. Paths here may be
// longer, and a cut path is a wrong path, so folders get the system's limit; the font face keeps its record's 32.
constexpr size_t PATH_BYTES = PATH_MAX;
constexpr size_t FACE_BYTES = 32;

struct Key {
  const char* section;
  const char* name;
  Kind kind;
  void* field;  // int32_t*, uint8_t* or std::string* by kind
  int32_t def;
};

constexpr const char* TOVRA = "TOVRA";
constexpr const char* POSITION = "Position";
constexpr const char* SETTINGS = "Settings";
constexpr const char* FONT = "Font";

Settings& s = settings;
FontSettings& f = settings.font;

const Key keys[] = {
    {TOVRA, "Build", KIND_BUILD, &s.build, 0},

    {POSITION, "X", KIND_INT, &s.x, POSITION_DEFAULT},
    {POSITION, "Y", KIND_INT, &s.y, POSITION_DEFAULT},
    {POSITION, "TX", KIND_INT, &s.tx, POSITION_UNSET},
    {POSITION, "TY", KIND_INT, &s.ty, POSITION_UNSET},
    {POSITION, "PX", KIND_INT, &s.px, POSITION_UNSET},
    {POSITION, "PY", KIND_INT, &s.py, POSITION_UNSET},
    {POSITION, "PXS", KIND_INT, &s.pxs, 352},
    {POSITION, "PYS", KIND_INT, &s.pys, 384},
    {POSITION, "EX", KIND_INT, &s.ex, POSITION_UNSET},
    {POSITION, "EY", KIND_INT, &s.ey, POSITION_UNSET},
    {POSITION, "EXS", KIND_INT, &s.exs, 600},
    {POSITION, "EYS", KIND_INT, &s.eys, 420},
    {POSITION, "CurrentDir", KIND_CURRENT_DIR, &s.current_dir, 0},
    {POSITION, "BatchEncDir", KIND_STRING, &s.batch_enc_dir, 0},
    {POSITION, "BatchDecDir", KIND_STRING, &s.batch_dec_dir, 0},
    {POSITION, "BatchResDir", KIND_STRING, &s.batch_res_dir, 0},
    {POSITION, "BatchJobs", KIND_INT, &s.batch_jobs, 1},

    {SETTINGS, "PlayList", KIND_STRING, &s.playlist_file, 0},
    {SETTINGS, "PlayNum", KIND_PLAY_NUM, nullptr, 0},
    {SETTINGS, "Pl_disp", KIND_INT, &s.pl_disp, 0},
    {SETTINGS, "Pl_top", KIND_INT, &s.pl_top, 0},
    {SETTINGS, "Volume", KIND_INT, &s.volume, 80},
    {SETTINGS, "Pan", KIND_INT, &s.pan, 45},
    {SETTINGS, "WaveOutDevice", KIND_INT, &s.wave_out_device, -1},
    {SETTINGS, "Rate", KIND_RATE, nullptr, 0},
    {SETTINGS, "Overdrive", KIND_OVERDRIVE, nullptr, 1},
    {SETTINGS, "Mpeg2R", KIND_INT, &options.mpeg2_relief, 0},
    {SETTINGS, "Pentium", KIND_PENTIUM, &options.pentium_synth, 0},
    {SETTINGS, "Stereo", KIND_INT, &options.stereo, 1},
    {SETTINGS, "16bit", KIND_INT, &options.sixteen_bit, 1},
    {SETTINGS, "Alias", KIND_INT, &options.alias, 1},
    {SETTINGS, "Emphasis", KIND_INT, &options.emphasis, 1},
    {SETTINGS, "Hi-Fi", KIND_INT, &options.hi_fi, 0},
    {SETTINGS, "ForceDeEmphasis", KIND_INT, &options.force_de_emphasis, 0},
    {SETTINGS, "Repeat", KIND_INT, &options.repeat, 0},
    {SETTINGS, "Render", KIND_INT, &s.render, 1},
    {SETTINGS, "Graphics", KIND_INT, &s.graphics, 1},
    {SETTINGS, "Wait", KIND_INT, &s.wait, 33},
    {SETTINGS, "Style", KIND_INT, &s.style, 0},
    {SETTINGS, "Topmost", KIND_INT, &s.topmost, 0},
    {SETTINGS, "Double", KIND_INT, &s.double_size, 0},
    {SETTINGS, "Capture", KIND_INT, &s.capture, 1},
    {SETTINGS, "Snap", KIND_INT, &s.snap, 1},
    {SETTINGS, "Tray", KIND_INT, &s.tray, 0},
    {SETTINGS, "Hold", KIND_INT, &s.hold, 0},
    {SETTINGS, "Leave", KIND_INT, &options.leave, 0},
    {SETTINGS, "Prior_dec", KIND_INT, &options.prior_dec, 0},
    {SETTINGS, "Prior_cnv", KIND_INT, &options.prior_cnv, 0},
    {SETTINGS, "RevTime", KIND_INT, &s.rev_time, 0},
    {SETTINGS, "Powersave", KIND_INT, &options.powersave, 0},
    {SETTINGS, "ExtFilter", KIND_INT, &options.ext_filter, 1},
    {SETTINGS, "ID3v1.1", KIND_INT, &s.id3v11, 0},
    {SETTINGS, "J-IDtag", KIND_INT, &s.j_idtag, 1},
    {SETTINGS, "TagTitle", KIND_INT, &s.tag_title, 1},
    {SETTINGS, "Scroll", KIND_INT, &s.scroll, 1},
    {SETTINGS, "FixedTitle", KIND_INT, &s.fixed_title, 0},

    {FONT, "Height", KIND_INT, &f.height, 10},
    {FONT, "Width", KIND_INT, &f.width, 5},
    {FONT, "Escape", KIND_INT, &f.escape, 0},
    {FONT, "Orient", KIND_INT, &f.orient, 0},
    {FONT, "Weight", KIND_INT, &f.weight, 0},
    {FONT, "Italic", KIND_BYTE, &f.italic, 0},
    {FONT, "CharSet", KIND_BYTE, &f.charset, 1},
    {FONT, "OutPrecis", KIND_BYTE, &f.out_precis, 2},
    {FONT, "ClipPrecis", KIND_BYTE, &f.clip_precis, 1},
    {FONT, "Quality", KIND_BYTE, &f.quality, 0},
    {FONT, "Pitch", KIND_BYTE, &f.pitch, 0},
    {FONT, "Face", KIND_STRING, &f.face, 0},
};

constexpr int32_t SAVE_ATTEMPTS = 16;

std::string number(int32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%d", v);
  return buf;
}

std::string current_folder() {
  char buf[PATH_MAX];
  return getcwd(buf, sizeof buf) ? std::string(buf) : std::string();
}

std::string absolute(const std::string& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::absolute(path, ec);
  return ec ? path : p.lexically_normal().string();
}

// Makes the folder that will hold path, and any missing folders above it.
void make_parent_folders(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    (void)mkdir(path.substr(0, slash).c_str(), 0700);
}

std::string home_folder() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

}  // namespace

void reset_settings() {
  settings = Settings{};
  options = OutputOptions{};
}

std::string executable_folder() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return ".";
  exe[n] = 0;
  char* slash = std::strrchr(exe, '/');
  if (slash) *slash = 0;
  return exe;
}

std::string settings_file_path() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    exe[n] = 0;
    std::string folder(exe, split_path(exe).folder_len);
    std::string beside = folder + "tovra.ini";
    // Portable use needs the folder writable too: a save replaces the file through a new one.
    if (access(beside.c_str(), W_OK) == 0 && access(folder.c_str(), W_OK) == 0) return beside;
  }
  // A relative XDG_CONFIG_HOME is invalid and ignored.
  const char* config = std::getenv("XDG_CONFIG_HOME");
  std::string base = config && config[0] == '/' ? std::string(config) : home_folder() + "/.config";
  return base + "/tovra/tovra.ini";
}

std::string default_playlist_path(const std::string& settings_file) {
  PathParts parts = split_path(settings_file.c_str());
  size_t stem = size_t(parts.ext - settings_file.c_str());
  return settings_file.substr(0, stem) + ".m3u";
}

int32_t load_settings(const std::string& file, StartupRecord& out, int32_t cpu_family) {
  reset_settings();
  // Made absolute before "CurrentDir" moves the process elsewhere.
  settings.file = absolute(file);
  IniFile ini;
  bool found = ini_load(ini, settings.file) == TEXT_OK;
  for (const Key& k : keys) {
    int32_t v = ini_get_int(ini, k.section, k.name, k.def);
    switch (k.kind) {
      case KIND_INT:
      case KIND_BUILD:
        *static_cast<int32_t*>(k.field) = v;
        break;
      case KIND_BYTE:
        *static_cast<uint8_t*>(k.field) = uint8_t(v);
        break;
      case KIND_STRING:
      case KIND_CURRENT_DIR: {
        auto* str = static_cast<std::string*>(k.field);
        ini_get_string(ini, k.section, k.name, *str, k.field == &f.face ? FACE_BYTES : PATH_BYTES);
        if (k.kind == KIND_CURRENT_DIR && !str->empty()) (void)chdir(str->c_str());
        break;
      }
      case KIND_PLAY_NUM:
        playlist.current_entry.store(v, std::memory_order_relaxed);
        break;
      case KIND_RATE:
        options.rate_setting = uint32_t(v);
        break;
      case KIND_OVERDRIVE:
        if (v) options.rate_setting |= 4;
        break;
      case KIND_PENTIUM:
        // Only for processors below a Pentium, which have a choice to make; never saved.
        if (cpu_family < 5) options.pentium_synth = v;
        break;
    }
  }
  out = StartupRecord{settings.build, settings.x, settings.y};

  settings.default_playlist =
      settings.playlist_file.empty() ? default_playlist_path(settings.file) : settings.playlist_file;
  read_default_playlist(settings.default_playlist.c_str());
  return found ? 1 : 0;
}

std::vector<SettingValue> settings_values(bool as_saved) {
  std::vector<SettingValue> values;
  for (const Key& k : keys) {
    std::string v;
    switch (k.kind) {
      case KIND_INT:
        v = number(*static_cast<const int32_t*>(k.field));
        break;
      case KIND_BYTE:
        v = number(*static_cast<const uint8_t*>(k.field));
        break;
      case KIND_STRING:
        v = *static_cast<const std::string*>(k.field);
        break;
      case KIND_BUILD:
        v = number(as_saved ? SETTINGS_BUILD : settings.build);
        break;
      case KIND_CURRENT_DIR:
        v = current_folder();
        break;
      case KIND_PLAY_NUM:
        v = number(playlist.current_entry.load(std::memory_order_relaxed));
        break;
      case KIND_RATE:
        v = number(int32_t(options.rate_setting & 3));
        break;
      case KIND_OVERDRIVE:
        v = number(int32_t(options.rate_setting >> 2));
        break;
      case KIND_PENTIUM:
        if (as_saved) continue;
        v = number(options.pentium_synth);
        break;
    }
    values.push_back(SettingValue{k.section, k.name, std::move(v)});
  }
  return values;
}

int32_t write_profile_retry(IniFile& ini, const char* section, const char* key, const char* value,
                            const std::string& file) {
  ini_set(ini, section, key, value);
  for (int32_t attempt = 0; attempt < SAVE_ATTEMPTS; ++attempt)
    if (ini_save(ini, file)) return 1;
  return 0;
}

int32_t save_settings() {
  if (settings.file.empty()) return 0;
  // The file is read again so that keys and lines the program doesn't know survive the save.
  IniFile ini;
  const int32_t read = ini_load(ini, settings.file);
  // A file refused as too large is not ours to replace: its contents would be lost.
  if (read == TEXT_TOO_LARGE || read == TEXT_LONG_LINE) return 0;
  make_parent_folders(settings.file);
  std::vector<SettingValue> values = settings_values(true);
  if (!write_profile_retry(ini, values[0].section, values[0].key, values[0].value.c_str(), settings.file)) return 0;
  // The other keys go to the file in one replacement rather than one file write each; the retries
  // are those of the last key.
  for (size_t i = 1; i + 1 < values.size(); ++i) ini_set(ini, values[i].section, values[i].key, values[i].value);
  const SettingValue& last = values.back();
  if (!write_profile_retry(ini, last.section, last.key, last.value.c_str(), settings.file)) return 0;
  write_playlist(settings.default_playlist.c_str(), WRITE_AS_IS);
  return 1;
}

// Wide intermediates keep values outside the slider's range (before the clamps) from overflowing;
// within it the results are those of 32-bit arithmetic.
int32_t volume_level_of(int32_t volume) {
  int64_t level = ((int64_t(153) - volume) * 100 / 73) * 65536 / 100;  // step shifted left 16
  return int32_t(level >= 65536 ? level - 1 : level);
}

int32_t pan_level_of(int32_t pan) {
  int64_t level = (int64_t(pan) - 45) * 32768 / 22;  // (pan - 45) shifted left 15
  return int32_t(level < -32767 ? -32767 : level > 32767 ? 32767 : level);
}

void place_main_window(int32_t& x, int32_t& y, int32_t style, const WorkArea& area) {
  if (x == POSITION_DEFAULT || y == POSITION_DEFAULT) {
    x = area.left + (area.right - area.left) / 2 - 144;
    y = area.top + (area.bottom - area.top) / 2 - 61;
    return;
  }
  if (x < -72) x = 0;
  if (x >= area.right - 216) x = area.right - 288;
  if (style & 1) {
    if (y < 0) y = 0;
    if (y >= area.bottom - 23) y = area.bottom - 24;
  } else {
    if (y < -41) y = 0;
    if (y >= area.bottom - 82) y = area.bottom - 123;
  }
}

bool snapped_to_bottom(int32_t y, int32_t style, int32_t double_size, const WorkArea& area) {
  // Only the plain styles take part: a window that went to the tray or was minimised doesn't.
  if (style != 0 && style != 1) return false;
  int32_t height = (style == 1 ? 24 : 123) << (double_size ? 1 : 0);
  return y == area.bottom - height;
}

void clamp_settings(int32_t& x, int32_t& y) {
  // Out of range means "reset", not "nearest": a Volume of 154 is the loudest position.
  if (settings.volume >= 154 || settings.volume < 80) settings.volume = 80;
  if (settings.pan > 67 || settings.pan < 23) settings.pan = 45;
  settings.volume_level = volume_level_of(settings.volume);
  settings.pan_level = pan_level_of(settings.pan);
  options.rate_setting &= 7;
  if (settings.graphics < 1 || settings.graphics >= 4) settings.graphics = 1;
  if (settings.wait >= 84 || settings.wait < 11) settings.wait = 33;
  int32_t cur = playlist.current_entry.load(std::memory_order_relaxed);
  if (cur < 0 || cur >= PLAYLIST_SLOTS || !slot_used(cur)) playlist.current_entry.store(0, std::memory_order_relaxed);
  if (settings.double_size) {
    settings.double_size = 1;
    x &= ~1;
    y &= ~1;
  }
  if (options.ext_filter < 0 || options.ext_filter >= 5) options.ext_filter = 1;
}

}  // namespace library
