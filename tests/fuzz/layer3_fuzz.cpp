// Random side information and main data through the Layer III decoder. The input is cut into
// frames: three bytes choose a valid Layer III header (MPEG-1, LSF or MPEG 2.5, any rate, mode,
// extension, CRC and padding), the frame's remaining bytes follow as they come, the last one short.
// Each frame goes to decode_frame on one fresh DecoderState with the real synthesis.
#include <cstddef>
#include <cstdint>

#include "decoder/decoder.h"
#include "decoder/synth.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;

  static decoder::DecoderState state;
  static decoder::PcmBlocks out;
  decoder::reset_decoder_state(state);
  state.channels = state.damaged = 0;
  size_t at = 0;
  auto next = [&]() -> uint8_t { return at < size ? data[at++] : 0; };
  for (int32_t frame = 0; frame < 64 && at < size; ++frame) {
    uint8_t a = next(), b = next(), c = next();
    format::FrameHeader h{};
    h.id = a & 1;
    h.layer_code = 1;
    h.protection_bit = (a >> 1) & 1;
    h.bitrate_index = 1 + (a >> 2) % 14;
    h.sampling_index = h.id ? b % 3 : b % 6;
    h.padding_bit = (b >> 2) & 1;
    h.mode = c & 3;
    h.mode_ext = h.mode == 0 ? 0 : (c >> 2) & 3;  // as the header parser gives it
    state.synth = h.mode == 3 ? decoder::synth_mono : decoder::synth_full;
    const int32_t length = format::frame_length(h, -1) - 4;
    const int32_t left = int32_t(size - at);
    const int32_t got = length < left ? length : left;
    decoder::decode_frame(state, h, {data + at, got, length}, out);
    at += size_t(got);
  }
  return 0;
}
