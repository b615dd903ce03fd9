// The program: process start and end, the main window with its skin, commands 40001-40069, keys,
// drag and drop, menus, the tray and the hot key, and the remote control that arrives over the
// instance socket as message 1024. The window only reads what the engine publishes (settings,
// playlist, session words, display_seconds) and steers the engine through its transport; threads
// other than the main thread reach the window only through post_command and the message sink.
#pragma once

#include <cstdint>
#include <string>

namespace shell {

enum CommandId : int32_t {
  CMD_CLOSE = 40001,
  CMD_ABOUT = 40002,
  CMD_TAG_DIALOG = 40009,
  CMD_RENDER_60 = 40010,
  CMD_RENDER_30 = 40011,
  CMD_RENDER_15 = 40012,
  CMD_RENDER_TOGGLE = 40013,
  CMD_WAVE_SETTINGS = 40014,
  CMD_PLAYLIST_EDITOR = 40016,
  CMD_CAPTURE = 40017,
  CMD_TRAY_TOGGLE = 40018,
  CMD_PLAY = 40021,
  CMD_STOP = 40022,
  CMD_NEXT = 40023,
  CMD_PREVIOUS = 40024,
  CMD_TRAY_OPTION = 40025,
  CMD_REPEAT = 40026,
  CMD_TOPMOST = 40027,
  CMD_LEVEL = 40028,
  CMD_SPECTRUM = 40029,
  CMD_VU = 40030,
  CMD_SHADE = 40031,
  CMD_RANDOM = 40032,
  CMD_LOAD = 40033,
  CMD_SNAP = 40039,
  CMD_TAG_TITLE = 40042,
  CMD_PAUSE = 40058,
  CMD_DOUBLE = 40066,
  CMD_SCROLL = 40067,
};

// The codes of message 1024 that this program adds for a transport without shared addresses:
// the path of code 100 travels by bytes like 103 and 120 (-1 resets, a byte appends, 0 ends and
// adds), and the answer of 211/212 is fetched byte by byte with code 213 (first argument: the
// byte's index; result: the byte, 0 past the end).
constexpr int64_t REMOTE_ANSWER_BYTE = 213;

// Queues a command for the main thread (any thread); posted commands keep their order.
void post_command(int32_t id, int32_t tag);
// Carries out message 1024 with its code on the main thread; returns the result.
int64_t remote_control(int64_t wparam, int64_t code);

// What the window offers the remote control (main thread).
void window_foreground();
void window_redraw(int32_t what);  // bit 0 the time, bit 1 the title and caption
void window_set_volume(int32_t volume);
void window_set_balance(int32_t pan);
const std::string& window_playlist_file();

// Text for the screen: tag and path bytes as UTF-8 (CP932 when they are not UTF-8 already).
std::string to_utf8(const char* bytes);

// The program's entry: argv as given. Returns the exit code.
int32_t process_entry(int argc, char** argv);
// tovra --remote CODE [ARG]: sends one remote-control code to the running instance and prints the
// result; returns 0, or 1 when no instance answered.
int32_t remote_client(int argc, char** argv);

}  // namespace shell
