// tovra-cli tag FILE [--title T --artist A --album B --year Y --comment C --track N --genre G | --delete |
// --show]: the 128-byte tag at the file's tail, read and written by the tag dialog's own code, in
// UTF-8 on the command line and code page 932 in the file. Fields not given keep their values.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/console.h"
#include "library/id3.h"
#include "library/settings.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/stream.h"
#include "session/tag_view.h"

namespace cli {

namespace {

constexpr const char* usage_text =
    "usage: tovra-cli tag FILE [--title T] [--artist A] [--album B] [--year Y] [--comment C]\n"
    "                          [--track N] [--genre G]\n"
    "       tovra-cli tag FILE --delete\n"
    "       tovra-cli tag FILE [--show]\n"
    "Writes, deletes or shows the ID3v1 tag at the end of an MPEG audio file. Text is UTF-8 and is\n"
    "stored in code page 932; a field longer than the tag holds is cut (title, artist, album and\n"
    "comment 30 bytes, year 4). --track 1-255 writes the v1.1 form (comment 28 bytes), --track 0 the\n"
    "plain form. --genre takes a name of the genre table (or its number); \"\" means none.\n";

struct Field {
  const char* option;
  const char* name;
  std::string library::TagForm::*member;
  size_t bytes;
};
constexpr Field fields[] = {
    {"--title", "title", &library::TagForm::title, 30},       {"--artist", "artist", &library::TagForm::artist, 30},
    {"--album", "album", &library::TagForm::album, 30},       {"--year", "year", &library::TagForm::year, 4},
    {"--comment", "comment", &library::TagForm::comment, 30},
};

// The tag's fields and the information text, as the tag dialog shows them for the stream just opened.
void show(int32_t j_idtag) {
  const session::Id3View v = session::open_view(nullptr, 0, 0, j_idtag);
  const library::TagForm& f = v.form;
  const bool tagged = library::is_tag(v.record);
  std::printf("tag: %s\n", !tagged ? "none" : f.v11 ? "ID3v1.1" : "ID3v1");
  if (tagged) {
    for (const Field& field : fields) std::printf("%s: %s\n", field.name, library::from_cp932(f.*field.member).c_str());
    if (f.v11) std::printf("track: %d\n", f.track);
    std::printf("genre: %s (%d)\n", f.genre.c_str(), v.record.genre);
  }
  if (!v.can_save) std::printf("taggable: no\n");
  std::string info = v.info;
  for (size_t at; (at = info.find('\r')) != std::string::npos;) info.erase(at, 1);
  if (!info.empty()) std::printf("%s\n", info.c_str());
}

int usage_error(const char* what, const char* arg) {
  std::fprintf(stderr, "tovra-cli tag: %s%s%s\n%s", what, arg ? " " : "", arg ? arg : "", usage_text);
  return 2;
}

}  // namespace

int cmd_tag(int argc, char** argv) {
  const char* path = nullptr;
  const char* values[std::size(fields)] = {};
  const char* track = nullptr;
  const char* genre = nullptr;
  bool remove = false, show_only = false;
  for (int i = 0; i < argc; ++i) {
    const char* a = argv[i];
    if (std::strcmp(a, "--help") == 0 || std::strcmp(a, "-h") == 0) {
      std::fputs(usage_text, stdout);
      return 0;
    }
    if (std::strcmp(a, "--delete") == 0) {
      remove = true;
      continue;
    }
    if (std::strcmp(a, "--show") == 0) {
      show_only = true;
      continue;
    }
    const char** slot = nullptr;
    for (size_t k = 0; k < std::size(fields); ++k)
      if (std::strcmp(a, fields[k].option) == 0) slot = &values[k];
    if (std::strcmp(a, "--track") == 0) slot = &track;
    if (std::strcmp(a, "--genre") == 0) slot = &genre;
    if (slot) {
      if (i + 1 >= argc) return usage_error("missing value after", a);
      *slot = argv[++i];
      continue;
    }
    if (a[0] == '-' || path) return usage_error("unexpected argument", a);
    path = a;
  }
  if (!path) return usage_error("no file given", nullptr);
  bool edit = track || genre;
  for (const char* v : values) edit = edit || v;
  if (int(edit) + int(remove) + int(show_only) > 1)
    return usage_error("give field options, --delete or --show, not more than one of them", nullptr);

  // The edits are checked before the file is touched.
  const int32_t no_genre_value = library::no_genre(library::settings.j_idtag);
  library::TagForm changes;
  for (size_t k = 0; k < std::size(fields); ++k) {
    if (!values[k]) continue;
    std::string text;
    if (const size_t bad = library::to_cp932(values[k], text)) {
      // The character as it was given: its UTF-8 lead byte tells its length.
      const char* c = values[k] + bad - 1;
      const uint8_t lead = uint8_t(*c);
      const int n = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
      if (n == 0 || strnlen(c, size_t(n)) < size_t(n)) {
        std::fprintf(stderr, "tovra-cli tag: the %s is not valid UTF-8\n", fields[k].name);
      } else {
        std::fprintf(stderr, "tovra-cli tag: the %s holds '%.*s', which code page 932 cannot hold\n", fields[k].name, n,
                     c);
      }
      return 2;
    }
    changes.*fields[k].member = text;
  }
  long track_number = -1;
  if (track) {
    char* end = nullptr;
    track_number = std::strtol(track, &end, 10);
    if (!*track || *end || track_number < 0 || track_number > 255)
      return usage_error("the track is a number from 0 to 255, not", track);
  }
  int32_t genre_index = -1;
  if (genre && *genre) {
    char* end = nullptr;
    const long number = std::strtol(genre, &end, 10);
    genre_index = !*end && number >= 0 && number < library::GENRE_SLOTS ? int32_t(number) : -1;
    if (genre_index < 0) genre_index = library::genre_by_name(genre);
    if (genre_index < 0 || !*library::genre_table[genre_index]) return usage_error("no such genre:", genre);
  }

  // Only MPEG audio is tagged, and only bare: open_stream tells what the file is.
  install_console(0);
  session::reader.file = std::fopen(path, "rb");
  if (!session::reader.file) {
    report(format::ERR_OPEN_INPUT, path);
    return 1;
  }
  session::reset_decoding();
  const int32_t opened = session::open_stream();
  std::fclose(session::reader.file);
  session::reader.file = nullptr;
  if (opened != session::STREAM_OK) {
    std::fprintf(stderr, "tovra-cli tag: no MPEG audio found in '%s'\n", path);
    return 1;
  }
  if (!edit && !remove) {
    show(library::settings.j_idtag);
    return 0;
  }

  int32_t code;
  if (remove) {
    code = session::delete_form(path, no_genre_value, false);
  } else {
    library::Id3Record r;
    library::read_tag(path, r, no_genre_value);
    library::TagForm f = library::form_from_record(r);
    if (track_number >= 0) {
      f.v11 = track_number > 0;
      f.track = int32_t(track_number);
    }
    for (const Field& field : fields) {
      // The v1.1 form keeps the comment's last two bytes for its marker and the track.
      const size_t bytes = field.member == &library::TagForm::comment && f.v11 ? 28 : field.bytes;
      std::string& text = values[&field - fields] ? changes.*field.member : f.*field.member;
      const std::string cut = library::fit_cp932(text, bytes);
      if (cut.size() < text.size())
        std::fprintf(stderr, "tovra-cli tag: the %s is cut to %zu bytes\n", field.name, bytes);
      f.*field.member = cut;
    }
    if (genre) f.genre = genre_index < 0 ? "" : library::genre_table[genre_index];
    code = session::save_form(path, f, no_genre_value, false);
  }
  if (code != format::ERR_OK) {
    std::fprintf(stderr, "tovra-cli tag: '%s': %s\n", path, session::message_text(code).c_str());
    return 1;
  }
  return 0;
}

}  // namespace cli
