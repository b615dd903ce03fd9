// The splitter's walk.
//
// A unit starts at the present file position with two zero bytes, then two more bytes: 00 means
// more zeros (the walk goes round again, so it steps over runs of zeros four bytes at a time and
// no finer), 01 is followed by the start code:
//
//   00 00 01 BA  pack header: 8 more bytes (the fixed MPEG-1 form)
//   00 00 01 BB  system header: 16-bit length, then that many bytes
//   00 00 01 B9  end of the stream
//   00 00 01 BE  padding packet: 16-bit length, bytes
//   00 00 01 Cx  audio packet: 16-bit length, packet header, payload (written out)
//   00 00 01 Ex  video packet: 16-bit length, packet header, payload (checked, not written)
//   anything else: 16-bit length, bytes (so the audio ids D0 to DF are not taken)
//
// The MPEG-1 packet header, in the packet's first bytes:
//
//   1111 1111                                   stuffing, any number
//   01ss ssss ssss ssss                         buffer scale and size, optional (2 bytes)
//   then one of
//   0000 1111                                   no time stamp (1 byte)
//   0010 xxx1 xxxx xxxx xxxx xxx1 xxxx xxxx xxxx xxx1                presentation stamp (5 bytes)
//   0011 xxx1 ... (5 bytes) 0001 xxx1 ... (5 bytes)                  presentation and decoding
//
// Anything else, the MPEG-2 form 10xx xxxx among them, is the error of the packet's kind.
// Skipped bytes are read rather than sought over, so that a pipe works as input too; every read
// counts in bytes_read, which thus is the file position. A read that comes back short means the
// file ended, wherever that happens: result 0.
#include "tools/split.h"

namespace tools {

namespace {

enum ReadEnd { READ_OK, READ_SHORT, READ_FAILED };

// Reads n bytes; READ_SHORT when the file ended first (got tells how many came).
ReadEnd read_bytes(std::FILE* in, uint8_t* to, size_t n, int64_t& bytes_read, size_t& got) {
  got = std::fread(to, 1, n, in);
  bytes_read += int64_t(got);
  if (got == n) return READ_OK;
  return std::ferror(in) ? READ_FAILED : READ_SHORT;
}

}  // namespace

namespace {

constexpr int32_t end_codes[][2] = {
    {format::ERR_READ, 1},
    {format::ERR_NOT_SYSTEM, 4},
    {format::ERR_VIDEO_FRAME, 5},
    {format::ERR_AUDIO_FRAME, 6},
    {format::ERR_VIDEO_WRITE, 7},
    {format::ERR_AUDIO_WRITE, 8},
    {format::ERR_NO_AUDIO_FRAMES, 9},
};

}  // namespace

int32_t split_end_code(int32_t error) {
  for (const auto& e : end_codes)
    if (e[0] == error) return e[1];
  return error;
}

int32_t split_end_error(int32_t code) {
  for (const auto& e : end_codes)
    if (e[1] == code) return e[0];
  return code;
}

int32_t packet_header_length(const uint8_t* packet, int32_t length, const format::Work& work) {
  int32_t at = 0;
  for (;;) {
    while (at < length && packet[at] == 0xFF) ++at;
    if (at >= length) return SPLIT_HEADER_SHORT;
    const uint8_t b = packet[at];
    if (b == 0x0F) return at + 1;
    if ((b & 0xC0) == 0x40) {
      at += 2;
      if (work.cancelled()) return SPLIT_HEADER_CANCELLED;
      continue;
    }
    int32_t size = (b & 0xF0) == 0x20 ? 5 : (b & 0xF0) == 0x30 ? 10 : 0;
    if (size == 0) return SPLIT_HEADER_BAD;
    return at + size <= length ? at + size : SPLIT_HEADER_SHORT;
  }
}

int32_t split_stream(std::FILE* in, std::FILE* out, int64_t file_size, int64_t& bytes_read, uint8_t* packet,
                     const format::Work& work) {
  uint8_t word[8];
  size_t got = 0;
  for (;;) {
    if (work.cancelled()) return format::WORK_CANCELLED;
    ReadEnd e = read_bytes(in, word, 2, bytes_read, got);
    if (e != READ_OK) return e == READ_FAILED ? format::ERR_READ : format::ERR_OK;
    if (word[0] != 0 || word[1] != 0) return format::ERR_NOT_SYSTEM;
    e = read_bytes(in, word, 2, bytes_read, got);
    if (e != READ_OK) return e == READ_FAILED ? format::ERR_READ : format::ERR_OK;
    if (word[0] == 0) continue;
    if (word[0] != 1) return format::ERR_NOT_SYSTEM;
    const uint8_t code = word[1];

    if (code == 0xB9) {
      work.report(bytes_read, file_size);
      return format::ERR_OK;
    }
    if (code == 0xBA) {
      e = read_bytes(in, word, 8, bytes_read, got);
      if (e != READ_OK) return e == READ_FAILED ? format::ERR_READ : format::ERR_OK;
      continue;
    }

    // Every other unit has a 16-bit big-endian length and that many bytes.
    e = read_bytes(in, word, 2, bytes_read, got);
    if (e != READ_OK) return e == READ_FAILED ? format::ERR_READ : format::ERR_OK;
    const int32_t length = word[0] << 8 | word[1];
    e = read_bytes(in, packet, size_t(length), bytes_read, got);
    if (e == READ_FAILED) return format::ERR_READ;
    const bool truncated = e == READ_SHORT;

    const bool video = code >= 0xE0 && code <= 0xEF;
    const bool audio = code >= 0xC0 && code <= 0xCF;
    if (!video && !audio) {
      if (truncated) return format::ERR_OK;
      continue;
    }
    if (audio) work.report(bytes_read, file_size);
    // The file may end inside the last packet: its header is judged on what is there, and the
    // audio that is there is kept.
    int32_t header = packet_header_length(packet, int32_t(got), work);
    if (header == SPLIT_HEADER_CANCELLED) return format::WORK_CANCELLED;
    if (header == SPLIT_HEADER_SHORT && truncated) return format::ERR_OK;
    if (header < 0) return video ? format::ERR_VIDEO_FRAME : format::ERR_AUDIO_FRAME;
    if (audio) {
      size_t payload = got - size_t(header);
      if (std::fwrite(packet + header, 1, payload, out) != payload) return format::ERR_AUDIO_WRITE;
    }
    if (truncated) return format::ERR_OK;
  }
}

}  // namespace tools
