#include "encoder/job.h"

#include <cstring>
#include <memory>

#include "tools/wave.h"

namespace encoder {

namespace {

void put16(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}
void put32(uint8_t* p, uint32_t v) {
  put16(p, v & 0xFFFF);
  put16(p + 2, v >> 16);
}

}  // namespace

void make_mpeg_wave_header(uint8_t* h, const EncoderState& s, int64_t stream_bytes, int64_t frames) {
  const EncoderParams& p = s.params;
  if (p.layer == 3) {
    std::memset(h, 0, MP3_WAVE_HEADER_BYTES);
    std::memcpy(h, "RIFF", 4);
    put32(h + 4, uint32_t(stream_bytes + MP3_WAVE_HEADER_BYTES - 8));
    std::memcpy(h + 8, "WAVEfmt ", 8);
    put32(h + 16, 30);
    put16(h + 20, 85);  // MPEG Layer III
    put16(h + 22, uint32_t(s.stereo));
    put32(h + 24, uint32_t(s.rate_hz));
    put32(h + 28, uint32_t(s.kbps * 125));
    put16(h + 32, 1);
    put16(h + 34, 0);
    put16(h + 36, 12);
    put16(h + 38, 1);                                                          // ID: MPEG
    put32(h + 40, 2);                                                          // padding flags
    put16(h + 44, uint32_t((p.mpeg1 ? 144000 : 72000) * s.kbps / s.rate_hz));  // block size
    put16(h + 46, 1);                                                          // frames per block
    put16(h + 48, 1393);                                                       // codec delay
    std::memcpy(h + 50, "fact", 4);
    put32(h + 54, 4);
    put32(h + 58, uint32_t(frames * frame_samples(p)));
    std::memcpy(h + 62, "data", 4);
    put32(h + 66, uint32_t(stream_bytes));
    return;
  }
  std::memset(h, 0, MPEG_WAVE_HEADER_BYTES);
  std::memcpy(h, "RIFF", 4);
  put32(h + 4, uint32_t(stream_bytes + MPEG_WAVE_HEADER_BYTES - 8));
  std::memcpy(h + 8, "WAVEfmt ", 8);
  put32(h + 16, 40);
  put16(h + 20, 80);  // MPEG audio, Layers I and II
  put16(h + 22, uint32_t(s.stereo));
  put32(h + 24, uint32_t(s.rate_hz));
  put32(h + 28, uint32_t(s.kbps * 125));
  // Block alignment: the frame length when every frame has it, else 1 (padded frames vary).
  put16(h + 32, s.frac == 0 ? uint32_t(s.slot_bytes * s.whole_slots) : 1u);
  put16(h + 34, 0);
  put16(h + 36, 22);
  put16(h + 38, p.layer == 1 ? 1u : 2u);                            // head layer
  put32(h + 40, uint32_t(s.kbps * 1000));                           // head bit rate
  put16(h + 44, p.mode == 3 ? 8u : p.mode == 1 ? 2u : 1u);          // head mode
  put16(h + 46, p.mode == 1 ? 0x0Fu : 0u);                          // mode extensions used
  put16(h + 48, p.emphasis == 0 ? 1u : p.emphasis == 1 ? 2u : 4u);  // emphasis
  put16(h + 50, uint32_t((p.extension ? 1 : 0) | (p.copyright ? 2 : 0) | (p.original ? 4 : 0) |
                         (p.error_protection ? 8 : 0) | (p.mpeg1 ? 16 : 0)));  // head flags
  // 52..59: presentation time stamps, zero.
  std::memcpy(h + 60, "fact", 4);
  put32(h + 64, 4);
  put32(h + 68, uint32_t(frames * frame_samples(p)));
  std::memcpy(h + 72, "data", 4);
  put32(h + 76, uint32_t(stream_bytes));
}

int32_t encode_open(EncodeJob& job, const char* input_path, const char* output_path, EncoderParams params, int32_t kbps,
                    bool wave_header) {
  int32_t rate = 0, bits = 0, channels = 0;
  uint32_t data_size = 0;
  std::FILE* probe = std::fopen(input_path, "rb");
  if (!probe) return format::ERR_OPEN_INPUT;
  uint8_t head[12] = {};
  const bool riff_wave = std::fread(head, 1, 12, probe) == 12 && std::memcmp(head, "RIFF", 4) == 0 &&
                         std::memcmp(head + 8, "WAVE", 4) == 0;
  std::fclose(probe);
  int32_t code = tools::open_wave_input(input_path, rate, bits, channels, data_size);
  if (code == format::ERR_READ) return format::ERR_OPEN_INPUT;
  // A RIFF WAVE file the reader can't use (no "data" chunk, chunks that run off) is an invalid
  // WAVE file rather than no WAVE file at all.
  if (code == format::ERR_WAVE_NO_DATA || (code != format::ERR_OK && riff_wave)) return format::ERR_BAD_WAVE;
  if (code != format::ERR_OK) return format::ERR_NOT_WAVE;
  auto fail = [&](int32_t result) {
    tools::close_wave_input();
    return result;
  };
  if (channels != 1 && channels != 2) return fail(format::ERR_NOT_WAVE);
  if (!set_sample_rate(params, rate)) return fail(format::ERR_NOT_WAVE);
  if (data_size == 0) return fail(format::ERR_WAVE_EMPTY);
  if (channels == 1) params.mode = 3;
  params.bit_rate_index = bitrate_index(params.mpeg1, params.layer, kbps ? kbps : params.mpeg1 ? 192 : 96);
  job.channels = channels;
  job.downmix = channels == 2 && params.mode == 3;
  std::unique_ptr<EncoderState> state(new EncoderState);
  if (encoder_init(*state, params) != ENCODER_OK) return fail(format::ERR_BAD_PARAMS);
  job.out = std::fopen(output_path, "wb");
  if (!job.out) return fail(format::ERR_OPEN_OUTPUT);
  job.out_path = output_path;
  job.wave_header = wave_header;
  // An odd last byte of the data chunk is no whole sample frame and stays unread.
  job.frames_total = int64_t(data_size) / (int64_t(channels) * ((bits + 7) / 8));
  job.frames_read = 0;
  job.bytes_total = data_size;
  job.frames_written = 0;
  job.stream_bytes = 0;
  if (wave_header) {
    uint8_t zeros[MPEG_WAVE_HEADER_BYTES] = {};
    std::fwrite(zeros, 1, size_t(wave_header_bytes(params)), job.out);
  }
  job.state = state.release();
  return format::ERR_OK;
}

int32_t read_pcm_frame(EncodeJob& job, int16_t (*pcm)[FRAME_SAMPLES_L2]) {
  const int32_t want = frame_samples(job.state->params);
  int64_t left = job.frames_total - job.frames_read;
  int32_t take = left < want ? int32_t(left) : want;
  for (int32_t i = 0; i < take; ++i) {
    int32_t l, r;
    tools::read_wave_frame(job.frames_read + i, l, r);
    if (job.downmix) l = (l + r) / 2;
    pcm[0][i] = int16_t(l < -32768 ? -32768 : l > 32767 ? 32767 : l);
    pcm[1][i] = int16_t(r < -32768 ? -32768 : r > 32767 ? 32767 : r);
  }
  for (int32_t i = take; i < want; ++i) pcm[0][i] = pcm[1][i] = 0;
  job.frames_read += take;
  return take;
}

int32_t run_encode_job(EncodeJob& job, const format::Work& work) {
  bool cancelled = false;
  std::unique_ptr<EncoderState> owned(job.state);  // freed on every path out
  EncoderState& s = *job.state;
  int16_t pcm[2][FRAME_SAMPLES_L2];
  uint8_t frame[MAX_FRAME_BYTES];
  bool write_failed = false;
  const int64_t bytes_per_frame = job.frames_total ? job.bytes_total / job.frames_total : 1;
  for (int32_t got = read_pcm_frame(job, pcm); got > 0; got = read_pcm_frame(job, pcm)) {
    if (work.cancelled()) {
      cancelled = true;
      break;
    }
    if (job.frames_written % 4 == 0) {
      int64_t left = (job.frames_total - job.frames_read) * bytes_per_frame;
      work.report(left, job.bytes_total);
    }
    int32_t n = encode_frame(s, pcm, frame);
    if (std::fwrite(frame, 1, size_t(n), job.out) != size_t(n)) {
      write_failed = true;
      break;
    }
    job.stream_bytes += n;
    ++job.frames_written;
  }
  // Layer III holds its last frames until their main data is complete: write them, also when
  // cancelled (a kept output ends on a whole frame).
  if (!write_failed) {
    int32_t n = encode_flush(s, frame);
    if (std::fwrite(frame, 1, size_t(n), job.out) != size_t(n)) write_failed = true;
    job.stream_bytes += n;
  }
  int32_t result = cancelled ? format::WORK_CANCELLED : write_failed ? format::ERR_WRITE : format::ERR_OK;
  if (result == format::ERR_OK && job.wave_header) {
    uint8_t header[MPEG_WAVE_HEADER_BYTES];
    const size_t size = size_t(wave_header_bytes(s.params));
    make_mpeg_wave_header(header, s, job.stream_bytes, job.frames_written);
    if (std::fseek(job.out, 0, SEEK_SET) != 0 || std::fwrite(header, 1, size, job.out) != size)
      result = format::ERR_WRITE;
  }
  if (std::fclose(job.out) != 0 && result == format::ERR_OK) result = format::ERR_WRITE;
  job.out = nullptr;
  tools::close_wave_input();
  job.state = nullptr;
  if (result == format::ERR_OK) work.report(0, job.bytes_total);
  return result;
}

}  // namespace encoder
