// Single-file conversions started from the main window's menus: the file choosers, the busy and
// same-name refusals, the settings dialogs of the encoder and the resampler, and the progress
// dialog "tvrthreaddlg" that follows the job's progress messages (window WINDOW_PROGRESS) until it
// ends, then closes or, with "Hold", waits for the user. Main thread only; job is the window's one
// converter job.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>

#include "encoder/encoder.h"
#include "session/job.h"

namespace shell {

// 40003 (path null) and a file dropped with Alt: decode MPEG audio to the chosen PCM format.
void convert_decode_file(session::Job& job, GtkWindow* parent, const char* path);
// 40005: extract the MPEG audio of a system stream.
void convert_split_file(session::Job& job, GtkWindow* parent);
// 40004 (path null) and a PCM WAVE given to the program: encode WAVE to MPEG audio.
void convert_encode_file(session::Job& job, GtkWindow* parent, const char* path);
// 40015: resample a WAVE file.
void convert_resample_file(session::Job& job, GtkWindow* parent);
// A progress message from the job's thread, delivered on the main thread.
void progress_message(int32_t msg, int64_t wparam, int64_t lparam);

// The encoder's choices, kept between runs of its dialog. bit_rate_index is the header's index, 0
// before one was chosen; the other fields start as the program's defaults (Layer III, model 2,
// original).
struct EncodeChoices {
  encoder::EncoderParams params{3, 1, 0, 0, 0, 2, 0, 0, 0, 0, 1};
  bool wave_header = false;
};
extern EncodeChoices encode_choices;

// The encode dialog "tvrencodedlg" on the WAVE file path, with the caller's bit rate index lowered
// by 1. Returns 1 on OK with c filled from the dialog; 0 on Cancel (the index restored) or for a
// file it refuses (after the message, with the index left lowered).
int32_t run_encode_dialog(GtkWindow* parent, const char* path, EncodeChoices& c);

// The resample dialog's results; quality holds a pending slider position (1..100) on entry, from
// a batch row, anything else starts the slider at 20.
struct ResampleChoices {
  int32_t rate = 0, bits = 16, channels = 2, quality = 0;
};
// The resample dialog "tvrresampledlg" on the WAVE file path. Returns 1 on OK with c filled (quality
// as the resampler takes it), 0 on Cancel or for a refused file (after the message).
int32_t run_resample_dialog(GtkWindow* parent, const char* path, ResampleChoices& c);

}  // namespace shell
