// Arbitrary Layer I streams through decode_frame on a fresh DecoderState, straight from the input's
// bytes: either a valid first header followed by the input's bytes, or the input's bytes alone.
// Headers are found as the session's reader finds them (byte by byte); a frame cut off by the end
// of the input goes in short, and the slots still waiting are flushed at the end.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/synth.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  static const bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;

  const uint8_t control = data[0];
  std::vector<uint8_t> bytes;
  if (control & 1) {
    // Sync, Layer I, a bit rate index of 1-14 and a sampling index of 0-2 from the input; the rest
    // of the header (version, protection, mode, padding) as the input has it.
    uint8_t b1 = uint8_t(0xF6 | (data[1] & 0x09));
    uint8_t b2 = uint8_t(((1 + data[2] % 14) << 4) | ((data[2] >> 4) % 3) << 2 | (data[2] & 0x03));
    bytes = {0xFF, b1, b2, data[3]};
  }
  bytes.insert(bytes.end(), data + 4, data + size);

  static decoder::DecoderState state;
  static decoder::PcmBlocks out;
  decoder::reset_decoder_state(state);
  state.channels = state.damaged = 0;
  state.synth = (data[3] >> 6) == 3 ? decoder::synth_mono : decoder::synth_full;
  state.emphasis_mode = control >> 6;
  const int32_t total = int32_t(bytes.size());
  for (int32_t at = 0; at + 4 <= total;) {
    format::FrameHeader h;
    if (!format::parse_header(bytes.data() + at, h) || h.layer_code != 3) {
      ++at;
      continue;
    }
    const int32_t wanted = decoder::body_bytes_wanted(h, format::frame_length(h, -1));
    const int32_t left = total - at - 4;
    const int32_t got = wanted < left ? wanted : left;
    if (decoder::decode_frame(state, h, {bytes.data() + at + 4, got, wanted}, out) != decoder::DECODE_OK) break;
    at += 4 + got;
  }
  int16_t pcm[decoder::BLOCK_SAMPLES];
  decoder::flush_layer1(state, pcm);
  return 0;
}
