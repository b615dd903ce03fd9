// Helpers of the Layer III tests: a bit writer into the reservoir ring, a pass over a stream through
// the decoder that notes per granule where the decoder's kept quirks make it differ from a textbook
// decoder, and a PCM comparison that knows those granules.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/layer3.h"
#include "decoder/synth.h"
#include "session/frame_reader.h"
#include "session/session.h"

namespace l3test {

// Writes bits MSB first into the reservoir ring from a bit position, wrapping at its end and keeping
// the guard's copy of the first bytes.
struct RingWriter {
  uint32_t pos;
  explicit RingWriter(uint32_t start = 0) : pos(start) {}
  void put(uint32_t value, int32_t n) {
    for (int32_t i = n - 1; i >= 0; --i) {
      uint32_t byte = (pos >> 3) & (session::RESERVOIR_SIZE - 1);
      uint8_t bit = uint8_t(0x80 >> (pos & 7));
      if ((value >> i) & 1)
        session::bits.reservoir[byte] |= bit;
      else
        session::bits.reservoir[byte] &= uint8_t(~bit);
      pos = (pos + 1) & session::RESERVOIR_BIT_MASK;
    }
    session::sync_reservoir_guard();
  }
  void put_code(const std::string& code) {
    for (char c : code) put(c == '1', 1);
  }
};

// Per granule: what the decoder did that a textbook decoder would not.
struct GranuleNote {
  bool wrapped = false;     // a line of magnitude 8192 or more: the power table's index wraps
  bool stale_rows = false;  // rows above active_subbands held signal, which the decoder leaves as is
  bool short_block = false;
  bool mixed_block = false;
};

inline std::vector<GranuleNote>& notes() {
  static std::vector<GranuleNote> n;
  return n;
}

inline void note_synth(int32_t channel) {
  using decoder::l3;
  if (notes().empty()) notes().emplace_back();
  GranuleNote& g = notes().back();
  for (int32_t ch = 0; ch < 2; ++ch)
    for (int32_t i = 0; i < l3.line_count[ch]; ++i)
      if (std::abs(l3.quant_lines[ch][i]) >= 8192) g.wrapped = true;
  // Values this small cannot move a sample by more than the tolerance, even summed over the rows.
  constexpr float audible = 2e-6f;
  if (l3.active_subbands < 32) {
    for (int32_t sb = l3.active_subbands; sb < 32; ++sb)
      for (int32_t t = 0; t < 18; ++t)
        // Stale samples, an overlap that is not emitted, or lines that alias reduction moved up
        // into a row that is not transformed.
        if (std::fabs(decoder::subband_samples[sb][t]) > audible || std::fabs(l3.overlap[channel][sb][t]) > audible ||
            std::fabs(l3.hybrid_in[channel][sb * 18 + t]) > audible)
          g.stale_rows = true;
  }
}

inline void note_shaper() {
  using decoder::l3;
  notes().emplace_back();
}

// Runs the decoder over a Layer III file with hooks in place of the synthesis and the shaper.
// Returns one note per granule.
inline std::vector<GranuleNote> analyse_stream(const std::string& path, int32_t* channels = nullptr) {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  notes().clear();
  notes().emplace_back();
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return {};
  session::reader.file = f;
  session::reset_frame_reader();
  session::reset_bit_reader();
  decoder::reset_decoder_state();
  session::state.synth_slot = note_synth;
  session::state.shaper_slot = note_shaper;
  session::FrameHeader h{};
  for (;;) {
    int32_t code = session::read_frame(h);
    if (code == session::FRAME_SHORT || code == session::FRAME_EOF || code == session::FRAME_EOF_AFTER_SYNC) break;
    if (code != session::FRAME_OK || h.layer_code != 1) continue;
    if (!h.protection_bit) session::skip_crc();
    if (channels) *channels = h.mode == 3 ? 1 : 2;
    decoder::decode_layer3_frame(h);
    // Block kinds of the granules just decoded: the last one or two notes.
    int32_t granules = h.id ? 2 : 1;
    for (int32_t gr = 0; gr < granules; ++gr) {
      GranuleNote& g = notes()[notes().size() - 1 - size_t(granules - gr)];
      for (int32_t ch = 0; ch < (h.mode == 3 ? 1 : 2); ++ch) {
        int32_t gc = gr * 2 + ch;
        if (decoder::l3.side.window_switching[gc] && decoder::l3.side.block_type[gc] == 2) {
          g.short_block = true;
          if (decoder::l3.side.mixed_block[gc]) g.mixed_block = true;
        }
      }
    }
  }
  std::fclose(f);
  session::reader.file = nullptr;
  notes().pop_back();  // the one opened after the last granule
  return notes();
}

struct Comparison {
  size_t compared = 0;  // samples compared
  size_t excused = 0;   // samples in granules the decoder's quirks touch
  int32_t worst = 0;    // largest difference among the compared samples
  size_t worst_at = 0;
  size_t over = 0;  // compared samples beyond the tolerance
};

// Compares two interleaved PCM streams, granule by granule (576 frames). A granule that a quirk
// touched, and the two after it (overlap and synthesis history), are left out. Tolerance: 1, or 2
// where the reference is at half scale or above: the decoder's output scale is 16383.5/16384 of the
// usual and truncates, which near full scale is worth up to two steps.
inline Comparison compare_pcm(const std::vector<int16_t>& ours, const std::vector<int16_t>& ref, int32_t channels,
                              const std::vector<GranuleNote>& notes) {
  Comparison c;
  size_t n = std::min(ours.size(), ref.size());
  for (size_t i = 0; i < n; ++i) {
    size_t g = i / size_t(channels) / 576;
    bool excuse = false;
    for (size_t k = 0; k < 3 && k <= g; ++k)
      if (g - k < notes.size() && (notes[g - k].wrapped || notes[g - k].stale_rows)) excuse = true;
    if (excuse) {
      ++c.excused;
      continue;
    }
    ++c.compared;
    int32_t d = std::abs(int32_t(ours[i]) - int32_t(ref[i]));
    int32_t tolerance = std::abs(int32_t(ref[i])) >= 16384 ? 2 : 1;
    if (d > tolerance) ++c.over;
    if (d > c.worst) {
      c.worst = d;
      c.worst_at = i;
    }
  }
  return c;
}

}  // namespace l3test
