// Arbitrary Layer I streams through the Layer I decoder as a file job runs it: either a valid first
// header followed by the input's bytes, or the input's bytes alone. Output goes to /dev/null in the
// format the input picks, so the writers' finish runs too.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "decoder/decoder.h"
#include "session/session.h"
#include "session/writers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace session;
  if (size < 4) return 0;
  static std::FILE* sink = std::fopen("/dev/null", "w+b");
  if (!sink) return 0;

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
  if (bytes.empty()) return 0;

  reader.file = fmemopen(bytes.data(), bytes.size(), "rb");
  if (!reader.file) return 0;
  state.out_file = sink;
  std::rewind(sink);
  options.ext_filter = (control >> 1) % 5;
  stream.frame_count = (control >> 4) * 20;
  stream.mode = data[3] >> 6;
  stream.mpeg_id = 1;
  stream.sample_rate = 44100;
  state.shaper_slot = write_decoded_block;
  state.decoder_command.store(CMD_RUN);
  state.file_job_active.store(1);  // a file job: no pacing sleeps
  decoder::decode_layer1_stream();
  std::fclose(reader.file);
  reader.file = nullptr;
  state.out_file = nullptr;
  return 0;
}
