// The sync search slides a four-byte window through the buffered file one byte at a time: resync
// speed matters less than simplicity, and there is no bound on the search.
#include "session/frame_reader.h"

#include <cstring>

#include "session/stream.h"

namespace session {

FrameReader reader;

namespace {

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

int32_t free_key(const FrameHeader& h) { return (h.id * 4 + h.layer_code) * 8 + h.sampling_index; }
int32_t padding_bytes(const FrameHeader& h) { return h.padding_bit * (h.layer_code == 3 ? 4 : 1); }

// The length of a frame that a candidate header at distance d heads, given the measure d implies.
int32_t candidate_length(const FrameHeader& c, int32_t free_bytes) {
  if (c.bitrate_index != 0) return frame_length(c);
  return free_bytes + padding_bytes(c);
}

// Whether the kept measure ends the frame at file offset `at` where a header of its kind begins, or
// where the file or the stream ends. The file position is restored.
bool kept_measure_fits(const FrameHeader& h, long at) {
  const long next = at + reader.free_bytes + padding_bytes(h);
  if (next >= reader.end_limit) return true;
  uint8_t head[4];
  std::fseek(reader.file, next, SEEK_SET);
  const size_t got = std::fread(head, 1, 4, reader.file);
  std::fseek(reader.file, at + 4, SEEK_SET);
  FrameHeader n;
  return got < 4 || (format::parse_header(head, n) && free_key(n) == free_key(h));
}

// A free-format header h starts at file offset at, and the file stands behind its 4 bytes. Measures
// the frame length without padding as the distance to the next header of the same id, layer and
// rate, which must itself be followed by a header (or by the end of the file) where its own length
// says: a stray sync in the audio data is not taken for the next frame. The measure is kept for the
// stream, and measured again when the frame it gives does not end at a header (another free-format
// run of another rate); the file position is restored. Returns false when no length can be found.
bool measure_free_format(const FrameHeader& h, long at) {
  if (reader.free_key == free_key(h) && kept_measure_fits(h, at)) return true;
  uint8_t ahead[2 * MAX_FREE_BYTES + 8];
  const size_t got = std::fread(ahead, 1, sizeof ahead, reader.file);
  std::fseek(reader.file, at + 4, SEEK_SET);
  const bool whole = got < sizeof ahead;   // the file ends inside the window
  const int32_t avail = int32_t(got) + 4;  // bytes of the window counted from the header
  // ahead[d - 4] is the byte at distance d from the header.
  for (int32_t d = MIN_FREE_BYTES; d + 4 <= avail && d <= MAX_FREE_BYTES; ++d) {
    FrameHeader c;
    if (!format::parse_header(ahead + d - 4, c) || free_key(c) != free_key(h)) continue;
    const int32_t bytes = d - padding_bytes(h);
    const int32_t next = d + candidate_length(c, bytes);
    FrameHeader n;
    if (next + 4 <= avail ? !(format::parse_header(ahead + next - 4, n) && free_key(n) == free_key(h)) : !whole)
      continue;
    reader.free_key = free_key(h);
    reader.free_bytes = bytes;
    return true;
  }
  // Nothing new found: a damaged frame follows, and the kept measure stands.
  if (reader.free_key == free_key(h)) return true;
  // No header behind it: a stream of one free-format frame, which runs to the end of the file.
  if (whole && avail >= MIN_FREE_BYTES && avail <= MAX_FREE_BYTES) {
    reader.free_key = free_key(h);
    reader.free_bytes = avail - padding_bytes(h);
    return true;
  }
  return false;
}

// Drops the window's first byte and reads one into its last place.
bool slide_window() {
  int c = getc_unlocked(reader.file);
  if (c == EOF) return false;
  std::memmove(reader.frame_head, reader.frame_head + 1, 3);
  reader.frame_head[3] = uint8_t(c);
  return true;
}

}  // namespace

int32_t read_frame(FrameHeader& header) {
  long at = std::ftell(reader.file);  // file offset of the window's first byte
  if (at >= reader.end_limit) return FRAME_SHORT;
  if (std::fread(reader.frame_head, 1, 4, reader.file) != 4) return FRAME_SHORT;
  for (;; ++at) {
    if (at >= reader.end_limit) return FRAME_EOF;
    const uint32_t sync = be32(reader.frame_head) >> 20;
    FrameHeader h;
    bool taken = format::parse_header(reader.frame_head, h);
    // A free-format frame needs its length measured; Layer I passes without one (its own reader
    // finds its frames by sync search).
    if (taken && h.bitrate_index == 0 && !measure_free_format(h, at) && h.layer_code != 3) taken = false;
    if (taken) {
      header = h;
      return h.layer_code == 3 ? FRAME_LAYER1 : FRAME_OK;
    }
    if (!slide_window()) return sync == 0xFFF ? FRAME_EOF_AFTER_SYNC : FRAME_EOF;
  }
}

int32_t read_frame_body(int32_t wanted) {
  if (wanted <= 0) return 0;
  if (wanted > MAX_BODY_BYTES) wanted = MAX_BODY_BYTES;
  return int32_t(std::fread(reader.body, 1, size_t(wanted), reader.file));
}

void reset_frame_reader() {
  reader.free_bytes = 0;
  reader.free_key = -1;
  reader.end_limit = 0x7FFFFFFF;
  std::memset(reader.frame_head, 0, sizeof reader.frame_head);
}

}  // namespace session
