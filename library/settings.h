// The settings store: every persistent value of the program, read once at start-up from one profile
// file and written once at exit, and the start-up derivations that turn the raw values into what
// the rest of the program uses (clamps, gains, the window's place).
//
// The output choices land in library::options; the rest lands in library::settings, and "PlayNum"
// in playlist.current_entry. All of it is loaded and saved on the main thread while no session runs;
// afterwards the values are plain fields that other threads only read.
//
// The file: "tovra.ini" beside the executable when it exists there and can be written (portable
// use), else $XDG_CONFIG_HOME/tovra/tovra.ini (~/.config when unset). The default playlist lies
// beside it with the extension "m3u", unless "PlayList" names another.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "library/ini.h"

namespace library {

constexpr int32_t SETTINGS_BUILD = 108;          // written as "Build"
constexpr int32_t POSITION_DEFAULT = INT32_MIN;  // main window without a saved place: centred
constexpr int32_t POSITION_UNSET = INT32_MAX;    // a dialog without a saved place: placed by its owner

// The title display's font record, as the font creation call takes it.
struct FontSettings {
  int32_t height = 10;
  int32_t width = 5;
  int32_t escape = 0;
  int32_t orient = 0;
  int32_t weight = 0;
  uint8_t italic = 0;  // underline and strike-out aren't stored and are 0
  uint8_t charset = 1;
  uint8_t out_precis = 2;
  uint8_t clip_precis = 1;
  uint8_t quality = 0;
  uint8_t pitch = 0;
  std::string face;  // at most 31 bytes; empty means the display's own choice
};

struct Settings {
  int32_t build = 0;  // "Build" as read; compared with nothing

  // "Position"
  int32_t x = POSITION_DEFAULT, y = POSITION_DEFAULT;
  int32_t tx = POSITION_UNSET, ty = POSITION_UNSET;  // tag editor
  int32_t px = POSITION_UNSET, py = POSITION_UNSET;  // playlist editor
  int32_t pxs = 352, pys = 384;
  int32_t ex = POSITION_UNSET, ey = POSITION_UNSET;  // batch converter
  int32_t exs = 600, eys = 420;
  std::string current_dir;  // as read; the save takes the process's current folder
  std::string batch_enc_dir, batch_dec_dir, batch_res_dir;
  int32_t batch_jobs = 1;  // "BatchJobs": entries the batch window converts at once (1 keeps one job at a time)

  // "Settings" (the output choices are in options, "PlayNum" is playlist.current_entry)
  std::string playlist_file;  // "PlayList"; empty: the default playlist beside the settings file
  int32_t pl_disp = 0;
  int32_t pl_top = 0;
  int32_t volume = 80;           // slider: 80 loudest, 153 silent
  int32_t pan = 45;              // slider: 45 the middle, 23-67
  int32_t wave_out_device = -1;  // -1: the default device
  int32_t render = 1;            // visualisers on
  int32_t graphics = 1;          // 1 level, 2 spectrum, 3 VU
  int32_t wait = 33;             // visualiser period, ms
  int32_t style = 0;             // bit 0 shade, bit 1 minimised, bit 2 in the tray
  int32_t topmost = 0;
  int32_t double_size = 0;  // "Double"
  int32_t capture = 1;
  int32_t snap = 1;
  int32_t tray = 0;
  int32_t hold = 0;
  int32_t rev_time = 0;
  int32_t id3v11 = 0;   // "ID3v1.1"
  int32_t j_idtag = 1;  // "J-IDtag"
  int32_t tag_title = 1;
  int32_t scroll = 1;
  int32_t fixed_title = 0;

  FontSettings font;

  // Derived at start-up from "Volume" and "Pan": device gain 0-65535 and balance -32767..32767.
  int32_t volume_level = 65535;
  int32_t pan_level = 0;

  // Where this run's settings and default playlist are; set by load_settings.
  std::string file;
  std::string default_playlist;
};

extern Settings settings;

// The user's output choices. A session copies what it needs at the start of each track, so edits take effect with the
// next track.
struct OutputOptions {
  uint32_t rate_setting = 4;      // bits 0-1 "Rate" (0 full, 1 half, 2 quarter, 3 the 1/8 position), bit 2 "Overdrive"
  int32_t mpeg2_relief = 0;       // "Mpeg2R"
  int32_t pentium_synth = 0;      // "Pentium"
  int32_t stereo = 1;             // "Stereo"
  int32_t sixteen_bit = 1;        // "16bit"
  int32_t alias = 1;              // "Alias": kept and saved, read by nothing
  int32_t emphasis = 1;           // "Emphasis"
  int32_t hi_fi = 0;              // "Hi-Fi"
  int32_t force_de_emphasis = 0;  // "ForceDeEmphasis": 1 and 3 override the stream's field
  int32_t powersave = 0;          // "Powersave"
  int32_t prior_dec = 0;          // "Prior_dec"
  int32_t prior_cnv = 0;          // "Prior_cnv"
  int32_t leave = 0;              // "Leave": keep a cancelled output file
  int32_t ext_filter = 1;         // "ExtFilter": 0 raw, 1 wav, 2 aif, 3 au, 4 voc
  int32_t repeat = 0;             // "Repeat": 0 stop at the end, 1 wrap, 2 random
  // Not a setting: file jobs take off the encoder delay and padding that an Info frame records.
  int32_t gapless = 1;
};
extern OutputOptions options;

// Defaults everywhere, options included (tests, and the start of load_settings).
void reset_settings();

// What the start-up keeps of the load: the file's build and the main window's saved place.
struct StartupRecord {
  int32_t build = 0;
  int32_t x = POSITION_DEFAULT;
  int32_t y = POSITION_DEFAULT;
};

// The folder of the running program (without a trailing slash), "." when it cannot be told.
std::string executable_folder();
// The settings file of this user and executable, as described above.
std::string settings_file_path();
// The default playlist that goes with a settings file: its path with the extension "m3u".
std::string default_playlist_path(const std::string& settings_file);

// Reads every key in file order (missing keys and a missing file give the defaults), restores
// "CurrentDir" as the current folder, then reads the default playlist. "Pentium" is read only when
// cpu_family (the processor's, as detected) is below 5. Returns 1 when the file was read, 0 when
// the defaults stand in.
int32_t load_settings(const std::string& file, StartupRecord& out, int32_t cpu_family);

// Saves one key with up to 16 attempts; 1 on success. The document is updated in memory and the
// file replaced on disk.
int32_t write_profile_retry(IniFile& ini, const char* section, const char* key, const char* value,
                            const std::string& file);

// Writes every key in file order and then the default playlist (mode 0), into settings.file. The
// first key, "Build", is the test that the file can be written: when it fails, nothing is saved.
// Keys and lines the program doesn't know are kept. Returns 1 when saved, 0 when the save was lost
// (silently, for the user).
int32_t save_settings();

// One key with the text it has: as_saved gives what save_settings writes ("Build" as 108, no
// "Pentium", which is only ever entered by hand); else the values in effect ("Build" as read,
// "Pentium" included).
struct SettingValue {
  const char* section;
  const char* key;
  std::string value;
};
std::vector<SettingValue> settings_values(bool as_saved);

// Start-up derivations.
int32_t volume_level_of(int32_t volume);  // 73 slider steps spread over 0-65535
int32_t pan_level_of(int32_t pan);

// The work area of the screen the window opens on, as left, top, right and bottom edges.
struct WorkArea {
  int32_t left, top, right, bottom;
};
// Centres a window without a saved place, or keeps a saved one reachable. The clamps are lopsided on
// purpose: the window may hang off the left and the top by part of its size, while enough of it
// stays on screen to be grabbed.
void place_main_window(int32_t& x, int32_t& y, int32_t style, const WorkArea& area);
// The window stands on the bottom edge of the work area, for the snapping of the skin's drag.
bool snapped_to_bottom(int32_t y, int32_t style, int32_t double_size, const WorkArea& area);
// The clamps of the loaded values: "Volume", "Pan", "Rate", "Graphics", "Wait", "PlayNum" (against
// the loaded playlist), "Double" (which also makes x and y even), "ExtFilter"; and the gains.
void clamp_settings(int32_t& x, int32_t& y);

}  // namespace library
