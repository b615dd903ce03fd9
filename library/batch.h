// The batch converter's job list: one conversion a row, in one of three modes, every parameter of a
// job kept as the text of its row's columns (the list is the job store: the worker reads a row back
// at the start of its job). Also the .m3e list files, and the captions and column texts the batch
// window shows, as pure functions.
//
// Threads: a list belongs to the front end's main thread. While a batch runs, the worker reads rows
// under run_lock (session/batch_run.h) and status changes arrive as messages on the main thread.
//
// Paths are bytes (code page 932 in lists written elsewhere) and are never re-encoded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace library {

enum BatchMode : int32_t { BATCH_ENCODE = 0, BATCH_DECODE = 1, BATCH_RESAMPLE = 2 };

enum BatchStatus : int32_t {
  STATUS_NONE = 0,
  STATUS_RUNNING = 1,
  STATUS_DONE = 2,
  STATUS_BREAK = 3,      // cancelled
  STATUS_SKIP = 4,       // the source couldn't be read as this mode's input
  STATUS_NOT_FOUND = 5,  // the source doesn't exist
  STATUS_ERROR = 6,      // the job started and failed (a write error, a damaged stream)
};

// Columns between the source and the status, by mode: encode "s.freq", "lay", "kbps", "psy",
// "emphas", "flags"; decode "Format"; resample "Quality", "Format (Hz/[bit])".
constexpr int32_t BATCH_FIELDS = 6;

struct BatchEntry {
  std::string target;
  std::string source;
  std::string fields[BATCH_FIELDS];
  int32_t status = STATUS_NONE;
};

struct BatchList {
  int32_t mode = BATCH_DECODE;
  std::vector<BatchEntry> entries;
};

// What a new row is filled from: the mode's output folder and the current choices of each mode.
struct BatchChoices {
  std::string out_dir;  // empty: beside the source
  int32_t ext_filter = 1;
  // Encode: the row's EncoderParams as the single encode command takes them.
  int32_t layer = 2, kbps = 0, psy_model = 1, emphasis = 0;
  char mode_letter = 's';       // 's' stereo, 'j' joint, 'd' dual, 'm' mono
  std::string flags = "-----";  // private, CRC, copyright, original, WAVE wrapper: 'o' on
  // Resample: the target; 0 takes the source's bits and channels.
  int32_t rate = 0, bits = 0, channels = 0, quality = 20;
};

// Adds source as a row (row -1 appends). Returns 1, or 0 when the list holds that source already
// (compared blind to case).
int32_t add_batch_entry(BatchList& list, const std::string& source, const BatchChoices& choices, int32_t row = -1);

// The .m3e list: one source a line, CR LF. write returns 1, or 0 when the file couldn't be written.
// read adds each non-empty line by add_batch_entry; returns the rows added, -1 if the file was
// refused (missing, or beyond the text file limits).
constexpr const char* BATCH_LIST_DEFAULT_NAME = "TOVRA.m3e";
int32_t write_batch_list(const BatchList& list, const char* path);
int32_t read_batch_list(BatchList& list, const char* path, const BatchChoices& choices);

// The window's texts.
const char* batch_column_title(int32_t mode, int32_t column);  // nullptr beyond the last column
int32_t batch_column_count(int32_t mode);
// The text of a row's column (target, source, fields..., status).
std::string batch_column_text(int32_t mode, const BatchEntry& entry, int32_t column);
const char* batch_status_text(int32_t mode, int32_t status);
const char* batch_ready_caption(int32_t mode);
// "[n/total] decoding..." while entry index of total runs.
std::string batch_running_caption(int32_t mode, int32_t index, int32_t total);
// The remaining time of an encoding batch: elapsed whole seconds on the current file, units
// (bytes / 256) left in all and done of the current file. Minutes, at least 1; -1 before anything
// is done.
int32_t batch_remaining_minutes(int64_t elapsed_seconds, int64_t units_total, int64_t units_done);

// Reads a row back for its job. Decode: the format code 0-4 of the "Format" column. Resample: rate,
// bits and channels behind the arrow, and the quality. Encode: layer, kbps, model, emphasis, the
// mode letter and flags.
int32_t batch_decode_format(const BatchEntry& entry);
// A decode row's format 0-4 ("raw" .. "voc"): the "Format" column and the target's extension.
void set_decode_format(BatchEntry& entry, int32_t code);
void batch_resample_params(const BatchEntry& entry, int32_t& rate, int32_t& bits, int32_t& channels, int32_t& quality);
// A WAVE file's facts from its header; false when it can't be read as PCM WAVE.
bool probe_wave(const char* path, int32_t& rate, int32_t& bits, int32_t& channels, uint32_t& data_size);

}  // namespace library
