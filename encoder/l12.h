// Internals of the Layer I/II encoder shared by its files: the fixed tables and the stages of one
// frame. Arrays are indexed [channel][group][slot][subband] as the filter bank produces them.
#pragma once

#include <cstdint>

#include "encoder/encoder.h"

namespace encoder {

// A Layer II quantisation class: steps, whether three samples share one code word, bits per code
// word, and the quantiser's A and B.
struct QuantClass {
  int32_t steps;
  int32_t grouped;
  int32_t bits;
  float a;
  float b;
};

// A Layer II allocation table: sblimit, and per subband the field width and the class of each
// allocation code (code 0 = nothing, class -1).
struct AllocTable {
  int32_t sblimit;
  struct {
    int32_t nbal;
    int8_t cls[16];
  } sb[32];
};

// A model 1 frequency table: rows (row 0 is zero) of FFT line, bark and threshold in quiet, and
// the critical band boundaries as FFT lines.
struct Model1Table {
  int32_t rows;
  int32_t bands;
  struct {
    int32_t line;
    double bark;
    double quiet;
  } row[134];
  int32_t bound[27];
};

#include "encoder/l12_tables.inc"

// Spot checks of the generated tables against the standards' figures.
static_assert(sizeof(ANALYSIS_WINDOW) / sizeof(float) == 512 && ANALYSIS_WINDOW[256] == 0.035780907f);
static_assert(sizeof(MODEL2_ABSTHR[0]) / sizeof(float) == 513);
static_assert(SCALE_MULTIPLE[0] == 2.0 && SCALE_MULTIPLE[3] == 1.0);
static_assert(ALLOC_TABLES[0].sblimit == 27 && ALLOC_TABLES[1].sblimit == 30 && ALLOC_TABLES[2].sblimit == 8 &&
              ALLOC_TABLES[3].sblimit == 12 && ALLOC_TABLES[4].sblimit == 30);
static_assert(QUANT_CLASSES[0].steps == 3 && QUANT_CLASSES[16].steps == 65535);
// Rows (with the zero row) by layer and rate: 44.1 kHz Layer I 107, Layer II 131; 16 kHz Layer II 133.
static_assert(MODEL1_TABLES[0][0].rows == 107 && MODEL1_TABLES[1][0].rows == 131 && MODEL1_TABLES[1][5].rows == 133);
static_assert(MODEL1_TABLES[0][0].bands == 25 && MODEL1_TABLES[1][1].bands == 27);

using Samples = float[2][3][12][32];
using ScaleIndex = int32_t[2][3][32];

// Clears the filter bank and builds its matrix.
void analysis_init(EncoderState& s);
// Filter bank: one slot of 32 new samples of channel ch (step 1 between them) to 32 subbands.
void analyse_slot(EncoderState& s, int32_t ch, const int16_t* pcm, float* out);
// Scale factor indices of `groups` groups of 12 slots below sblimit (63 above). Layer I takes the
// smallest factor strictly above the peak, Layer II the smallest at or above it.
void scale_factors(const float (*sb)[12][32], int32_t groups, int32_t sblimit, int32_t layer, int32_t (*index)[32]);
// Model 1: smr[ch][sb] in dB from the frame's new samples.
void model1(EncoderState& s, const int16_t* const* pcm, const double (*max_scale)[32], double (*smr)[32]);
// Model 2 set-up for the job's rate, and its Layers I/II form for one channel.
void model2_init(Model2State& m, int32_t rate_hz);
// The shared front of both forms: Hann window and spectrum of 1024 samples, line energies and
// unpredictability against the channel's last two spectra (which it then advances).
void model2_spectrum(Model2State& m, const int16_t* samples, int32_t ch, double* energy, double* cw);
void model2_l12(Model2State& m, const int16_t* pcm, int32_t ch, int32_t layer, double* smr);
// Model 2 in its Layer III form for one granule (576 new samples) of one channel: threshold to
// energy ratios by long and short scale factor band (band starts given, 23 and 14 of them) and
// the perceptual entropy that asks for short blocks.
void model2_l3(Model2State& m, Layer3State& l3, const int16_t* pcm, int32_t ch, const int32_t* long_start,
               const int32_t* short_start, double* ratio_l, double* ratio_s, double& pe);
// Layer III (layer3.cpp): set-up after the common part of encoder_init, one frame with the
// padding already chosen, and the frames still held at the end.
void layer3_init(EncoderState& s);
int32_t encode_frame_l3(EncoderState& s, const int16_t (*pcm)[FRAME_SAMPLES_L2], int32_t padding, uint8_t* out);
int32_t flush_l3(EncoderState& s, uint8_t* out);
// Spectrum of n real samples (n a power of two, 4 to 1024): lines 0 to n/2 into re and im.
void real_fft(const double* x, double* re, double* im, int32_t n);

}  // namespace encoder
