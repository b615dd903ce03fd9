// WAVE reader and writer of the file tools.
//
// The reader keeps two halves of WAVE_HALF_BYTES in one buffer and fills them alternately as the
// frame index rises; `half` counts the halves read, so the newest half holds the frames from
// half * frames_per_half on and the other half the ones just before. A frame is found relative to
// the newest half's start, which lets a kernel look back a little and forward a little without any
// copying. Bytes past the "data" chunk are never read as samples: the halves are primed with
// silence and a read stops at the chunk's end.
//
// The writer collects frames in its buffer and writes WAVE_OUT_FLUSH_BYTES at a time; the header
// goes out first with an estimate and is rewritten with the true count when the file closes.
#include "tools/wave.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace tools {

WaveInput wave_in;
WaveOutput wave_out;

namespace {

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint32_t le16(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8; }
void put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}
void put16(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}

bool is_id(const uint8_t* p, const char* id) { return std::memcmp(p, id, 4) == 0; }

// Silence of the input's format: 0 for 16-bit samples, 0x80 for unsigned 8-bit ones.
void fill_silence(uint8_t* from, size_t bytes) { std::memset(from, wave_in.bits == 8 ? 0x80 : 0, bytes); }

// Reads the next half over the older one. Whatever the read leaves short stays silence.
void load_next_half() {
  WaveInput& in = wave_in;
  ++in.half;
  uint8_t* base = in.buffer + (in.half & 1) * WAVE_HALF_BYTES;
  size_t want = size_t(std::min<int64_t>(WAVE_HALF_BYTES, in.data_left));
  size_t got = want > 0 && in.file ? std::fread(base, 1, want, in.file) : 0;
  in.data_left -= int64_t(got);
  fill_silence(base + got, WAVE_HALF_BYTES - got);
  in.limit += in.frames_per_half;
}

// A jump of more than two halves ahead: the halves in between would only be overwritten, so they
// are passed over in the file rather than read. The two halves loaded afterwards are the same.
void skip_halves(int64_t index) {
  WaveInput& in = wave_in;
  int64_t skip = (index - in.limit) / in.frames_per_half - 1;
  if (skip <= 0) return;
  int64_t bytes = std::min<int64_t>(skip * WAVE_HALF_BYTES, in.data_left);
  if (bytes > 0 && in.file && std::fseek(in.file, long(bytes), SEEK_CUR) != 0) bytes = in.data_left;
  in.data_left -= bytes;
  in.half += skip;
  in.limit += skip * in.frames_per_half;
}

bool flush_output() {
  WaveOutput& out = wave_out;
  if (out.fill == 0) return true;
  size_t bytes = size_t(out.fill) * size_t(out.bytes_per_frame);
  size_t written = std::fwrite(out.buffer, 1, bytes, out.file);
  // The frames count as written even when the write fell short: the header then claims them.
  out.frames += out.fill;
  out.fill = 0;
  return written == bytes;
}

int16_t clip16(int32_t v) { return int16_t(v < -32768 ? -32768 : v > 32767 ? 32767 : v); }

}  // namespace

const char* wave_code_text(int32_t code) {
  switch (code) {
    case WAVE_READ_ERROR:
      return "読み込みエラー";
    case WAVE_WRITE_ERROR:
      return "書込みエラー";
    case WAVE_NO_MEMORY:
      return "メモリが足りない";
    case WAVE_CHUNK_ERROR:
      return "チャンクエラー";
    case WAVE_BAD_FORMAT:
      return "データにエラー";
    case WAVE_NO_DATA:
      return "データがない";
    default:
      return nullptr;
  }
}

int32_t parse_wave_header(const uint8_t* buffer, int32_t length, int32_t& rate, int32_t& bits, int32_t& channels,
                          uint32_t& data_size, int32_t& data_offset) {
  if (length < WAVE_HEADER_BYTES) return WAVE_CHUNK_ERROR;
  // Either of the two magic words will do: files with a damaged "RIFF" or "WAVE" still open.
  if (!is_id(buffer, "RIFF") && !is_id(buffer + 8, "WAVE")) return WAVE_BAD_FORMAT;

  // Chunk sizes are unsigned 32-bit; positions are kept wide so that no size can wrap them.
  int64_t pos = 12;
  int64_t fmt = -1;
  while (pos + 8 <= length) {
    const uint8_t* chunk = buffer + pos;
    int64_t size = le32(chunk + 4);
    if (is_id(chunk, "fmt ")) {
      if (size < 16 || pos + 8 + size > length) return WAVE_BAD_FORMAT;
      fmt = pos + 8;
      pos += 8 + size;
    } else if (is_id(chunk, "data")) {
      if (fmt < 0) return WAVE_BAD_FORMAT;
      // The format tag is not looked at: only the bit depth limits what is accepted.
      channels = int32_t(le16(buffer + fmt + 2));
      rate = int32_t(le32(buffer + fmt + 4));
      bits = int32_t(le16(buffer + fmt + 14));
      data_size = uint32_t(size);
      data_offset = int32_t(pos + 8);
      return WAVE_OK;
    } else {
      // Odd chunks are stepped over by their stated size alone, without the pad byte.
      pos += size + 8;
      if (pos > length) return WAVE_BAD_FORMAT;
    }
    // A step that lands exactly on the end of the bytes read refuses the file rather than asking
    // for more; this is how the tools have always treated such headers.
    if (pos >= length) return WAVE_BAD_FORMAT;
  }
  return WAVE_CHUNK_ERROR;
}

int32_t open_wave_input(const char* path, int32_t& rate, int32_t& bits, int32_t& channels, uint32_t& data_size) {
  close_wave_input();
  WaveInput& in = wave_in;
  in.buffer = static_cast<uint8_t*>(std::malloc(WAVE_IN_BUFFER_BYTES));
  if (!in.buffer) return WAVE_NO_MEMORY;
  in.file = std::fopen(path, "rb");
  if (!in.file) {
    close_wave_input();
    return WAVE_READ_ERROR;
  }

  // Read a little more of the file's start each time until the "data" chunk is found.
  int32_t result = WAVE_CHUNK_ERROR;
  int32_t data_offset = 0;
  for (int32_t want = WAVE_PARSE_STEP; want < WAVE_PARSE_LIMIT && result == WAVE_CHUNK_ERROR; want += WAVE_PARSE_STEP) {
    if (std::fseek(in.file, 0, SEEK_SET) != 0) {
      close_wave_input();
      return WAVE_READ_ERROR;
    }
    size_t got = std::fread(in.buffer, 1, size_t(want), in.file);
    if (std::ferror(in.file)) {
      close_wave_input();
      return WAVE_READ_ERROR;
    }
    result = parse_wave_header(in.buffer, int32_t(got), rate, bits, channels, data_size, data_offset);
  }
  // A rate of 0 or one that does not fit a signed word would make every length meaningless.
  if (result != WAVE_OK || (bits != 8 && bits != 16) || (channels != 1 && channels != 2) || rate <= 0) {
    close_wave_input();
    return WAVE_BAD_FORMAT;
  }

  // A header may claim more data than the file holds (a stream written without patching its sizes
  // says 0xFFFFFFFF): the data is what the file has behind the header, at most the claimed size.
  if (std::fseek(in.file, 0, SEEK_END) != 0) {
    close_wave_input();
    return WAVE_READ_ERROR;
  }
  long file_size = std::ftell(in.file);
  int64_t present = file_size > data_offset ? int64_t(file_size) - data_offset : 0;
  data_size = uint32_t(std::min<int64_t>(data_size, present));
  if (std::fseek(in.file, data_offset, SEEK_SET) != 0) {
    close_wave_input();
    return WAVE_READ_ERROR;
  }

  static uint32_t opened = 0;
  in.serial = ++opened;
  in.rate = rate;
  in.bits = bits;
  in.channels = channels;
  in.data_size = data_size;
  in.data_left = data_size;
  in.bytes_per_frame = bits * channels / 8;
  in.frames_per_half = WAVE_HALF_BYTES / in.bytes_per_frame;
  fill_silence(in.buffer, WAVE_IN_BUFFER_BYTES);
  // The first half goes into half 0: load_next_half counts from -1.
  in.half = -1;
  in.limit = 0;
  load_next_half();
  return WAVE_OK;
}

void read_wave_frame(int64_t index, int32_t& left, int32_t& right) {
  WaveInput& in = wave_in;
  if (!in.buffer) {
    left = right = 0;
    return;
  }
  const int64_t per_half = in.frames_per_half;
  if (index >= in.limit + 2 * per_half) skip_halves(index);
  while (index >= in.limit) load_next_half();

  // The place relative to the newest half's start, at most one half back and one half ahead.
  int64_t place = index - in.half * per_half;
  place = std::clamp(place, -per_half, per_half - 1);
  place += (in.half & 1) * per_half;
  if (place < 0) place += 2 * per_half;
  place = std::clamp<int64_t>(place, 0, 2 * per_half - 1);

  const uint8_t* p = in.buffer + place * in.bytes_per_frame;
  if (in.bits == 16) {
    left = int16_t(le16(p));
    right = in.channels == 2 ? int16_t(le16(p + 2)) : left;
  } else {
    left = (int32_t(p[0]) - 128) * 256;
    right = in.channels == 2 ? (int32_t(p[1]) - 128) * 256 : left;
  }
}

void close_wave_input() {
  WaveInput& in = wave_in;
  if (in.file) std::fclose(in.file);
  std::free(in.buffer);
  in = WaveInput{};
}

void make_wave_header(uint8_t* h, int32_t rate, int32_t bits, int32_t channels, uint32_t data_bytes) {
  uint32_t align = uint32_t(bits * channels / 8);
  std::memcpy(h, "RIFF", 4);
  put32(h + 4, data_bytes + 36);
  std::memcpy(h + 8, "WAVEfmt ", 8);
  put32(h + 16, 16);
  put16(h + 20, 1);
  put16(h + 22, uint32_t(channels));
  put32(h + 24, uint32_t(rate));
  put32(h + 28, uint32_t(rate) * align);
  put16(h + 32, align);
  put16(h + 34, uint32_t(bits));
  std::memcpy(h + 36, "data", 4);
  put32(h + 40, data_bytes);
}

int32_t open_wave_output(const char* path, int32_t rate, int32_t bits, int32_t channels, uint32_t data_size_estimate) {
  WaveOutput& out = wave_out;
  close_wave_output();
  out.buffer = static_cast<uint8_t*>(std::malloc(WAVE_OUT_BUFFER_BYTES));
  if (!out.buffer) return WAVE_NO_MEMORY;
  out.file = std::fopen(path, "wb");
  if (!out.file) {
    close_wave_output();
    return WAVE_READ_ERROR;
  }
  out.rate = rate;
  out.bits = bits;
  out.channels = channels;
  out.bytes_per_frame = bits * channels / 8;
  uint8_t header[WAVE_HEADER_BYTES];
  make_wave_header(header, rate, bits, channels, data_size_estimate);
  if (std::fwrite(header, 1, sizeof header, out.file) != sizeof header) {
    close_wave_output();
    std::remove(path);
    return WAVE_WRITE_ERROR;
  }
  return WAVE_OK;
}

int32_t write_wave_frame(int32_t left, int32_t right) {
  WaveOutput& out = wave_out;
  if (!out.file) return WAVE_WRITE_ERROR;
  int32_t l = clip16(left);
  int32_t r = clip16(right);
  uint8_t* p = out.buffer + size_t(out.fill) * size_t(out.bytes_per_frame);
  if (out.bits == 16) {
    if (out.channels == 2) {
      put16(p, uint32_t(l));
      put16(p + 2, uint32_t(r));
    } else {
      put16(p, uint32_t((l + r) >> 1));
    }
  } else if (out.channels == 2) {
    p[0] = uint8_t((l >> 8) + 128);
    p[1] = uint8_t((r >> 8) + 128);
  } else {
    p[0] = uint8_t(((l + r) >> 9) + 128);
  }
  ++out.fill;
  if (out.fill * out.bytes_per_frame >= WAVE_OUT_FLUSH_BYTES && !flush_output()) {
    out.status = WAVE_WRITE_ERROR;
    close_wave_output();
    return WAVE_WRITE_ERROR;
  }
  return WAVE_OK;
}

int32_t close_wave_output() {
  WaveOutput& out = wave_out;
  if (!out.file) {
    // Nothing open: a close after the close that a failed write made, or before any open.
    std::free(out.buffer);
    out = WaveOutput{};
    return WAVE_OK;
  }
  bool ok = out.status == WAVE_OK && flush_output();
  uint8_t header[WAVE_HEADER_BYTES];
  make_wave_header(header, out.rate, out.bits, out.channels, uint32_t(out.frames * out.bytes_per_frame));
  if (std::fseek(out.file, 0, SEEK_SET) != 0 || std::fwrite(header, 1, sizeof header, out.file) != sizeof header)
    ok = false;
  if (std::fclose(out.file) != 0) ok = false;
  std::free(out.buffer);
  out = WaveOutput{};
  return ok ? WAVE_OK : WAVE_WRITE_ERROR;
}

}  // namespace tools
