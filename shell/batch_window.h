// The batch window "tvrenclistdlg": a list of conversions in one of three modes (encode, decode,
// resample) filled by drops, folder scans and .m3e lists, converted by the batch worker, with the
// rows' states, the remaining time of an encoding batch and the Ready captions in its title. It lives
// on the main thread; the worker's state messages reach it through the message sink (WINDOW_BATCH).
#pragma once

#include <cstdint>

namespace shell {

// 40036, 40055, 40069: opens the window in mode (library::BatchMode), or brings it forward.
void open_batch_window(int32_t mode);
bool batch_window_open();
bool batch_window_running();
// The program's end: closes the window without a question. A running batch is cancelled (the
// running rows stop, the rest are not started) and the window goes with the batch's last message;
// returns true when the window is gone already.
bool end_batch_window();
// A message of window WINDOW_BATCH.
void batch_window_message(int32_t msg, int64_t wparam, int64_t lparam);

}  // namespace shell
