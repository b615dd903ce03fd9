// Synthesis filter banks: the subband samples of one channel in a DecoderState to 16-bit PCM in its
// block, one variant per output rate and processor class.
#pragma once

#include <cstdint>

#include "decoder/state.h"

namespace decoder {

void synth_full(DecoderState& s, int32_t channel);
void synth_mono(DecoderState& s, int32_t channel);
void synth_half(DecoderState& s, int32_t channel);
void synth_quarter(DecoderState& s, int32_t channel);
void synth_fast(DecoderState& s, int32_t channel);
void synth_overdrive(DecoderState& s, int32_t channel);

// De-emphasis and Hi-Fi treatment of the subband samples in place, by emphasis_mode.
void treat_subbands(DecoderState& s);

}  // namespace decoder
