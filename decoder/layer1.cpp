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
// state's synthesis variant exactly as a Layer II or III block does (emphasis, Hi-Fi,
// the rate variants). At the end of the stream flush_layer1 synthesises what is still waiting.
//
// Requantisation: a code c of a + 1 bits stands for (c 2^-a - 1 + 2^-a) * N / (N - 1) with
// N = 2^(a+1). The bracket is exact in single precision (a multiple of 2^-a below 2), so only the
// factor N / (N - 1) times the scale factor, formed once per subband, and the last product round.
#include <cstring>

#include "decoder/layers.h"
#include "decoder/tables.h"
#include "format/crc16.h"

namespace decoder {

namespace {

constexpr int32_t SLOTS_PER_BLOCK = 18;
constexpr int32_t ROUNDS = 12;

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
uint32_t protected_header_bits(const format::FrameHeader& h) {
  return uint32_t(h.bitrate_index << 12 | h.sampling_index << 10 | h.padding_bit << 9 | h.private_bit << 8 |
                  h.mode << 6 | h.mode_ext << 4 | h.copyright << 3 | h.original << 2 | h.emphasis);
}

// The 18 waiting slots of each channel through the synthesis.
void synthesise_waiting(DecoderState& s) {
  s.channels = s.waiting_channels;
  for (int32_t ch = 0; ch < s.waiting_channels; ++ch) {
    std::memcpy(s.subband_samples, s.waiting[ch], sizeof s.subband_samples);
    if (s.synth) s.synth(s, ch);
  }
}

}  // namespace

void reset_layer1_state(DecoderState& s) {
  std::memset(s.waiting, 0, sizeof s.waiting);
  s.waiting_slots = 0;
  s.waiting_channels = 1;
}

int32_t decode_layer1_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out) {
  // The reader hands on Layer I headers with any bit rate; free format and the forbidden index
  // have no frame length to go by, so such a frame is passed over as damaged and the sync search
  // goes on from behind its header.
  const bool header_ok = (h.id == 0 || h.id == 1) && h.layer_code == 3 && h.bitrate_index >= 1 &&
                         h.bitrate_index <= 14 && h.sampling_index >= 0 && h.sampling_index <= 2 && h.mode >= 0 &&
                         h.mode <= 3 && h.mode_ext >= 0 && h.mode_ext <= 3;
  if (!header_ok) {
    s.damaged = 1;
    return DECODE_OK;
  }
  Reservoir& r = s.reservoir;
  r.write = 0;
  r.bits = 0;
  const int32_t crc_bytes = h.protection_bit ? 0 : 2;
  const FrameBody main = body_from(body, crc_bytes);
  load_reservoir(r, main.bytes, main.got, main.length);

  const int32_t channels = h.mode == 3 ? 1 : 2;
  const int32_t bound = h.mode == 1 ? (h.mode_ext + 1) * 4 : 32;

  uint8_t allocation[2][32];
  for (int32_t sb = 0; sb < 32; ++sb) {
    if (sb < bound) {
      for (int32_t ch = 0; ch < channels; ++ch) allocation[ch][sb] = uint8_t(get_bits(r, 4));
    } else {
      allocation[0][sb] = allocation[1][sb] = uint8_t(get_bits(r, 4));
    }
  }
  if (!h.protection_bit) {
    uint32_t crc = format::CRC16_INIT;
    format::crc16_update(crc, protected_header_bits(h), 16);
    for (int32_t sb = 0; sb < 32; ++sb)
      for (int32_t ch = 0; ch < (sb < bound ? channels : 1); ++ch) format::crc16_update(crc, allocation[ch][sb], 4);
    // A CRC cut off by the end of the file reads as the header's first bytes, which stand where it
    // would have landed.
    const uint32_t stored0 = body.got > 0 ? body.bytes[0] : 0xFF;
    const uint32_t stored1 =
        body.got > 1 ? body.bytes[1] : uint32_t(0xF0 | h.id << 3 | h.layer_code << 1 | h.protection_bit);
    if (crc != (stored0 << 8 | stored1)) return LAYER1_CRC_MISMATCH;
  }

  // Scale factors, already multiplied by N / (N - 1). Allocation 15 is forbidden; it reads as 0.
  float factor[2][32];
  for (int32_t sb = 0; sb < 32; ++sb) {
    for (int32_t ch = 0; ch < channels; ++ch) {
      uint8_t& a = allocation[ch][sb];
      if (a == 15) a = 0;
      factor[ch][sb] = a ? requantiser.gain[a] * scale_factor_table[get_bits(r, 6)] : 0.0f;
    }
  }

  // A change of channel count between blocks starts the waiting slots of the new channel empty.
  if (channels != s.waiting_channels) {
    if (channels == 2) std::memset(s.waiting[1], 0, sizeof s.waiting[1]);
    s.waiting_channels = channels;
  }
  for (int32_t round = 0; round < ROUNDS; ++round) {
    const int32_t t = s.waiting_slots;
    for (int32_t sb = 0; sb < 32; ++sb) {
      if (sb < bound) {
        for (int32_t ch = 0; ch < channels; ++ch) {
          const int32_t a = allocation[ch][sb];
          const float step = requantiser.step[a];
          s.waiting[ch][sb][t] = a ? (float(get_bits(r, a + 1)) * step - 1.0f + step) * factor[ch][sb] : 0.0f;
        }
      } else {
        // One code for both channels, each with its own scale factor.
        const int32_t a = allocation[0][sb];
        const float step = requantiser.step[a];
        const float v = a ? float(get_bits(r, a + 1)) * step - 1.0f + step : 0.0f;
        for (int32_t ch = 0; ch < channels; ++ch) s.waiting[ch][sb][t] = v * factor[ch][sb];
      }
    }
    if (++s.waiting_slots == SLOTS_PER_BLOCK) {
      synthesise_waiting(s);
      emit_block(s, out);
      s.waiting_slots = 0;
    }
  }
  return DECODE_OK;
}

int32_t flush_layer1(DecoderState& s, int16_t* pcm) {
  if (s.waiting_slots == 0) return 0;
  const int32_t slots = s.waiting_slots;
  for (int32_t ch = 0; ch < 2; ++ch)
    for (int32_t sb = 0; sb < 32; ++sb)
      std::memset(&s.waiting[ch][sb][slots], 0, size_t(SLOTS_PER_BLOCK - slots) * sizeof(float));
  synthesise_waiting(s);
  s.waiting_slots = 0;
  // Past the decoded frames the block is silence, not the filter's ringing on the padding: a
  // shaper that plays the whole block then adds nothing but a short pause.
  const int32_t frames = slots * 32;
  const int32_t used = frames * s.waiting_channels;
  std::memset(s.pcm + used, 0, sizeof s.pcm - size_t(used) * sizeof s.pcm[0]);
  std::memcpy(pcm, s.pcm, sizeof s.pcm);
  return frames;
}

}  // namespace decoder
