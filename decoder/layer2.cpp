// How a Layer II frame is decoded.
//
// The frame's remainder goes into the reservoir from offset 0 (Layer II carries nothing from frame
// to frame), and the fields are read in the standard's order: allocation codes, scale factor
// selection, scale factors, then 12 rounds of 3 slots of samples. Samples are dequantised straight
// to floats by the class tables, with no integer stage and no power function: grouped classes by
// their digit constants, the others by their step and offset and the product of C and the scale
// factor, formed once per subband and part.
//
// Decisions of this decoder that differ from the standard, all kept on purpose:
// - The table is chosen by the exact per-channel rate; free format takes the table that lists free
//   format for its sampling rate (B.2a at 48 kHz, B.2b at 44.1 and 32 kHz). A rate that no table
//   lists (16, 24, 28 or 40 kbit/s per channel) gives a damaged frame: it is
//   decoded as if every allocation code were 0, so the output is the ring's fading history followed
//   by silence, and damaged_flag is raised.
// - The narrow tables' stored class 127 is taken as the class of 127 steps, which is what the code
//   means in the standard.
// - In joint stereo the bound may lie above sblimit (narrow tables). The allocation loop then runs
//   to the bound, and the fields beyond the table's rows have width 0: they read as code 0 without
//   consuming bits, and no row outside the table is touched.
#include <cstring>

#include "decoder/layers.h"
#include "decoder/synth.h"
#include "decoder/tables.h"
#include "format/bit_reader.h"
#include "format/header.h"

namespace decoder {

namespace {

// The samples' reads: get_bits's arithmetic exactly, with the read position held in a register
// for the 12 rounds instead of in the shared reader (whose store and reload per read would chain
// every sample behind the last). The position goes back to the reader when the rounds are done.
struct BitCursor {
  Reservoir& r;
  const uint8_t* ring = r.bytes;
  uint32_t pos = r.bits;
  // The ring's guard bytes make the four-byte window safe at the end.
  [[gnu::always_inline]] uint32_t window() const { return format::bits_window(ring, pos); }
  [[gnu::always_inline]] uint32_t get(int32_t n) {
    if (n == 0) return 0;
    uint32_t v = window() >> (32 - n);
    pos = (pos + uint32_t(n)) & RESERVOIR_BIT_MASK;
    return v;
  }
  void commit() const { r.bits = pos; }
};

// The allocation table for the stream and its per-channel rate, or -1 when none is listed.
int32_t choose_table(int32_t id, int32_t sampling_index, int32_t channel_kbps) {
  if (id == 0) return ALLOC_LSF;
  switch (sampling_index) {
    case 0:  // 44.1 kHz
    case 2:  // 32 kHz
      switch (channel_kbps) {
        case 32:
        case 48:
          return sampling_index == 2 ? ALLOC_NARROW12 : ALLOC_NARROW;
        case 56:
        case 64:
        case 80:
          return ALLOC_A;
        case 96:
        case 112:
        case 128:
        case 160:
        case 192:
          return ALLOC_B;
        default:
          return -1;
      }
    case 1:  // 48 kHz
      switch (channel_kbps) {
        case 32:
        case 48:
          return ALLOC_NARROW;
        case 56:
        case 64:
        case 80:
        case 96:
        case 112:
        case 128:
        case 160:
        case 192:
          return ALLOC_A;
        default:
          return -1;
      }
    default:
      return -1;
  }
}

// The class of an allocation code, or 0 outside the table's rows.
inline int32_t class_of(int32_t table, int32_t sblimit, int32_t sb, uint32_t code) {
  if (code == 0 || sb >= sblimit) return 0;
  int32_t cls = allocation_table[table][sb][code & 15];
  if (cls == NARROW_SLIP_CLASS) return 8;
  return cls >= 0 && cls < QUANT_CLASSES ? cls : 0;
}

// The decoded value of each digit of the grouped classes (1, 2 and 4: 3, 5 and 9 steps), times
// C: (d * digit step - 1.0 + digit offset) * C, formed once in the order the samples would form
// it, so that a sample is this times its scale factor. Digits run to 15: the top digit of a damaged
// word may exceed the step count.
struct DigitValues {
  float value[3][16];
};
DigitValues make_digit_values() {
  DigitValues t{};
  const int32_t classes[3] = {1, 2, 4};
  for (int32_t k = 0; k < 3; ++k) {
    const int32_t cls = classes[k];
    for (int32_t d = 0; d < 16; ++d)
      t.value[k][d] =
          (float(d) * class_digit_constants[cls][0] - 1.0f + class_digit_constants[cls][1]) * quant_class_table[cls].c;
  }
  return t;
}
// The class tables are constant-initialised, so they are in place before this runs.
const DigitValues digit_values = make_digit_values();

// Every code word of the grouped classes split into its three digit values, least significant
// digit first: the split by 3, 5 or 9 done once here instead of per word.
struct GroupedWords {
  float by3[32][3];
  float by5[128][3];
  float by9[1024][3];
};
template <uint32_t Steps, size_t Words>
void split_all(const float* digits, float (&out)[Words][3]) {
  for (uint32_t w = 0; w < Words; ++w) {
    uint32_t word = w;
    for (int32_t i = 0; i < 3; ++i) {
      out[w][i] = digits[(word % Steps) & 15];
      word /= Steps;
    }
  }
}
GroupedWords make_grouped_words() {
  GroupedWords g;
  split_all<3>(digit_values.value[0], g.by3);
  split_all<5>(digit_values.value[1], g.by5);
  split_all<9>(digit_values.value[2], g.by9);
  return g;
}
const GroupedWords grouped_words = make_grouped_words();

// One coded subband of one channel, ready for its 12 rounds.
struct Band {
  int32_t kind;  // 0 nothing, 3, 5 or 9 grouped by that many steps, 1 ungrouped
  int32_t bits;
  const float* digits;  // grouped: the class's table of split words
  float step, offset;   // ungrouped
  float factor[3];      // grouped: the scale factors; ungrouped: C times each scale factor
};

// Fills the band in place, field by field (building a temporary and copying it stalls on the
// partial stores).
void set_band(Band& b, int32_t cls, const float* scale) {
  b.kind = 0;
  if (cls == 0) return;
  const QuantClass& q = quant_class_table[cls];
  b.bits = q.bits;
  if (q.grouped) {
    b.kind = q.steps;
    b.digits = cls == 1 ? &grouped_words.by3[0][0] : cls == 2 ? &grouped_words.by5[0][0] : &grouped_words.by9[0][0];
    for (int32_t i = 0; i < 3; ++i) b.factor[i] = scale[i];
  } else {
    b.kind = 1;
    b.step = class_value_constants[cls][0];
    b.offset = class_value_constants[cls][1];
    for (int32_t i = 0; i < 3; ++i) b.factor[i] = q.c * scale[i];
  }
}

// A grouped word's three samples: its digit values (the word fits its class's table by width)
// times the scale factor.
[[gnu::always_inline]] inline void split_group(BitCursor& in, const Band& b, float scale, float* out) {
  const float* digits = b.digits + 3 * in.get(b.bits);
  for (int32_t i = 0; i < 3; ++i) out[i] = digits[i] * scale;
}

// Three samples of one subband and channel in one round.
[[gnu::always_inline]] inline void read_triple(BitCursor& in, const Band& b, int32_t part, float* out) {
  switch (b.kind) {
    case 0:
      out[0] = out[1] = out[2] = 0.0f;
      return;
    case 3:
    case 5:
    case 9:
      return split_group(in, b, b.factor[part], out);
    default: {
      const float factor = b.factor[part];
      const int32_t n = b.bits;
      // Up to 8 bits a value, the three fit in one 32-bit read (at least 25 bits past the position):
      // the same bits as three reads, unless the position would wrap round the ring in between.
      if (n <= 8 && in.pos + uint32_t(3 * n) <= RESERVOIR_BIT_MASK) {
        const uint32_t w = in.window();
        in.pos += uint32_t(3 * n);
        for (int32_t i = 0; i < 3; ++i)
          out[i] = (float(int32_t((w << (i * n)) >> (32 - n))) * b.step + b.offset) * factor;
      } else {
        for (int32_t i = 0; i < 3; ++i) out[i] = (float(int32_t(in.get(n))) * b.step + b.offset) * factor;
      }
    }
  }
}

}  // namespace

int32_t decode_layer2_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out) {
  // The reader only hands on headers with these fields in range; a caller with a hand-made header
  // gets a damaged frame rather than a read outside the rate tables.
  const bool header_ok = (h.id == 0 || h.id == 1) && h.layer_code >= 1 && h.layer_code <= 3 && h.bitrate_index >= 0 &&
                         h.bitrate_index <= 14 && h.sampling_index >= 0 && h.sampling_index <= 2 && h.mode >= 0 &&
                         h.mode <= 3;

  // 1. The frame's remainder into the reservoir, from offset 0.
  Reservoir& r = s.reservoir;
  r.write = 0;
  r.bits = 0;
  int32_t kbps = 0;
  if (header_ok) {
    kbps = format::bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
    const FrameBody main = body_from(body, h.protection_bit ? 0 : 2);
    load_reservoir(r, main.bytes, main.got, main.length);
  }

  // 2. Channels and the joint bound.
  const int32_t channels = h.mode == 3 ? 1 : 2;
  s.channels = channels;
  const int32_t channel_kbps = h.mode == 3 ? kbps : kbps / 2;
  int32_t bound = h.mode == 1 ? (h.mode_ext & 3) * 4 + 4 : 32;

  // 3. The table; none listed means a damaged frame, decoded as all codes 0.
  const int32_t free_table = h.id == 0 ? ALLOC_LSF : h.sampling_index == 1 ? ALLOC_A : ALLOC_B;
  const int32_t table = !header_ok             ? -1
                        : h.bitrate_index == 0 ? free_table
                                               : choose_table(h.id, h.sampling_index, channel_kbps);
  if (table < 0) s.damaged = 1;
  const int32_t sblimit = table < 0 ? 0 : allocation_sblimit[table];
  const uint8_t* field_bits = table < 0 ? nullptr : allocation_bits[table];
  // 4. Only the "no joint bands" bound follows the table; a joint bound above it stays.
  if (bound == 32) bound = sblimit;
  if (table < 0) bound = 0;
  const int32_t coded = bound > sblimit ? bound : sblimit;

  // 5. Allocation codes: per channel below the bound, shared from the bound to sblimit.
  uint8_t cls[2][32] = {};
  for (int32_t sb = 0; sb < coded; ++sb) {
    const int32_t width = sb < sblimit ? field_bits[sb] : 0;
    if (sb < bound) {
      for (int32_t ch = 0; ch < channels; ++ch) cls[ch][sb] = uint8_t(class_of(table, sblimit, sb, get_bits(r, width)));
    } else {
      uint8_t c = uint8_t(class_of(table, sblimit, sb, get_bits(r, width)));
      cls[0][sb] = cls[1][sb] = c;
    }
  }

  // 6. Scale factor selection.
  uint8_t scfsi[2][32] = {};
  for (int32_t sb = 0; sb < sblimit; ++sb)
    for (int32_t ch = 0; ch < channels; ++ch)
      if (cls[ch][sb]) scfsi[ch][sb] = uint8_t(get_bits(r, 2));

  // 7. Scale factors, turned into their multipliers at once.
  float scale[2][32][3] = {};
  for (int32_t sb = 0; sb < sblimit; ++sb) {
    for (int32_t ch = 0; ch < channels; ++ch) {
      if (!cls[ch][sb]) continue;
      float* s = scale[ch][sb];
      s[0] = scale_factor_table[get_bits(r, 6)];
      switch (scfsi[ch][sb]) {
        case 0:
          s[1] = scale_factor_table[get_bits(r, 6)];
          s[2] = scale_factor_table[get_bits(r, 6)];
          break;
        case 1:
          s[1] = s[0];
          s[2] = scale_factor_table[get_bits(r, 6)];
          break;
        case 2:
          s[1] = s[2] = s[0];
          break;
        default:
          s[1] = s[2] = scale_factor_table[get_bits(r, 6)];
          break;
      }
    }
  }

  // 8-10. Samples: 12 rounds of 3 slots; the rest zero.
  Band band[2][32];
  for (int32_t ch = 0; ch < channels; ++ch)
    for (int32_t sb = 0; sb < coded; ++sb) set_band(band[ch][sb], cls[ch][sb], scale[ch][sb]);
  // By channel and half (18 slots each), in the synthesis's layout: a triple never straddles halves.
  // Bands with nothing coded are zero.
  alignas(32) float samples[2][2][32][18];
  auto silence = [&](int32_t ch, int32_t sb) {
    for (int32_t half = 0; half < 2; ++half) std::memset(samples[ch][half][sb], 0, sizeof samples[ch][half][sb]);
  };
  // The coded bands of a round in stream order, with where their triples go. Above the bound the
  // channels share one code but each applies its own scale factors: the second channel reads the
  // code again from the same position (again set).
  struct Read {
    const Band* band;
    float* row;
    bool again;
  };
  Read reads[64];
  int32_t count = 0;
  for (int32_t sb = 0; sb < 32; ++sb) {
    const bool shared = sb >= bound;
    for (int32_t ch = 0; ch < channels; ++ch) {
      if (sb >= coded || (shared && sb >= sblimit) || band[ch][sb].kind == 0) {
        silence(ch, sb);
        continue;
      }
      reads[count++] = {&band[ch][sb], samples[ch][0][sb], shared && ch == 1};
    }
  }
  BitCursor in{r};
  for (int32_t g = 0; g < 12; ++g) {
    const int32_t part = g >> 2;
    const int32_t at_slot = (g / 6) * 32 * 18 + (g % 6) * 3;
    uint32_t at = in.pos;
    for (int32_t i = 0; i < count; ++i) {
      const Read& r = reads[i];
      if (r.again)
        in.pos = at;
      else
        at = in.pos;
      read_triple(in, *r.band, part, r.row + at_slot);
    }
  }
  in.commit();

  // 11. Two halves of 18 slots: channel 0, channel 1, then the shaper.
  for (int32_t half = 0; half < 2; ++half) {
    for (int32_t ch = 0; ch < channels; ++ch) {
      std::memcpy(s.subband_samples, samples[ch][half], sizeof s.subband_samples);
      if (s.synth) s.synth(s, ch);
    }
    emit_block(s, out);
  }
  return DECODE_OK;
}

}  // namespace decoder
