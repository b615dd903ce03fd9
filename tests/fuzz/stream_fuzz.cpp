// Arbitrary bytes as an input: open_stream on them in memory (and the ID3v2 texts); for one input in
// eight, chosen by its last byte, also a whole file job over them as a file, and the probe. Nothing
// may crash, hang, leak or read out of bounds, whatever the wrappers, tags and frames say. The job
// needs a file and a thread per input, a hundred times the cost of the parse, so it runs on a
// share of the inputs and the parser on all of them.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "decoder/decoder.h"
#include "session/frame_reader.h"
#include "session/session.h"
#include "session/stream.h"

namespace {

std::string work_dir;

void remove_work_dir() {
  std::error_code ec;
  if (!work_dir.empty()) std::filesystem::remove_all(work_dir, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string pattern = (std::filesystem::temp_directory_path() / "tovra-fuzz-XXXXXX").string();
  if (!mkdtemp(pattern.data())) std::abort();
  work_dir = pattern;
  std::atexit(remove_work_dir);
  decoder::init_decoder_tables();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The last byte picks the options that open_stream and the job read, and whether the job runs.
  const uint8_t pick = data[size - 1];
  session::options.force_de_emphasis = pick & 3;
  session::options.hi_fi = (pick >> 2) & 1;
  session::options.ext_filter = (pick >> 3) % 5;

  session::reader.file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
  if (session::reader.file) {
    session::reset_decoding();
    session::open_stream();
    // What info reads beside: the leading ID3v2 tag's texts.
    if (session::stream.id3v2_start >= 0) session::read_id3v2_text(session::reader.file, session::stream.id3v2_start);
    std::fclose(session::reader.file);
    session::reader.file = nullptr;
  }
  if ((pick >> 5) != 0) return 0;

  const std::string in_path = work_dir + "/in.bin";
  const std::string out_path = work_dir + "/out.pcm";
  std::FILE* f = std::fopen(in_path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  // The job opens and closes both files itself.
  session::Job job;
  if (session::start_decode_file(job, in_path.c_str(), out_path.c_str()) == format::ERR_OK) session::wait_job(job);

  session::ProbeInfo info;
  session::probe_file(in_path.c_str(), info);
  return 0;
}
