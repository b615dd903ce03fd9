// One Layer I or II frame: filter bank, scale factors, model, joint stereo decision, bit
// allocation, quantisation and the bitstream.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "encoder/l12.h"
#include "format/bit_writer.h"
#include "format/crc16.h"
#include "format/header.h"

namespace encoder {

namespace {

// Signal to noise in dB of each allocation: Layer I by bit allocation (0 to 14), Layer II by
// quantisation class + 1 (0 = nothing sent).
constexpr double SNR_L1[15] = {0,     7,     16,    25.28, 31.59, 37.75, 43.84, 49.89,
                               55.93, 61.96, 67.98, 74.01, 80.03, 86.05, 92.01};
constexpr double SNR_L2[18] = {0,     7,     11,    16,    20.84, 25.28, 31.59, 37.75, 43.84,
                               49.89, 55.93, 61.96, 67.98, 74.01, 80.03, 86.05, 92.01, 98.01};
// Layer I allocation n (1 to 14) quantises with 2^(n + 1) - 1 steps: the Layer II class of that.
constexpr int32_t L1_CLASS[15] = {-1, 0, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
// Scale factors sent for each selection information value.
constexpr int32_t SFS_PER_SCFSI[4] = {3, 2, 1, 2};
constexpr int32_t JS_BOUND[4] = {4, 8, 12, 16};

int32_t table_for(const EncoderState& s) {
  if (!s.params.mpeg1) return 4;
  int32_t per_channel = s.kbps / s.stereo;
  if (per_channel >= 56 && (s.rate_hz == 48000 || per_channel <= 80)) return 0;
  if (s.rate_hz != 48000 && per_channel >= 96) return 1;
  if (s.rate_hz != 32000 && per_channel <= 48) return 2;
  return 3;
}

// Sample bits of a Layer II allocation code in one subband: 12 triplets as three code words or one.
int32_t l2_sample_bits(const AllocTable& t, int32_t sb, int32_t ba) {
  if (ba == 0) return 0;
  const QuantClass& q = QUANT_CLASSES[t.sb[sb].cls[ba]];
  return 12 * (q.grouped ? 1 : 3) * q.bits;
}

struct Frame {
  Samples sb;
  float joint[3][12][32];
  ScaleIndex scale;
  int32_t joint_scale[3][32];
  int32_t scfsi[2][32];
  double max_scale[2][32];
  double smr[2][32];
  int32_t alloc[2][32];
};

int32_t bits_for_nonoise_l1(const EncoderState& s, const Frame& f) {
  int32_t req = 32 + 128 + 4 * s.jsbound * (s.stereo - 1);
  for (int32_t sb = 0; sb < 32; ++sb) {
    int32_t channels = sb < s.jsbound ? s.stereo : 1;
    for (int32_t ch = 0; ch < channels; ++ch) {
      int32_t ba = 0;
      while (ba < 14 && SNR_L1[ba] - f.smr[ch][sb] < 0) ++ba;
      if (s.stereo == 2 && sb >= s.jsbound)
        while (ba < 14 && SNR_L1[ba] - f.smr[1][sb] < 0) ++ba;
      if (ba > 0) req += 6 * ((sb < s.jsbound ? 1 : s.stereo) + 2 * ba + 2);
    }
  }
  return req;
}

int32_t bits_for_nonoise_l2(const EncoderState& s, const Frame& f) {
  const AllocTable& t = ALLOC_TABLES[s.table];
  int32_t req = 32 + (s.params.error_protection ? 16 : 0);
  for (int32_t sb = 0; sb < s.sblimit; ++sb) req += t.sb[sb].nbal * (sb < s.jsbound ? s.stereo : 1);
  for (int32_t sb = 0; sb < s.sblimit; ++sb) {
    const int32_t top = (1 << t.sb[sb].nbal) - 1;
    const bool joint = s.stereo == 2 && sb >= s.jsbound;
    for (int32_t ch = 0; ch < (joint ? 1 : s.stereo); ++ch) {
      double smr = joint ? std::fmax(f.smr[0][sb], f.smr[1][sb]) : f.smr[ch][sb];
      int32_t ba = 1;
      while (ba < top - 1 && SNR_L2[t.sb[sb].cls[ba] + 1] < smr) ++ba;
      if (SNR_L2[t.sb[sb].cls[ba] + 1] < smr) ba = top - 1;
      req += l2_sample_bits(t, sb, ba);
      if (joint)
        req += 4 + 6 * (SFS_PER_SCFSI[f.scfsi[0][sb]] + SFS_PER_SCFSI[f.scfsi[1][sb]]);
      else
        req += 2 + 6 * SFS_PER_SCFSI[f.scfsi[ch][sb]];
    }
  }
  return req;
}

// Greedy allocation, one loop for both layers: give a step to the (channel, subband) whose noise
// lies highest above its mask until nothing more fits; above jsbound both channels share the
// allocation. cost(ch, sb, ba) is the bits of going from ba to ba + 1, top(sb) the highest
// allocation, snr(sb, ba) its signal to noise. Layer I only looks at entries within 1 dB of
// subband 0's ratio: when all the rest lie higher, it stops early, leaving bits unused.
template <typename Cost, typename Top, typename Snr>
void allocate(const EncoderState& s, Frame& f, int32_t& adb, int32_t bands, Cost cost, Top top, Snr snr) {
  const bool l1 = s.params.layer == 1;
  double mnr[2][32];
  int32_t used[2][32] = {};
  for (int32_t ch = 0; ch < 2; ++ch)
    for (int32_t sb = 0; sb < 32; ++sb) {
      mnr[ch][sb] = -f.smr[ch][sb];
      f.alloc[ch][sb] = 0;
    }
  int32_t spent = 0;
  for (;;) {
    double small = l1 ? mnr[0][0] + 1.0 : 999999.0;
    int32_t min_ch = -1, min_sb = -1;
    for (int32_t sb = 0; sb < bands; ++sb)
      for (int32_t ch = 0; ch < s.stereo; ++ch)
        if (used[ch][sb] != 2 && mnr[ch][sb] < small) {
          small = mnr[ch][sb];
          min_ch = ch;
          min_sb = sb;
        }
    if (min_ch < 0) break;
    const int32_t ba = f.alloc[min_ch][min_sb];
    const int32_t bits = cost(min_ch, min_sb, ba);
    if (spent + bits <= adb) {
      spent += bits;
      f.alloc[min_ch][min_sb] = ba + 1;
      used[min_ch][min_sb] = ba + 1 >= top(min_sb) ? 2 : 1;
      mnr[min_ch][min_sb] = snr(min_sb, ba + 1) - f.smr[min_ch][min_sb];
    } else {
      used[min_ch][min_sb] = 2;
    }
    if (s.stereo == 2 && min_sb >= s.jsbound) {
      const int32_t o = 1 - min_ch;
      f.alloc[o][min_sb] = f.alloc[min_ch][min_sb];
      used[o][min_sb] = used[min_ch][min_sb];
      mnr[o][min_sb] = snr(min_sb, f.alloc[o][min_sb]) - f.smr[o][min_sb];
    }
  }
  adb -= spent;
}

void allocation_l1(const EncoderState& s, Frame& f, int32_t& adb) {
  adb -= 32 + (s.params.error_protection ? 16 : 0) + 4 * (s.jsbound * s.stereo + 32 - s.jsbound);
  // A first step costs 12 samples of 2 bits and the scale factor(s); each later one a bit a sample.
  auto cost = [&](int32_t, int32_t sb, int32_t ba) {
    return ba == 0 ? 24 + 6 * (s.stereo == 2 && sb >= s.jsbound ? 2 : 1) : 12;
  };
  allocate(
      s, f, adb, 32, cost, [](int32_t) { return 14; }, [](int32_t, int32_t ba) { return SNR_L1[ba]; });
}

void allocation_l2(const EncoderState& s, Frame& f, int32_t& adb) {
  const AllocTable& t = ALLOC_TABLES[s.table];
  adb -= 32 + (s.params.error_protection ? 16 : 0);
  for (int32_t sb = 0; sb < s.sblimit; ++sb) adb -= t.sb[sb].nbal * (sb < s.jsbound ? s.stereo : 1);
  // Sample bits of the new step less the old; a first step adds the selection information and the
  // scale factors it selects, of both channels in the joint part.
  auto cost = [&](int32_t ch, int32_t sb, int32_t ba) {
    int32_t bits = l2_sample_bits(t, sb, ba + 1) - l2_sample_bits(t, sb, ba);
    if (ba == 0) {
      if (s.stereo == 2 && sb >= s.jsbound)
        bits += 4 + 6 * (SFS_PER_SCFSI[f.scfsi[0][sb]] + SFS_PER_SCFSI[f.scfsi[1][sb]]);
      else
        bits += 2 + 6 * SFS_PER_SCFSI[f.scfsi[ch][sb]];
    }
    return bits;
  };
  allocate(
      s, f, adb, s.sblimit, cost, [&](int32_t sb) { return (1 << t.sb[sb].nbal) - 1; },
      [&](int32_t sb, int32_t ba) { return SNR_L2[t.sb[sb].cls[ba] + 1]; });
}

// Quantises a sample already divided by its scale factor (|x| <= 1 up to rounding) to a code of
// `steps` levels: A x + B mapped to N = ceil(log2 steps) bits with the sign bit inverted. Codes
// are kept below steps, since a sample exactly at its scale factor would otherwise reach it.
inline uint32_t quantise(float x, const QuantClass& q, int32_t half_codes) {
  float d = x * q.a + q.b;
  uint32_t code;
  if (d < 0.0f)
    code = uint32_t(int32_t((d + 1.0f) * float(half_codes)));
  else
    code = uint32_t(half_codes) + uint32_t(int32_t(d * float(half_codes)));
  return code < uint32_t(q.steps) ? code : uint32_t(q.steps - 1);
}

int32_t half_codes_of(int32_t steps) {
  int32_t h = 1;
  while (2 * h < steps) h *= 2;
  return h;
}

void write_header(const EncoderState& s, int32_t padding, format::BitWriter& w) {
  const EncoderParams& p = s.params;
  put_bits(w, 0xFFF, 12);
  put_bits(w, uint32_t(p.mpeg1), 1);
  put_bits(w, uint32_t(4 - p.layer), 2);
  put_bits(w, p.error_protection ? 0 : 1, 1);
  put_bits(w, uint32_t(p.bit_rate_index), 4);
  put_bits(w, uint32_t(p.sample_rate_index), 2);
  put_bits(w, uint32_t(padding), 1);
  put_bits(w, uint32_t(p.extension), 1);
  // A joint stereo bound at or above sblimit (Layer II at low rates) codes nothing jointly: such a
  // frame is written as plain stereo, since decoders treat a bound beyond sblimit as an error.
  const bool plain = s.mode == 1 && s.jsbound >= s.sblimit;
  put_bits(w, plain ? 0u : uint32_t(s.mode), 2);
  put_bits(w, plain ? 0u : uint32_t(s.mode_ext), 2);
  put_bits(w, uint32_t(p.copyright), 1);
  put_bits(w, uint32_t(p.original), 1);
  put_bits(w, p.emphasis == 2 ? 3u : uint32_t(p.emphasis), 2);
}

// The header's last 16 bits start the CRC.
uint32_t header_crc(const uint8_t* frame) {
  uint32_t crc = format::CRC16_INIT;
  format::crc16_update(crc, uint32_t(frame[2]) << 8 | frame[3], 16);
  return crc;
}

void write_l1(const EncoderState& s, const Frame& f, int32_t padding, format::BitWriter& w) {
  write_header(s, padding, w);
  if (s.params.error_protection) {
    uint32_t crc = header_crc(w.data);
    for (int32_t sb = 0; sb < 32; ++sb)
      for (int32_t ch = 0; ch < (sb < s.jsbound ? s.stereo : 1); ++ch)
        format::crc16_update(crc, uint32_t(f.alloc[ch][sb]), 4);
    put_bits(w, crc, 16);
  }
  for (int32_t sb = 0; sb < 32; ++sb)
    for (int32_t ch = 0; ch < (sb < s.jsbound ? s.stereo : 1); ++ch) put_bits(w, uint32_t(f.alloc[ch][sb]), 4);
  for (int32_t sb = 0; sb < 32; ++sb)
    for (int32_t ch = 0; ch < s.stereo; ++ch)
      if (f.alloc[ch][sb]) put_bits(w, uint32_t(f.scale[ch][0][sb]), 6);
  for (int32_t t = 0; t < 12; ++t)
    for (int32_t sb = 0; sb < 32; ++sb) {
      const bool joint = s.stereo == 2 && sb >= s.jsbound;
      for (int32_t ch = 0; ch < (joint ? 1 : s.stereo); ++ch) {
        int32_t n = f.alloc[ch][sb];
        if (!n) continue;
        const QuantClass& q = QUANT_CLASSES[L1_CLASS[n]];
        float x = joint ? f.joint[0][t][sb] * float(1.0 / SCALE_MULTIPLE[f.joint_scale[0][sb]])
                        : f.sb[ch][0][t][sb] * float(1.0 / SCALE_MULTIPLE[f.scale[ch][0][sb]]);
        put_bits(w, quantise(x, q, 1 << n), n + 1);
      }
    }
}

void write_l2(const EncoderState& s, const Frame& f, int32_t padding, format::BitWriter& w) {
  const AllocTable& t = ALLOC_TABLES[s.table];
  write_header(s, padding, w);
  if (s.params.error_protection) {
    uint32_t crc = header_crc(w.data);
    for (int32_t sb = 0; sb < s.sblimit; ++sb)
      for (int32_t ch = 0; ch < (sb < s.jsbound ? s.stereo : 1); ++ch)
        format::crc16_update(crc, uint32_t(f.alloc[ch][sb]), t.sb[sb].nbal);
    for (int32_t sb = 0; sb < s.sblimit; ++sb)
      for (int32_t ch = 0; ch < s.stereo; ++ch)
        if (f.alloc[ch][sb]) format::crc16_update(crc, uint32_t(f.scfsi[ch][sb]), 2);
    put_bits(w, crc, 16);
  }
  for (int32_t sb = 0; sb < s.sblimit; ++sb)
    for (int32_t ch = 0; ch < (sb < s.jsbound ? s.stereo : 1); ++ch)
      put_bits(w, uint32_t(f.alloc[ch][sb]), t.sb[sb].nbal);
  for (int32_t sb = 0; sb < s.sblimit; ++sb)
    for (int32_t ch = 0; ch < s.stereo; ++ch)
      if (f.alloc[ch][sb]) put_bits(w, uint32_t(f.scfsi[ch][sb]), 2);
  for (int32_t sb = 0; sb < s.sblimit; ++sb)
    for (int32_t ch = 0; ch < s.stereo; ++ch) {
      if (!f.alloc[ch][sb]) continue;
      switch (f.scfsi[ch][sb]) {
        case 0:
          for (int32_t g = 0; g < 3; ++g) put_bits(w, uint32_t(f.scale[ch][g][sb]), 6);
          break;
        case 1:
        case 3:
          put_bits(w, uint32_t(f.scale[ch][0][sb]), 6);
          put_bits(w, uint32_t(f.scale[ch][2][sb]), 6);
          break;
        default:
          put_bits(w, uint32_t(f.scale[ch][0][sb]), 6);
      }
    }
  for (int32_t g = 0; g < 3; ++g)
    for (int32_t tri = 0; tri < 4; ++tri)
      for (int32_t sb = 0; sb < s.sblimit; ++sb) {
        const bool joint = s.stereo == 2 && sb >= s.jsbound;
        for (int32_t ch = 0; ch < (joint ? 1 : s.stereo); ++ch) {
          int32_t ba = f.alloc[ch][sb];
          if (!ba) continue;
          const QuantClass& q = QUANT_CLASSES[t.sb[sb].cls[ba]];
          const int32_t h = half_codes_of(q.steps);
          const float inv = float(1.0 / SCALE_MULTIPLE[joint ? f.joint_scale[g][sb] : f.scale[ch][g][sb]]);
          uint32_t c[3];
          for (int32_t k = 0; k < 3; ++k) {
            float v = joint ? f.joint[g][tri * 3 + k][sb] : f.sb[ch][g][tri * 3 + k][sb];
            c[k] = quantise(v * inv, q, h);
          }
          if (q.grouped) {
            put_bits(w, (c[2] * uint32_t(q.steps) + c[1]) * uint32_t(q.steps) + c[0], q.bits);
          } else {
            for (int32_t k = 0; k < 3; ++k) put_bits(w, c[k], q.bits);
          }
        }
      }
}

// Selection information: which of the three scale factors of a subband are sent.
void select_transmission(const int32_t (*scale)[32], int32_t sblimit, int32_t* scfsi, int32_t (*out)[32]) {
  static constexpr int32_t PATTERN[5][5] = {{0x123, 0x122, 0x122, 0x133, 0x123},
                                            {0x113, 0x111, 0x111, 0x444, 0x113},
                                            {0x111, 0x111, 0x111, 0x333, 0x113},
                                            {0x222, 0x222, 0x222, 0x333, 0x123},
                                            {0x123, 0x122, 0x122, 0x133, 0x123}};
  auto cls = [](int32_t d) { return d < -2 ? 0 : d < 0 ? 1 : d == 0 ? 2 : d < 3 ? 3 : 4; };
  for (int32_t sb = 0; sb < sblimit; ++sb) {
    int32_t i0 = scale[0][sb], i1 = scale[1][sb], i2 = scale[2][sb];
    int32_t e = PATTERN[cls(i0 - i1)][cls(i1 - i2)];
    switch (e) {
      case 0x123:
        scfsi[sb] = 0;
        break;
      case 0x122:
        scfsi[sb] = 3;
        i2 = i1;
        break;
      case 0x133:
        scfsi[sb] = 3;
        i1 = i2;
        break;
      case 0x113:
        scfsi[sb] = 1;
        i1 = i0;
        break;
      case 0x111:
        scfsi[sb] = 2;
        i1 = i2 = i0;
        break;
      case 0x222:
        scfsi[sb] = 2;
        i0 = i2 = i1;
        break;
      case 0x333:
        scfsi[sb] = 2;
        i0 = i1 = i2;
        break;
      default:
        scfsi[sb] = 2;
        i0 = i1 = i2 = i0 < i2 ? i0 : i2;
        break;
    }
    out[0][sb] = i0;
    out[1][sb] = i1;
    out[2][sb] = i2;
  }
}

}  // namespace

int32_t bitrate_kbps(int32_t mpeg1, int32_t layer, int32_t index) {
  if (layer < 1 || layer > 3 || index < 1 || index > 14) return 0;
  return format::bitrate_table[((mpeg1 ? 1 : 0) * 3 - (4 - layer)) * 15 + index];
}

int32_t bitrate_index(int32_t mpeg1, int32_t layer, int32_t kbps) {
  for (int32_t i = 1; i < 15; ++i)
    if (bitrate_kbps(mpeg1, layer, i) == kbps) return i;
  return -1;
}

bool set_sample_rate(EncoderParams& p, int32_t rate_hz) {
  // MPEG-1 first, then MPEG-2: the encoder writes no MPEG 2.5.
  for (int32_t i = 0; i < 6; ++i)
    if (format::sample_rate_table[(i + 3) % 6] == rate_hz) {
      p.mpeg1 = i < 3;
      p.sample_rate_index = i % 3;
      return true;
    }
  return false;
}

int32_t sample_rate_hz(const EncoderParams& p) {
  return format::sample_rate_table[(p.mpeg1 ? 3 : 0) + p.sample_rate_index];
}

int32_t encoder_init(EncoderState& s, const EncoderParams& p) {
  if (p.layer < 1 || p.layer > 3) return ENCODER_BAD_LAYER;
  if (p.sample_rate_index < 0 || p.sample_rate_index > 2) return ENCODER_BAD_RATE;
  if (p.mode != 0 && p.mode != 1 && p.mode != 3) return ENCODER_BAD_MODE;
  if (p.psy_model != 1 && p.psy_model != 2 && p.layer != 3) return ENCODER_BAD_MODEL;
  if (p.emphasis < 0 || p.emphasis > 2) return ENCODER_BAD_EMPHASIS;
  const int32_t kbps = bitrate_kbps(p.mpeg1, p.layer, p.bit_rate_index);
  if (kbps == 0) return ENCODER_BAD_BITRATE;
  // MPEG-1 Layer II allows neither the top rates for one channel nor the bottom ones for two.
  if (p.mpeg1 && p.layer == 2) {
    if (p.mode == 3 && kbps > 192) return ENCODER_BAD_BITRATE;
    if (p.mode != 3 && (kbps == 32 || kbps == 48 || kbps == 56 || kbps == 80)) return ENCODER_BAD_BITRATE;
  }
  s.params = p;
  s.mode = p.mode;
  s.mode_ext = p.mode == 1 ? 3 : 0;
  s.stereo = p.mode == 3 ? 1 : 2;
  s.rate_hz = sample_rate_hz(p);
  s.kbps = kbps;
  s.sblimit = 32;
  s.table = -1;
  if (p.layer == 2) {
    s.table = table_for(s);
    s.sblimit = ALLOC_TABLES[s.table].sblimit;
  }
  s.jsbound = p.mode == 1 ? std::min(JS_BOUND[s.mode_ext], s.sblimit) : s.sblimit;
  // Frame length in slots (4 bytes in Layer I, 1 in Layer II): 12 or 144 times kbit/s per kHz,
  // kept as a whole part and a remainder in units of 1/rate. Exact integers, so that a rate that
  // divides evenly (48 kHz at 128 kbit/s) never pads, and padding follows the standard's rule.
  const int64_t numerator = int64_t(p.layer == 1 ? 12000 : p.layer == 3 && !p.mpeg1 ? 72000 : 144000) * kbps;
  s.slot_bytes = p.layer == 1 ? 4 : 1;
  s.whole_slots = int32_t(numerator / s.rate_hz);
  s.frac = numerator % s.rate_hz;
  s.lag = -s.frac;
  s.frames = 0;
  analysis_init(s);
  std::memset(s.pcm_l1, 0, sizeof s.pcm_l1);
  std::memset(&s.model1, 0, sizeof s.model1);
  const int32_t n = p.layer == 1 ? 512 : 1024;
  s.model1.write_pos[0] = s.model1.write_pos[1] = 256;
  for (int32_t i = 0; i < n; ++i)
    s.model1.window[i] = std::sqrt(8.0 / 3.0) * 0.5 * (1.0 - std::cos(2.0 * M_PI * i / n)) / n;
  model2_init(s.model2, s.rate_hz);
  if (p.layer == 3) {
    s.params.psy_model = 2;
    s.mode_ext = p.mode == 1 ? 2 : 0;  // mid/side in every frame, no intensity stereo
    layer3_init(s);
  }
  return ENCODER_OK;
}

int32_t encode_flush(EncoderState& s, uint8_t* out) { return s.params.layer == 3 ? flush_l3(s, out) : 0; }

int32_t encode_frame(EncoderState& s, const int16_t (*pcm)[FRAME_SAMPLES_L2], uint8_t* out) {
  const bool l1 = s.params.layer == 1;
  const int32_t groups = l1 ? 1 : 3;
  // Pacing: pad when the frames so far have fallen a whole slot behind the exact average.
  int32_t padding = 0;
  if (s.frac != 0) {
    if (s.frac - s.rate_hz < s.lag) {
      s.lag -= s.frac;
    } else {
      padding = 1;
      s.lag += s.rate_hz - s.frac;
    }
  }
  if (s.params.layer == 3) {
    ++s.frames;
    return encode_frame_l3(s, pcm, padding, out);
  }
  const int32_t frame_bytes = s.slot_bytes * (s.whole_slots + padding);
  int32_t adb = 8 * frame_bytes;
  ++s.frames;

  // Layer I runs 64 samples behind its input, the last 64 of each channel carried over.
  const int16_t* in[2];
  for (int32_t ch = 0; ch < 2; ++ch) {
    if (l1) {
      std::memmove(s.pcm_l1[ch], s.pcm_l1[ch] + 384, 64 * sizeof(int16_t));
      if (ch < s.stereo)
        std::memcpy(s.pcm_l1[ch] + 64, pcm[ch], 384 * sizeof(int16_t));
      else
        std::memset(s.pcm_l1[ch] + 64, 0, 384 * sizeof(int16_t));
      in[ch] = s.pcm_l1[ch];
    } else {
      in[ch] = pcm[ch < s.stereo ? ch : 0];
    }
  }

  Frame f;
  for (int32_t g = 0; g < groups; ++g)
    for (int32_t t = 0; t < 12; ++t)
      for (int32_t ch = 0; ch < s.stereo; ++ch) analyse_slot(s, ch, in[ch] + (g * 12 + t) * 32, f.sb[ch][g][t]);

  for (int32_t ch = 0; ch < s.stereo; ++ch) scale_factors(f.sb[ch], groups, s.sblimit, s.params.layer, f.scale[ch]);
  if (s.mode == 1 && s.stereo == 2) {
    for (int32_t g = 0; g < groups; ++g)
      for (int32_t t = 0; t < 12; ++t)
        for (int32_t b = 0; b < s.sblimit; ++b) f.joint[g][t][b] = (f.sb[0][g][t][b] + f.sb[1][g][t][b]) * 0.5f;
    scale_factors(f.joint, groups, s.sblimit, s.params.layer, f.joint_scale);
  }
  for (int32_t ch = 0; ch < s.stereo; ++ch) {
    if (!l1) select_transmission(f.scale[ch], s.sblimit, f.scfsi[ch], f.scale[ch]);
    for (int32_t b = 0; b < 32; ++b) {
      if (b >= s.sblimit) {
        f.max_scale[ch][b] = 1e-20;
        continue;
      }
      int32_t lowest = f.scale[ch][0][b];
      for (int32_t g = 1; g < groups; ++g) lowest = f.scale[ch][g][b] < lowest ? f.scale[ch][g][b] : lowest;
      f.max_scale[ch][b] = SCALE_MULTIPLE[lowest];
    }
  }

  // Model 1 takes the frame's new samples into its own ring; model 2 takes what the filter bank
  // reads (in Layer I the carried 64 and the new 384).
  if (s.params.psy_model == 1) {
    const int16_t* fresh[2] = {l1 ? in[0] + 64 : in[0], l1 ? in[1] + 64 : in[1]};
    model1(s, fresh, f.max_scale, f.smr);
  } else {
    for (int32_t ch = 0; ch < s.stereo; ++ch) model2_l12(s.model2, in[ch], ch, s.params.layer, f.smr[ch]);
  }

  // Joint stereo: when the frame cannot be coded without audible noise, move subbands into the
  // shared (intensity) part. The bound only ever narrows over a job.
  if (s.params.mode == 1 && s.stereo == 2) {
    auto need = [&] { return l1 ? bits_for_nonoise_l1(s, f) : bits_for_nonoise_l2(s, f); };
    if (need() > adb) {
      s.mode = 1;
      while (s.mode_ext > 0) {
        --s.mode_ext;
        s.jsbound = std::min(JS_BOUND[s.mode_ext], s.sblimit);
        if (need() <= adb) break;
      }
    }
  }
  if (l1)
    allocation_l1(s, f, adb);
  else
    allocation_l2(s, f, adb);

  format::BitWriter w;
  format::bit_writer_init(w, out, frame_bytes);
  if (l1)
    write_l1(s, f, padding, w);
  else
    write_l2(s, f, padding, w);
  return frame_bytes;
}

}  // namespace encoder
