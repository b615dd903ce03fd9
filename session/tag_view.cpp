// The tag dialog's side that needs the stream: the information text from the stream's facts, the
// view of a file or of the current stream's tag, and saving with the wrapper test of the probe.
#include "session/tag_view.h"

#include <cstdio>
#include <cstring>

#include "session/stream.h"

namespace session {

namespace {

// RIFF wrappers found by the probe (WAVE, RMP3, or a WAVE without a "data" chunk): a tag appended
// behind them would lie outside their chunk sizes.
bool wrapped_stream(const char* path) {
  ProbeInfo info{};
  const int32_t kind = probe_file(path, info);
  return kind == 1 || kind == 2 || kind == STREAM_NO_DATA;
}

// The emphasis names, and behind them the output formats' names: without a path an emphasis of
// 4-7 (Hi-Fi added) is looked up on into them, and shown so.
constexpr const char* emphasis_names[8] = {"None", "50/15ms", "Reserved", "CCITT j.17", "raw", "wav", "aif", "au"};
constexpr const char* stereo_words[4] = {"Joint ", "Intensity ", "MS ", "Combined "};

// The wrapper kind by the mark open_stream leaves in tag_buffer: "RIF" WAVE, "RMP" an RMP3 file with
// LIST INFO items, in any case.
int32_t marked_wrapper(const StreamInfo& s) {
  auto lower = [](uint8_t c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : char(c); };
  const std::string mark = {lower(s.tag_buffer[0]), lower(s.tag_buffer[1]), lower(s.tag_buffer[2])};
  return mark == "rif" ? 1 : mark == "rmp" ? 2 : 0;
}

}  // namespace

int32_t save_form(const char* path, const library::TagForm& f, int32_t no_genre_value, bool is_current) {
  const library::Id3Record r = library::record_from_form(f, no_genre_value);
  const int32_t code = library::write_tag(path, r, wrapped_stream);
  if (code != format::ERR_OK) return code;
  library::previous_tag = r;
  if (is_current) std::memcpy(stream.tag_buffer, &r, library::TAG_BYTES);
  return format::ERR_OK;
}

int32_t delete_form(const char* path, int32_t no_genre_value, bool is_current) {
  const int32_t code = library::delete_tag(path, wrapped_stream);
  if (code != format::ERR_OK) return code;
  library::Id3Record r;
  library::clear_record(r, no_genre_value);
  library::previous_tag = r;
  if (is_current) std::memcpy(stream.tag_buffer, &r, library::TAG_BYTES);
  return format::ERR_OK;
}

std::string mpeg_info_text(const StreamInfo& s, const ProbeInfo* probe, int32_t probe_kind) {
  if (probe ? probe->id == 0 || probe->play_seconds == 0 : s.mpeg_id == -1 || s.play_seconds == 0) return "";
  const int32_t kind = probe ? probe_kind : marked_wrapper(s);
  char buf[512];
  std::snprintf(buf, sizeof buf,
                "filesize = %d (%d:%02d)\r\nframes = %d\r\nMPEG-%d, layer %d\r\nbitrate = %dkbit/sec\r\n"
                "sample_rate = %dHz\r\nmode = ",
                s.file_size, s.play_seconds / 60, s.play_seconds % 60, s.frame_count, s.mpeg_id == 1 ? 1 : 2, s.layer,
                s.bitrate_kbps, s.sample_rate);
  std::string text = buf;
  switch (s.mode & 3) {
    case 0:
      text += "Stereo";
      break;
    case 1:
      if (s.layer == 3) {
        text += stereo_words[s.mode_ext & 3];
        text += "stereo";
      } else {
        std::snprintf(buf, sizeof buf, "Joint stereo (%d-31)", 4 + 4 * (s.mode_ext & 3));
        text += buf;
      }
      break;
    case 2:
      text += "Dual channel";
      break;
    default:
      text += "Mono";
      break;
  }
  auto yes = [](bool b) { return b ? "Yes" : "No"; };
  const int32_t emphasis = probe ? s.emphasis_mode & 3 : s.emphasis_mode & 7;
  std::snprintf(
      buf, sizeof buf, "\r\nprotection = %s\r\nprivate = %s\r\ncopyright = %s\r\noriginal = %s\r\nemphasis = %s",
      yes(s.protection == 0), yes(s.private_bit), yes(s.copyright), yes(s.original), emphasis_names[emphasis]);
  text += buf;
  // The Mac heads are guessed from where the data begin.
  if (s.data_start == 128) {
    text += "\r\n(+ Mac Header)";
  } else if (s.data_start == 324) {
    text += "\r\n(+ Macromedia Header)";
  } else if (kind == 1) {
    text += "\r\n(+ Wave Header)";
  } else if (kind == 2) {
    text += "\r\n(+ Rmp Header)";
  }
  return text;
}

Id3View open_view(const char* path, int32_t n, int32_t count, int32_t j_idtag) {
  Id3View v;
  if (path && *path) {
    v.can_delete = library::read_tag(path, v.record, library::no_genre(j_idtag)) == format::ERR_OK;
    ProbeInfo probe{};
    const int32_t kind = probe_file(path, probe);
    // A stream the probe cannot read at its start (an ID3v2 tag in front, say) is still a bare
    // file that takes a tag; only the RIFF wrappers cannot.
    v.wrapper_kind = kind == 1 || kind == 2 ? kind : kind == STREAM_NO_DATA ? 1 : 0;
    v.info = kind == 0 || kind == 1 || kind == 2 ? mpeg_info_text(stream, &probe, kind) : "";
  } else {
    std::memcpy(&v.record, stream.tag_buffer, library::TAG_BYTES);
    v.can_delete = library::is_tag(v.record);
    v.info = mpeg_info_text(stream, nullptr, 0);
    v.wrapper_kind = marked_wrapper(stream);
  }
  if (v.wrapper_kind != 0) v.can_save = v.can_delete = false;
  v.form = library::form_from_record(v.record);
  v.group_title = library::info_group_title(n, count);
  return v;
}

}  // namespace session
