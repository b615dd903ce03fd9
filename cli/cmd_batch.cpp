// tovra-cli batch LIST.m3e --mode encode|decode|resample [--out DIR] [--jobs N] [job options]: the
// batch converter's list and worker for scripts. Each row's status is printed as the window's column
// shows it; a terminal gets one bar over the whole list. Exit 1 when any row did not end "done.".
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "cli/commands.h"
#include "cli/console.h"
#include "library/batch.h"
#include "library/ini.h"
#include "library/settings.h"
#include "session/batch_run.h"
#include "session/messages.h"

namespace cli {

namespace {

constexpr const char* USAGE =
    "usage: tovra-cli batch LIST.m3e --mode encode|decode|resample [--out DIR] [--jobs N] [job options]\n"
    "  LIST.m3e holds one source path a line. Outputs go to DIR, else to the batch folder of the\n"
    "  settings (BatchEncDir, BatchDecDir, BatchResDir), else beside each source.\n"
    "  --jobs N   rows converted at once (default: the number of processors)\n"
    "  decode:    --format raw|wav|aif|au|voc (default wav)\n"
    "  resample:  --rate HZ [--bits 8|16] [--channels 1|2] [--quality Q] (default 20)\n"
    "  encode:    [--layer 1|2|3] [--bitrate KBPS] [--stereo|--joint|--mono] [--model 1|2]\n"
    "             [--emphasis none|50/15|ccitt] [--crc] [--private] [--copyright] [--original] [--wave-header]\n";

session::BatchRun* the_run = nullptr;
std::atomic<int32_t> rows_ended{0};
int32_t row_count = 0;

bool on_batch_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (msg != session::MSG_BATCH_JOB_STATE && msg != session::MSG_BATCH_RESAMPLE_STATE) return false;
  static std::mutex status_lock;  // rows report from the worker and the conversion threads
  std::lock_guard<std::mutex> hold(status_lock);
  int32_t row = session::apply_batch_state(*the_run, int32_t(wparam), lparam);
  if (row < 0) return true;
  const library::BatchEntry& e = the_run->list->entries[row];
  finish_progress();
  std::printf("%-14s %s -> %s\n", library::batch_status_text(the_run->list->mode, e.status), e.source.c_str(),
              e.target.c_str());
  std::fflush(stdout);
  if (e.status != library::STATUS_RUNNING) rows_ended.fetch_add(1);
  draw_progress(rows_ended.load(), row_count);
  return true;
}

void on_interrupt(int) {
  if (the_run) session::cancel_batch(*the_run);
}

int fail(const char* what, const char* arg) {
  std::fprintf(stderr, "tovra-cli batch: %s%s\n", what, arg ? arg : "");
  return 2;
}

// The mode's output folder of the settings file, read alone: the rest of the settings would change
// what the single commands write.
std::string settings_folder(int32_t mode) {
  library::IniFile ini;
  library::ini_load(ini, library::settings_file_path());
  std::string dir;
  library::ini_get_string(ini, "Position",
                          mode == library::BATCH_ENCODE   ? "BatchEncDir"
                          : mode == library::BATCH_DECODE ? "BatchDecDir"
                                                          : "BatchResDir",
                          dir);
  return dir;
}

}  // namespace

int cmd_batch(int argc, char** argv) {
  const char* list_path = nullptr;
  const char* out_dir = nullptr;
  int32_t mode = -1;
  long jobs = sysconf(_SC_NPROCESSORS_ONLN);
  library::BatchChoices c;
  for (int i = 0; i < argc; ++i) {
    const char* a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    auto is = [&](const char* name) { return std::strcmp(a, name) == 0; };
    if (is("--help") || is("-h")) {
      std::fputs(USAGE, stdout);
      return 0;
    }
    bool takes_value = is("--mode") || is("--out") || is("--jobs") || is("--format") || is("--rate") || is("--bits") ||
                       is("--channels") || is("--quality") || is("--layer") || is("--bitrate") || is("--model") ||
                       is("--emphasis");
    if (takes_value && !v) return fail(a, " needs a value");
    int number = v ? std::atoi(v) : 0;
    if (is("--mode")) {
      mode = std::strcmp(v, "encode") == 0     ? library::BATCH_ENCODE
             : std::strcmp(v, "decode") == 0   ? library::BATCH_DECODE
             : std::strcmp(v, "resample") == 0 ? library::BATCH_RESAMPLE
                                               : -2;
      if (mode == -2) return fail("--mode is encode, decode or resample", nullptr);
    } else if (is("--out")) {
      out_dir = v;
    } else if (is("--jobs")) {
      jobs = number;
      if (jobs < 1) return fail("--jobs needs a count of 1 or more", nullptr);
    } else if (is("--format")) {
      constexpr const char* names[] = {"raw", "wav", "aif", "au", "voc"};
      c.ext_filter = -1;
      for (int32_t f = 0; f < 5; ++f)
        if (std::strcmp(v, names[f]) == 0) c.ext_filter = f;
      if (c.ext_filter < 0) return fail("unknown format ", v);
    } else if (is("--rate")) {
      c.rate = number;
    } else if (is("--bits")) {
      c.bits = number;
    } else if (is("--channels")) {
      c.channels = number;
    } else if (is("--quality")) {
      c.quality = number;
    } else if (is("--layer")) {
      if (number < 1 || number > 3) return fail("--layer is 1, 2 or 3", nullptr);
      c.layer = number;
    } else if (is("--bitrate")) {
      c.kbps = number;
    } else if (is("--model")) {
      if (number != 1 && number != 2) return fail("--model is 1 or 2", nullptr);
      c.psy_model = number;
    } else if (is("--emphasis")) {
      c.emphasis = std::strcmp(v, "none") == 0    ? 0
                   : std::strcmp(v, "50/15") == 0 ? 1
                   : std::strcmp(v, "ccitt") == 0 ? 2
                                                  : -1;
      if (c.emphasis < 0) return fail("--emphasis is none, 50/15 or ccitt", nullptr);
    } else if (is("--crc") || is("--private") || is("--copyright") || is("--original") || is("--wave-header")) {
      // Flag columns in the row's order: private, CRC, copyright, original, WAVE wrapper.
      c.flags[is("--private") ? 0 : is("--crc") ? 1 : is("--copyright") ? 2 : is("--original") ? 3 : 4] = 'o';
    } else if (is("--stereo") || is("--joint") || is("--mono")) {
      c.mode_letter = a[2];  // 's', 'j', 'm': --mode names the batch's mode here
    } else if (a[0] == '-' && a[1] == '-') {
      return fail("unknown option ", a);
    } else if (!list_path) {
      list_path = a;
    } else {
      return fail("unexpected argument ", a);
    }
    if (takes_value) ++i;
  }
  if (!list_path || mode < 0) {
    std::fputs(USAGE, stderr);
    return 2;
  }
  if (mode == library::BATCH_RESAMPLE && c.rate == 0) return fail("resample needs --rate", nullptr);
  c.out_dir = out_dir ? out_dir : settings_folder(mode);

  library::BatchList list;
  list.mode = mode;
  if (library::read_batch_list(list, list_path, c) < 0) {
    report(format::ERR_OPEN_INPUT, list_path);
    return 1;
  }
  session::BatchRun run;
  run.list = &list;
  run.jobs = int32_t(jobs);
  the_run = &run;
  row_count = int32_t(list.entries.size());
  console.on_message = on_batch_message;
  // The rows report to the batch list; no progress window stands open between them.
  session::set_window_open(session::WINDOW_BATCH, true);
  session::set_window_open(session::WINDOW_PROGRESS, false);
  std::signal(SIGINT, on_interrupt);
  session::start_batch(run);
  session::wait_job(run.worker);
  std::signal(SIGINT, SIG_DFL);
  finish_progress();
  the_run = nullptr;
  if (run.cancel_all.load()) return 130;
  for (const library::BatchEntry& e : list.entries)
    if (e.status != library::STATUS_DONE) return 1;
  return 0;
}

}  // namespace cli
