// Helpers of the Layer III tests: a bit writer into the reservoir ring and an in-process pass over a
// stream.
#pragma once

#include <algorithm>
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

// Runs the decoder over a Layer III file in-process, with the real synthesis and no shaper, so that
// the sanitizers see every read. Returns the granules decoded.
inline size_t decode_in_process(const std::string& path) {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return 0;
  session::reader.file = f;
  session::reset_frame_reader();
  session::reset_bit_reader();
  decoder::reset_decoder_state();
  static size_t granules;
  granules = 0;
  session::state.synth_slot = decoder::synth_full;
  session::state.shaper_slot = [] { ++granules; };
  session::FrameHeader h{};
  for (;;) {
    int32_t code = session::read_frame(h);
    if (code == session::FRAME_SHORT || code == session::FRAME_EOF || code == session::FRAME_EOF_AFTER_SYNC) break;
    if (code != session::FRAME_OK || h.layer_code != 1) continue;
    if (!h.protection_bit) session::skip_crc();
    decoder::decode_layer3_frame(h);
  }
  std::fclose(f);
  session::reader.file = nullptr;
  return granules;
}

}  // namespace l3test
