// Placeholder until the decoder tables land.
#include "decoder/decoder.h"
#include "decoder/layer3_tables.h"

namespace decoder {

void init_decoder_tables() { init_layer3_tables(); }

}  // namespace decoder
