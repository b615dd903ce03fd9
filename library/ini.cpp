// Profile files: a list of lines, looked up by a linear walk (a settings file has about a hundred
// lines, read once and written once per run). Writes go to a new file in the target's folder, which is fsync'ed and
// renamed over the target.
#include "library/ini.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "format/errors.h"

namespace library {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && (is_blank(s.back()) || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; }

bool same_name(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

// A section header: "[name]", blanks allowed around the name. A missing "]" takes the rest of
// the line, as hand edits sometimes lose it.
bool section_of(std::string_view line, std::string_view& name) {
  line = trim(line);
  if (line.empty() || line.front() != '[') return false;
  line.remove_prefix(1);
  size_t end = line.find(']');
  name = trim(line.substr(0, end));
  return true;
}

// A key line: "key=value" with a non-empty key that isn't a comment.
bool key_of(std::string_view line, std::string_view& key, std::string_view& value) {
  line = trim(line);
  if (line.empty() || line.front() == ';' || line.front() == '[') return false;
  size_t eq = line.find('=');
  if (eq == std::string_view::npos) return false;
  key = trim(line.substr(0, eq));
  value = trim(line.substr(eq + 1));
  return !key.empty();
}

// Finds the key's line: the first of that name in any section of that name. Also reports the
// first section header of that name and the last key line under it, where a new key goes.
struct Where {
  long key_line = -1;
  long section_line = -1;
  long last_in_section = -1;
};

Where find(const IniFile& ini, std::string_view section, std::string_view key) {
  Where w;
  bool inside = false;
  bool first_section = false;
  for (size_t i = 0; i < ini.lines.size(); ++i) {
    std::string_view name, k, v;
    if (section_of(ini.lines[i], name)) {
      inside = same_name(name, section);
      first_section = inside && w.section_line < 0;
      if (first_section) w.section_line = w.last_in_section = long(i);
      continue;
    }
    if (!inside || !key_of(ini.lines[i], k, v)) continue;
    if (first_section) w.last_in_section = long(i);
    if (w.key_line < 0 && same_name(k, key)) w.key_line = long(i);
  }
  return w;
}

}  // namespace

void ini_parse(IniFile& ini, std::string_view text) {
  ini.lines.clear();
  // An editor's byte-order mark would otherwise hide the first section header.
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  while (!text.empty()) {
    size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    ini.lines.emplace_back(line);
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
}

void (*text_refused)(int32_t code, const char* path) = nullptr;

int32_t read_text_file(const char* path, std::string& text) {
  text.clear();
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return TEXT_MISSING;
  char buf[8192];
  size_t n, line = 0;
  int32_t code = TEXT_OK;
  // At most one byte past the limit is read: enough to know, from a device that never ends too.
  while (code == TEXT_OK &&
         (n = std::fread(buf, 1, std::min(sizeof buf, TEXT_FILE_MAX_BYTES + 1 - text.size()), f)) > 0) {
    for (size_t i = 0; i < n && code == TEXT_OK; ++i) {
      line = buf[i] == '\n' ? 0 : line + 1;
      if (line > TEXT_LINE_MAX_BYTES) code = TEXT_LONG_LINE;
    }
    text.append(buf, n);
    if (text.size() > TEXT_FILE_MAX_BYTES) code = TEXT_TOO_LARGE;
  }
  if (code == TEXT_OK && std::ferror(f)) code = TEXT_MISSING;
  std::fclose(f);
  if (code == TEXT_OK) return TEXT_OK;
  text.clear();
  if (code != TEXT_MISSING && text_refused) {
    text_refused(code == TEXT_TOO_LARGE ? format::ERR_TEXT_TOO_LARGE : format::ERR_LINE_TOO_LONG, path);
  }
  return code;
}

int32_t ini_load(IniFile& ini, const std::string& path) {
  std::string text;
  int32_t code = read_text_file(path.c_str(), text);
  ini_parse(ini, text);
  return code;
}

std::string ini_text(const IniFile& ini) {
  std::string text;
  for (const std::string& line : ini.lines) {
    text += line;
    text += '\n';
  }
  return text;
}

bool ini_get_string(const IniFile& ini, std::string_view section, std::string_view key, std::string& out,
                    size_t max_bytes) {
  Where w = find(ini, section, key);
  if (w.key_line < 0) return false;
  std::string_view k, v;
  key_of(ini.lines[size_t(w.key_line)], k, v);
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) v = v.substr(1, v.size() - 2);
  // A NUL ends a string as it would in the fixed buffer the value lands in.
  v = v.substr(0, v.find('\0'));
  if (max_bytes && v.size() > max_bytes - 1) v = v.substr(0, max_bytes - 1);
  out.assign(v);
  return true;
}

int32_t ini_get_int(const IniFile& ini, std::string_view section, std::string_view key, int32_t def) {
  std::string s;
  if (!ini_get_string(ini, section, key, s) || s.empty()) return def;
  size_t i = 0;
  while (i < s.size() && is_blank(s[i])) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) negative = s[i++] == '-';
  int64_t v = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    v = v * 10 + (s[i] - '0');
    if (v > int64_t(INT32_MAX) + 1) v = int64_t(INT32_MAX) + 1;  // saturate, and stop growing
  }
  if (negative) v = -v;
  if (v > INT32_MAX) v = INT32_MAX;
  return int32_t(v);
}

void ini_set(IniFile& ini, std::string_view section, std::string_view key, std::string_view value) {
  value = value.substr(0, value.find_first_of("\r\n"));
  std::string line;
  line.reserve(key.size() + 1 + value.size());
  line.append(key).append("=").append(value);
  Where w = find(ini, section, key);
  if (w.key_line >= 0) {
    ini.lines[size_t(w.key_line)] = std::move(line);
  } else if (w.section_line >= 0) {
    ini.lines.insert(ini.lines.begin() + w.last_in_section + 1, std::move(line));
  } else {
    // A last line without its line ending was read as a line; a new section simply follows it.
    ini.lines.push_back("[" + std::string(section) + "]");
    ini.lines.push_back(std::move(line));
  }
}

void ini_set_int(IniFile& ini, std::string_view section, std::string_view key, int32_t value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%d", value);
  ini_set(ini, section, key, buf);
}

bool ini_save(const IniFile& ini, const std::string& path) { return replace_file(path, ini_text(ini)); }

bool replace_file(const std::string& path, std::string_view text) {
  // Write through a link to the file it names, so that a linked settings file isn't replaced by a
  // plain one.
  std::string target = path;
  if (char* real = realpath(path.c_str(), nullptr)) {
    target = real;
    std::free(real);
  }
  // A new file gets the permissions any new file gets (0666 less the umask, applied by open); a
  // replaced one keeps its own.
  struct stat st;
  bool existed = stat(target.c_str(), &st) == 0;
  // A file made read-only stays as it is, though its folder would allow the replacement.
  if (existed && access(target.c_str(), W_OK) != 0) return false;
  static std::atomic<uint32_t> serial{0};
  char suffix[48];
  std::snprintf(suffix, sizeof suffix, ".%d-%u.tmp", int(getpid()), serial.fetch_add(1));
  std::string temp = target + suffix;
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = true;
  for (size_t done = 0; ok && done < text.size();) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += size_t(n);
  }
  if (existed) ok = ok && fchmod(fd, st.st_mode & 07777) == 0;
  ok = ok && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && std::rename(temp.c_str(), target.c_str()) == 0;
  if (!ok) unlink(temp.c_str());
  return ok;
}

}  // namespace library
