// Random Layer II frames: a header with valid fields (from the input's first bytes) and a random
// body, through decode_layer2_frame with one of the six synthesis variants and a shaper that reads
// the block. The decoder must stay inside its tables, the reservoir and pcm_block.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/synth.h"
#include "session/frame_reader.h"
#include "session/session.h"

namespace {

volatile int32_t sink;

void read_block() {
  int32_t sum = 0;
  for (int16_t v : decoder::pcm_block) sum += v;
  sink = sum;
}

constexpr session::SynthFn variants[6] = {decoder::synth_full,    decoder::synth_mono, decoder::synth_half,
                                          decoder::synth_quarter, decoder::synth_fast, decoder::synth_overdrive};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = [] {
    decoder::init_decoder_tables();
    return true;
  }();
  (void)ready;
  if (size < 4) return 0;
  session::FrameHeader h{};
  h.id = data[0] & 1;
  h.layer_code = 1 + (data[0] >> 1) % 3;  // a stray Layer I or III header reaches this decoder too
  if (h.layer_code == 1) h.layer_code = 2;
  h.protection_bit = (data[0] >> 3) & 1;
  h.bitrate_index = (data[1] & 15) % 15;
  h.sampling_index = (data[1] >> 4) % 3;
  h.padding_bit = (data[1] >> 6) & 1;
  h.mode = data[2] & 3;
  h.mode_ext = (data[2] >> 2) & 3;
  session::stream.emphasis_mode = (data[2] >> 4) & 7;
  session::state.session_emphasis = data[2] >> 7;
  session::state.synth_slot = variants[data[3] % 6];
  session::state.shaper_slot = read_block;

  // The body, repeated so that several frames are read from one input.
  std::vector<uint8_t> body(data + 4, data + size);
  if (body.empty()) body.push_back(0);
  FILE* f = fmemopen(body.data(), body.size(), "rb");
  if (!f) return 0;
  session::reset_decoding();
  session::reader.file = f;
  for (int frame = 0; frame < 3; ++frame) decoder::decode_layer2_frame(h);
  std::fclose(f);
  session::reader.file = nullptr;
  return 0;
}
