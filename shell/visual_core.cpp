#include "shell/visual_core.h"

#include <cmath>
#include <cstring>

namespace shell {

namespace {

FftTables make_tables() {
  FftTables t{};
  const double pi = 3.14159265358979323846;
  for (int32_t i = 0; i < FFT_N; ++i) {
    t.sin[i] = float(std::sin(i * -pi / 64));
    t.cos[i] = float(std::cos(i * -pi / 64));
  }
  for (int32_t i = 0; i < 64; ++i) t.window[i] = float(std::sqrt(0.5 - 0.5 * std::cos(i * pi / 32)));
  return t;
}

int32_t reverse7(int32_t i) {
  int32_t r = 0;
  for (int32_t b = 0; b < 7; ++b) r |= ((i >> b) & 1) << (6 - b);
  return r;
}

int32_t sample16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }


const char* file_name_part(const char* path) {
  const char* slash = std::strrchr(path, '/');
  const char* name = slash ? slash + 1 : path;
  return *name ? name : nullptr;
}

constexpr const char* PROGRAM_VERSION = "TOVRA version 1.10";

}  // namespace

// A trailing run of blanks and zeros cut off a fixed tag field, and the text ending at a zero.
std::string tag_field(const uint8_t* field, int32_t size) {
  int32_t n = size;
  while (n > 0 && (field[n - 1] == ' ' || field[n - 1] == 0)) --n;
  int32_t end = 0;
  while (end < n && field[end] != 0) ++end;
  return std::string(reinterpret_cast<const char*>(field), size_t(end));
}

const FftTables& fft_tables() {
  static const FftTables tables = make_tables();
  return tables;
}

void fft128(float* re, float* im) {
  const FftTables& t = fft_tables();
  for (int32_t half = 64, step = 1; half >= 1; half >>= 1, step <<= 1) {
    for (int32_t start = 0; start < FFT_N; start += 2 * half) {
      for (int32_t k = 0; k < half; ++k) {
        const int32_t a = start + k, b = a + half, w = k * step;
        const float dr = re[a] - re[b], di = im[a] - im[b];
        re[a] = re[a] + re[b];
        im[a] = im[a] + im[b];
        re[b] = dr * t.cos[w] - di * t.sin[w];
        im[b] = dr * t.sin[w] + di * t.cos[w];
      }
    }
  }
  float tmp[FFT_N];
  for (float* v : {re, im}) {
    for (int32_t i = 0; i < FFT_N; ++i) tmp[reverse7(i)] = v[i];
    std::memcpy(v, tmp, sizeof tmp);
  }
}

int32_t frame_offset(int32_t frame, int32_t khz, int32_t rate_shift, bool mono_output) {
  const int32_t shift = rate_shift < 0 ? 0 : rate_shift > 6 ? 6 : rate_shift;
  const int32_t offset = frame * khz * (1 << (6 - shift));
  return mono_output ? offset / 2 : offset;
}

LevelSums level_sums(const PcmView& pcm, int32_t offset) {
  LevelSums s;
  const int32_t size = pcm.bits16 ? 2 : 1;
  // The walk through the block may outrun it when the device is slow; the last samples stand in.
  if (offset > pcm.bytes - 256 * size) offset = pcm.bytes - 256 * size;
  if (offset < 0 || !pcm.data) return s;
  const uint8_t* p = pcm.data + offset;
  int64_t left = 0, right = 0;
  for (int32_t i = 0; i < 128; ++i, p += 2 * size) {
    if (pcm.bits16) {
      left += std::abs(sample16(p));
      right += std::abs(sample16(p + 2));
    } else {
      left += std::abs(int32_t(p[0]) - 127);
      right += std::abs(int32_t(p[1]) - 127);
    }
  }
  const int32_t shift = pcm.bits16 ? 14 : 6;
  s.left = int32_t(left >> shift);
  s.right = pcm.stereo ? int32_t(right >> shift) : s.left;
  return s;
}

int32_t bar_length(int32_t sum) {
  if (sum <= 0) return 0;
  const int32_t length = int32_t(32 * std::log10(float(sum)));
  return length < 0 ? 0 : length > 64 ? 64 : length;
}

void hold_peak(BarPeak& p, int32_t length, int32_t wait_ms) {
  if (p.peak < length || p.hold < 0) {
    p.hold = 100 - wait_ms;
    p.peak = length;
  } else {
    p.hold -= 24;
  }
}

void spectrum_bins(const PcmView& pcm, int32_t offset, int32_t levels[64]) {
  const FftTables& t = fft_tables();
  const int32_t frame_bytes = (pcm.bits16 ? 2 : 1) * (pcm.stereo ? 2 : 1);
  const int32_t limit = pcm.bytes - 64 * frame_bytes;
  if (offset > limit) offset = limit;
  float re[FFT_N] = {}, im[FFT_N] = {};
  if (pcm.data && offset >= 0) {
    const uint8_t* p = pcm.data + offset;
    for (int32_t i = 0; i < 64; ++i, p += frame_bytes) {
      float v;
      if (pcm.bits16)
        v = pcm.stereo ? float((sample16(p) + sample16(p + 2)) / 2) : float(sample16(p));
      else
        v = pcm.stereo ? float((p[0] + p[1] - 256) * 128) : float((p[0] - 128) * 256);
      re[i] = v * t.window[i];
    }
  }
  fft128(re, im);
  for (int32_t k = 0; k < 64; ++k) {
    const float magnitude = std::sqrt(re[k] * re[k] + im[k] * im[k]);
    // Nothing at all sits at the bottom, as a very small magnitude would.
    int32_t level = magnitude > 0 ? 40 - int32_t(8 * std::log10(magnitude)) : 15;
    levels[k] = level < 0 ? 0 : level > 15 ? 15 : level;
  }
}

void spectrum_columns(const int32_t bins[64], bool bits16, int32_t columns[64]) {
  // 8-bit output carries less detail at the top, so its single columns reach higher.
  const int32_t first = bits16 ? 16 : 24, pairs = bits16 ? 16 : 8;
  int32_t c = 0;
  for (int32_t b = 0; b < first; ++b) columns[c++] = bins[b];
  int32_t previous = columns[c - 1];
  for (int32_t b = first; b < first + pairs; ++b) {
    columns[c++] = bins[b];
    columns[c++] = (bins[b] + previous) >> 1;
    previous = bins[b];
  }
  for (int32_t b = 32; c < 64; ++b) columns[c++] = bins[b];
}

const char* vu_label(bool bits16, bool mono_stream, bool downmixed, bool hi_fi) {
  static const char* const labels[2][2][3] = {
      {{"STEREO/8  ", "DOWNMIX/8 ", "MONO/8    "}, {"HI-FI/8S  ", "HI-FI/8D  ", "HI-FI/8M  "}},
      {{"STEREO/16 ", "DOWNMIX/16", "MONO/16   "}, {"HI-FI/16S ", "HI-FI/16D ", "HI-FI/16M "}},
  };
  return labels[bits16][hi_fi][mono_stream ? 2 : downmixed ? 1 : 0];
}

std::string title_text(int32_t index, const char* path, const uint8_t* tag, bool tag_title) {
  std::string text = std::to_string(index + 1) + ".";
  if (tag_title && tag && std::memcmp(tag, "TAG", 3) == 0) {
    const std::string artist = tag_field(tag + 33, 30), title = tag_field(tag + 3, 30);
    if (!artist.empty()) text += artist + " - ";
    if (!title.empty()) return text + title;
  }
  const size_t length = path ? std::strlen(path) : 0;
  if (const char* name = length ? file_name_part(path) : nullptr) return text + name;
  if (length >= 1 && length <= 259) return text + path;
  return PROGRAM_VERSION;
}

std::string caption_text(int32_t index, const char* path, bool has_entry) {
  const size_t length = path ? std::strlen(path) : 0;
  const std::string number = std::to_string(index + 1) + ". ";
  if (has_entry && length) {
    if (const char* name = file_name_part(path)) return number + name + " - TOVRA";
  }
  if (length >= 1 && length <= 259) return number + path + " - TOVRA";
  return PROGRAM_VERSION;
}

std::string progress_caption(const char* path) {
  const char* name = path ? file_name_part(path) : nullptr;
  return std::string("TOVRA convert - ") + (name ? name : "");
}

}  // namespace shell
