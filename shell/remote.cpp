// The remote control: the codes of message 1024 that other programs and scripts send over the
// instance socket, carried out on the main thread, and the client that `tovra --remote` runs.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "library/instance.h"
#include "library/playlist.h"
#include "library/settings.h"
#include "output/wave.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/transport.h"
#include "shell/window.h"

namespace shell {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr int64_t VERSION = 0x1100;

bool session_playing() { return session::state.decoder_command.load(relaxed) == session::CMD_RUN; }

// Texts that arrive byte by byte, and the answer of 211/212 that leaves the same way.
struct RemoteState {
  library::HandOver hand_over;
  char work_dir[260] = {};
  int32_t work_dir_index = 0;
  char save_name[260] = {};
  int32_t save_index = 0;
  char add_path[260] = {};
  int32_t add_index = 0;
  std::string answer;
};
RemoteState remote_state;

// Collects one byte of a text sent byte by byte; returns 1 when the text ended with this byte.
int32_t text_byte(char* buffer, int32_t& index, int64_t byte) {
  if (byte == -1) {
    index = 0;
    return 0;
  }
  if (byte == 0) {
    buffer[index < 260 ? index : 259] = 0;
    index = 0;
    return 1;
  }
  if (index < 259) buffer[index++] = char(byte);
  return 0;
}

}  // namespace

int64_t remote_control(int64_t wparam, int64_t code) {
  switch (code) {
    case 0:
      return VERSION;
    case 100:
      if (text_byte(remote_state.add_path, remote_state.add_index, wparam))
        library::append_entry(remote_state.add_path);
      return 0;
    case 101:
      library::clear_playlist();
      return 0;
    case 102:
      post_command(CMD_PLAY, int32_t(wparam));
      return 0;
    case 103:
      if (text_byte(remote_state.work_dir, remote_state.work_dir_index, wparam) && chdir(remote_state.work_dir) != 0)
        return 0;
      return 0;
    case 104:
      if (session::state.paused.load(relaxed)) return 3;
      return session_playing() || session::state.decoder_running.load(relaxed) ? 1 : 0;
    case 105:
      if (wparam == 1) return session::stream.play_seconds;
      return session_playing() ? int64_t(output::wave.display_seconds.load(relaxed)) * 1000 : 0;
    case 106: {
      if (!session_playing()) return -1;
      int64_t beyond = wparam > int64_t(session::stream.play_seconds) * 1000;
      session::seek_milliseconds(int32_t(wparam));
      return beyond ? 1 : 0;
    }
    case 120:
      if (wparam == -2) {
        return library::write_playlist(window_playlist_file().c_str(), library::WRITE_AS_IS) ? 0 : -1;
      }
      if (text_byte(remote_state.save_name, remote_state.save_index, wparam))
        return library::write_playlist(remote_state.save_name, library::WRITE_RELATIVE) ? 0 : -1;
      return 0;
    case 121:
      if (wparam >= 0 && wparam < library::PLAYLIST_SLOTS) {
        int32_t index = int32_t(wparam);
        if (!library::slot_used(index)) {
          index = library::playlist_length() - 1;
          if (index < 0) index = 0;
        }
        library::playlist.current_entry.store(index);
        window_redraw(2);
      }
      return 0;
    case 122: {
      int64_t v = wparam > 255 ? 255 : wparam < 0 ? 0 : wparam;
      window_set_volume(int32_t((255 - v) * 73 / 255 + 80));
      return 0;
    }
    case 123: {
      int64_t v = wparam > 255 ? 255 : wparam < 0 ? 0 : wparam;
      window_set_balance(int32_t(v * 44 / 255 + 23));
      return 0;
    }
    case 124: {
      int32_t n = library::playlist_length();
      return n > 0 ? n - 1 : 0;
    }
    case 211:
    case 212:
      if (wparam < 0 || wparam >= library::PLAYLIST_SLOTS || !library::slot_used(int32_t(wparam))) {
        remote_state.answer.clear();
        return 0;
      }
      remote_state.answer = library::playlist.entries[wparam].path;
      return 1;
    case REMOTE_ANSWER_BYTE:
      return wparam >= 0 && size_t(wparam) < remote_state.answer.size() ? uint8_t(remote_state.answer[size_t(wparam)])
                                                                        : 0;
    case library::REMOTE_HAND_OVER: {
      int32_t commands[2];
      int32_t n = library::hand_over_message(remote_state.hand_over, wparam, session::state.paused.load(relaxed) != 0,
                                             false, commands);
      for (int32_t i = 0; i < n; ++i) post_command(commands[i], 3);
      if (n) {
        session::post_message(session::WINDOW_PLAYLIST, library::MSG_PLAYLIST_REFRESH, 1);
        window_redraw(3);
      }
      return 0;
    }
    default:
      window_foreground();
      return 0;
  }
}

int32_t remote_client(int argc, char** argv) {
  if (argc < 1) {
    std::fputs("usage: tovra --remote CODE [ARG]\n", stderr);
    return 2;
  }
  int64_t code = std::strtoll(argv[0], nullptr, 10);
  const char* arg = argc > 1 ? argv[1] : nullptr;
  std::string folder = library::instance_folder();
  std::vector<library::RemoteMessage> messages;
  auto add = [&messages](int64_t wparam, int64_t c, int32_t sent) {
    messages.push_back({library::MSG_REMOTE, sent, wparam, c});
  };
  bool text = code == 100 || code == 103 || code == 120;
  if (text && arg && !(code == 120 && std::strcmp(arg, "-2") == 0)) {
    std::string value = arg;
    if (code == 100 || code == 103) {
      // Paths are taken from the client's folder, not the instance's.
      if (char* full = realpath(arg, nullptr)) {
        value = full;
        std::free(full);
      }
    }
    add(-1, code, 0);
    for (unsigned char c : value) add(c, code, 0);
    add(0, code, 1);
  } else {
    add(arg ? std::strtoll(arg, nullptr, 10) : 0, code, 1);
  }
  bool path_answer = code == 211 || code == 212;
  if (path_answer)
    for (int64_t i = 0; i < library::ENTRY_BYTES; ++i) add(i, REMOTE_ANSWER_BYTE, 1);
  std::vector<int64_t> results(messages.size(), 0);
  if (!library::send_remote_messages(folder, messages.data(), messages.size(), results.data())) {
    std::fputs("tovra: no running instance answered\n", stderr);
    return 1;
  }
  size_t first = text && arg && !(code == 120 && std::strcmp(arg, "-2") == 0) ? messages.size() - 1 : 0;
  if (path_answer) {
    std::string path;
    for (size_t i = 1; i < results.size() && results[i] != 0; ++i) path += char(results[i]);
    std::printf("%s\n", results[0] ? path.c_str() : "0");
  } else {
    std::printf("%lld\n", static_cast<long long>(results[first]));
  }
  return 0;
}

}  // namespace shell
