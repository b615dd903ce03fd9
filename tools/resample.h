// The high-quality resampler: a PCM WAVE file in, a PCM WAVE file out at another sampling rate,
// bit depth or channel count, on a job thread of its own. There is no stored filter: at each output
// instant one of three kernels (linear, cubic convolution, truncated sinc) is evaluated directly on
// the input samples; when the rate goes down the sinc is a windowed one cut at the output's Nyquist
// frequency, so that nothing aliases.
//
// Threads: start_resample runs on the main thread while its Job is idle, sets the job up and starts
// it, and the job's thread from then on owns the WAVE reader and writer and everything below. The
// main thread stops it only through the job's Cancel word, which the job reads every 4096 output
// frames. A job that fails (job.code holds its format::Error) or is cancelled leaves no output. The job reports by
// posting MSG_RESAMPLE_PROGRESS (frames done, frames in all), MSG_PROGRESS_STATUS (result code, 0) and MSG_PROGRESS_END
// to the progress window, and in a batch MSG_BATCH_RESAMPLE_STATE to the batch window.
#pragma once

#include <cstdint>
#include <string>

#include "format/errors.h"
#include "session/job.h"

namespace tools {

// resample_quality: 0 linear, 1 cubic, 2 and up the sinc's taps; the job cuts it to this.
constexpr int32_t RESAMPLE_QUALITY_MAX = 102;
// Output frames between progress messages (and looks at the cancel flag).
constexpr int64_t RESAMPLE_PROGRESS_MASK = 0xFFF;

// A kernel: the output frame at an input position, on the 16-bit scale, truncated towards zero.
using KernelFn = void (*)(double position, int32_t& left, int32_t& right);

struct ResampleState {
  int32_t quality = 0;  // resample_quality
  double step = 1.0;    // input rate / output rate
  int64_t total = 0;    // output frames
  int64_t limit = 0;    // input frames
  KernelFn kernel = nullptr;
  int32_t job_index = 0;  // the batch entry being worked on
};

extern ResampleState resample;

// Prepares the job on the caller's thread and starts it. Returns 0, format::ERR_BUSY,
// format::ERR_SAME_FILE, or a format::Error: the input's, format::ERR_NO_MEMORY, format::ERR_CREATE_OUTPUT when the
// output cannot be created, format::ERR_WRITE when its header cannot be written, format::ERR_WAVE_FORMAT for an output
// format other than 8 or 16 bits, 1 or 2 channels and a positive rate.
int32_t start_resample(session::Job& job, const char* input_path, const char* output_path, int32_t rate, int32_t bits,
                       int32_t channels, int32_t quality);

// The kernels. All read through read_wave_frame; kernel_sinc takes resample.quality taps. A job
// that lowers the rate with a quality of 2 and up uses kernel_lowpass instead of kernel_sinc: a
// windowed sinc cut at the output's Nyquist frequency, set up by the job's start.
void kernel_linear(double position, int32_t& left, int32_t& right);
void kernel_cubic(double position, int32_t& left, int32_t& right);
void kernel_sinc(double position, int32_t& left, int32_t& right);
void kernel_lowpass(double position, int32_t& left, int32_t& right);
// kernel_sinc for count consecutive positions at once; the same values as count calls of it, in a
// fraction of the time.
void kernel_sinc_block(const double* positions, int32_t count, int32_t* left, int32_t* right);
// Rounds to the nearest single-precision value (ties to even) and back: float(v) for every v whose
// float is normal, which the sinc's sums and divisors always are.
double round_to_single(double v);
// The cubic convolution weight (parameter -1) at distance x.
double cubic_weight(double x);
// The sine used by kernel_sinc, for arguments within (-2 pi, 2 pi): a fixed polynomial, so that
// outputs are the same on every machine and in the scalar and vector paths.
double sinc_sine(double x);

// Hook of the batch worker (session/batch_run.cpp): row's paths and choices. Returns 0 when no row
// is left.
int32_t next_resample_job(std::string& input_path, std::string& output_path, int32_t& rate, int32_t& bits,
                          int32_t& channels, int32_t& quality, int32_t row);

}  // namespace tools
