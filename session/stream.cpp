// Stream opening works in one pass of small reads and seeks over the buffered input file:
//
//   tail tag -> "MACR" at 36 or a MacBinary head -> RIFF (WAVE format tag, or the "RMP3" chunk walk
//   with its LIST INFO items) -> "data" chunk -> first frame through read_frame -> StreamInfo.
//
// probe_stream shares the wrapper stage and then reads one header at the data start itself.
//
// Wrapper sizes come from the file and are trusted: a corrupt size only makes a later read fail.
// They are taken as unsigned, so every chunk step moves forward and no walk can loop; sums of file
// words wrap as 32-bit values would, without overflow. Files of 2 GiB and more are not supported:
// offsets are signed 32-bit words.
#include "session/stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "session/messages.h"
#include "session/session.h"

namespace session {

namespace {

constexpr int32_t TAG_BYTES = 128;
// How much of a stream without a header frame open_stream walks for its length: the rest of a
// longer file is measured by the average of this much.
constexpr int64_t WALK_BOUND = 64 << 20;

uint32_t le16(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8; }
uint32_t le32(const uint8_t* p) { return le16(p) | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
bool is_id(const uint8_t* p, const char* id) { return std::memcmp(p, id, 4) == 0; }

// Sums of file words wrap as 32-bit words.
int32_t add32(int32_t a, int64_t b) { return int32_t(uint32_t(a) + uint32_t(uint64_t(b))); }

// "TAG" compared without regard to case.
bool is_tag(const uint8_t* p) {
  auto lower = [](uint8_t c) { return c >= 'A' && c <= 'Z' ? uint8_t(c + 32) : c; };
  return lower(p[0]) == 't' && lower(p[1]) == 'a' && lower(p[2]) == 'g';
}

// The record of a file without a tag: all zero, byte 125 a blank (the v1.1 marker off), genre 247.
void clear_tag_record(uint8_t* record) {
  std::memset(record, 0, TAG_BYTES);
  record[125] = ' ';
  record[127] = 247;
}

// LIST INFO item identifiers by list_info slot; "IPCD" shares slot 6 with "ISFT".
struct InfoItem {
  char id[5];
  int32_t slot;
};
constexpr InfoItem info_items[] = {{"INAM", 0}, {"IART", 1}, {"ICMT", 2}, {"IGNR", 3}, {"ICRD", 4},
                                   {"ICOP", 5}, {"ISFT", 6}, {"IPCD", 6}, {"ISRC", 7}, {"IENG", 8}};

int32_t info_slot(const uint8_t* id) {
  for (const InfoItem& item : info_items)
    if (is_id(id, item.id)) return item.slot;
  return -1;
}

enum RiffKind { RIFF_NONE, RIFF_WAVE, RIFF_RMP3, RIFF_OTHER };

// Where the audio lies, as the wrapper stage finds it.
struct Located {
  int32_t data_start = 0;
  int32_t data_end = 0;
  int32_t file_size = 0;
  int32_t wrapper = 0;  // WrapperBits
  RiffKind riff = RIFF_NONE;
  uint32_t first_chunk_size = 0;
};

// The tail: with a file of 128 bytes or more, reads the last 128 into record and puts the
// cleared record there when they are no tag. A shorter file leaves record as it was.
void read_tail(std::FILE* f, Located& at, uint8_t* record) {
  if (std::fseek(f, -TAG_BYTES, SEEK_END) != 0) {
    std::fseek(f, 0, SEEK_END);
    long length = std::ftell(f);
    at.data_end = at.file_size = int32_t(std::max(length, 0L));
    return;
  }
  at.data_end = int32_t(std::ftell(f));
  size_t got = std::fread(record, 1, TAG_BYTES, f);
  if (got == size_t(TAG_BYTES) && is_tag(record)) {
    at.wrapper |= WRAP_TAG;
  } else {
    at.data_end = add32(at.data_end, TAG_BYTES);
    clear_tag_record(record);
  }
  at.file_size = int32_t(std::ftell(f));
}

// The Macintosh heads. Leaves the file where the RIFF test is to read.
void read_mac_heads(std::FILE* f, Located& at) {
  // The 32-bit word of bytes 36-39, as a little-endian processor loads it.
  uint8_t word[4] = {0, 0, 0, 0};
  std::fseek(f, 36, SEEK_SET);
  size_t got = std::fread(word, 1, 4, f);
  (void)got;
  if (is_id(word, "MACR")) {
    // Macromedia: a big-endian length of the head, then the audio. The file is left behind the
    // length, where the RIFF test finds no RIFF and goes to the data start.
    uint8_t length[4] = {0, 0, 0, 0};
    std::fseek(f, 0, SEEK_SET);
    got = std::fread(length, 1, 4, f);
    at.data_start = add32(4, be32(length));
    at.wrapper |= WRAP_MACROMEDIA;
    return;
  }
  // MacBinary: the file's first two bytes land over the low half of that word, whose high half
  // still holds bytes 38 and 39; rotated right by 8 it is below 64 only when byte 0 is 0 (version),
  // byte 1 below 64 (the name's length) and bytes 38 and 39 are 0 (the name is shorter than 37).
  std::fseek(f, 0, SEEK_SET);
  got = std::fread(word, 1, 2, f);
  uint32_t w = le32(word);
  uint32_t rotated = (w >> 8) | (w << 24);
  if (rotated < 64) {
    // The name itself is of no interest; bytes 80-83 must be zero. A file too short to hold them
    // has no MacBinary head.
    uint8_t zero[4] = {1, 1, 1, 1};
    std::fseek(f, 80, SEEK_SET);
    if (std::fread(zero, 1, 4, f) == 4 && le32(zero) == 0) {
      std::fseek(f, 128, SEEK_SET);
      at.data_start = 128;
      at.wrapper |= WRAP_MACBINARY;
      return;
    }
  }
  std::fseek(f, 0, SEEK_SET);
}

// Reads the RIFF head at the current position: identifier, size, form type and the first chunk's
// head. Sets at.riff; for a non-RIFF file the position goes back to the data start.
void read_riff_head(std::FILE* f, Located& at) {
  uint8_t head[20] = {};
  size_t got = std::fread(head, 1, sizeof head, f);
  (void)got;
  if (!is_id(head, "RIFF")) {
    at.riff = RIFF_NONE;
    std::fseek(f, at.data_start, SEEK_SET);
    return;
  }
  at.first_chunk_size = le32(head + 16);
  if (is_id(head + 8, "WAVE")) {
    at.riff = RIFF_WAVE;
  } else if (is_id(head + 8, "RMP3")) {
    at.riff = RIFF_RMP3;
  } else {
    at.riff = RIFF_OTHER;
  }
}

// The format tag behind the first chunk's head (0 when the file ends there).
uint32_t read_format_tag(std::FILE* f) {
  uint8_t tag[2] = {0, 0};
  size_t got = std::fread(tag, 1, 2, f);
  (void)got;
  return le16(tag);
}

// Searches the "data" chunk from the current position. On success sets the data start and end,
// with the file behind the chunk head; otherwise goes back to the data start and returns false.
bool find_data_chunk(std::FILE* f, Located& at) {
  for (;;) {
    uint8_t head[8];
    if (std::fread(head, 1, 8, f) != 8) {
      std::fseek(f, at.data_start, SEEK_SET);
      return false;
    }
    if (is_id(head, "data")) {
      at.data_start = int32_t(std::ftell(f));
      at.data_end = add32(at.data_start, le32(head + 4));
      return true;
    }
    std::fseek(f, long(le32(head + 4)), SEEK_CUR);
  }
}

// Records the items of a LIST chunk's bytes (read from file offset contents) in list_info.
void read_list_info(const uint8_t* chunk, uint32_t size, int64_t contents) {
  if (size <= 4 || !is_id(chunk, "INFO")) return;
  // Items follow each other with no word alignment between them. A head cut short by the chunk's
  // end, or an item size that jumps past it, ends the walk.
  uint64_t offset = 4;
  while (offset + 8 <= size) {
    const uint8_t* item = chunk + offset;
    uint32_t item_size = le32(item + 4);
    int32_t slot = info_slot(item);
    if (slot >= 0) {
      stream.list_info[slot][0] = add32(0, contents + int64_t(offset) + 8);
      stream.list_info[slot][1] = int32_t(item_size);
      std::memcpy(stream.tag_buffer, "RMP", 3);
    }
    offset += 8 + uint64_t(item_size);
  }
}

// Walks the chunks of an "RMP3" file from its first chunk, taking the LIST INFO items, and leaves
// the file at the first chunk again for the "data" search.
void walk_rmp3_chunks(std::FILE* f, const Located& at) {
  std::fseek(f, -8, SEEK_CUR);
  std::vector<uint8_t> chunk;
  for (;;) {
    uint8_t head[8];
    if (std::fread(head, 1, 8, f) != 8) break;
    if (head[0] == 0) {
      // A pad byte behind a chunk of odd size: step one byte on.
      std::fseek(f, -7, SEEK_CUR);
      continue;
    }
    const uint32_t size = le32(head + 4);
    if (!is_id(head, "LIST")) {
      std::fseek(f, long(size), SEEK_CUR);
      continue;
    }
    // Reads the chunk as far as the file holds it; a size beyond the file's end reads what is
    // there and leaves the file at its end, which ends the walk.
    const long contents = std::ftell(f);
    const int64_t left = std::max<int64_t>(0, int64_t(at.file_size) - contents);
    chunk.resize(size_t(std::min<int64_t>(size, left)));
    size_t got = chunk.empty() ? 0 : std::fread(chunk.data(), 1, chunk.size(), f);
    if (got < size) std::fseek(f, 0, SEEK_END);
    read_list_info(chunk.data(), uint32_t(got), contents);
  }
  std::fseek(f, add32(at.data_start, 12), SEEK_SET);
}

// The first-frame failures that open_stream tells; the rest stay silent (0).
int32_t frame_failure_error(int32_t code) {
  switch (code) {
    case FRAME_EOF_AFTER_SYNC:
      return format::ERR_STREAM_END;
    case FRAME_MPEG25:
      return format::ERR_MPEG25;
    case FRAME_FREE_FORMAT:
      return format::ERR_FREE_FORMAT;
    case FRAME_SYNC_ERROR:
      return format::ERR_SYNC;
    case FRAME_VIDEO:
      return format::ERR_VIDEO_STREAM;
    default:
      return 0;
  }
}

}  // namespace

int32_t stream_wrapper = 0;

void walk_frames(int32_t start, int32_t end, int64_t max_bytes, FrameWalk& walk, std::vector<int32_t>* offsets) {
  std::FILE* f = reader.file;
  std::fseek(f, start, SEEK_SET);
  int64_t expected = start;
  walk.walked_to = start;
  FrameHeader h;
  for (;;) {
    const int32_t code = read_frame(h);
    if (code != FRAME_OK && code != FRAME_LAYER1) return;
    const long at = std::ftell(f) - 4;
    if (at >= end) return;
    if (max_bytes > 0 && at - start >= max_bytes) {
      walk.bounded = true;
      return;
    }
    if (at != expected) ++walk.damaged;
    ++walk.frames;
    walk.samples += frame_samples(h);
    walk.seconds += double(frame_samples(h)) / header_hz(h);
    if (offsets) offsets->push_back(int32_t(at));
    const int32_t length = frame_length(h);
    // A header shorter than itself (Layer I free format unmeasured) is stepped over by the search.
    expected = at + std::max(length, 4);
    walk.walked_to = expected;
    // The step to the next frame is read over rather than sought: the stream's buffer mostly holds
    // it, and a seek costs a system call a frame.
    uint8_t skipped[2048];
    const size_t step = size_t(std::max(length - 4, 0));
    if (step > sizeof skipped || std::fread(skipped, 1, step, f) != step) std::fseek(f, long(expected), SEEK_SET);
  }
}

int32_t open_stream() {
  std::FILE* f = reader.file;
  // Everything but the tag record, which a file shorter than a tag keeps from the file before.
  {
    uint8_t kept[TAG_BYTES];
    std::memcpy(kept, stream.tag_buffer, TAG_BYTES);
    stream = StreamInfo{};
    std::memcpy(stream.tag_buffer, kept, TAG_BYTES);
  }
  stream.data_start = 0;
  stream.mpeg_id = -1;
  stream_wrapper = 0;

  Located at;
  read_tail(f, at, stream.tag_buffer);
  read_mac_heads(f, at);
  read_riff_head(f, at);
  std::memset(stream.list_info, 0, sizeof stream.list_info);

  if (at.riff == RIFF_WAVE || at.riff == RIFF_RMP3) {
    if (at.riff == RIFF_WAVE) {
      uint32_t tag = read_format_tag(f);
      if (tag < 80 || tag > 85) {
        std::fseek(f, at.data_start, SEEK_SET);
        stream.data_start = at.data_start;
        stream.data_end = at.data_end;
        stream.file_size = at.file_size;
        return int32_t(tag);
      }
      std::fseek(f, long(int64_t(at.first_chunk_size) - 2), SEEK_CUR);
      std::memcpy(stream.tag_buffer, "RIF", 3);
      at.wrapper |= WRAP_WAVE;
    } else {
      walk_rmp3_chunks(f, at);
      at.wrapper |= WRAP_RMP3;
    }
    if (!find_data_chunk(f, at)) {
      stream.data_start = at.data_start;
      stream.data_end = at.data_end;
      stream.file_size = at.file_size;
      stream_wrapper = at.wrapper;
      return STREAM_NO_DATA;
    }
  }
  // A bare stream: the ID3v2 tags in front are skipped by their own sizes before the sync search
  // (their bytes can look like frame headers), and no header is taken inside the tags at the tail.
  // A RIFF file of any other form type is searched for frames from behind its head.
  reader.free_key = -1;
  reader.free_bytes = 0;
  reader.end_limit = 0x7FFFFFFF;
  if (at.riff == RIFF_NONE) {
    const int32_t behind = skip_id3v2(f, at.data_start, at.file_size);
    if (behind != at.data_start) stream.id3v2_start = at.data_start;
    at.data_start = behind;
    at.data_end = std::max(at.data_start, strip_tail_tags(f, at.data_start, at.data_end));
    reader.end_limit = at.data_end;
    std::fseek(f, at.data_start, SEEK_SET);
  }
  stream_wrapper = at.wrapper;
  stream.data_start = at.data_start;
  stream.data_end = at.data_end;
  stream.file_size = at.file_size;

  FrameHeader h;
  int32_t code = read_frame(h);
  if (code != FRAME_OK && code != FRAME_LAYER1) {
    if (int32_t error = frame_failure_error(code)) message_box(error);
    return -1;
  }
  const int32_t first_at = int32_t(std::ftell(f)) - 4;
  const int32_t hz = header_hz(h);
  stream.frame_bytes = frame_length(h);
  stream.free_format = h.bitrate_index == 0;
  int32_t kbps = header_kbps(h);

  // A Xing/Info or VBRI frame stands in place of the first audio frame: it is no audio, and it
  // tells the length (and the Info frame the encoder's delay and padding).
  VbrFrame vbr;
  if (h.layer_code == 1 && stream.frame_bytes > 4) {
    std::vector<uint8_t> frame(size_t(stream.frame_bytes), 0);
    std::fseek(f, first_at, SEEK_SET);
    const size_t got = std::fread(frame.data(), 1, frame.size(), f);
    if (read_vbr_frame(frame.data(), int32_t(got), h, vbr)) stream.data_start = first_at + stream.frame_bytes;
  }
  stream.vbr_kind = vbr.kind;
  stream.encoder_delay = vbr.delay;
  stream.encoder_padding = vbr.padding;
  stream.data_size = int32_t(uint32_t(stream.data_end) - uint32_t(stream.data_start));
  // A count that the bytes behind the header frame cannot hold (24 bytes is the shortest frame)
  // is a damaged header frame: the frames are walked instead.
  const bool count_fits = int64_t(vbr.frames) * 24 <= int64_t(stream.data_size) + 24;
  double audio_bytes = 0;
  if (vbr.frames > 0 && count_fits) {
    stream.frame_count = vbr.frames;
    stream.total_samples = int64_t(vbr.frames) * frame_samples(h);
    stream.total_seconds = double(stream.total_samples) / hz;
    const int32_t base = vbr.kind == VBR_VBRI ? stream.data_start : first_at;
    const int32_t bytes = vbr.bytes > 0 ? vbr.bytes : stream.data_end - base;
    for (int32_t p = 0; p < 100; ++p)
      stream.seek_points[p] = base + int32_t(int64_t(vbr.has_toc ? vbr.toc[p] : p * 256 / 100) * bytes / 256);
    stream.seek_points[0] = stream.data_start;
    stream.seek_points[100] = base + bytes;
    audio_bytes = double(base + bytes - stream.data_start);
  } else {
    // No header frame: the frames are walked for the length and the seek points, as far as a
    // bound; a longer file is measured by the average of what was walked.
    FrameWalk walk;
    std::vector<int32_t> offsets;
    walk_frames(stream.data_start, stream.data_end, WALK_BOUND, walk, &offsets);
    const int64_t walked = walk.walked_to - stream.data_start;
    const int64_t whole = stream.data_end - stream.data_start;
    const double scale = walk.bounded && walked > 0 ? double(whole) / double(walked) : 1.0;
    stream.frame_count = int32_t(walk.frames * scale);
    stream.total_samples = int64_t(double(walk.samples) * scale);
    stream.total_seconds = walk.seconds * scale;
    const int32_t n = int32_t(offsets.size());
    for (int32_t p = 0; p <= 100 && n > 0; ++p) {
      const int64_t frame = int64_t(p) * stream.frame_count / 100;
      stream.seek_points[p] =
          frame < n ? offsets[size_t(frame)] : int32_t(stream.data_start + double(frame) * double(walked) / n);
    }
    audio_bytes = double(walked) * scale;
  }
  // A variable rate shows as the average; a constant one keeps the header's rate.
  if (stream.total_seconds > 0) {
    const int32_t average = int32_t(audio_bytes * 8 / stream.total_seconds / 1000 + 0.5);
    if (std::abs(average - kbps) > 1) kbps = average;
  }
  if (stream.encoder_delay >= 0) {
    stream.total_samples = std::max<int64_t>(0, stream.total_samples - stream.encoder_delay - stream.encoder_padding);
    stream.total_seconds = double(stream.total_samples) / hz;
  }
  stream.bitrate_kbps = kbps;
  stream.play_seconds = stream.frame_count > 0 ? std::max(1, int32_t(stream.total_seconds)) : 0;
  stream.sample_rate = hz;
  stream.sample_rate_khz = hz / 1000;
  stream.mpeg_id = h.id;
  stream.layer = 4 - h.layer_code;
  stream.protection = h.protection_bit;
  stream.private_bit = h.private_bit;
  stream.copyright = h.copyright;
  stream.original = h.original;
  stream.mode = h.mode;
  stream.mode_ext = h.mode_ext;
  const int32_t forced = options.force_de_emphasis;
  stream.emphasis_mode = (forced == 1 || forced == 3) ? forced : h.emphasis;
  if (options.hi_fi) stream.emphasis_mode |= 4;

  std::fseek(f, stream.data_start, SEEK_SET);
  return STREAM_OK;
}

namespace {

// probe_stream's work; closed tells whether the file was closed.
int32_t probe(std::FILE* f, ProbeInfo& info, bool& closed) {
  closed = false;
  uint8_t tail[TAG_BYTES] = {};
  Located at;
  read_tail(f, at, tail);
  read_mac_heads(f, at);
  read_riff_head(f, at);

  int32_t kind = 0;
  if (at.riff == RIFF_WAVE) {
    uint32_t tag = read_format_tag(f);
    if (tag < 80 || tag > 85) return -1;
    std::fseek(f, long(int64_t(at.first_chunk_size) - 2), SEEK_CUR);
    kind = 1;
  } else if (at.riff == RIFF_RMP3) {
    // No item walk here: straight to the first chunk.
    std::fseek(f, add32(at.data_start, 12), SEEK_SET);
    kind = 2;
  }
  if (kind != 0 && !find_data_chunk(f, at)) return STREAM_NO_DATA;

  // No sync search: the header must stand at the data start.
  uint8_t head[4] = {};
  std::fseek(f, at.data_start, SEEK_SET);
  size_t got = std::fread(head, 1, 4, f);
  std::fclose(f);
  closed = true;
  const uint32_t w = be32(head);
  if (got != 4 || (w >> 20) != 0xFFF) return -1;
  FrameHeader h;
  format::split_header(w & 0xFFFFF, h);
  if (h.bitrate_index == 15) return -1;
  // The sampling index is masked with 2, not 3: 48 kHz reads as index 0 and is shown as 44100 (or
  // 22050) Hz, as the information displays have always shown it.
  h.sampling_index &= 2;
  // The reserved layer is not refused, but it has no bit-rate row: it reports 0 kbit/s.
  const int32_t kbps = h.layer_code == 0 ? 0 : bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  // The probe measures the file by its first frame; a free-format or reserved-layer frame has no
  // length it could know without reading on.
  const int32_t frame_bytes = h.layer_code == 0 || h.bitrate_index == 0 ? 0 : format::frame_length(h, -1);
  const int32_t data_size = int32_t(uint32_t(at.data_end) - uint32_t(at.data_start));

  info.id = h.id;
  info.layer = 4 - h.layer_code;
  info.protection = h.protection_bit;
  info.kbps = kbps;
  info.hz = sample_rate_table[h.id * 3 + h.sampling_index];
  info.padding = h.padding_bit;
  info.private_bit = h.private_bit;
  info.mode = h.mode;
  info.mode_ext = h.mode_ext;
  info.copyright = h.copyright;
  info.original = h.original;
  info.emphasis = h.emphasis;
  info.data_start = at.data_start;
  info.data_end = at.data_end;
  info.file_size = at.file_size;
  info.play_seconds = kbps ? std::max(1, data_size / (kbps * 125)) : 0;
  info.frame_count = frame_bytes ? data_size / frame_bytes : 0;
  return kind;
}

}  // namespace

int32_t probe_stream(std::FILE* file, ProbeInfo& info) {
  bool closed;
  return probe(file, info, closed);
}

int32_t probe_file(const char* path, ProbeInfo& info) {
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return -1;
  bool closed;
  int32_t result = probe(f, info, closed);
  if (!closed) std::fclose(f);
  return result;
}

}  // namespace session
