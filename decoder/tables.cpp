// The decoders' tables: computed ones are built by init_decoder_tables, stored ones are literal
// tables printed by decoder/gen_tables.py from the standard's figures (ISO 11172-3 Tables B.1,
// B.2a-d, B.3, B.4 and ISO 13818-3's low-sampling-frequency allocation table).
#include "decoder/tables.h"

#include <cmath>
#include <cstring>

#include "decoder/decoder.h"
#include "decoder/layer3_tables.h"

namespace decoder {

float pow43_table[POW43_SIZE];
float gain_table[GAIN_SIZE];
float deemphasis_cos[32];

// Row j, entry e (and e + 16): 16383.5 * D[32e + j] from ISO 11172-3 Table B.3, rounded to float.
// 16383.5 and not 16384: with the transform's gain of 2, full scale comes out as 32767.
const float SYNTH_WINDOW[SYNTH_WINDOW_ROWS][32] = {
    {0.0f,       -7.2497807f, 53.248375f, -114.7465f, 509.23447f, -1288.2107f, 1643.4498f, -9371.964f,
     18758.928f, 9371.964f,   1643.4498f, 1288.2107f, 509.23447f, 114.7465f,   53.248375f, 7.2497807f,
     0.0f,       -7.2497807f, 53.248375f, -114.7465f, 509.23447f, -1288.2107f, 1643.4498f, -9371.964f,
     18758.928f, 9371.964f,   1643.4498f, 1288.2107f, 509.23447f, 114.7465f,   53.248375f, 7.2497807f},
    {-0.24999583f, -7.749756f, 54.498337f, -129.74605f, 499.98474f, -1379.2079f, 1489.7046f, -9833.7f,
     18747.428f,   8909.729f,  1783.4456f, 1196.9635f,  515.73425f, 100.24693f,  51.99841f,  6.4998097f,
     -0.24999583f, -7.749756f, 54.498337f, -129.74605f, 499.98474f, -1379.2079f, 1489.7046f, -9833.7f,
     18747.428f,   8909.729f,  1783.4456f, 1196.9635f,  515.73425f, 100.24693f,  51.99841f,  6.4998097f},
    {-0.24999583f, -8.74974f, 55.498302f, -145.24556f, 487.9851f,  -1469.7052f, 1321.9597f, -10293.686f,
     18713.43f,    8447.492f, 1909.9417f, 1106.2162f,  519.98413f, 86.74735f,   50.49845f,  5.999818f,
     -0.24999583f, -8.74974f, 55.498302f, -145.24556f, 487.9851f,  -1469.7052f, 1321.9597f, -10293.686f,
     18713.43f,    8447.492f, 1909.9417f, 1106.2162f,  519.98413f, 86.74735f,   50.49845f,  5.999818f},
    {-0.24999583f, -9.49971f,  56.24829f,  -161.24509f, 473.23557f, -1559.2024f, 1140.2152f, -10751.172f,
     18656.93f,    7986.5063f, 2022.9382f, 1015.719f,   521.7341f,  73.49776f,   48.99851f,  5.249847f,
     -0.24999583f, -9.49971f,  56.24829f,  -161.24509f, 473.23557f, -1559.2024f, 1140.2152f, -10751.172f,
     18656.93f,    7986.5063f, 2022.9382f, 1015.719f,   521.7341f,  73.49776f,   48.99851f,  5.249847f},
    {-0.24999583f, -10.249681f, 56.748264f, -177.74457f, 455.4861f, -1647.1997f, 943.9712f, -11204.908f,
     18577.684f,   7527.77f,    2122.9353f, 926.22174f,  521.2341f, 60.998146f,  47.49855f, 4.749855f,
     -0.24999583f, -10.249681f, 56.748264f, -177.74457f, 455.4861f, -1647.1997f, 943.9712f, -11204.908f,
     18577.684f,   7527.77f,    2122.9353f, 926.22174f,  521.2341f, 60.998146f,  47.49855f, 4.749855f},
    {-0.24999583f, -11.249664f, 56.99826f,  -194.74406f, 434.73672f, -1733.6971f, 733.7276f,  -11653.895f,
     18476.436f,   7072.034f,   2209.9326f, 837.7244f,   518.7342f,  49.24849f,   45.748596f, 4.2498636f,
     -0.24999583f, -11.249664f, 56.99826f,  -194.74406f, 434.73672f, -1733.6971f, 733.7276f,  -11653.895f,
     18476.436f,   7072.034f,   2209.9326f, 837.7244f,   518.7342f,  49.24849f,   45.748596f, 4.2498636f},
    {-0.24999583f, -12.249632f, 56.99826f,  -211.99353f, 410.98746f, -1817.6946f, 509.23447f, -12097.131f,
     18353.19f,    6620.298f,   2284.6802f, 750.97705f,  514.2343f,  38.248837f,  43.99866f,  3.9998841f,
     -0.24999583f, -12.249632f, 56.99826f,  -211.99353f, 410.98746f, -1817.6946f, 509.23447f, -12097.131f,
     18353.19f,    6620.298f,   2284.6802f, 750.97705f,  514.2343f,  38.248837f,  43.99866f,  3.9998841f},
    {-0.49999166f, -13.2495985f, 56.748264f, -229.74298f, 383.73828f, -1899.192f, 270.49176f, -12533.867f,
     18208.193f,   6173.3115f,   2347.1785f, 665.7297f,   507.9845f,  27.74916f,  42.248703f, 3.4998925f,
     -0.49999166f, -13.2495985f, 56.748264f, -229.74298f, 383.73828f, -1899.192f, 270.49176f, -12533.867f,
     18208.193f,   6173.3115f,   2347.1785f, 665.7297f,   507.9845f,  27.74916f,  42.248703f, 3.4998925f},
    {-0.49999166f, -14.499561f, 55.998295f, -247.74245f, 353.48923f, -1977.4397f, 17.499462f, -12962.8545f,
     18041.7f,     5732.075f,   2397.9268f, 582.48224f,  500.23474f, 17.999454f,  40.24877f,  3.2498965f,
     -0.49999166f, -14.499561f, 55.998295f, -247.74245f, 353.48923f, -1977.4397f, 17.499462f, -12962.8545f,
     18041.7f,     5732.075f,   2397.9268f, 582.48224f,  500.23474f, 17.999454f,  40.24877f,  3.2498965f},
    {-0.49999166f, -15.749524f, 55.248306f, -265.99188f, 319.99023f, -2052.1873f, -249.49237f, -13383.092f,
     17854.455f,   5297.0884f,  2437.4255f, 501.4847f,   490.48502f, 8.999719f,   38.498833f,  2.7499213f,
     -0.49999166f, -15.749524f, 55.248306f, -265.99188f, 319.99023f, -2052.1873f, -249.49237f, -13383.092f,
     17854.455f,   5297.0884f,  2437.4255f, 501.4847f,   490.48502f, 8.999719f,   38.498833f,  2.7499213f},
    {-0.49999166f, -16.999487f, 53.748367f, -284.24133f, 282.74136f, -2122.6853f, -530.4838f, -13794.079f,
     17646.96f,    4869.3516f,  2465.6748f, 422.9871f,   479.73535f, 0.49999166f, 36.74888f,  2.4999256f,
     -0.49999166f, -16.999487f, 53.748367f, -284.24133f, 282.74136f, -2122.6853f, -530.4838f, -13794.079f,
     17646.96f,    4869.3516f,  2465.6748f, 422.9871f,   479.73535f, 0.49999166f, 36.74888f,  2.4999256f},
    {-0.7499711f, -18.249449f, 51.99841f,  -302.49078f, 242.4926f,  -2188.683f,  -824.97485f, -14194.066f,
     17419.219f,  4449.6143f,  2483.6743f, 346.9894f,   467.48575f, -7.2497807f, 34.748943f,  2.2499297f,
     -0.7499711f, -18.249449f, 51.99841f,  -302.49078f, 242.4926f,  -2188.683f,  -824.97485f, -14194.066f,
     17419.219f,  4449.6143f,  2483.6743f, 346.9894f,   467.48575f, -7.2497807f, 34.748943f,  2.2499297f},
    {-0.7499711f, -19.749392f, 49.998478f, -320.7402f, 198.49396f, -2249.4314f, -1133.2155f, -14582.805f,
     17172.477f,  4038.6267f,  2491.424f,  273.74164f, 454.23615f, -14.249565f, 32.99899f,   1.9999338f,
     -0.7499711f, -19.749392f, 49.998478f, -320.7402f, 198.49396f, -2249.4314f, -1133.2155f, -14582.805f,
     17172.477f,  4038.6267f,  2491.424f,  273.74164f, 454.23615f, -14.249565f, 32.99899f,   1.9999338f},
    {-0.9999669f, -21.24935f, 47.248554f, -338.98965f, 151.24538f, -2304.6797f, -1454.4556f, -14959.044f,
     16906.734f,  3636.889f,  2489.674f,  203.49379f,  439.73657f, -20.74936f,  31.249052f,  1.7499543f,
     -0.9999669f, -21.24935f, 47.248554f, -338.98965f, 151.24538f, -2304.6797f, -1454.4556f, -14959.044f,
     16906.734f,  3636.889f,  2489.674f,  203.49379f,  439.73657f, -20.74936f,  31.249052f,  1.7499543f},
    {-0.9999669f, -22.74931f, 44.248653f, -356.9891f, 100.49693f, -2353.9282f, -1788.4454f, -15321.782f,
     16622.992f,  3244.901f,  2478.9243f, 136.24583f, 424.48706f, -26.499197f, 29.249102f,  1.7499543f,
     -0.9999669f, -22.74931f, 44.248653f, -356.9891f, 100.49693f, -2353.9282f, -1788.4454f, -15321.782f,
     16622.992f,  3244.901f,  2478.9243f, 136.24583f, 424.48706f, -26.499197f, 29.249102f,  1.7499543f},
    {-1.2499628f, -24.249268f, 40.748764f, -374.48856f, 46.24859f,  -2396.1768f, -2134.9348f, -15670.521f,
     16322.002f,  2863.6626f,  2459.425f,  71.997795f,  408.48752f, -31.749027f, 27.74916f,   1.4999586f,
     -1.2499628f, -24.249268f, 40.748764f, -374.48856f, 46.24859f,  -2396.1768f, -2134.9348f, -15670.521f,
     16322.002f,  2863.6626f,  2459.425f,  71.997795f,  408.48752f, -31.749027f, 27.74916f,   1.4999586f},
    {-1.2499628f, -25.999205f, 36.498882f, -391.73804f, -11.249664f, -2431.6758f, -2493.6738f, -16004.262f,
     16004.262f,  2493.6738f,  2431.6758f, 11.249664f,  391.73804f,  -36.498882f, 25.999205f,  1.2499628f,
     -1.2499628f, -25.999205f, 36.498882f, -391.73804f, -11.249664f, -2431.6758f, -2493.6738f, -16004.262f,
     16004.262f,  2493.6738f,  2431.6758f, 11.249664f,  391.73804f,  -36.498882f, 25.999205f,  1.2499628f},
};
static_assert(sizeof SYNTH_WINDOW == 17 * 32 * sizeof(float));

// ISO 11172-3 Table B.1 (2 to the power (1 - i/3)) rounded to float; 62 and 63 are the decoder's own
// near-silence and silence for indices the standard leaves unused.
const float scale_factor_table[64] = {
    2.0f,           1.587401f,      1.2599211f,     1.0f,           0.7937005f,     0.62996054f,    0.5f,
    0.39685026f,    0.31498027f,    0.25f,          0.19842513f,    0.15749013f,    0.125f,         0.099212565f,
    0.07874507f,    0.0625f,        0.049606282f,   0.039372534f,   0.03125f,       0.024803141f,   0.019686267f,
    0.015625f,      0.012401571f,   0.009843133f,   0.0078125f,     0.0062007853f,  0.0049215667f,  0.00390625f,
    0.0031003926f,  0.0024607833f,  0.001953125f,   0.0015501963f,  0.0012303917f,  0.0009765625f,  0.00077509816f,
    0.00061519584f, 0.00048828125f, 0.00038754908f, 0.00030759792f, 0.00024414062f, 0.00019377454f, 0.00015379896f,
    0.00012207031f, 9.688727e-05f,  7.689948e-05f,  6.1035156e-05f, 4.8443635e-05f, 3.844974e-05f,  3.0517578e-05f,
    2.4221818e-05f, 1.922487e-05f,  1.5258789e-05f, 1.2110909e-05f, 9.612435e-06f,  7.6293945e-06f, 6.0554544e-06f,
    4.8062175e-06f, 3.8146973e-06f, 3.0277272e-06f, 2.4031087e-06f, 1.9073486e-06f, 1.5138636e-06f, 1E-20f,
    0.0f,
};
static_assert(sizeof scale_factor_table == 64 * sizeof(float));

// ISO 11172-3 Table B.4: steps, code width, grouping and C of each class, by class number. The
// value constants are the decoder's own: each class's levels as (u * step + offset), with the
// figures above class 10 written to six significant digits; decoded values follow these figures.
const QuantClass quant_class_table[QUANT_CLASSES] = {
    {0, 0, 0, 0.0f},           {3, 5, 1, 1.3333334f},      {5, 7, 1, 1.6f},
    {7, 3, 0, 1.1428572f},     {9, 10, 1, 1.7777778f},     {15, 4, 0, 1.0666667f},
    {31, 5, 0, 1.032258f},     {63, 6, 0, 1.0158731f},     {127, 7, 0, 1.007874f},
    {255, 8, 0, 1.0039216f},   {511, 9, 0, 1.0019569f},    {1023, 10, 0, 1.0009775f},
    {2047, 11, 0, 1.0004885f}, {4095, 12, 0, 1.0002443f},  {8191, 13, 0, 1.0001221f},
    {16383, 14, 0, 1.000061f}, {32767, 15, 0, 1.0000305f}, {65535, 16, 0, 1.0000153f},
};
static_assert(sizeof quant_class_table / sizeof quant_class_table[0] == QUANT_CLASSES);

const float class_digit_constants[QUANT_CLASSES][2] = {
    {0.0f, 0.0f}, {0.5f, 0.5f}, {0.25f, 0.5f}, {0.0f, 0.0f}, {0.125f, 0.5f}, {0.0f, 0.0f},
    {0.0f, 0.0f}, {0.0f, 0.0f}, {0.0f, 0.0f},  {0.0f, 0.0f}, {0.0f, 0.0f},   {0.0f, 0.0f},
    {0.0f, 0.0f}, {0.0f, 0.0f}, {0.0f, 0.0f},  {0.0f, 0.0f}, {0.0f, 0.0f},   {0.0f, 0.0f},
};
static_assert(sizeof class_digit_constants / sizeof class_digit_constants[0] == QUANT_CLASSES);

const float class_value_constants[QUANT_CLASSES][2] = {
    {0.0f, 0.0f},
    {0.5f, -0.5f},
    {0.25f, -0.5f},
    {0.25f, -0.75f},
    {0.125f, -0.5f},
    {0.125f, -0.875f},
    {0.0625f, -0.9375f},
    {0.03125f, -0.96875f},
    {0.015625f, -0.984375f},
    {0.0078125f, -0.9921875f},
    {0.00390625f, -0.99609375f},
    {0.001953125f, -0.998046875f},
    {0.0009765625f, -0.9990234375f},
    {0.00048828125f, -0.99951171875f},
    {0.000244140625f, -0.999755859375f},
    {0.0001220703125f, -0.9998779296875f},
    {6.103515625e-05f, -0.99993896484375f},
    {3.0517578125e-05f, -0.999969482421875f},
};
static_assert(sizeof class_value_constants / sizeof class_value_constants[0] == QUANT_CLASSES);

namespace {

// Allocation rows, classes by code (ISO 11172-3 Tables B.2a-d, ISO 13818-3 Table B.1).
#define AB_LOW \
  { 0, 1, 3, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17 }
#define AB_MID \
  { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 17 }
#define AB_HIGH \
  { 0, 1, 2, 3, 4, 5, 6, 17, 0, 0, 0, 0, 0, 0, 0, 0 }
#define AB_TOP \
  { 0, 1, 2, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }
#define NARROW_LOW \
  { 0, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16 }
// The last 3-bit code holds the stored slip 127 where class 8 is meant; the decoder maps it.
#define NARROW_HIGH \
  { 0, 1, 2, 4, 5, 6, 7, NARROW_SLIP_CLASS, 0, 0, 0, 0, 0, 0, 0, 0 }
#define LSF_LOW \
  { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15 }
#define LSF_MID \
  { 0, 1, 2, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 0, 0, 0 }
#define LSF_HIGH \
  { 0, 1, 2, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }

// Tables A (first 27 rows) and B (all 30) share their rows.
const AllocationRow alloc_ab[30] = {
    AB_LOW,  AB_LOW,  AB_LOW,  AB_MID,  AB_MID,  AB_MID,  AB_MID,  AB_MID,  AB_MID,  AB_MID,
    AB_MID,  AB_HIGH, AB_HIGH, AB_HIGH, AB_HIGH, AB_HIGH, AB_HIGH, AB_HIGH, AB_HIGH, AB_HIGH,
    AB_HIGH, AB_HIGH, AB_HIGH, AB_TOP,  AB_TOP,  AB_TOP,  AB_TOP,  AB_TOP,  AB_TOP,  AB_TOP,
};
// The narrow tables (8 and 12 bands) share theirs likewise.
const AllocationRow alloc_narrow[12] = {
    NARROW_LOW,  NARROW_LOW,  NARROW_HIGH, NARROW_HIGH, NARROW_HIGH, NARROW_HIGH,
    NARROW_HIGH, NARROW_HIGH, NARROW_HIGH, NARROW_HIGH, NARROW_HIGH, NARROW_HIGH,
};
const AllocationRow alloc_lsf[30] = {
    LSF_LOW,  LSF_LOW,  LSF_LOW,  LSF_LOW,  LSF_MID,  LSF_MID,  LSF_MID,  LSF_MID,  LSF_MID,  LSF_MID,
    LSF_MID,  LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH,
    LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH, LSF_HIGH,
};
static_assert(sizeof alloc_ab == 30 * 16 && sizeof alloc_narrow == 12 * 16 && sizeof alloc_lsf == 30 * 16);

#undef AB_LOW
#undef AB_MID
#undef AB_HIGH
#undef AB_TOP
#undef NARROW_LOW
#undef NARROW_HIGH
#undef LSF_LOW
#undef LSF_MID
#undef LSF_HIGH

// gain_table's fractions: 2 to the power -r/4 and r/4 for r = 0..3, as stored single-precision
// bit patterns, so that every entry is one of them times an exact power of two.
constexpr uint32_t gain_fraction_down[4] = {0x3F800000, 0x3F5744FD, 0x3F3504F3, 0x3F1837F0};
constexpr uint32_t gain_fraction_up[4] = {0x3F800000, 0x3F9837F0, 0x3FB504F3, 0x3FD744FD};

float float_from_bits(uint32_t b) {
  float f;
  std::memcpy(&f, &b, sizeof f);
  return f;
}

}  // namespace

const AllocationRow* const allocation_table[ALLOCATION_TABLES] = {alloc_ab, alloc_ab, alloc_narrow, alloc_narrow,
                                                                  alloc_lsf};
const int32_t allocation_sblimit[ALLOCATION_TABLES] = {27, 30, 8, 12, 30};

// A: 4 bits for 11 bands, 3 for 12, 2 for 4; B: as A and 2 for 3 more; narrow: 4, 4, then 3;
// low sampling frequency: 4 for 4 bands, 3 for 7, 2 for 19.
const uint8_t allocation_bits[ALLOCATION_TABLES][32] = {
    {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 2, 2, 2, 2},
    {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 2, 2, 2, 2, 2, 2, 2},
    {4, 4, 3, 3, 3, 3, 3, 3},
    {4, 4, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3},
    {4, 4, 4, 4, 3, 3, 3, 3, 3, 3, 3, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2},
};

void init_decoder_tables() {
  // pow43: the library's power function in double, rounded to float; the negative half mirrors it.
  for (int32_t q = 1; q <= POW43_MAX; ++q) {
    float v = float(std::pow(double(q), 4.0 / 3.0));
    pow43_table[POW43_MAX + q] = v;
    pow43_table[POW43_MAX - q] = -v;
  }
  pow43_table[POW43_MAX] = 0.0f;

  // gain: n = e - 127; for n < 0, -n = 4q + r gives fraction_down[r] / 2^q; for n >= 0, n = 4q + r
  // gives 2^q * fraction_up[r]. Scaling by a power of two is exact, so no power function is needed.
  for (int32_t e = 0; e < GAIN_SIZE; ++e) {
    int32_t n = e - 127;
    if (n < 0)
      gain_table[e] = std::ldexp(float_from_bits(gain_fraction_down[(-n) & 3]), -((-n) >> 2));
    else
      gain_table[e] = std::ldexp(float_from_bits(gain_fraction_up[n & 3]), n >> 2);
  }

  // The angle is stepped by pi/64 in single precision; the
  // small drift of the repeated addition is part of the values.
  float angle = 0.0f;
  for (int32_t k = 0; k < 32; ++k) {
    deemphasis_cos[k] = float(std::cos(double(angle)));
    angle += 0.049087375f;
  }

  init_synth_tables();
  init_layer3_tables();
}

}  // namespace decoder
