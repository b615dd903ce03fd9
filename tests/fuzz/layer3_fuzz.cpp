// Random side information and main data through the Layer III decoder. The input is cut into
// frames: three bytes choose a valid Layer III header (MPEG-1, LSF or MPEG 2.5, any rate, mode,
// extension, CRC and padding), the frame's remaining bytes follow as they come. The frames run
// through the session's own steps (read_frame, skip_crc, decode_layer3_frame) with the real
// synthesis.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/layer3_tables.h"
#include "decoder/synth.h"
#include "session/frame_reader.h"
#include "session/session.h"
#include "session/stream.h"

namespace {

void no_shaper() {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;

  std::vector<uint8_t> stream;
  size_t at = 0;
  auto next = [&]() -> uint8_t { return at < size ? data[at++] : 0; };
  for (int32_t frame = 0; frame < 64 && at < size; ++frame) {
    uint8_t a = next(), b = next(), c = next();
    session::FrameHeader h{};
    h.id = a & 1;
    h.layer_code = 1;
    h.protection_bit = (a >> 1) & 1;
    h.bitrate_index = 1 + (a >> 2) % 14;
    h.sampling_index = h.id ? b % 3 : b % 6;
    h.padding_bit = (b >> 2) & 1;
    h.mode = c & 3;
    h.mode_ext = (c >> 2) & 3;
    const bool v25 = !h.id && h.sampling_index >= 3;
    uint8_t header[4] = {0xFF, uint8_t((v25 ? 0xE2 : 0xF2 | h.id << 3) | h.protection_bit),
                         uint8_t(h.bitrate_index << 4 | (h.sampling_index % 3) << 2 | h.padding_bit << 1),
                         uint8_t(h.mode << 6 | h.mode_ext << 4)};
    stream.insert(stream.end(), header, header + 4);
    int32_t length = session::frame_length(h);
    for (int32_t i = 4; i < length; ++i) stream.push_back(next());
  }
  if (stream.empty()) return 0;

  std::FILE* f = fmemopen(stream.data(), stream.size(), "rb");
  if (!f) return 0;
  session::reader.file = f;
  session::reset_frame_reader();
  session::reset_bit_reader();
  decoder::reset_decoder_state();
  session::state.synth_slot = decoder::synth_full;
  session::state.shaper_slot = no_shaper;
  session::FrameHeader h{};
  for (;;) {
    int32_t code = session::read_frame(h);
    if (code == session::FRAME_SHORT || code == session::FRAME_EOF || code == session::FRAME_EOF_AFTER_SYNC) break;
    if (code != session::FRAME_OK || h.layer_code != 1) continue;
    if (h.protection_bit == 0) session::skip_crc();
    session::state.synth_slot = h.mode == 3 ? decoder::synth_mono : decoder::synth_full;
    decoder::decode_layer3_frame(h);
  }
  std::fclose(f);
  session::reader.file = nullptr;
  return 0;
}
