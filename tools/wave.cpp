// WAVE reader and writer of the file tools.
//
// The reader keeps two halves of WAVE_HALF_BYTES in one buffer and fills them alternately as the
// frame index rises; `half` counts the halves read, so the newest half holds the frames from
// half * frames_per_half on and the other half the ones just before. A frame is found relative to
// the newest half's start, which lets a kernel look back a little and forward a little without any
// copying. The halves hold 16-bit stereo whatever the file's format: each piece of the file is
// converted once as it comes in, and a frame read is two loads. Bytes past the "data" chunk are
// never read as samples: a read stops at the chunk's end and the rest of a half is silence.
//
// The writer collects frames in its buffer and writes WAVE_OUT_FLUSH_BYTES at a time; the header
// goes out first with an estimate and is rewritten with the true count when the file closes.
#include "tools/wave.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace tools {

WaveInput wave_in;
WaveOutput wave_out;

// The halves hold 16-bit samples in the machine's order, which is the file's.
static_assert(std::endian::native == std::endian::little);

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

bool printable_id(const uint8_t* p) {
  for (int i = 0; i < 4; ++i)
    if (p[i] < 0x20 || p[i] > 0x7E) return false;
  return true;
}

// The rest of the GUID of an extensible header's sub-format: the format tag stands in its first two
// bytes, these follow.
constexpr uint8_t SUBFORMAT_GUID_TAIL[14] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};

// The "fmt " chunk's facts (size bytes at f, at most 40 of them read). Returns a WaveProblem.
int32_t read_format(const uint8_t* f, int64_t size, WaveHeader& h) {
  h.format_tag = int32_t(le16(f));
  h.channels = int32_t(le16(f + 2));
  const uint32_t rate = le32(f + 4);
  h.rate = rate > 0x7FFFFFFF ? 0 : int32_t(rate);
  int32_t bits = int32_t(le16(f + 14));
  h.valid_bits = bits;
  if (h.format_tag == WAVE_TAG_EXTENSIBLE) {
    if (size < 40) return WAVE_PROBLEM_SHORT_FMT;
    if (std::memcmp(f + 26, SUBFORMAT_GUID_TAIL, sizeof SUBFORMAT_GUID_TAIL) != 0) return WAVE_PROBLEM_FORMAT_TAG;
    h.format_tag = int32_t(le16(f + 24));
    int32_t valid = int32_t(le16(f + 18));
    if (valid > 0 && valid <= bits) h.valid_bits = valid;
  }
  if (h.format_tag != WAVE_TAG_PCM && h.format_tag != WAVE_TAG_FLOAT) return WAVE_PROBLEM_FORMAT_TAG;
  h.is_float = h.format_tag == WAVE_TAG_FLOAT;
  if (h.channels != 1 && h.channels != 2) return WAVE_PROBLEM_CHANNELS;
  // Integer samples narrower than their bytes sit in the upper bits, so a 20-bit sample reads as
  // a 24-bit one.
  if (h.is_float ? bits != 32 && bits != 64 : bits < 1 || bits > 32) {
    h.bits = bits;
    return WAVE_PROBLEM_BITS;
  }
  h.bits = (bits + 7) / 8 * 8;
  // The block align is worked out rather than believed: a header's own is wrong often enough.
  h.block_align = h.bits / 8 * h.channels;
  if (h.rate <= 0) return WAVE_PROBLEM_RATE;
  return WAVE_PROBLEM_NONE;
}

// The walk over the chunks, for bytes in memory and for a file alike. get(offset, to, n) copies up
// to n bytes from the file's start + offset and says how many there were. A short read returns
// format::ERR_WAVE_CHUNK with h.problem telling what was being looked for.
template <typename Get>
int32_t walk_chunks(const Get& get, WaveHeader& h) {
  h = WaveHeader{};
  uint8_t head[12];
  if (get(0, head, 12) < 12) {
    h.problem = WAVE_PROBLEM_NOT_RIFF;
    return format::ERR_WAVE_CHUNK;
  }
  // Either of the two magic words will do: files with a damaged "RIFF" or "WAVE" still open, and so
  // do "RF64" files, whose sizes the end of the file stands in for.
  if (!is_id(head, "RIFF") && !is_id(head + 8, "WAVE")) {
    h.problem = WAVE_PROBLEM_NOT_RIFF;
    return format::ERR_WAVE_FORMAT;
  }
  // Positions are kept wide so that no chunk size can wrap them.
  int64_t pos = 12;
  bool have_format = false;
  for (;;) {
    uint8_t chunk[9];
    if (get(pos, chunk, 8) < 8) {
      h.problem = WAVE_PROBLEM_NO_DATA;
      return format::ERR_WAVE_CHUNK;
    }
    const int64_t size = le32(chunk + 4);
    if (is_id(chunk, "data")) {
      if (!have_format) {
        h.problem = WAVE_PROBLEM_NO_FMT;
        return format::ERR_WAVE_FORMAT;
      }
      h.data_size = uint32_t(size);
      h.data_offset = pos + 8;
      return format::ERR_OK;
    }
    if (is_id(chunk, "fmt ")) {
      uint8_t format[40];
      const int32_t want = int32_t(std::min<int64_t>(size, sizeof format));
      if (size < 16) {
        h.problem = WAVE_PROBLEM_SHORT_FMT;
        return format::ERR_WAVE_FORMAT;
      }
      if (get(pos + 8, format, want) < want) {
        h.problem = WAVE_PROBLEM_SHORT_FMT;
        return format::ERR_WAVE_CHUNK;
      }
      h.problem = read_format(format, size, h);
      if (h.problem != WAVE_PROBLEM_NONE) return format::ERR_WAVE_FORMAT;
      have_format = true;
    }
    // Chunks of odd size are followed by a pad byte. Some writers leave it out: when the byte
    // behind the chunk starts a chunk name and the one after it doesn't, the pad is missing.
    int64_t next = pos + 8 + size + (size & 1);
    if ((size & 1) && get(next - 1, chunk, 9) == 9 && printable_id(chunk) && !printable_id(chunk + 1)) --next;
    pos = next;
  }
}

// The file's bytes for walk_chunks.
struct FileBytes {
  std::FILE* file;
  int32_t operator()(int64_t offset, uint8_t* to, int32_t n) const {
    if (std::fseek(file, long(offset), SEEK_SET) != 0) return 0;
    return int32_t(std::fread(to, 1, size_t(n), file));
  }
};

int32_t probe_open_file(std::FILE* file, WaveHeader& h) {
  int32_t code = walk_chunks(FileBytes{file}, h);
  if (std::ferror(file)) return format::ERR_READ;
  if (code == format::ERR_WAVE_CHUNK)
    return h.problem == WAVE_PROBLEM_NO_DATA ? format::ERR_WAVE_NO_DATA : format::ERR_WAVE_FORMAT;
  if (code != format::ERR_OK) return code;
  // A header may claim more data than the file holds (a stream written without patching its sizes
  // says 0xFFFFFFFF): the data is what the file has behind the header, at most the claimed size.
  if (std::fseek(file, 0, SEEK_END) != 0) return format::ERR_READ;
  const int64_t file_size = std::ftell(file);
  const int64_t present = file_size > h.data_offset ? file_size - h.data_offset : 0;
  h.data_size = uint32_t(std::min<int64_t>(h.data_size, present));
  return format::ERR_OK;
}

int16_t from_float(float v) {
  v *= 32768.0f;
  if (v >= 32767.0f) return 32767;
  if (v > -32768.0f) return int16_t(v);  // truncated towards zero, as the tools' other conversions
  return v <= -32768.0f ? -32768 : 0;    // the rest is NaN
}

// Frames of the file's format to 16-bit stereo, a mono sample going to both sides.
template <typename Sample>
void convert_as(const uint8_t* raw, int32_t frames, int16_t* out, Sample sample) {
  const WaveInput& in = wave_in;
  const int32_t size = in.bytes_per_frame / in.channels;
  for (int32_t i = 0; i < frames; ++i, raw += in.bytes_per_frame) {
    const int16_t left = sample(raw);
    out[2 * i] = left;
    out[2 * i + 1] = in.channels == 2 ? sample(raw + size) : left;
  }
}

void convert_frames(const uint8_t* raw, int32_t frames, int16_t* out) {
  const int32_t size = wave_in.bytes_per_frame / wave_in.channels;
  if (wave_in.is_float && size == 4) {
    convert_as(raw, frames, out, [](const uint8_t* p) {
      float v;
      std::memcpy(&v, p, 4);
      return from_float(v);
    });
  } else if (wave_in.is_float) {
    convert_as(raw, frames, out, [](const uint8_t* p) {
      double v;
      std::memcpy(&v, p, 8);
      return v != v ? int16_t(0) : from_float(float(std::clamp(v, -2.0, 2.0)));
    });
  } else if (size == 1) {
    convert_as(raw, frames, out, [](const uint8_t* p) { return int16_t((int32_t(p[0]) - 128) * 256); });
  } else {
    // The upper two bytes: wider samples lose their low bits by truncation.
    convert_as(raw, frames, out, [size](const uint8_t* p) { return int16_t(le16(p + size - 2)); });
  }
}

// Reads the next half over the older one. Whatever the read leaves short stays silence.
void load_next_half() {
  WaveInput& in = wave_in;
  ++in.half;
  auto* base = reinterpret_cast<int16_t*>(in.buffer + (in.half & 1) * WAVE_HALF_BYTES);
  uint8_t* stage = in.buffer + 2 * WAVE_HALF_BYTES + 256;
  // 16-bit stereo is the halves' own format: it is read straight into place.
  const bool direct = !in.is_float && in.bits == 16 && in.channels == 2;
  int32_t done = 0;
  while (done < in.frames_per_half && in.file && in.data_left >= in.bytes_per_frame) {
    const int32_t frames =
        int32_t(std::min<int64_t>({int64_t(in.frames_per_half - done), int64_t(WAVE_STAGE_BYTES / in.bytes_per_frame),
                                   in.data_left / in.bytes_per_frame}));
    const size_t bytes = size_t(frames) * size_t(in.bytes_per_frame);
    uint8_t* raw = direct ? reinterpret_cast<uint8_t*>(base + 2 * done) : stage;
    const size_t got = std::fread(raw, 1, bytes, in.file);
    in.data_left -= int64_t(got);
    const int32_t whole = int32_t(got / size_t(in.bytes_per_frame));
    if (!direct) convert_frames(raw, whole, base + 2 * done);
    done += whole;
    if (got < bytes) in.data_left = 0;  // the file ended or failed: the rest is silence
  }
  std::memset(base + 2 * done, 0, size_t(in.frames_per_half - done) * 4);
  in.limit += in.frames_per_half;
}

// A jump of more than two halves ahead: the halves in between would only be overwritten, so they
// are passed over in the file rather than read. The two halves loaded afterwards are the same.
void skip_halves(int64_t index) {
  WaveInput& in = wave_in;
  int64_t skip = (index - in.limit) / in.frames_per_half - 1;
  if (skip <= 0) return;
  int64_t bytes = std::min<int64_t>(skip * in.frames_per_half * in.bytes_per_frame, in.data_left);
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

int32_t parse_wave_header(const uint8_t* buffer, int32_t length, WaveHeader& h) {
  auto get = [buffer, length](int64_t offset, uint8_t* to, int32_t n) {
    const int64_t there = std::clamp<int64_t>(length - offset, 0, n);
    if (offset >= 0 && there > 0) std::memcpy(to, buffer + offset, size_t(there));
    return int32_t(there);
  };
  return walk_chunks(get, h);
}

int32_t parse_wave_header(const uint8_t* buffer, int32_t length, int32_t& rate, int32_t& bits, int32_t& channels,
                          uint32_t& data_size, int32_t& data_offset) {
  WaveHeader h;
  int32_t code = parse_wave_header(buffer, length, h);
  rate = h.rate;
  bits = h.bits;
  channels = h.channels;
  data_size = h.data_size;
  data_offset = int32_t(h.data_offset);
  return code;
}

int32_t probe_wave_file(const char* path, WaveHeader& h) {
  h = WaveHeader{};
  std::FILE* file = std::fopen(path, "rb");
  if (!file) return format::ERR_READ;
  int32_t code = probe_open_file(file, h);
  std::fclose(file);
  return code;
}

int32_t open_wave_input(const char* path, int32_t& rate, int32_t& bits, int32_t& channels, uint32_t& data_size,
                        WaveHeader* header) {
  close_wave_input();
  WaveInput& in = wave_in;
  WaveHeader h;
  in.buffer = static_cast<uint8_t*>(std::malloc(WAVE_IN_BUFFER_BYTES));
  if (!in.buffer) return format::ERR_NO_MEMORY;
  in.file = std::fopen(path, "rb");
  int32_t code = in.file ? probe_open_file(in.file, h) : format::ERR_READ;
  if (header) *header = h;
  if (code == format::ERR_OK && std::fseek(in.file, long(h.data_offset), SEEK_SET) != 0) code = format::ERR_READ;
  if (code != format::ERR_OK) {
    close_wave_input();
    return code;
  }
  rate = h.rate;
  bits = h.bits;
  channels = h.channels;
  data_size = h.data_size;

  static uint32_t opened = 0;
  in.serial = ++opened;
  in.rate = rate;
  in.bits = bits;
  in.channels = channels;
  in.is_float = h.is_float;
  in.data_size = data_size;
  in.data_left = data_size;
  in.bytes_per_frame = h.block_align;
  in.frames = data_size / uint32_t(h.block_align);
  in.frames_per_half = WAVE_HALF_BYTES / 4;
  std::memset(in.buffer, 0, WAVE_IN_BUFFER_BYTES);
  // The first half goes into half 0: load_next_half counts from -1.
  in.half = -1;
  in.limit = 0;
  load_next_half();
  return format::ERR_OK;
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

  const int16_t* p = reinterpret_cast<const int16_t*>(in.buffer) + 2 * place;
  left = p[0];
  right = p[1];
}

void close_wave_input() {
  WaveInput& in = wave_in;
  if (in.file) std::fclose(in.file);
  std::free(in.buffer);
  in = WaveInput{};
}

bool same_file(const char* in_path, const char* out_path) {
  struct stat in, out;
  if (stat(in_path, &in) != 0 || stat(out_path, &out) != 0) return false;
  return S_ISREG(in.st_mode) && in.st_dev == out.st_dev && in.st_ino == out.st_ino;
}

void remove_partial_output(const char* path) {
  struct stat st;
  if (path && stat(path, &st) == 0 && S_ISREG(st.st_mode)) std::remove(path);
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
  if (!out.buffer) return format::ERR_NO_MEMORY;
  out.file = std::fopen(path, "wb");
  if (!out.file) {
    close_wave_output();
    return format::ERR_CREATE_OUTPUT;
  }
  out.rate = rate;
  out.bits = bits;
  out.channels = channels;
  out.bytes_per_frame = bits * channels / 8;
  uint8_t header[WAVE_HEADER_BYTES];
  make_wave_header(header, rate, bits, channels, data_size_estimate);
  if (std::fwrite(header, 1, sizeof header, out.file) != sizeof header) {
    close_wave_output();
    remove_partial_output(path);
    return format::ERR_WRITE;
  }
  return format::ERR_OK;
}

int32_t write_wave_frame(int32_t left, int32_t right) {
  WaveOutput& out = wave_out;
  if (!out.file) return format::ERR_WRITE;
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
    out.status = format::ERR_WRITE;
    close_wave_output();
    return format::ERR_WRITE;
  }
  return format::ERR_OK;
}

int32_t close_wave_output() {
  WaveOutput& out = wave_out;
  if (!out.file) {
    // Nothing open: a close after the close that a failed write made, or before any open.
    std::free(out.buffer);
    out = WaveOutput{};
    return format::ERR_OK;
  }
  bool ok = out.status == format::ERR_OK && flush_output();
  uint8_t header[WAVE_HEADER_BYTES];
  make_wave_header(header, out.rate, out.bits, out.channels, uint32_t(out.frames * out.bytes_per_frame));
  if (std::fseek(out.file, 0, SEEK_SET) != 0 || std::fwrite(header, 1, sizeof header, out.file) != sizeof header)
    ok = false;
  if (std::fclose(out.file) != 0) ok = false;
  std::free(out.buffer);
  out = WaveOutput{};
  return ok ? format::ERR_OK : format::ERR_WRITE;
}

}  // namespace tools
