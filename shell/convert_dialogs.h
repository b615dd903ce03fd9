// Single-file conversions started from the main window's menus: the file choosers, the busy and
// same-name refusals, and the progress dialog "tvrthreaddlg" that follows the job's progress
// messages (window WINDOW_PROGRESS) until it ends. Main thread only; job is the window's one
// converter job.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>

#include "session/job.h"

namespace shell {

// 40003 (path null) and a file dropped with Alt: decode MPEG audio to the chosen PCM format.
void convert_decode_file(session::Job& job, GtkWindow* parent, const char* path);
// 40005: extract the MPEG audio of a system stream.
void convert_split_file(session::Job& job, GtkWindow* parent);
// A progress message from the job's thread, delivered on the main thread.
void progress_message(int32_t msg, int64_t wparam, int64_t lparam);

}  // namespace shell
