// Synthesis filter banks: subband_samples of one channel to 16-bit PCM in pcm_block.
#pragma once

#include <cstdint>

namespace decoder {

// 32 subbands by 18 time slots; 1.0 is full scale. Filled by the layer decoders.
extern float subband_samples[32][18];
// 576 stereo frames of signed 16-bit samples, each at its full-rate place.
extern int16_t pcm_block[1152];

// The synthesis ring: channel, bank, 16 columns (slots) by 32 output places; place j holds
// transform row j up to 16 and row 32 - j above.
extern float synth_banks[2][2][16][32];
// Current ring column per channel (0-15) and the phase (0 or 1) that names the current bank; the
// phase is shared by both channels and every call leaves it as it found it.
extern uint32_t synth_column[2];
extern int32_t synth_phase;

void synth_full(int32_t channel);
void synth_mono(int32_t channel);
void synth_half(int32_t channel);
void synth_quarter(int32_t channel);
void synth_fast(int32_t channel);
void synth_overdrive(int32_t channel);

// De-emphasis and Hi-Fi treatment of subband_samples in place, by emphasis_mode.
void treat_subbands();

}  // namespace decoder
