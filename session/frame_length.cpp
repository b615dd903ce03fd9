#include "session/stream.h"

namespace session {

namespace {
int32_t measured_free_bytes() { return reader.free_key < 0 ? -1 : reader.free_bytes; }
}  // namespace

int32_t frame_length(const FrameHeader& h) { return format::frame_length(h, measured_free_bytes()); }

int32_t header_kbps(const FrameHeader& h) { return format::header_kbps(h, measured_free_bytes()); }

}  // namespace session
