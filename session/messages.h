// Numbered messages from job threads and sessions to the windows, and message boxes by code.
//
// A front end installs one Sink: the GTK program queues messages to its main loop (posted ones in
// order; a sent one runs on the main thread before the sender goes on), tovra-cli turns them into a
// progress bar and exit codes, tests record them. A message to a window that is not open is dropped,
// as a posted message to a null window is. Any thread may post; the sink must be thread-safe.
#pragma once

#include <atomic>
#include <cstdint>

namespace session {

enum Window : int32_t {
  WINDOW_PROGRESS = 0,  // progress window of single-file jobs
  WINDOW_BATCH = 1,     // batch list
  WINDOW_MAIN = 2,
  WINDOW_PLAYLIST = 3,
  WINDOW_COUNT = 4,
};

// Message numbers shared by the job threads, the batch list and the windows.
enum MessageId : int32_t {
  MSG_PROGRESS_END = 1046,          // 0, 0
  MSG_PROGRESS_FRAMES = 1047,       // frames done, sampling rate of the MPEG-1 row
  MSG_SPLIT_PROGRESS = 1048,        // file position, file size
  MSG_SPLIT_END = 1049,             // result code, bytes read
  MSG_RESAMPLE_PROGRESS = 1050,     // frames done, frames in all
  MSG_PROGRESS_STATUS = 1051,       // result code of the resampler (0 for success); the encoder clears with 0
  MSG_PROGRESS_ENCODE = 1052,       // data bytes left, data bytes in all
  MSG_PROGRESS_NEXT = 1053,         // 0, 0
  MSG_BATCH_JOB_STATE = 1057,       // state, job index
  MSG_BATCH_RESAMPLE_STATE = 1061,  // state as batch_job_state (0 meaning resampling), entry index
  MSG_BATCH_PROGRESS_GONE = 1064    // 0, 0; sent, not posted
};

// batch_job_state values.
enum BatchJobState : int32_t {
  JOB_LIST_FINISHED = -1,
  JOB_STARTED = 0,
  JOB_DONE = 1,
  JOB_CANCELLED = 2,
  JOB_NOT_READABLE = 3,
  JOB_FAILED = 4,
};

// Message box kinds; the answer codes follow the classic ones (1 OK, 2 Cancel, 6 Yes, 7 No).
enum BoxKind : int32_t { BOX_OK = 0, BOX_OK_CANCEL = 1, BOX_YES_NO = 4 };
enum BoxAnswer : int32_t { ANSWER_OK = 1, ANSWER_CANCEL = 2, ANSWER_YES = 6, ANSWER_NO = 7 };

struct Sink {
  // Called on the poster's thread; sent is true for send_message.
  void (*message)(int32_t window, int32_t msg, int64_t wparam, int64_t lparam, bool sent) = nullptr;
  // Shows the message box of code (a format::Error or a session::Text) with its argument (a path,
  // or nullptr), worded through session/message_text.h, and returns its BoxAnswer.
  int32_t (*box)(int32_t code, const char* arg, int32_t kind) = nullptr;
};

// Installs the front end's sink (main thread, before any job starts), and points the library's
// report hooks (a refused text file, a finished folder scan) at it.
void set_sink(const Sink& sink);
// Marks a window open or closed; messages to a closed window are dropped.
void set_window_open(int32_t window, bool open);
bool window_open(int32_t window);

void post_message(int32_t window, int32_t msg, int64_t wparam = 0, int64_t lparam = 0);
void send_message(int32_t window, int32_t msg, int64_t wparam = 0, int64_t lparam = 0);
// Without a sink the box is not shown and the answer is ANSWER_OK (or ANSWER_NO for questions).
int32_t message_box(int32_t code, const char* arg = nullptr, int32_t kind = BOX_OK);

}  // namespace session
