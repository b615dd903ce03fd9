// Placeholder synthesis: silence, until the filter bank lands.
#include "decoder/synth.h"

#include <cstring>

#include "decoder/decoder.h"

namespace decoder {

float subband_samples[32][18];
int16_t pcm_block[1152];
int16_t pcm_block_l1[1152];

void synth_full(int32_t) {}
void synth_mono(int32_t) {}
void synth_half(int32_t) {}
void synth_quarter(int32_t) {}
void synth_fast(int32_t) {}
void synth_overdrive(int32_t) {}
void treat_subbands() {}

void reset_decoder_state() {
  std::memset(pcm_block, 0, sizeof pcm_block);
  std::memset(pcm_block_l1, 0, sizeof pcm_block_l1);
  reset_layer3_state();
}
void reset_synth_indices() {}

}  // namespace decoder
