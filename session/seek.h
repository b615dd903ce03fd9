// Moving within the open stream on the session's thread: the jump to a frame, and skipping frames
// forward and back. Only the session's thread calls these, with the input file.
#pragma once

#include <cstdint>

#include "session/frame_reader.h"

namespace session {

// Positions the file at frame state.seek_target with that frame's main data in the reservoir, and
// reads the header of the frame behind it into header. Returns the frame number reached, or
// stream.frame_count at the end of the file.
int32_t seek_to_frame(FrameHeader& header);

// Walks n frames on from the current header (its 4 bytes read). Returns n, the frames done when the
// file ends first, or -1 on a reader failure; header changes only when all n were walked.
int32_t skip_frames_forward(FrameHeader& header, int32_t n);

// Steps n frames back, assuming each previous frame has the current one's size and landing on it by
// sync search. Returns n, the frames done at the start of the file, or -1 on a reader failure.
int32_t skip_frames_back(FrameHeader& header, int32_t n);

}  // namespace session
