// The converters as jobs of the one runner (session/job.h): the splitter, the resampler and the
// encoder started on a Job, with their progress posted to the progress window (and, for a
// resampling batch, the batch window).
//
// Each start runs on the caller's thread while its Job is idle, opens the files and starts the job,
// whose thread owns them from then on; the main thread stops it only through the job's Cancel
// word. A failed or cancelled job leaves no output (a cancelled one does with "Leave").
//   split:    MSG_SPLIT_PROGRESS (position, file size) per audio packet, MSG_SPLIT_END (result as
//             the progress window numbers it, bytes read) at the end unless cancelled.
//   resample: MSG_RESAMPLE_PROGRESS (frames done, in all), MSG_PROGRESS_STATUS (result, 0) and
//             MSG_PROGRESS_END; in a batch MSG_BATCH_RESAMPLE_STATE per entry, the entries after
//             the first fetched through next_resample_job.
//   encode:   MSG_PROGRESS_ENCODE (bytes left, in all) every fourth frame and at the end, then
//             MSG_PROGRESS_STATUS (0, 0) and MSG_PROGRESS_END; a cancelled or failed job posts nothing.
#pragma once

#include <cstdint>
#include <string>

#include "encoder/job.h"
#include "session/job.h"

namespace session {

// Return ERR_OK, ERR_BUSY while the job runs, ERR_SAME_FILE when the output would overwrite the
// input (nothing is opened), or why the files would not open.
int32_t start_split(Job& job, const char* input_path, const char* output_path);
int32_t start_resample(Job& job, const char* input_path, const char* output_path, int32_t rate, int32_t bits,
                       int32_t channels, int32_t quality);
// enc must live until the job has ended.
int32_t start_encode(Job& job, encoder::EncodeJob& enc, const char* input_path, const char* output_path,
                     encoder::EncoderParams params, int32_t kbps, bool wave_header);

// Hook of the batch worker (session/batch_run.cpp): row's paths and choices. Returns 0 when no row
// is left.
int32_t next_resample_job(std::string& input_path, std::string& output_path, int32_t& rate, int32_t& bits,
                          int32_t& channels, int32_t& quality, int32_t row);

}  // namespace session
