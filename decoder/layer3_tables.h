// Stored and computed tables of the Layer III path.
#pragma once

namespace decoder {

// Builds the computed Layer III tables; called by init_decoder_tables.
void init_layer3_tables();

}  // namespace decoder
