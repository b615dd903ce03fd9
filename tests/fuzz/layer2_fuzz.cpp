// Random Layer II frames: a header with valid fields (from the input's first bytes) and a random
// body, through decode_frame on a fresh DecoderState with one of the six synthesis variants; three
// frames take the body one after another, the last ones short. The decoder must stay inside its
// tables, the reservoir and its PCM block.
#include <cstddef>
#include <cstdint>

#include "decoder/decoder.h"
#include "decoder/synth.h"

namespace {

constexpr decoder::SynthFn variants[6] = {decoder::synth_full,    decoder::synth_mono, decoder::synth_half,
                                          decoder::synth_quarter, decoder::synth_fast, decoder::synth_overdrive};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = (decoder::init_decoder_tables(), true);
  (void)ready;
  if (size < 4) return 0;
  format::FrameHeader h{};
  h.id = data[0] & 1;
  h.layer_code = 2;
  h.protection_bit = (data[0] >> 3) & 1;
  h.bitrate_index = (data[1] & 15) % 15;
  h.sampling_index = (data[1] >> 4) % 3;
  h.padding_bit = (data[1] >> 6) & 1;
  h.mode = data[2] & 3;
  h.mode_ext = (data[2] >> 2) & 3;

  static decoder::DecoderState state;
  static decoder::PcmBlocks out;
  decoder::reset_decoder_state(state);
  state.channels = state.damaged = 0;
  state.emphasis_mode = (data[2] >> 4) & 7;
  state.synth = variants[data[3] % 6];
  const uint8_t* body = data + 4;
  const int32_t total = int32_t(size - 4);
  // A free-format frame has no length of its own: any the input gives will do.
  const int32_t length = h.bitrate_index ? format::frame_length(h, -1) - 4 : 24 + data[3] * 8;
  int32_t at = 0;
  for (int frame = 0; frame < 3; ++frame) {
    const int32_t left = total - at;
    const int32_t got = length < left ? length : left;
    decoder::decode_frame(state, h, {body + at, got, length}, out);
    volatile int32_t sum = 0;
    for (int32_t b = 0; b < out.count; ++b)
      for (int16_t v : out.block[b]) sum = sum + v;
    at += got;
  }
  return 0;
}
