// What the tag dialog shows and does with the stream: the stream information text, the view of a
// file (or of the current stream's tag) as the dialog opens on it, and the save and delete that keep
// the current stream's tag_buffer in step. The tag record itself is library/id3.h.
#pragma once

#include <cstdint>
#include <string>

#include "library/id3.h"
#include "session/session.h"
#include "session/stream.h"

namespace session {

// Saves or deletes the tag of path and leaves the record in library::previous_tag. With is_current
// (the path is the playlist's current entry) the stream's tag_buffer takes the new record too; the
// title refresh is the caller's. Wrapped streams are refused (format::ERR_TAG_WRAPPED).
int32_t save_form(const char* path, const library::TagForm& f, int32_t no_genre_value, bool is_current);
int32_t delete_form(const char* path, int32_t no_genre_value, bool is_current);

// The stream information text (lines end in "\r\n"): always the facts of s, the stream last opened.
// With a path, probe (probe_stream's record of that file and its result, the wrapper kind) decides
// whether there is a text, and the emphasis is shown by its low two bits; without a path (probe
// null) the wrapper kind comes from the mark in s.tag_buffer and an emphasis of 4-7 (Hi-Fi added)
// reads as an output format name. Empty when there is no text.
std::string mpeg_info_text(const StreamInfo& s, const ProbeInfo* probe, int32_t probe_kind);

// What the tag dialog shows when it opens on path (or, with path null or empty, on the current
// stream's tag_buffer): the working record and its fields, which buttons work, the group's title
// and the information text. n and count number the file in a series (count 0: no series).
struct Id3View {
  library::Id3Record record;
  library::TagForm form;
  int32_t wrapper_kind = 0;  // 0 bare, 1 WAVE, 2 RMP3
  bool can_save = true;
  bool can_delete = true;
  std::string group_title;
  std::string info;
};
Id3View open_view(const char* path, int32_t n, int32_t count, int32_t j_idtag);

}  // namespace session
