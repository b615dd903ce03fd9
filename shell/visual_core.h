// The arithmetic of the display and the title, free of any toolkit so that the wave thread and the
// tests can use it: the 128-point FFT with its tables, the level sums and bar lengths of the VU
// bars, the bars' peak hold, the spectrum's levels and its columns over the bins, the format label,
// and the text the title shows for an entry.
#pragma once

#include <cstdint>
#include <string>

namespace shell {

// Where the display reads its samples: a block of PCM on air, its format and the stream's rate.
struct PcmView {
  const uint8_t* data = nullptr;  // one block
  int32_t bytes = 0;
  bool bits16 = true;
  bool stereo = true;  // two channels in the output (interleaved)
};

constexpr int32_t FFT_N = 128;

// sin and cos of i * -pi/64 and the 64-point window sqrt(0.5 - 0.5 cos(i pi/32)), made once.
struct FftTables {
  float sin[FFT_N], cos[FFT_N], window[64];
};
const FftTables& fft_tables();

// In place, 128 points: decimation in frequency, then the bit-reversed order put straight.
void fft128(float* re, float* im);

// The byte offset of the display's frame within the block on air: it walks through the block at
// about the speed of the sound (khz = the stream's rate in kHz).
int32_t frame_offset(int32_t frame, int32_t khz, int32_t rate_shift, bool mono_output);

// Sums of |sample| over 128 pairs from offset, shifted to 0..255 and beyond (left, right). A
// single-channel output gives both bars the first sum.
struct LevelSums {
  int32_t left = 0, right = 0;
};
LevelSums level_sums(const PcmView& pcm, int32_t offset);
// 32 * log10(sum), truncated, limited to 0..64; 0 for 0.
int32_t bar_length(int32_t sum);

// A bar's held peak: replaced by the length when the length passes it or the hold ran out.
struct BarPeak {
  int32_t peak = 0, hold = 0;
};
void hold_peak(BarPeak& p, int32_t length, int32_t wait_ms);

// The spectrum: 64 bin levels (0 the top, 15 nothing) from the windowed samples at offset.
void spectrum_bins(const PcmView& pcm, int32_t offset, int32_t levels[64]);
// The 64 columns over the bins: the low bins one to a column, the middle ones spread over two
// columns (the second the mean of its neighbours), the top again one to a column.
void spectrum_columns(const int32_t bins[64], bool bits16, int32_t columns[64]);
// A column's peak dot in half pixels: falls one half pixel a frame, pushed up at once by the bar.
inline int32_t step_peak(int32_t peak, int32_t level) {
  const int32_t p = peak + 1;
  return p > level * 2 ? level * 2 : p;
}

// The format label over the VU bars, 10 characters. downmixed: a stereo stream played as one
// channel; hi_fi: the emphasis mode says 4 or above.
const char* vu_label(bool bits16, bool mono_stream, bool downmixed, bool hi_fi);

// A fixed field of an ID3 tag without its trailing blanks and zeros, ending at a zero.
std::string tag_field(const uint8_t* field, int32_t size);
// The title of entry index (0-based): "N." then the tag's artist and " - " and its title when the
// tag names them (tag_title on, a 128-byte ID3v1 record), else the path's file name, else the
// path, else the program's name. Bytes as stored; the caller converts them for the font.
std::string title_text(int32_t index, const char* path, const uint8_t* tag, bool tag_title);
// The window's caption for an entry: "N. name - TOVRA", or "TOVRA version 1.10".
std::string caption_text(int32_t index, const char* path, bool has_entry);
// The progress window's caption while a file converts: "TOVRA convert - " and its name.
std::string progress_caption(const char* path);

}  // namespace shell
