// The MPEG audio encoder, Layers I, II and III (ISO 11172-3, and ISO 13818-3 at 16 to 24 kHz):
// 16-bit PCM frames in, frame bytes out. Everything is a pure function of caller-owned state: the
// analysis filter bank, psychoacoustic model 1 or 2, scale factors, joint stereo, bit allocation,
// quantisation and the bitstream; for Layer III the MDCT, block switching, the quantisation loops,
// Huffman coding and the bit reservoir. No file I/O, no messages, no mutable globals: the job
// (encoder/job.h) feeds it and writes what it returns.
//
// Every frame is exactly as long as its header says, padding included, so that every decoder
// reads the stream without complaint.
#pragma once

#include <cstdint>

namespace encoder {

// Choices of one job. Fields follow the MPEG header's own meanings.
struct EncoderParams {
  int32_t layer = 2;              // 1, 2 or 3 (Layer III always uses its own form of model 2)
  int32_t mpeg1 = 1;              // 1: 32/44.1/48 kHz, 0: 16/22.05/24 kHz (the header's ID bit)
  int32_t sample_rate_index = 0;  // 0, 1, 2: 44100, 48000, 32000 (halved with mpeg1 0)
  int32_t bit_rate_index = 0;     // the header's index, 1 to 14
  int32_t mode = 0;               // 0 stereo, 1 joint stereo, 3 mono
  int32_t psy_model = 1;          // 1 or 2
  int32_t emphasis = 0;           // 0 none, 1 50/15 us, 2 CCITT J.17 (written as 3)
  int32_t extension = 0;          // the private bit
  int32_t error_protection = 0;   // 1 adds the CRC word
  int32_t copyright = 0;
  int32_t original = 0;
};

// Codes of encoder_init.
enum EncoderCode : int32_t {
  ENCODER_OK = 0,
  ENCODER_BAD_LAYER = 1,     // not Layer I, II or III
  ENCODER_BAD_RATE = 2,      // sampling rate index out of range
  ENCODER_BAD_BITRATE = 3,   // bit rate index out of range, or not allowed with this mode
  ENCODER_BAD_MODE = 4,      // mode not 0, 1 or 3
  ENCODER_BAD_MODEL = 5,     // psychoacoustic model not 1 or 2
  ENCODER_BAD_EMPHASIS = 6,  // emphasis not 0, 1 or 2
};

// The most one encode_frame or encode_flush call returns: a Layer II frame is at most 1728 bytes;
// Layer III holds frames back while later frames' main data still fills them, at most 511 bytes
// of reservoir plus the frames that carry it.
constexpr int32_t MAX_FRAME_BYTES = 8192;
constexpr int32_t FRAME_SAMPLES_L1 = 384;
constexpr int32_t FRAME_SAMPLES_L2 = 1152;

// Psychoacoustic model 1 memory: per channel a ring of past samples (1408 for Layer II, 640 for
// Layer I) so that its 1024- or 512-point window can straddle frames.
struct Model1State {
  double ring[2][1408];
  int32_t write_pos[2];
  double window[1024];
};

// Model 2 memory: the samples kept between passes, the last two spectra as magnitude and unit
// phasor (for the prediction), the Layer I pre-echo threshold, and the rate's partition set-up.
struct Model2State {
  int16_t save[2][1056];
  double magnitude[2][2][513];  // [channel][0 newest, 1 the one before]
  double phasor_re[2][2][513];
  double phasor_im[2][2][513];
  double fthr[2][513];
  int32_t partitions;
  int32_t partition_of[513];
  int32_t numlines[63];
  double bval[63];
  double tmn[63];
  double norm[63];
  double spread[63][63];   // [maskee][masker]
  int32_t spread_low[63];  // first and last masker with a non-zero spreading onto each partition
  int32_t spread_high[63];
  const float* absthr;  // 513 lines of threshold in quiet
};

// Layer III memory: the model's sample history, last thresholds and block types; the subband
// samples of the last granule (the transform overlaps two); the frames held back until the main
// data of later frames has filled them (the bit reservoir of the stream).
struct Layer3State {
  int16_t save[2][1344];
  double nb1[2][63];
  double nb2[2][63];
  int32_t blocktype_old[2];
  int32_t last_gain[2];  // where the next granule's gain search starts
  float sb_prev[2][18][32];
  int32_t line_cutoff;
  int32_t resv_bits;  // reservoir the next frame may use, in bits
  int32_t resv_max;
  // Held frames, contiguous in hold; fill is where the next main data byte goes.
  uint8_t hold[8192];
  int32_t hold_len;
  int32_t held;
  int32_t frame_end[32];  // end of each held frame in hold
  int32_t side_end[32];   // end of its header and side information
  int32_t fill;
};

struct EncoderState {
  EncoderParams params;
  // Header of the frame being made; mode and mode_ext can change per frame (joint stereo).
  int32_t mode = 0;
  int32_t mode_ext = 0;
  int32_t stereo = 2;  // channels coded
  int32_t jsbound = 32;
  int32_t sblimit = 32;
  int32_t table = -1;  // Layer II allocation table
  int32_t rate_hz = 0;
  int32_t kbps = 0;
  // Frame pacing in whole slots and a remainder counted in units of 1/rate_hz of a slot.
  int32_t slot_bytes = 1;
  int32_t whole_slots = 0;
  int64_t frac = 0;
  int64_t lag = 0;
  int64_t frames = 0;
  // Analysis filter: the last 512 samples of each channel, twice over so that every window is
  // one contiguous run; the newest sample is at ring_offset.
  float analysis_ring[2][1024];
  int32_t ring_offset[2];
  float matrix[32][32];  // [input of the folded form][subband]
  // Layer I keeps the last 64 samples of each channel ahead of the new 384.
  int16_t pcm_l1[2][448];
  Model1State model1;
  Model2State model2;
  Layer3State l3;
};

// Checks the parameters and resets state for a new job. Returns an EncoderCode.
int32_t encoder_init(EncoderState& s, const EncoderParams& p);

// Encodes one frame from pcm[channel][i] (384 samples per channel in Layer I, 1152 in Layer II
// and in MPEG-1 Layer III, 576 in MPEG-2 Layer III; the second row is ignored in mono). Writes
// what is ready to out (at least MAX_FRAME_BYTES) and returns its length in bytes: one frame in
// Layers I and II; in Layer III the frames whose main data is complete, possibly none.
int32_t encode_frame(EncoderState& s, const int16_t (*pcm)[FRAME_SAMPLES_L2], uint8_t* out);
// At the end of the input: writes the frames still held back (Layer III) and returns their bytes.
int32_t encode_flush(EncoderState& s, uint8_t* out);

// Samples per channel in one frame of this job.
inline int32_t frame_samples(const EncoderParams& p) {
  return p.layer == 1 ? FRAME_SAMPLES_L1 : p.layer == 3 && !p.mpeg1 ? FRAME_SAMPLES_L2 / 2 : FRAME_SAMPLES_L2;
}

// Bit rate in kbit/s of a header index for the layer and ID, 0 when the index is out of range.
int32_t bitrate_kbps(int32_t mpeg1, int32_t layer, int32_t index);
// The header's bit rate index for kbit/s, or -1 when the layer and ID have no such rate.
int32_t bitrate_index(int32_t mpeg1, int32_t layer, int32_t kbps);
// Sets mpeg1 and sample_rate_index for a rate in Hz; false when MPEG audio has no such rate.
bool set_sample_rate(EncoderParams& p, int32_t rate_hz);
// Sampling rate in Hz of the parameters.
int32_t sample_rate_hz(const EncoderParams& p);

}  // namespace encoder
