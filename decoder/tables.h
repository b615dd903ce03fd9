// Decoder tables shared by the synthesis and the layer decoders: the computed power, gain and
// cosine tables, the synthesis window, and the Layer II allocation, class and scale factor tables.
//
// init_decoder_tables (decoder.h) fills the computed tables once per process, on the main thread,
// before any session thread exists; afterwards every table is read-only and any thread may read it.
#pragma once

#include <cstdint>

namespace decoder {

// ---- Computed at start-up ----

// q to the power 4/3 for q = -8206..8206 at index q + POW43_MAX: every value a Layer III line can
// hold (15 plus 13 bits of linbits).
constexpr int32_t POW43_MAX = 8206;
constexpr int32_t POW43_SIZE = 2 * POW43_MAX + 1;
extern float pow43_table[POW43_SIZE];
// 2 to the power (e - 127) / 4, e = 0..254, exact powers of two times four stored fractions.
constexpr int32_t GAIN_SIZE = 255;
extern float gain_table[GAIN_SIZE];
// cos(k * pi/64) for k = 0..31, the angle accumulated in single precision; entry 0 unused.
extern float deemphasis_cos[32];

// ---- Synthesis window ----

// 17 rows of 32 floats: row j holds 16383.5 * D[32e + j] for e = 0..15 (D the standard's synthesis
// window), then the same 16 again, so that a reader starting at offset -s from the row's middle runs
// 16 coefficients in ring order without wrapping.
constexpr int32_t SYNTH_WINDOW_ROWS = 17;
extern const float SYNTH_WINDOW[SYNTH_WINDOW_ROWS][32];
// The variants' origin: 16 floats into the table, so that row j at age 0 for ring column s is
// synth_window_origin + 32 * j - s.
inline const float* const synth_window_origin = &SYNTH_WINDOW[0][16];

// ---- Layer II ----

// Quantisation classes 0..17 (0: nothing coded). Two families of value constants: the digit
// constants for the grouped classes (3, 5, 9 steps) and the step/offset constants for the others.
constexpr int32_t QUANT_CLASSES = 18;
struct QuantClass {
  int32_t steps;
  int32_t bits;     // code word width: one word for three samples if grouped, else per sample
  int32_t grouped;  // 1 for 3, 5 and 9 steps
  float c;          // the standard's C
};
extern const QuantClass quant_class_table[QUANT_CLASSES];
// Grouped classes: digit d decodes to (d * [0] - 1.0 + [1]) * C * scale.
extern const float class_digit_constants[QUANT_CLASSES][2];
// Ungrouped classes: value u decodes to (u * [0] + [1]) * (C * scale). Above class 10 the figures
// carry six significant digits, as the decoder has always had them.
extern const float class_value_constants[QUANT_CLASSES][2];

// The stored class of the narrow tables' last 3-bit code: a slip for class 8 (127 steps).
constexpr int8_t NARROW_SLIP_CLASS = 127;

// The five allocation tables: rows by subband, 16 classes by allocation code.
enum AllocationTableId : int32_t { ALLOC_A = 0, ALLOC_B = 1, ALLOC_NARROW = 2, ALLOC_NARROW12 = 3, ALLOC_LSF = 4 };
constexpr int32_t ALLOCATION_TABLES = 5;
using AllocationRow = int8_t[16];
extern const AllocationRow* const allocation_table[ALLOCATION_TABLES];
// Coded subbands of each table: A 27, B 30, narrow 8, narrow 12-band 12, low sampling frequency 30.
extern const int32_t allocation_sblimit[ALLOCATION_TABLES];
// Width of the allocation field per subband, 0 from the table's sblimit on.
extern const uint8_t allocation_bits[ALLOCATION_TABLES][32];

// 2 to the power (1 - i/3) for i = 0..61, then 1E-20 at 62 and 0.0 at 63.
extern const float scale_factor_table[64];

// Builds the synthesis kernel's derived window (synth.cpp) and picks its widest kernel; called by
// init_decoder_tables.
void init_synth_tables();
// Runs the portable synthesis kernel even where the AVX2 one would run (or lets the widest run
// again); every kernel gives bit-identical output, which the tests check.
void use_portable_synth(bool portable);

}  // namespace decoder
