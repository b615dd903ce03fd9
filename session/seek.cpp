#include "session/seek.h"

#include <algorithm>
#include <cstdio>

#include "decoder/decoder.h"
#include "session/session.h"
#include "session/stream.h"

namespace session {

namespace {

// Where frame `target` begins, by the stream's seek points (each percent of the frames, from the
// header frame's table or the walk at open), interpolated within the percent; without them by the
// first frame's length.
long frame_position(int32_t target) {
  const int32_t* points = stream.seek_points;
  if (stream.frame_count <= 0 || points[100] <= points[0])
    return long(stream.data_start) + long(stream.frame_bytes) * target;
  const double p = std::clamp(100.0 * target / stream.frame_count, 0.0, 100.0);
  const int32_t i = std::min(99, int32_t(p));
  return long(points[i] + (p - i) * (points[i + 1] - points[i]));
}

// A frame's length without its padding: the step back over the frame before, whose padding is not
// known.
int32_t unpadded_length(const FrameHeader& h) {
  FrameHeader u = h;
  u.padding_bit = 0;
  return frame_length(u);
}

bool end_of_stream(int32_t code) { return code == FRAME_SHORT || code == FRAME_EOF; }

// Steps over the frame whose header was just read; its main data goes into the decoder's reservoir
// for the Layer III frames behind it. The file moves on by the frame, or at least by its header and
// side information.
void pass_over_frame(const FrameHeader& h) {
  const int32_t length = frame_length(h) - 4;
  const int32_t side = head_and_side_bytes(h) - 4;
  const int32_t wanted = length > side ? length : side;
  const int32_t got = read_frame_body(wanted);
  decoder::skip_frame(decoding, h, {reader.body, got, length});
}

}  // namespace

int32_t seek_to_frame(FrameHeader& header) {
  int32_t target = state.seek_target.load(std::memory_order_relaxed);
  FrameHeader local = header;
  // The computed place is only near a frame; the sync search finds the next header behind it. Up to
  // ten places are tried, a frame further each time.
  for (int attempt = 0; attempt < 10; ++attempt) {
    std::fseek(reader.file, frame_position(target), SEEK_SET);
    int32_t code = read_frame(local);
    if (frame_found(code)) break;
    if (end_of_stream(code)) return stream.frame_count;
    ++target;
  }
  pass_over_frame(local);
  int32_t code = read_frame(local);
  if (frame_found(code)) {
    header = local;
    return target;
  }
  return end_of_stream(code) ? stream.frame_count : target;
}

int32_t skip_frames_forward(FrameHeader& header, int32_t n) {
  FrameHeader local = header;
  for (int32_t done = 0; done < n; ++done) {
    pass_over_frame(local);
    int32_t code = read_frame(local);
    if (code == FRAME_SHORT) return done;
    if (!frame_found(code)) return -1;
  }
  header = local;
  return n;
}

int32_t skip_frames_back(FrameHeader& header, int32_t n) {
  FrameHeader local = header;
  for (int32_t done = 0; done < n; ++done) {
    long size = unpadded_length(local);
    // Four header bytes, the frame, and one more to stand before the previous frame's sync.
    if (std::fseek(reader.file, -(size + 5), SEEK_CUR) != 0 && std::fseek(reader.file, -(size + 4), SEEK_CUR) != 0) {
      header = local;
      return done;
    }
    if (!frame_found(read_frame(local))) return -1;
  }
  header = local;
  return n;
}

}  // namespace session
