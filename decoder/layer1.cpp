// How a Layer I frame is decoded.
//
// The frame's remainder goes into the reservoir from offset 0, as in Layer II, and the fields are
// read in the standard's order: allocation codes (one code for both channels from the joint bound
// up), scale factors, then 12 rounds of one sample per subband and channel. A protected frame's
// CRC covers the header's last 16 bits and the allocation codes; it is checked before any sample
// is read.
//
// A Layer I frame holds 12 slots per channel and the synthesis takes 18 at a time, so the slots
// wait in a small buffer: every frame and a half makes one 576-frame block, which goes through the
// session's synthesis variant and shaper exactly as a Layer II or III block does (emphasis, Hi-Fi,
// the rate variants). At the end of the stream flush_layer1 synthesises what is still waiting.
//
// Requantisation: a code c of a + 1 bits stands for (c 2^-a - 1 + 2^-a) * N / (N - 1) with
// N = 2^(a+1). The bracket is exact in single precision (a multiple of 2^-a below 2), so only the
// factor N / (N - 1) times the scale factor, formed once per subband, and the last product round.
#include <cstring>

#include "decoder/decoder.h"
#include "decoder/synth.h"
#include "decoder/tables.h"
#include "format/crc16.h"
#include "session/session.h"
#include "session/stream.h"

namespace decoder {

namespace {

using session::get_bits;

constexpr int32_t SLOTS_PER_BLOCK = 18;
constexpr int32_t ROUNDS = 12;

// Slots decoded and not yet synthesised, by channel, subband and slot.
float waiting[2][32][SLOTS_PER_BLOCK];
int32_t waiting_slots = 0;
int32_t waiting_channels = 1;

// By allocation a (1-15): the step 2^-a, and N / (N - 1) for N = 2^(a+1).
struct Requantiser {
  float step[16];
  float gain[16];
};
Requantiser make_requantiser() {
  Requantiser r{};
  for (int32_t a = 1; a < 16; ++a) {
    const double n = double(1 << (a + 1));
    r.step[a] = float(1.0 / double(1 << a));
    r.gain[a] = float(n / (n - 1.0));
  }
  return r;
}
const Requantiser requantiser = make_requantiser();

// The header's 16 protected bits, in stream order.
uint32_t protected_header_bits(const session::FrameHeader& h) {
  return uint32_t(h.bitrate_index << 12 | h.sampling_index << 10 | h.padding_bit << 9 | h.private_bit << 8 |
                  h.mode << 6 | h.mode_ext << 4 | h.copyright << 3 | h.original << 2 | h.emphasis);
}

// The 18 waiting slots of each channel through the synthesis, then the shaper.
void synthesise_waiting(bool shape) {
  using session::state;
  state.decoded_channels = waiting_channels;
  for (int32_t ch = 0; ch < waiting_channels; ++ch) {
    std::memcpy(subband_samples, waiting[ch], sizeof subband_samples);
    if (state.synth_slot) state.synth_slot(ch);
  }
  if (shape && state.shaper_slot) state.shaper_slot();
}

}  // namespace

void reset_layer1_state() {
  std::memset(waiting, 0, sizeof waiting);
  waiting_slots = 0;
  waiting_channels = 1;
}

int32_t decode_layer1_frame(const session::FrameHeader& h) {
  using session::state;
  // The reader hands on Layer I headers with any bit rate; free format and the forbidden index
  // have no frame length to go by, so such a frame is passed over as damaged and the sync search
  // goes on from behind its header.
  const bool header_ok = (h.id == 0 || h.id == 1) && h.layer_code == 3 && h.bitrate_index >= 1 &&
                         h.bitrate_index <= 14 && h.sampling_index >= 0 && h.sampling_index <= 2 && h.mode >= 0 &&
                         h.mode <= 3 && h.mode_ext >= 0 && h.mode_ext <= 3;
  if (!header_ok) {
    state.damaged_flag.store(1, std::memory_order_relaxed);
    return 0;
  }
  session::bits.reservoir_write = 0;
  session::bits.reservoir_bits = 0;
  session::load_reservoir(session::frame_length(h) - (h.protection_bit ? 4 : 6));

  const int32_t channels = h.mode == 3 ? 1 : 2;
  const int32_t bound = h.mode == 1 ? (h.mode_ext + 1) * 4 : 32;

  uint8_t allocation[2][32];
  for (int32_t sb = 0; sb < 32; ++sb) {
    if (sb < bound) {
      for (int32_t ch = 0; ch < channels; ++ch) allocation[ch][sb] = uint8_t(get_bits(4));
    } else {
      allocation[0][sb] = allocation[1][sb] = uint8_t(get_bits(4));
    }
  }
  if (!h.protection_bit) {
    uint32_t crc = format::CRC16_INIT;
    format::crc16_update(crc, protected_header_bits(h), 16);
    for (int32_t sb = 0; sb < 32; ++sb)
      for (int32_t ch = 0; ch < (sb < bound ? channels : 1); ++ch) format::crc16_update(crc, allocation[ch][sb], 4);
    const uint8_t* stored = session::reader.frame_head;
    if (crc != (uint32_t(stored[0]) << 8 | stored[1])) return LAYER1_CRC_MISMATCH;
  }

  // Scale factors, already multiplied by N / (N - 1). Allocation 15 is forbidden; it reads as 0.
  float factor[2][32];
  for (int32_t sb = 0; sb < 32; ++sb) {
    for (int32_t ch = 0; ch < channels; ++ch) {
      uint8_t& a = allocation[ch][sb];
      if (a == 15) a = 0;
      factor[ch][sb] = a ? requantiser.gain[a] * scale_factor_table[get_bits(6)] : 0.0f;
    }
  }

  // A change of channel count between blocks starts the waiting slots of the new channel empty.
  if (channels != waiting_channels) {
    if (channels == 2) std::memset(waiting[1], 0, sizeof waiting[1]);
    waiting_channels = channels;
  }
  for (int32_t round = 0; round < ROUNDS; ++round) {
    const int32_t t = waiting_slots;
    for (int32_t sb = 0; sb < 32; ++sb) {
      if (sb < bound) {
        for (int32_t ch = 0; ch < channels; ++ch) {
          const int32_t a = allocation[ch][sb];
          const float step = requantiser.step[a];
          waiting[ch][sb][t] = a ? (float(get_bits(a + 1)) * step - 1.0f + step) * factor[ch][sb] : 0.0f;
        }
      } else {
        // One code for both channels, each with its own scale factor.
        const int32_t a = allocation[0][sb];
        const float step = requantiser.step[a];
        const float v = a ? float(get_bits(a + 1)) * step - 1.0f + step : 0.0f;
        for (int32_t ch = 0; ch < channels; ++ch) waiting[ch][sb][t] = v * factor[ch][sb];
      }
    }
    if (++waiting_slots == SLOTS_PER_BLOCK) {
      synthesise_waiting(true);
      waiting_slots = 0;
    }
  }
  return 0;
}

int32_t flush_layer1() {
  if (waiting_slots == 0) return 0;
  const int32_t slots = waiting_slots;
  for (int32_t ch = 0; ch < 2; ++ch)
    for (int32_t sb = 0; sb < 32; ++sb)
      std::memset(&waiting[ch][sb][slots], 0, size_t(SLOTS_PER_BLOCK - slots) * sizeof(float));
  synthesise_waiting(false);
  waiting_slots = 0;
  // Past the decoded frames the block is silence, not the filter's ringing on the padding: a
  // shaper that plays the whole block then adds nothing but a short pause.
  const int32_t frames = slots * 32;
  const int32_t used = frames * waiting_channels;
  std::memset(pcm_block + used, 0, sizeof pcm_block - size_t(used) * sizeof pcm_block[0]);
  return frames;
}

}  // namespace decoder
