// The system stream splitter: the audio of an MPEG-1 system stream, as a plain MPEG audio file.
// It walks the packs and packets by their start codes, skips everything but the audio packets
// (stream ids C0 to CF, all of them into one output) and appends their payloads unchanged.
// MPEG-2 program streams are not understood: their packet header forms are refused.
//
// Threads: split_stream works on open files on its caller's thread (the session runs it as a job)
// and reads the Cancel word of its format::Work between units and within a packet header; it
// reports progress (file position, file size) for each audio packet.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "format/errors.h"
#include "format/work.h"

namespace tools {

// MSG_SPLIT_END carries the result as the progress window numbers it (1 read, 4 not MPEG, 5 and 6
// a video or audio frame, 7 and 8 their writes, 9 no audio); these map a format::Error to that
// number and back (0 stays 0, an unknown number comes back as itself).
int32_t split_end_code(int32_t error);
int32_t split_end_error(int32_t code);

// A packet's length field is 16 bits, so one buffer of this size holds any packet whole.
constexpr int32_t SPLIT_PACKET_BUFFER_BYTES = 65536;

// The walk over open files on the calling thread. packet is SPLIT_PACKET_BUFFER_BYTES long. Returns
// a format::Error or WORK_CANCELLED; bytes_read counts every byte read.
int32_t split_stream(std::FILE* in, std::FILE* out, int64_t file_size, int64_t& bytes_read, uint8_t* packet,
                     const format::Work& work);

// The length of a packet's header (stuffing, buffer size field, time stamps) in its first length
// bytes: SPLIT_HEADER_BAD for a form MPEG-1 does not have, SPLIT_HEADER_SHORT when the header
// runs past length, SPLIT_HEADER_CANCELLED when work's Cancel was seen.
constexpr int32_t SPLIT_HEADER_BAD = -1;
constexpr int32_t SPLIT_HEADER_SHORT = -2;
constexpr int32_t SPLIT_HEADER_CANCELLED = -3;
int32_t packet_header_length(const uint8_t* packet, int32_t length, const format::Work& work = format::Work{});

}  // namespace tools
