// The high-quality resampler: a PCM WAVE file in, a PCM WAVE file out at another sampling rate,
// bit depth or channel count, on a job thread of its own. There is no stored filter: at each output
// instant one of three kernels (linear, cubic convolution, truncated sinc) is evaluated directly on
// the input samples; when the rate goes down the sinc is a windowed one cut at the output's Nyquist
// frequency, so that nothing aliases.
//
// Threads: resample_setup opens the WAVE reader and writer on the caller's thread; resample_run
// then owns them on whatever thread runs it (the session runs it as a job) until both are closed.
// The caller stops it through the Cancel word of its format::Work, read every 4096 output frames,
// when the progress (frames done, frames in all) is reported too.
#pragma once

#include <cstdint>
#include <string>

#include "format/errors.h"
#include "format/work.h"

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
};

extern ResampleState resample;

// Opens the input and the output and readies the kernel for rate, bits and channels. Returns
// ERR_OK, or a format::Error: the input's, ERR_NO_MEMORY, ERR_CREATE_OUTPUT when the output
// cannot be created, ERR_WRITE when its header cannot be written, ERR_WAVE_FORMAT for an output
// format other than 8 or 16 bits, 1 or 2 channels and a positive rate; on failure nothing is open.
int32_t resample_setup(const char* input_path, const char* output_path, int32_t rate, int32_t bits, int32_t channels,
                       int32_t quality);
// Writes the output frames after resample_setup. Returns ERR_OK at the end, the writer's error
// after a failed write, or WORK_CANCELLED; frames receives the count written. Both files stay open
// for the caller to close. pause_now_and_then sleeps 10 ms at each progress report, which the
// NT family's converters do to give the system a moment.
int32_t resample_run(const format::Work& work, bool pause_now_and_then, int64_t& frames);

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

}  // namespace tools
