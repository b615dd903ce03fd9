#include "library/id3.h"

#include <fcntl.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace library {

const char* const genre_table[GENRE_SLOTS] = {
    "Blues", "Classic Rock", "Country", "Dance", "Disco", "Funk", "Grunge", "Hip-Hop", "Jazz", "Metal", "New Age",
    "Oldies", "Other", "Pop", "R&B", "Rap", "Reggae", "Rock", "Techno", "Industrial", "Alternative", "Ska",
    "Death Metal", "Pranks", "Soundtrack", "Euro-tecno", "Ambient", "Trip-Hop", "Vocal", "Juzz+Funk", "Fusion",
    "Trance", "Classical", "Instrumental", "Acid", "House", "Game", "Sound Clip", "Gospel", "Noise", "AlternRock",
    "Bass", "Soul", "Punk", "Space", "Meditative", "Instrumental Pop", "Instrumental Rock", "Ethnic", "Gothic",
    "Darkwave", "Techno-Industrial", "Electronic", "Pop-Folk", "Eurodance", "Dream", "Southern Rock", "Comedy", "Cult",
    "Gangsta", "Top 40", "Christian Rap", "Pop/Funk", "Jungle", "Native American", "Cabaret", "New Wave", "Psychadelic",
    "Rave", "Showtunes", "Trailer", "Lo-Fi", "Tribal", "Acid Punk", "Acid Jazz", "Polka", "Retro", "Musical",
    "Rock & Roll", "Hard Rock", "Folk", "Folk/Rock", "National Folk", "Swing", "Fast-Fusion", "Bedob", "Latin",
    "Revival", "Celtic", "Bluegrass", "Avantagarde", "Gothic Rock", "Progressive Rock", "Psychadelic Rock",
    "Symphonic Rock", "Slow Rock", "Big band", "Chorus", "Easy Listening", "Acoustic", "Humour", "Speech", "Chanson",
    "Opera", "Chamber Music", "Sonata", "Symphony", "Booty Bass", "Primus", "Porn Groove", "Satire", "Slow Jam", "Club",
    "Tango", "Samba", "Folklore", "Ballad", "Power Ballad", "Rhytmic Soul", "Freestyle", "Duet", "Punk Rock",
    "Drum Solo", "Acapella", "Euro-House", "Dance Hall", "Goa", "Drum & Bass", "Club-House", "Hardcore", "Terror",
    "Indie", "BritPop", "Negerpunk", "Polsk Punk", "Beat", "Christian Gangsta Rap", "Heavy Metal", "Black Metal",
    "Crossover", "Contemporary Christian", "Christian Rock", "Merengue", "Salsa", "Thrash Metal", "Anime", "JPop",
    "Synthpop",
    // 148-247: no names.
    "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "",
    "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "",
    "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "",
    "", "", "", "", "", "", "", "", "", "", "", "", "",
    // The Japanese extension.
    "Heavy Rock(J)", "Doom Rock(J)", "J-POP(J)", "Seiyu(J)", "Tecno Ambient(J)", "Moemoe(J)", "Tokusatsu(J)",
    "Anime(J)"};
static_assert(sizeof genre_table / sizeof genre_table[0] == GENRE_SLOTS);

// Cleared as at start-up with "J-IDtag" on; the start-up clears it again for the setting in force.
Id3Record previous_tag = [] {
  Id3Record r;
  clear_record(r, 247);
  return r;
}();

int32_t no_genre(int32_t j_idtag) { return j_idtag ? 247 : 255; }
int32_t last_offered_genre(int32_t j_idtag) { return j_idtag ? 255 : 247; }

int32_t genre_by_name(const std::string& name) {
  // An empty name would match the first empty slot: it means no genre.
  if (name.empty()) return -1;
  for (int32_t i = 0; i < GENRE_SLOTS; ++i)
    if (name == genre_table[i]) return i;
  return -1;
}

bool is_tag(const Id3Record& r) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; };
  return lower(r.mark[0]) == 't' && lower(r.mark[1]) == 'a' && lower(r.mark[2]) == 'g';
}

bool is_v11(const Id3Record& r) { return r.comment[28] == 0 && r.comment[29] != 0; }

void clear_record(Id3Record& r, int32_t no_genre_value) {
  std::memset(&r, 0, sizeof r);
  r.comment[28] = ' ';
  r.genre = uint8_t(no_genre_value);
}

namespace {

// A field's text: trailing blanks and zeros off, and no further than a zero inside.
std::string trimmed(const char* field, size_t n) {
  while (n > 0 && (field[n - 1] == ' ' || field[n - 1] == 0)) --n;
  return std::string(field, strnlen(field, n));
}

void put_field(char* field, size_t n, const std::string& text, char pad) {
  std::memset(field, pad, n);
  const std::string fit = fit_cp932(text, n);
  std::memcpy(field, fit.data(), fit.size());
}

bool lead_byte(uint8_t c) { return (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC); }

}  // namespace

TagForm form_from_record(const Id3Record& r) {
  TagForm f;
  f.title = trimmed(r.title, sizeof r.title);
  f.artist = trimmed(r.artist, sizeof r.artist);
  f.album = trimmed(r.album, sizeof r.album);
  f.year = trimmed(r.year, sizeof r.year);
  f.v11 = is_v11(r);
  f.track = f.v11 ? uint8_t(r.comment[29]) : 0;
  f.comment = trimmed(r.comment, f.v11 ? 28 : 30);
  f.genre = genre_table[r.genre];
  return f;
}

Id3Record record_from_form(const TagForm& f, int32_t no_genre_value) {
  Id3Record r;
  std::memcpy(r.mark, "TAG", 3);
  // Zero padding in the v1.1 form keeps byte 125 zero behind a short comment.
  const char pad = f.v11 ? 0 : ' ';
  put_field(r.title, sizeof r.title, f.title, pad);
  put_field(r.artist, sizeof r.artist, f.artist, pad);
  put_field(r.album, sizeof r.album, f.album, pad);
  put_field(r.year, sizeof r.year, f.year, pad);
  put_field(r.comment, sizeof r.comment, f.comment, pad);
  if (f.v11) {
    // A comment of 29 or 30 bytes loses its last byte to the track number, as the dialog's field
    // allows 30; the command line cuts it to 28 first.
    r.comment[29] = char(uint8_t(f.track));
  } else if (r.comment[28] == 0) {
    r.comment[28] = char(255);
  }
  const int32_t genre = genre_by_name(f.genre);
  r.genre = uint8_t(genre < 0 ? no_genre_value : genre);
  return r;
}

std::string fit_cp932(const std::string& text, size_t n) {
  size_t i = 0;
  while (i < text.size()) {
    const size_t step = lead_byte(uint8_t(text[i])) && i + 1 < text.size() ? 2 : 1;
    if (i + step > n) break;
    i += step;
  }
  return text.substr(0, i);
}

size_t to_cp932(const std::string& text, std::string& out) {
  out.clear();
  iconv_t cd = iconv_open("CP932", "UTF-8");
  if (cd == iconv_t(-1)) return 1;
  // No character grows: one to three UTF-8 bytes become one or two.
  std::string buf(text.size() * 2 + 4, '\0');
  char* in = const_cast<char*>(text.data());
  size_t in_left = text.size();
  char* to = buf.data();
  size_t to_left = buf.size();
  const size_t r = iconv(cd, &in, &in_left, &to, &to_left);
  iconv_close(cd);
  if (r == size_t(-1)) return 1 + size_t(in - text.data());
  buf.resize(buf.size() - to_left);
  out = buf;
  return 0;
}

std::string from_cp932(const std::string& bytes) {
  std::string out;
  iconv_t cd = iconv_open("UTF-8", "CP932");
  if (cd == iconv_t(-1)) return bytes;
  char* in = const_cast<char*>(bytes.data());
  size_t in_left = bytes.size();
  std::string buf(bytes.size() * 3 + 4, '\0');
  while (in_left > 0) {
    char* to = buf.data();
    size_t to_left = buf.size();
    const size_t r = iconv(cd, &in, &in_left, &to, &to_left);
    out.append(buf.data(), buf.size() - to_left);
    if (r == size_t(-1)) {
      out += "\xEF\xBF\xBD";
      ++in;
      --in_left;
    }
  }
  iconv_close(cd);
  return out;
}

int32_t read_tag(const char* path, Id3Record& r, int32_t no_genre_value) {
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return format::ERR_TAG_OPEN;
  const bool got = std::fseek(f, -TAG_BYTES, SEEK_END) == 0 && std::fread(&r, 1, sizeof r, f) == sizeof r;
  std::fclose(f);
  if (got && is_tag(r)) return format::ERR_OK;
  clear_record(r, no_genre_value);
  return format::ERR_NO_TAG;
}

namespace {

bool read_exact(int fd, void* to, size_t n, off_t at) { return pread(fd, to, n, at) == ssize_t(n); }

// Opens a regular file for writing a tag and refuses RIFF wrappers: their chunk sizes would not
// cover bytes appended behind them, so other programs would read a damaged file.
int32_t open_for_tag(const char* path, WrapperTest wrapped, int& fd, off_t& size) {
  fd = open(path, O_RDWR | O_CLOEXEC);
  struct stat st;
  if (fd < 0) return format::ERR_TAG_OPEN;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return format::ERR_TAG_OPEN;
  }
  size = st.st_size;
  char head[4] = {};
  if ((read_exact(fd, head, 4, 0) && std::memcmp(head, "RIFF", 4) == 0) || (wrapped && wrapped(path))) {
    close(fd);
    return format::ERR_TAG_WRAPPED;
  }
  return format::ERR_OK;
}

bool tag_at_tail(int fd, off_t size, Id3Record& old) {
  return size >= TAG_BYTES && read_exact(fd, &old, sizeof old, size - TAG_BYTES) && is_tag(old);
}

}  // namespace

int32_t write_tag(const char* path, const Id3Record& r, WrapperTest wrapped) {
  int fd = -1;
  off_t size = 0;
  if (const int32_t code = open_for_tag(path, wrapped, fd, size); code != format::ERR_OK) return code;
  Id3Record tag = r;
  std::memcpy(tag.mark, "TAG", 3);
  Id3Record old;
  const bool tagged = tag_at_tail(fd, size, old);
  // Over the old tag the file keeps its length and its blocks; otherwise the tag goes behind the
  // audio. Nothing before `at` is ever written.
  const off_t at = tagged ? size - TAG_BYTES : size;
  Id3Record back;
  bool ok = pwrite(fd, &tag, sizeof tag, at) == ssize_t(sizeof tag) && fsync(fd) == 0 &&
            read_exact(fd, &back, sizeof back, at) && std::memcmp(&back, &tag, sizeof tag) == 0;
  if (!ok) {
    if (tagged) {
      ssize_t put = pwrite(fd, &old, sizeof old, at);
      (void)put;
    } else {
      int cut = ftruncate(fd, size);
      (void)cut;
    }
    fsync(fd);
  }
  if (close(fd) != 0) ok = false;
  return ok ? format::ERR_OK : format::ERR_TAG_WRITE;
}

int32_t delete_tag(const char* path, WrapperTest wrapped) {
  int fd = -1;
  off_t size = 0;
  if (const int32_t code = open_for_tag(path, wrapped, fd, size); code != format::ERR_OK) return code;
  // The file's own tail decides, not a record read earlier: only a tag is ever cut off.
  Id3Record old;
  int32_t code = format::ERR_NO_TAG_TO_DELETE;
  if (tag_at_tail(fd, size, old))
    code = ftruncate(fd, size - TAG_BYTES) == 0 && fsync(fd) == 0 ? format::ERR_OK : format::ERR_TAG_WRITE;
  close(fd);
  return code;
}

std::string info_group_title(int32_t n, int32_t count) {
  if (count <= 0) return "MPEG info";
  char text[48];
  std::snprintf(text, sizeof text, "MPEG info (%d/%d)", n, count);
  return text;
}

}  // namespace library
