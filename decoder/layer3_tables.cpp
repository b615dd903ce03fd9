// Placeholder until the Layer III tables land.
#include "decoder/layer3_tables.h"

namespace decoder {

void init_layer3_tables() {}

}  // namespace decoder
