#include "session/seek.h"

#include <algorithm>
#include <cstdio>

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

bool end_of_stream(int32_t code) { return code == FRAME_SHORT || code == FRAME_EOF; }

}  // namespace

int32_t seek_to_frame(FrameHeader& header) {
  int32_t target = state.seek_target.load(std::memory_order_relaxed);
  FrameHeader local = header;
  // The computed place is only near a frame; the sync search finds the next header behind it. Up to
  // ten places are tried, a frame further each time.
  for (int attempt = 0; attempt < 10; ++attempt) {
    std::fseek(reader.file, frame_position(target), SEEK_SET);
    int32_t code = read_frame(local);
    if (code == FRAME_OK) break;
    if (end_of_stream(code)) return stream.frame_count;
    ++target;
  }
  int32_t head = head_and_side_bytes(local);
  if (std::fseek(reader.file, head - 4, SEEK_CUR) != 0) return std::feof(reader.file) ? stream.frame_count : target;
  load_reservoir(frame_length(local) - head);
  int32_t code = read_frame(local);
  if (code == FRAME_OK) {
    header = local;
    return target;
  }
  return end_of_stream(code) ? stream.frame_count : target;
}

int32_t skip_frames_forward(FrameHeader& header, int32_t n) {
  FrameHeader local = header;
  for (int32_t done = 0; done < n; ++done) {
    int32_t head = head_and_side_bytes(local);
    if (std::fseek(reader.file, head - 4, SEEK_CUR) != 0) return std::feof(reader.file) ? done : -1;
    load_reservoir(frame_length(local) - head);
    int32_t code = read_frame(local);
    if (code == FRAME_SHORT) return done;
    if (code != FRAME_OK) return -1;
  }
  header = local;
  return n;
}

int32_t skip_frames_back(FrameHeader& header, int32_t n) {
  FrameHeader local = header;
  for (int32_t done = 0; done < n; ++done) {
    long size = frame_length(local) - (local.padding_bit << (local.layer_code == 3 ? 2 : 0));
    // Four header bytes, the frame, and one more to stand before the previous frame's sync.
    if (std::fseek(reader.file, -(size + 5), SEEK_CUR) != 0 && std::fseek(reader.file, -(size + 4), SEEK_CUR) != 0) {
      header = local;
      return done;
    }
    if (read_frame(local) != FRAME_OK) return -1;
  }
  header = local;
  return n;
}

}  // namespace session
