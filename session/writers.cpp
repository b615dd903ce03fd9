// How the writers work: the header's size is reserved as zero bytes, the samples are appended
// block by block with one write call each, and the finish takes the file position as the end of the
// audio, appends what belongs behind the samples (the WAVE trailer, the VOC terminator), rewinds and
// writes the header in one piece.
//
// Sample byte order: WAVE, VOC and raw hold little-endian samples, AIFF and AU big-endian ones, for
// every layer.
#include "session/writers.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "session/session.h"
#include "session/stream.h"

namespace session {

// Samples are written from memory as they lie; the formats' little-endian orders rely on that.
static_assert(std::endian::native == std::endian::little);

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

// Header sizes by ext_filter: raw, WAVE, AIFF, AU, VOC. The AU header has the 4-byte annotation
// field that readers expect behind its six words.
constexpr int32_t header_bytes[5] = {0, 44, 54, 28, 42};
constexpr int32_t WAVE_TRAILER_BYTES = 88;

// A short count is a failed write: the data did not all reach the file. The job goes on; the
// progress window tells the user at its end.
void write_or_flag(const void* data, size_t bytes) {
  if (std::fwrite(data, 1, bytes, state.out_file) != bytes) state.write_failed.store(1, relaxed);
}

struct Bytes {
  uint8_t data[96];
  int32_t size = 0;

  void text(const char* s, size_t n) {
    std::memcpy(data + size, s, n);
    size += int32_t(n);
  }
  void text(const char* s) { text(s, std::strlen(s)); }
  void le(uint32_t v, int32_t n) {
    for (int32_t i = 0; i < n; ++i) data[size++] = uint8_t(v >> (8 * i));
  }
  void be(uint32_t v, int32_t n) {
    for (int32_t i = n - 1; i >= 0; --i) data[size++] = uint8_t(v >> (8 * i));
  }
};

int32_t header_rate(const FrameHeader& h) {
  // Only checked headers reach a finish; a stray index falls back to the first rate of its row.
  FrameHeader checked = h;
  checked.id = h.id == 0 ? 0 : 1;
  if (checked.sampling_index < 0 || checked.sampling_index > (checked.id ? 2 : 5)) checked.sampling_index = 0;
  return header_hz(checked);
}

// Headers and trailers are written without looking at the result: the sample writes decide whether
// a job failed, and a file whose samples went out has room for its header.
void write_unchecked(const Bytes& b) { std::fwrite(b.data, 1, size_t(b.size), state.out_file); }

void write_header_at_start(const Bytes& b) {
  std::fseek(state.out_file, 0, SEEK_SET);
  write_unchecked(b);
}

void finish_wave(int32_t end, int32_t rate, int32_t channels) {
  Bytes trailer;
  trailer.text("LIST");
  trailer.le(80, 4);
  trailer.text("INFO");
  trailer.text("ISFT");
  trailer.le(18, 4);
  trailer.text("TOVRA for Windows", 18);
  trailer.text("ICMT");
  trailer.le(42, 4);
  trailer.text("Converted by TOVRA from MPEG/Audio stream", 42);
  static_assert(sizeof "TOVRA for Windows" == 18 && sizeof "Converted by TOVRA from MPEG/Audio stream" == 42);
  std::fseek(state.out_file, end, SEEK_SET);
  write_unchecked(trailer);

  Bytes h;
  h.text("RIFF");
  h.le(uint32_t(end + WAVE_TRAILER_BYTES - 8), 4);  // counts the trailer
  h.text("WAVEfmt ");
  h.le(16, 4);
  h.le(1, 2);
  h.le(uint32_t(channels), 2);
  h.le(uint32_t(rate), 4);
  h.le(uint32_t(rate * channels * 2), 4);
  h.le(uint32_t(channels * 2), 2);
  h.le(16, 2);
  h.text("data");
  h.le(uint32_t(end - 44), 4);  // the samples alone
  write_header_at_start(h);
}

void finish_aiff(int32_t end, int32_t rate, int32_t channels) {
  constexpr int32_t SAMPLES_AT = 54;
  // No frame decoded would leave no channel count; the division must not fault then.
  int32_t frame_bytes = (channels > 0 ? channels : 1) * 2;
  Bytes h;
  h.text("FORM");
  h.be(uint32_t(end - 8), 4);
  h.text("AIFFCOMM");
  h.be(18, 4);
  h.be(uint32_t(channels), 2);
  h.be(uint32_t((end - SAMPLES_AT) / frame_bytes), 4);
  h.be(16, 2);
  // The rate as an 80-bit extended number: the integer shifted up until its top bit is the
  // mantissa's explicit leading one, and the exponent counting the shift.
  const uint32_t r = uint32_t(rate > 0 ? rate : 1);
  const int32_t top = 31 - std::countl_zero(r);
  h.be(uint32_t(16383 + top), 2);
  h.be(r << (31 - top), 4);
  h.be(0, 4);
  h.text("SSND");
  h.be(uint32_t(end - SAMPLES_AT + 8), 4);  // the offset and block size words count too
  h.be(0, 4);                               // offset
  h.be(0, 4);                               // block size
  write_header_at_start(h);
}

void finish_au(int32_t end, int32_t rate, int32_t channels) {
  constexpr int32_t SAMPLES_AT = 28;
  Bytes h;
  h.text(".snd");
  h.be(SAMPLES_AT, 4);
  h.be(uint32_t(end - SAMPLES_AT), 4);
  h.be(3, 4);  // 16-bit linear PCM
  h.be(uint32_t(rate), 4);
  h.be(uint32_t(channels), 4);
  h.be(0, 4);  // an empty annotation
  write_header_at_start(h);
}

void finish_voc(int32_t end, int32_t rate, int32_t channels) {
  Bytes terminator;
  terminator.le(0, 1);
  std::fseek(state.out_file, end, SEEK_SET);
  write_unchecked(terminator);

  Bytes h;
  h.text("Creative Voice File");
  h.le(0x1A, 1);
  h.le(26, 2);      // header size
  h.le(0x0114, 2);  // version
  h.le(0x111F, 2);  // version check
  h.le(9, 1);       // sound data in the extended format
  h.le(uint32_t(end - 30), 3);
  h.le(uint32_t(rate), 4);
  h.le(16, 1);
  h.le(uint32_t(channels), 1);
  h.le(4, 2);  // 16-bit PCM
  h.le(0, 4);
  write_header_at_start(h);
}

// Writes bytes of 16-bit samples in the output format's byte order.
void write_samples(const int16_t* samples, size_t bytes) {
  if (options.ext_filter == EXT_AIF || options.ext_filter == EXT_AU) {
    uint8_t swapped[2304];
    const auto* src = reinterpret_cast<const uint8_t*>(samples);
    for (size_t i = 0; i + 1 < bytes && i < sizeof swapped; i += 2) {
      swapped[i] = src[i + 1];
      swapped[i + 1] = src[i];
    }
    write_or_flag(swapped, bytes);
  } else {
    write_or_flag(samples, bytes);
  }
}

// The samples a file job drops at the start and keeps after them (-1: all), when the stream's Info
// frame recorded the encoder's delay and padding. The synthesis and the overlap of Layer III delay
// the output by 529 samples, as in every decoder of the standard's structure.
constexpr int64_t DECODER_DELAY = 529;
struct Trim {
  int64_t skip = 0;
  int64_t keep = -1;
};
Trim trim;

}  // namespace

void write_decoded_block(const int16_t* block) { write_decoded_frames(block, 576); }

void write_decoded_frames(const int16_t* block, int32_t frames) {
  if (frames <= 0 || frames > 576) return;
  // Gapless: the encoder's delay and the decoder's own at the start are dropped, and what stands
  // behind the stream's real length.
  const size_t channels = decoding.channels == 2 ? 2 : 1;
  int64_t first = std::min<int64_t>(frames, trim.skip);
  trim.skip -= first;
  int64_t count = frames - first;
  if (trim.keep >= 0) {
    count = std::min(count, trim.keep);
    trim.keep -= count;
  }
  if (count <= 0) return;
  write_samples(block + size_t(first) * channels, size_t(count) * channels * 2);
}

void reserve_header(int32_t ext_filter) {
  trim = Trim{};
  if (options.gapless && stream.encoder_delay >= 0) {
    trim.skip = stream.encoder_delay + DECODER_DELAY;
    trim.keep = stream.total_samples;
  }
  if (ext_filter < EXT_WAV || ext_filter > EXT_VOC) return;
  static const uint8_t zeros[64] = {};
  write_or_flag(zeros, size_t(header_bytes[ext_filter]));
}

void finish_header(int32_t ext_filter, const FrameHeader& last) {
  // The end of the audio first: every size is measured from it.
  const int32_t end = int32_t(std::ftell(state.out_file));
  const int32_t rate = header_rate(last);
  // A stream of no audio frames (a lone Info frame) still gets a valid header: its first frame's.
  const int32_t channels = decoding.channels ? decoding.channels : stream.mode == 3 ? 1 : 2;
  switch (ext_filter) {
    case EXT_WAV:
      finish_wave(end, rate, channels);
      break;
    case EXT_AIF:
      finish_aiff(end, rate, channels);
      break;
    case EXT_AU:
      finish_au(end, rate, channels);
      break;
    case EXT_VOC:
      finish_voc(end, rate, channels);
      break;
    default:
      break;  // raw: nothing reserved, nothing to finish
  }
}

}  // namespace session
