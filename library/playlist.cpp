// The playlist table and its files. Lines are read as the C library's text-mode line reader with a
// 260-byte buffer reads them (at most 259 bytes; "\r\n" counts as "\n"), so a longer line arrives
// in pieces and each piece takes a slot: lists are read the same on every machine.
#include "library/playlist.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "library/ini.h"

namespace library {

Playlist playlist;

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; }

bool ext_is(const char* ext, const char* want) {
  for (; *want; ++ext, ++want)
    if (lower(*ext) != *want) return false;
  return *ext == 0;
}
bool ext_starts(const char* ext, const char* want) {
  for (; *want; ++ext, ++want)
    if (lower(*ext) != *want) return false;
  return true;
}

// Reads one line as fgets(buffer, 260, file) in text mode would. Returns false at end of file with
// nothing read.
bool read_line(std::FILE* file, char (&line)[ENTRY_BYTES]) {
  size_t n = 0;
  while (n < ENTRY_BYTES - 1) {
    int c = std::fgetc(file);
    if (c == EOF) break;
    if (c == '\r') {
      int next = std::fgetc(file);
      if (next == '\n') {
        c = '\n';
      } else if (next != EOF) {
        std::ungetc(next, file);
      }
    }
    line[n++] = char(c);
    if (c == '\n') break;
  }
  line[n] = 0;
  return n > 0;
}

bool valid_utf8(const unsigned char* s, size_t n) {
  for (size_t i = 0; i < n;) {
    unsigned c = s[i];
    size_t extra;
    if (c < 0x80) {
      extra = 0;
    } else if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
    } else {
      return false;
    }
    if (extra > n - i - 1) return false;
    for (size_t k = 1; k <= extra; ++k)
      if ((s[i + k] & 0xC0) != 0x80) return false;
    i += extra + 1;
  }
  return true;
}

// Lists made on Windows separate folders with "\". In code page 932 a "\" byte can also be the
// second byte of a double-byte character, which must stay; a line that is valid UTF-8 (all ASCII
// lines among them) has no such pairs.
void map_separators(char* s) {
  size_t n = std::strlen(s);
  auto* u = reinterpret_cast<unsigned char*>(s);
  bool utf8 = valid_utf8(u, n);
  for (size_t i = 0; i < n; ++i) {
    if (!utf8 && ((u[i] >= 0x81 && u[i] <= 0x9F) || (u[i] >= 0xE0 && u[i] <= 0xFC))) {
      ++i;  // lead byte: its trail byte is not a separator
      continue;
    }
    if (u[i] == '\\') u[i] = '/';
  }
}

void store(int32_t slot, const char* path) {
  size_t n = std::min(std::strlen(path), size_t(ENTRY_BYTES - 1));
  std::memcpy(playlist.entries[slot].path, path, n);
  playlist.entries[slot].path[n] = 0;
}

// Parses the number behind a switch's sign as atoi would, saturating instead of overflowing.
int32_t switch_number(const char* s) {
  while (*s == ' ' || *s == '\t') ++s;
  bool negative = false;
  if (*s == '-' || *s == '+') negative = *s++ == '-';
  int64_t v = 0;
  for (; *s >= '0' && *s <= '9'; ++s) v = std::min<int64_t>(v * 10 + (*s - '0'), int64_t(INT32_MAX) + 1);
  v = negative ? -v : v;
  return int32_t(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX));
}

// Command lines made on Windows use "/" for switches. Absolute paths here start with "/" too, so
// only the switch forms count: "/" alone, "/" with one letter, "/" with a number.
bool is_switch(const std::string& token) {
  if (token[0] == '-') return true;
  if (token[0] != '/') return false;
  if (token.size() == 1) return true;
  if (token.size() == 2 && token[1] != '/') return true;
  size_t i = token[1] == '-' || token[1] == '+' ? 2 : 1;
  if (i == token.size()) return false;
  for (; i < token.size(); ++i)
    if (token[i] < '0' || token[i] > '9') return false;
  return true;
}

void take_token(const std::string& token, int32_t& keep_list) {
  if (token.empty()) return;
  if (is_switch(token)) {
    char c = token.size() == 1 ? 0 : lower(token[1]);
    if (c == 'a') {
      ++keep_list;
    } else if (c == 'o') {
      playlist.command_line_play = 0;
    } else if (c == 'p') {
      ++playlist.command_line_play;
    } else {
      ++playlist.command_line_play;
      int32_t n = switch_number(token.c_str() + 1);
      int32_t index = n > INT32_MIN ? n - 1 : -1;
      if (index < 0 || index >= PLAYLIST_SLOTS || !slot_used(index)) index = 0;
      playlist.current_entry.store(index, relaxed);
    }
    return;
  }
  if (keep_list == 0) clear_playlist();
  ++keep_list;
  PathParts parts = split_path(token.c_str());
  if (ext_is(parts.ext, ".m3u") || ext_starts(parts.ext, ".pl")) {
    // The entries of a list are relative to its folder, which becomes current. The list's own name
    // is made absolute first, so that a relative one still opens after the change.
    std::string list = token;
    if (list[0] != '/') {
      char cwd[PATH_MAX];
      if (getcwd(cwd, sizeof cwd)) list = std::string(cwd) + "/" + token;
    }
    if (parts.folder_len > 0) (void)chdir(std::string(token, 0, parts.folder_len).c_str());
    read_playlist(list.c_str(), 1);
  } else {
    append_entry(token.c_str());
  }
}

}  // namespace

void reset_playlist() {
  clear_playlist();
  playlist.current_entry.store(0, relaxed);
  playlist.command_line_play = 0;
}

int32_t playlist_length() {
  int32_t n = 0;
  while (n < PLAYLIST_SLOTS && playlist.entries[n].path[0]) ++n;
  return n;
}

void clear_playlist() {
  for (int32_t i = 0; i < PLAYLIST_SCAN_SLOTS; ++i) {
    playlist.entries[i].path[0] = 0;
    playlist.play_counts[i].store(0, relaxed);
  }
}

int32_t append_entry(const char* path) {
  int32_t slot = playlist_length();
  if (slot >= PLAYLIST_SLOTS) return -1;
  store(slot, path);
  playlist.play_counts[slot].store(0, relaxed);
  return slot;
}

void remove_entry(int32_t index) {
  if (index < 0 || index >= PLAYLIST_SLOTS) return;
  for (int32_t i = index; i < PLAYLIST_SLOTS - 1; ++i) {
    playlist.entries[i] = playlist.entries[i + 1];
    playlist.play_counts[i].store(playlist.play_counts[i + 1].load(relaxed), relaxed);
  }
  playlist.entries[PLAYLIST_SLOTS - 1].path[0] = 0;
  playlist.play_counts[PLAYLIST_SLOTS - 1].store(0, relaxed);
}

void read_playlist_file(std::FILE* file, int32_t append) {
  char line[ENTRY_BYTES];
  for (int32_t slot = append ? playlist_length() : 0; slot < PLAYLIST_SLOTS; ++slot) {
    if (!read_line(file, line)) break;
    size_t n = std::strlen(line);
    if (n > 0 && line[n - 1] == '\n') line[--n] = 0;
    if (n == 0) continue;  // the slot stays as it was
    map_separators(line);
    store(slot, line);
  }
}

namespace {

// Runs read over the text of path, read whole within the text file limits (a refused file is not
// read at all, and the list stays as it was).
void read_list(const char* path, const std::function<void(std::FILE*)>& read) {
  std::string text;
  if (read_text_file(path, text) != TEXT_OK || text.empty()) return;
  std::FILE* file = fmemopen(text.data(), text.size(), "r");
  if (!file) return;
  read(file);
  std::fclose(file);
}

}  // namespace

void read_playlist(const char* path, int32_t append) {
  read_list(path, [=](std::FILE* file) { read_playlist_file(file, append); });
}

void read_default_playlist_file(std::FILE* file) {
  char line[ENTRY_BYTES];
  int32_t next = 0;
  for (int32_t lines = 0; lines < PLAYLIST_SLOTS; ++lines) {
    if (!read_line(file, line)) break;
    size_t n = std::strlen(line);
    // Only a line that ends in a control character (its line ending) is taken, without it.
    if (n == 0 || static_cast<unsigned char>(line[n - 1]) >= 32) continue;
    line[--n] = 0;
    if (n == 0) continue;
    map_separators(line);
    store(next++, line);
  }
}

void read_default_playlist(const char* path) { read_list(path, read_default_playlist_file); }

int32_t write_playlist(const char* path, int32_t mode) {
  PathParts list = split_path(path);
  std::string cwd;
  if (mode == WRITE_ABSOLUTE) {
    char buf[PATH_MAX];
    if (getcwd(buf, sizeof buf)) cwd = buf;
    if (cwd.empty() || cwd.back() != '/') cwd += '/';
  }
  std::string text;
  for (int32_t i = 0; i < PLAYLIST_SLOTS && slot_used(i); ++i) {
    const char* entry = playlist.entries[i].path;
    if (mode == WRITE_ABSOLUTE) {
      // A path without a root here stands where a path without a drive stood.
      if (entry[0] != '/') text += cwd;
      text += entry;
    } else if (mode == WRITE_RELATIVE || mode == WRITE_ONLY_FOLDER) {
      PathParts e = split_path(entry);
      bool same = e.folder_len == list.folder_len && std::memcmp(e.folder, list.folder, e.folder_len) == 0;
      if (same) {
        text += entry + e.folder_len;
      } else if (mode == WRITE_RELATIVE) {
        text += entry;
      } else {
        continue;
      }
    } else {
      text += entry;
    }
    text += '\n';
  }
  // Written whole and renamed over the old list, so that a full disk never leaves half a list.
  return replace_file(path, text) ? 1 : 0;
}

void take_command_line(const char* text, bool shift_held) {
  if (!text || !*text) {
    playlist.command_line_play = 0;
    return;
  }
  playlist.command_line_play = 1;
  int32_t keep_list = 0;
  if (shift_held) {
    playlist.current_entry.store(playlist_length(), relaxed);
    keep_list = 1;
  }
  const char* p = text;
  while (*p) {
    while (*p == ' ' || *p == '\t') ++p;
    if (!*p) break;
    std::string token;
    if (*p == '"') {
      const char* end = std::strchr(p + 1, '"');
      if (!end) end = p + std::strlen(p);
      token.assign(p + 1, end);
      p = *end ? end + 1 : end;
    } else {
      const char* end = p;
      while (*end && *end != ' ' && *end != '\t') ++end;
      token.assign(p, end);
      p = end;
    }
    take_token(token, keep_list);
  }
  int32_t cur = playlist.current_entry.load(relaxed);
  if (cur >= PLAYLIST_SLOTS || !slot_used(cur)) playlist.current_entry.store(0, relaxed);
}

int32_t scan_folder(const char* path) {
  DIR* dir = opendir(path);
  if (!dir) return 0;
  std::vector<std::string> names;
  while (dirent* d = readdir(dir)) {
    if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
    names.emplace_back(d->d_name);
  }
  closedir(dir);
  // A folder is listed in name order; readdir's order is the file system's.
  std::sort(names.begin(), names.end());
  std::string base = path;
  if (base.empty() || base.back() != '/') base += '/';
  for (const std::string& name : names) {
    std::string full = base + name;
    if (full.size() > size_t(ENTRY_BYTES - 1)) continue;  // would not fit a slot whole
    struct stat st;
    if (lstat(full.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      if (!scan_folder(full.c_str())) return 0;
      continue;
    }
    // Linked files count; linked folders are not followed, so a link loop can't recurse forever.
    if (S_ISLNK(st.st_mode) && (stat(full.c_str(), &st) != 0 || !S_ISREG(st.st_mode))) continue;
    if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) continue;
    const char* ext = split_path(full.c_str()).ext;
    if (ext_starts(ext, ".mp") || ext_is(ext, ".rmp")) append_entry(full.c_str());
  }
  return 1;
}

void (*playlist_scanned)() = nullptr;

int32_t scan_folder_dialog(const char* path) {
  int32_t result = scan_folder(path);
  if (playlist_scanned) playlist_scanned();
  return result;
}

int32_t pick_random_entry_at(uint32_t now_ms) {
  auto counts = playlist.play_counts;
  auto unplayed = [&](int32_t i) { return playlist.entries[i].path[0] != 0 && counts[i].load(relaxed) == 0; };
  int32_t cur = playlist.current_entry.load(relaxed);
  bool cur_valid = cur >= 0 && cur < PLAYLIST_SCAN_SLOTS;
  for (int32_t pass = 0; pass < 2; ++pass) {
    int32_t start = int32_t(now_ms % 1000);
    int32_t found = -1;
    // A few scattered tries first: the start index with ever fewer of its low bits.
    if (start != 0) {
      int32_t i = start, mask = 1023;
      do {
        if (unplayed(i)) {
          found = i;
          break;
        }
        mask >>= 1;
        i &= mask;
      } while (i != 0);
    }
    // Then every slot from the start index round, two beyond the list included.
    if (found < 0) {
      int32_t i = start;
      do {
        if (unplayed(i)) {
          found = i;
          break;
        }
        i = i > PLAYLIST_SLOTS ? 0 : i + 1;
      } while (i != start);
    }
    if (found >= 0) {
      if (pass == 1 && cur_valid) counts[cur].fetch_sub(1, relaxed);
      return found;
    }
    // All played: a new cycle, in which the entry just played counts as played once more.
    for (auto& c : playlist.play_counts) c.store(0, relaxed);
    if (cur_valid) counts[cur].fetch_add(1, relaxed);
  }
  if (cur_valid) counts[cur].fetch_sub(1, relaxed);
  return 0;
}

int32_t pick_random_entry() {
  auto now = std::chrono::steady_clock::now().time_since_epoch();
  return pick_random_entry_at(uint32_t(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()));
}

int32_t reset_play_counts(int32_t count_current) {
  for (auto& c : playlist.play_counts) c.store(0, relaxed);
  if (!count_current) return 0;
  int32_t cur = playlist.current_entry.load(relaxed);
  if (cur >= 0 && cur < PLAYLIST_SCAN_SLOTS) playlist.play_counts[cur].fetch_add(1, relaxed);
  return cur;
}

PathParts split_path(const char* path) {
  const char* slash = std::strrchr(path, '/');
  const char* name = slash ? slash + 1 : path;
  const char* dot = std::strrchr(name, '.');
  return PathParts{path, size_t(name - path), dot ? dot : name + std::strlen(name)};
}

}  // namespace library
