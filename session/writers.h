// PCM file writers of the file job: raw, WAVE, AIFF, AU and VOC. A job reserves the header's
// bytes, streams the samples behind them, then rewinds and writes the true header.
// Called only on the file-job thread.
#pragma once

#include <cstdint>

#include "session/frame_reader.h"

namespace session {

enum ExtFilter : int32_t { EXT_RAW = 0, EXT_WAV = 1, EXT_AIF = 2, EXT_AU = 3, EXT_VOC = 4 };

// The file job's ShaperFn: writes a block (one or two channels by the decoder's channels).
void write_decoded_block(const int16_t* block);
// Writes the first frames (1-576) of a block the same way: the last, partial block of a Layer I
// stream.
void write_decoded_frames(const int16_t* block, int32_t frames);
// Writes placeholder bytes for ext_filter's header (nothing for raw).
void reserve_header(int32_t ext_filter);
// Writes the true header (and the WAVE trailer) from the file position and the last header.
void finish_header(int32_t ext_filter, const FrameHeader& last);

}  // namespace session
