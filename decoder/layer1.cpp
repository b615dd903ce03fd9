// Placeholder: Layer I streams end at once until the Layer I decoder lands.
#include "decoder/decoder.h"
#include "session/session.h"

namespace decoder {

void decode_layer1_stream() { session::state.decoder_command.store(session::CMD_STOP, std::memory_order_relaxed); }

}  // namespace decoder
