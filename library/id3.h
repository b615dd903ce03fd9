// The 128-byte tag at the tail of an MPEG audio file (ID3v1 and its v1.1 form with a track number),
// the genre table with its Japanese extension, and the tag dialog's plain side: the fields as the
// dialog holds them, its captions and the series exit values. All of it is plain data and functions
// so that a window only shows the texts and passes the fields back; what needs the stream is
// session/tag_view.h.
//
// Text in a tag is code page 932 bytes; front ends speak UTF-8 and convert with to_cp932/from_cp932.
// Writing never touches the bytes before the tag: see write_tag.
#pragma once

#include <cstdint>
#include <string>

#include "format/errors.h"

namespace library {

constexpr int32_t TAG_BYTES = 128;

// The file's layout, byte for byte.
struct Id3Record {
  char mark[3];  // "TAG", upper case when written, any case when read
  char title[30];
  char artist[30];
  char album[30];
  char year[4];
  char comment[30];  // v1.1: 28 bytes of text, comment[28] 0, comment[29] the track number
  uint8_t genre;
};
static_assert(sizeof(Id3Record) == TAG_BYTES);

constexpr int32_t GENRE_SLOTS = 256;
// Names by genre byte; slots 148-247 are empty ("").
extern const char* const genre_table[GENRE_SLOTS];
// The genre byte of a tag without a genre: 247 with "J-IDtag" on, 255 off.
int32_t no_genre(int32_t j_idtag);
// The last genre index the drop list offers (names 0-255 with "J-IDtag", 0-247 without).
int32_t last_offered_genre(int32_t j_idtag);
// The first slot whose name is exactly name, over the whole table; -1 when none.
int32_t genre_by_name(const std::string& name);

bool is_tag(const Id3Record& r);
// The v1.1 form: byte 125 zero and a track number in byte 126.
bool is_v11(const Id3Record& r);
// The record of a file without a tag: all zero, byte 125 a blank, the no-genre byte.
void clear_record(Id3Record& r, int32_t no_genre_value);

// The dialog's fields, text in code page 932.
struct TagForm {
  std::string title, artist, album, year, comment;
  int32_t v11 = 0;    // "&Track >>>" checked
  int32_t track = 0;  // 0-255
  std::string genre;  // the drop list's text; empty when the byte has no name
};
// The fields of a record as the dialog fills them: trailing blanks and zeros off, the comment 28
// bytes with the track in the v1.1 form, the genre's name.
TagForm form_from_record(const Id3Record& r);
// The record a save writes: "TAG", fields padded with blanks (zeros with v1.1), longer text cut,
// the track in comment[29] with v1.1, else a zero comment[28] made 255 so the tag never reads as
// v1.1; the genre by its name, the no-genre byte when the name is unknown or empty.
Id3Record record_from_form(const TagForm& f, int32_t no_genre_value);

// Cuts code page 932 text to at most n bytes without splitting a double-byte character.
std::string fit_cp932(const std::string& text, size_t n);
// UTF-8 to code page 932: returns 0, or 1 + the byte offset in text of the first character that
// code page 932 cannot hold (or of the first invalid UTF-8 byte).
size_t to_cp932(const std::string& text, std::string& out);
// Code page 932 to UTF-8; bytes that are no character come out as U+FFFD.
std::string from_cp932(const std::string& bytes);

// Reads the last 128 bytes of path. format::ERR_OK with a tag; format::ERR_NO_TAG with the cleared record in r;
// format::ERR_TAG_OPEN.
int32_t read_tag(const char* path, Id3Record& r, int32_t no_genre_value);
// Tells a stream inside a wrapper that a tag behind it would damage; called on a regular file that
// opened for writing and doesn't start with "RIFF" (which is refused anyway).
using WrapperTest = bool (*)(const char* path);
// Puts r at the tail of path: over the present tag, or behind the audio when there is none. Only the
// last 128 bytes change; the new bytes are read back and synced, and on any failure the old tag is
// put back or the file cut back to its old length, so a full disk or a failing device leaves the
// file as it was. A wrapped file (wrapped, when given, says so) is refused with format::ERR_TAG_WRAPPED.
int32_t write_tag(const char* path, const Id3Record& r, WrapperTest wrapped = nullptr);
// Takes the tag off path's tail (the file gets 128 bytes shorter); wrapped as for write_tag.
int32_t delete_tag(const char* path, WrapperTest wrapped = nullptr);

// The tag dialog's state that outlives one use of it (start-up clears it with clear_record for the
// "J-IDtag" in force); a save or a delete leaves its record here (session/tag_view.h).
extern Id3Record previous_tag;
// The fields of previous_tag, as the "copy the previous tag" button brings them back.
inline TagForm previous_form() { return form_from_record(previous_tag); }

// The tag dialog's texts and exit values.
constexpr const char* ID3_DIALOG_CAPTION = "TOVRA - ID3tag editor";
// Exit values for the series of files opened from the playlist editor: 1 after a save, a delete or
// "ｷｬﾝｾﾙ" (on to the next file), -1 for "戻る >>", 0 when the dialog is closed (the series ends).
enum Id3Exit : int32_t { ID3_EXIT_END = 0, ID3_EXIT_NEXT = 1, ID3_EXIT_PREVIOUS = -1 };
// The dialog's controls and their captions.
struct Id3Control {
  int32_t id;
  const char* text;
  int32_t limit;  // characters an edit field takes, 0 for no edit field
};
constexpr Id3Control id3_controls[] = {
    {1023, "", 0},      {1024, "Title", 30},  {1025, "Artist", 30},   {1026, "Album", 30},
    {1027, "Year", 4},  {1028, "Genre", 0},   {1029, "Comment", 30},  {1033, "&Track >>>", 0},
    {1037, "", 3},      {1, "設定 (&S)", 0},  {1030, "ID3を削除", 0}, {1032, "前のタグをｺﾋﾟｰ (&C)", 0},
    {1034, "ｷｬﾝｾﾙ", 0}, {1035, "戻る >>", 0}, {1036, "MPEG info", 0}, {1031, "", 0},
};
// "MPEG info", or "MPEG info (n/count)" in a series (count > 0).
std::string info_group_title(int32_t n, int32_t count);

}  // namespace library
