// The classic profile file: "[Section]" lines, "Key=Value" lines, keys and sections compared without
// regard to ASCII case, numbers as "%d" text. The whole file is held as its lines, so that comments,
// unknown keys and hand edits survive a save; a save writes a new file beside the old one and renames
// it over, so the old file stays whole if the disk is full or the process dies half way.
//
// Main thread only: the settings are loaded before any other thread exists and saved after they end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace library {

struct IniFile {
  std::vector<std::string> lines;  // without line endings; a "\r" before a "\n" is dropped at parse
};

// Splits text into lines. Anything is accepted: lines that are neither a section nor a key are kept
// as they are and ignored by lookups.
void ini_parse(IniFile& ini, std::string_view text);
// Limits on the text files the program reads (settings, playlists, lists of jobs): hand-made files
// are far smaller, and anything beyond is a mistake (a device, a binary) that must not make the
// program allocate without bound.
constexpr size_t TEXT_FILE_MAX_BYTES = 1 << 20;
constexpr size_t TEXT_LINE_MAX_BYTES = 4096;

enum TextRead : int32_t { TEXT_OK = 0, TEXT_MISSING = 1, TEXT_TOO_LARGE = 2, TEXT_LONG_LINE = 3 };

// Reads a whole text file of any kind (a pipe or a device too) within the limits above. A file
// beyond them is refused through text_refused, and text is left empty.
int32_t read_text_file(const char* path, std::string& text);
// Told of a refused file with format::ERR_TEXT_TOO_LARGE or format::ERR_LINE_TOO_LONG and its
// path; the session points it at its message box (set_sink). Null: the refusal goes untold.
extern void (*text_refused)(int32_t code, const char* path);

// Reads a file through read_text_file; anything but TEXT_OK gives an empty document.
int32_t ini_load(IniFile& ini, const std::string& path);
// The text ini_save writes: every line ended by "\n".
std::string ini_text(const IniFile& ini);

// The value of the first key of that name in a section of that name, blanks around it removed and
// one pair of enclosing quotes stripped, cut at max_bytes - 1 bytes as a fixed buffer of max_bytes
// would cut it (0: no limit). Returns false (and leaves out alone) when the key is absent.
bool ini_get_string(const IniFile& ini, std::string_view section, std::string_view key, std::string& out,
                    size_t max_bytes = 0);
// The key's value as a signed decimal number: optional blanks and sign, then digits up to the first
// other character; no digits read as 0, values beyond 32 bits saturate. An absent key or an empty
// value gives def.
int32_t ini_get_int(const IniFile& ini, std::string_view section, std::string_view key, int32_t def);

// Replaces the key's value in place, or adds "Key=Value" at the end of the section, or adds the
// section at the end of the document. A value is cut at its first line break so that it cannot
// split the file's structure.
void ini_set(IniFile& ini, std::string_view section, std::string_view key, std::string_view value);
void ini_set_int(IniFile& ini, std::string_view section, std::string_view key, int32_t value);

// Writes the document to path by way of a new file in the same folder, flushed to the disk and
// renamed over the old one; the old file's permissions are kept. A symbolic link at path is
// followed, so a linked settings file stays linked. Returns true on success; on failure the old
// file is untouched and no temporary file is left behind.
bool ini_save(const IniFile& ini, const std::string& path);
// The same for any text: the list writer uses it too.
bool replace_file(const std::string& path, std::string_view text);

}  // namespace library
