// The batch job list and its texts.
#include "library/batch.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "library/ini.h"
#include "tools/wave.h"

namespace library {

namespace {

constexpr const char* format_names[] = {"raw", "wav", "aif", "au", "voc"};
constexpr const char* emphasis_names[] = {"None", "50/15ms", "Reserved", "CCITT j.17"};

constexpr const char* titles[3][9] = {
    {"Target (mpeg audio)", "Source (PCM)", "s.freq", "lay", "kbps", "psy", "emphas", "flags", "status"},
    {"Target (PCM)", "Source (mpeg audio)", "Format", "status"},
    {"Target", "Source", "Quality", "Format (Hz/[bit])", "status"},
};
constexpr int32_t column_counts[3] = {9, 4, 5};

int32_t clamp_mode(int32_t mode) { return mode < 0 || mode > 2 ? BATCH_DECODE : mode; }

// Splits a path into its folder (with the trailing "/"), its name without the extension, and the
// extension with its dot.
void split_path(const std::string& path, std::string& folder, std::string& stem, std::string& ext) {
  size_t slash = path.rfind('/');
  size_t name_at = slash == std::string::npos ? 0 : slash + 1;
  folder = path.substr(0, name_at);
  size_t dot = path.rfind('.');
  if (dot == std::string::npos || dot < name_at || dot == name_at) dot = path.size();
  stem = path.substr(name_at, dot - name_at);
  ext = path.substr(dot);
}

bool ext_is(const std::string& ext, const char* want) { return strcasecmp(ext.c_str(), want) == 0; }

// The target of a new row. A ".wav" source converted to WAVE gets a mark behind its name so that the
// output never lands on the input; other extensions that the target doesn't replace stay in the
// name, so that "a.mpg" and "a.mp2" beside each other give two targets.
std::string target_for(int32_t mode, const std::string& source, const BatchChoices& c) {
  std::string folder, stem, ext;
  split_path(source, folder, stem, ext);
  if (!c.out_dir.empty()) folder = c.out_dir.back() == '/' ? c.out_dir : c.out_dir + "/";
  std::string name = stem;
  if (mode == BATCH_DECODE) {
    bool mpeg = ext.size() >= 3 && strncasecmp(ext.c_str(), ".mp", 3) == 0;
    if (ext_is(ext, ".wav"))
      name += "_dec";
    else if (!mpeg)
      name += ext;
    int32_t f = c.ext_filter >= 0 && c.ext_filter <= 4 ? c.ext_filter : 1;
    return folder + name + "." + format_names[f];
  }
  if (mode == BATCH_RESAMPLE) return folder + name + (ext_is(ext, ".wav") ? "_rs" : ext) + ".wav";
  // The extension names the layer the row asks for.
  if (!ext_is(ext, ".wav")) name += ext;
  return folder + name + ".mp" + std::to_string(c.layer >= 1 && c.layer <= 3 ? c.layer : 3);
}

std::string stereo_text(int32_t rate, int32_t channels, int32_t bits) {
  char text[40];
  std::snprintf(text, sizeof text, "%d%c[%d]", rate, channels == 1 ? 'm' : 's', bits);
  return text;
}

}  // namespace

int32_t add_batch_entry(BatchList& list, const std::string& source, const BatchChoices& c, int32_t row) {
  for (const BatchEntry& e : list.entries)
    if (strcasecmp(e.source.c_str(), source.c_str()) == 0) return 0;
  const int32_t mode = clamp_mode(list.mode);
  BatchEntry e;
  e.source = source;
  e.target = target_for(mode, source, c);
  int32_t rate = 0, bits = 16, channels = 2;
  uint32_t size = 0;
  if (mode != BATCH_DECODE) probe_wave(source.c_str(), rate, bits, channels, size);
  if (mode == BATCH_DECODE) {
    e.fields[0] = format_names[c.ext_filter >= 0 && c.ext_filter <= 4 ? c.ext_filter : 1];
  } else if (mode == BATCH_RESAMPLE) {
    e.fields[0] = std::to_string(c.quality);
    e.fields[1] = stereo_text(rate, channels, bits) + "->" +
                  stereo_text(c.rate ? c.rate : rate, c.channels ? c.channels : channels, c.bits ? c.bits : bits);
  } else {
    char freq[24];
    std::snprintf(freq, sizeof freq, "%d%c", rate, c.mode_letter);
    e.fields[0] = freq;
    e.fields[1] = std::to_string(c.layer);
    // 0 stands for the encoder's default at the source's rate.
    e.fields[2] = std::to_string(c.kbps ? c.kbps : rate >= 32000 || rate == 0 ? 192 : 96);
    e.fields[3] = std::to_string(c.psy_model);
    e.fields[4] = emphasis_names[c.emphasis >= 0 && c.emphasis <= 3 ? c.emphasis : 0];
    e.fields[5] = c.flags;
  }
  if (row < 0 || row > int32_t(list.entries.size())) row = int32_t(list.entries.size());
  list.entries.insert(list.entries.begin() + row, std::move(e));
  return 1;
}

int32_t write_batch_list(const BatchList& list, const char* path) {
  std::string text;
  for (const BatchEntry& e : list.entries) text += e.source + "\r\n";
  return replace_file(path, text) ? 1 : 0;
}

int32_t read_batch_list(BatchList& list, const char* path, const BatchChoices& choices) {
  std::string text;
  if (read_text_file(path, text) != TEXT_OK) return -1;
  int32_t added = 0;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) added += add_batch_entry(list, line, choices);
  }
  return added;
}

int32_t batch_column_count(int32_t mode) { return column_counts[clamp_mode(mode)]; }

const char* batch_column_title(int32_t mode, int32_t column) {
  mode = clamp_mode(mode);
  return column >= 0 && column < column_counts[mode] ? titles[mode][column] : nullptr;
}

std::string batch_column_text(int32_t mode, const BatchEntry& entry, int32_t column) {
  mode = clamp_mode(mode);
  if (column == 0) return entry.target;
  if (column == 1) return entry.source;
  if (column == column_counts[mode] - 1) return batch_status_text(mode, entry.status);
  if (column > 1 && column < column_counts[mode]) return entry.fields[column - 2];
  return {};
}

const char* batch_status_text(int32_t mode, int32_t status) {
  switch (status) {
    case STATUS_RUNNING:
      return mode == BATCH_ENCODE ? "encoding" : mode == BATCH_RESAMPLE ? "resampling" : "decoding";
    case STATUS_DONE:
      return "done.";
    case STATUS_BREAK:
      return "-break-";
    case STATUS_SKIP:
      return "Skip";
    case STATUS_NOT_FOUND:
      return "file not found";
    case STATUS_ERROR:
      return "error";
    default:
      return "";
  }
}

const char* batch_ready_caption(int32_t mode) {
  mode = clamp_mode(mode);
  return mode == BATCH_ENCODE   ? "Ready TOVRA encoder"
         : mode == BATCH_DECODE ? "Ready TOVRA decoder"
                                : "Ready TOVRA re-sampler";
}

std::string batch_running_caption(int32_t mode, int32_t index, int32_t total) {
  char text[64];
  std::snprintf(text, sizeof text,
                clamp_mode(mode) == BATCH_RESAMPLE ? "[%d/%d] re-sampling..." : "[%d/%d] decoding...", index + 1,
                total);
  return text;
}

int32_t batch_remaining_minutes(int64_t elapsed_seconds, int64_t units_total, int64_t units_done) {
  if (units_done <= 0) return -1;
  return int32_t(elapsed_seconds * (units_total - units_done) / units_done / 60 + 1);
}

int32_t batch_decode_format(const BatchEntry& entry) {
  // From the end of the table down, by the first three letters: "au" matches "au" alone.
  for (int32_t f = 4; f >= 0; --f)
    if (std::strncmp(entry.fields[0].c_str(), format_names[f], 3) == 0) return f;
  return 0;
}

void set_decode_format(BatchEntry& entry, int32_t code) {
  entry.fields[0] = format_names[code];
  size_t dot = entry.target.rfind('.');
  size_t slash = entry.target.rfind('/');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) entry.target.resize(dot);
  entry.target += std::string(".") + format_names[code];
}

void batch_resample_params(const BatchEntry& entry, int32_t& rate, int32_t& bits, int32_t& channels, int32_t& quality) {
  quality = std::atoi(entry.fields[0].c_str());
  const std::string& f = entry.fields[1];
  size_t arrow = f.find('>');
  std::string target = arrow == std::string::npos ? f : f.substr(arrow + 1);
  rate = std::atoi(target.c_str());
  size_t bracket = target.find('[');
  bits = bracket == std::string::npos ? 16 : std::atoi(target.c_str() + bracket + 1);
  channels = bracket != std::string::npos && bracket > 0 && target[bracket - 1] == 'm' ? 1 : 2;
}

bool probe_wave(const char* path, int32_t& rate, int32_t& bits, int32_t& channels, uint32_t& data_size) {
  tools::WaveHeader h;
  if (tools::probe_wave_file(path, h) != format::ERR_OK) return false;
  rate = h.rate;
  // The tools work on 8 or 16-bit samples: wider sources come out in 16 bits by default.
  bits = h.bits == 8 ? 8 : 16;
  channels = h.channels;
  data_size = h.data_size;
  return true;
}

}  // namespace library
