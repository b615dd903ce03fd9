// Placeholder until the decoder tables land.
#include "decoder/decoder.h"

namespace decoder {

void init_decoder_tables() {}

}  // namespace decoder
