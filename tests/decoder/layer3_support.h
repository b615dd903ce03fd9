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
#include "session/stream.h"

namespace l3test {

// The tests' decoder state.
inline decoder::DecoderState state;

// Writes bits MSB first into the reservoir ring from a bit position, wrapping at its end and keeping
// the guard's copy of the first bytes.
struct RingWriter {
  uint32_t pos;
  explicit RingWriter(uint32_t start = 0) : pos(start) {}
  void put(uint32_t value, int32_t n) {
    for (int32_t i = n - 1; i >= 0; --i) {
      uint32_t byte = (pos >> 3) & (decoder::RESERVOIR_SIZE - 1);
      uint8_t bit = uint8_t(0x80 >> (pos & 7));
      uint8_t* ring = state.reservoir.bytes;
      if ((value >> i) & 1)
        ring[byte] |= bit;
      else
        ring[byte] &= uint8_t(~bit);
      pos = (pos + 1) & decoder::RESERVOIR_BIT_MASK;
    }
    decoder::sync_reservoir_guard(state.reservoir);
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
  state = {};
  decoder::reset_decoder_state(state);
  size_t granules = 0;
  state.synth = decoder::synth_full;
  format::FrameHeader h{};
  static decoder::PcmBlocks out;
  for (;;) {
    int32_t code = session::read_frame(h);
    if (code == session::FRAME_SHORT || code == session::FRAME_EOF || code == session::FRAME_EOF_AFTER_SYNC) break;
    if (code != session::FRAME_OK || h.layer_code != 1) continue;
    const int32_t length = decoder::body_bytes_wanted(h, session::frame_length(h));
    decoder::decode_frame(state, h, {session::reader.body, session::read_frame_body(length), length}, out);
    granules += size_t(out.count);
  }
  std::fclose(f);
  session::reader.file = nullptr;
  return granules;
}

}  // namespace l3test
