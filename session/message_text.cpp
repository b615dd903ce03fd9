#include "session/message_text.h"

#include <libintl.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "library/settings.h"
#include "tools/wave.h"

namespace session {

namespace {

using namespace format;

constexpr const char* DOMAIN = "tovra";

// The captions of the boxes.
constexpr const char* TOVRA = "TOVRA";
constexpr const char* TOVRA_ERROR = "TOVRA Error";
constexpr const char* TOVRA_INFORMATION = "TOVRA Information";
constexpr const char* ERROR = "Error";

struct Entry {
  int32_t code;
  const char* caption;
  const char* text;  // the English message id; %s takes the argument
};

// Every message, once. The Japanese of each is in po/ja.po under the same id.
constexpr Entry table[] = {
    {ERR_READ, TOVRA_ERROR, "Read error"},
    {ERR_WRITE, TOVRA_ERROR, "Write error"},
    {ERR_NO_MEMORY, TOVRA_ERROR, "Not enough memory"},
    {ERR_WAVE_CHUNK, TOVRA_ERROR, "Chunk error"},
    {ERR_WAVE_FORMAT, TOVRA_ERROR, "Error in the data"},
    {ERR_WAVE_NO_DATA, TOVRA_ERROR, "No data"},
    {ERR_BUSY, TOVRA, "Another job is running"},
    {ERR_SAME_FILE, TOVRA, "The input and the output cannot have the same name"},
    {ERR_OPEN_INPUT, TOVRA, "Cannot open '%s'"},
    {ERR_OPEN_OUTPUT, TOVRA, "Cannot open '%s'"},
    {ERR_CREATE_OUTPUT, TOVRA, "Cannot create the output file"},
    {ERR_NOT_MPEG, TOVRA, "'%s' is not MPEG audio"},
    {ERR_URL, TOVRA, "The URL '%s' cannot be used"},
    {ERR_STREAM_REFUSED, TOVRA, "'%s' is not MPEG audio"},
    {ERR_NOT_WAVE, TOVRA_ERROR, "Not a WAVE file"},
    {ERR_BAD_WAVE, TOVRA_ERROR, "Invalid WAVE file"},
    {ERR_WAVE_EMPTY, TOVRA_ERROR, "No data"},
    {ERR_BAD_PARAMS, TOVRA_ERROR,
     "This bit rate, mode and layer do not make a valid stream at the input's sampling rate"},
    {ERR_DECODE, ERROR, "An error occurred"},
    {ERR_DECODE_ABORTED, ERROR, "An error occurred - stopping"},
    {ERR_MPEG25, TOVRA_INFORMATION, "MPEG 2.5 (Fraunhofer format) is not supported"},
    {ERR_FREE_FORMAT, TOVRA_INFORMATION, "Free format streams are not supported"},
    {ERR_SYNC, TOVRA_INFORMATION, "Sync error"},
    {ERR_VIDEO_STREAM, TOVRA_INFORMATION, "Files that hold a video stream are not supported"},
    {ERR_STREAM_END, TOVRA_INFORMATION, "Read error"},
    {ERR_NOT_SYSTEM, TOVRA_ERROR, "Not an MPEG file"},
    {ERR_VIDEO_FRAME, TOVRA_ERROR, "Error in a video frame"},
    {ERR_AUDIO_FRAME, TOVRA_ERROR, "Error in an audio frame"},
    {ERR_VIDEO_WRITE, TOVRA_ERROR, "Video frame write error"},
    {ERR_AUDIO_WRITE, TOVRA_ERROR, "Audio frame write error"},
    {ERR_NO_AUDIO_FRAMES, TOVRA_ERROR, "No audio frames"},
    {ERR_DEVICE, ERROR, "WAVE device error (%s)"},
    {ERR_TIMEOUT, TOVRA_ERROR, "Timeout"},
    {ERR_TEXT_TOO_LARGE, TOVRA_ERROR, "'%s' is larger than 1 MiB: not read"},
    {ERR_LINE_TOO_LONG, TOVRA_ERROR, "'%s' has a line longer than 4 KiB: not read"},
    {ERR_RATE_RANGE, TOVRA, "Set a sampling rate from 2000 to 96000"},
    {ERR_NO_TAG, TOVRA_ERROR, "The file has no tag"},
    {ERR_TAG_OPEN, TOVRA_ERROR, "The file cannot be opened for writing"},
    {ERR_TAG_WRAPPED, TOVRA_ERROR, "The audio is inside a RIFF file, which cannot carry a tag"},
    {ERR_TAG_WRITE, TOVRA_ERROR, "The tag could not be written; the file is unchanged"},
    {ERR_NO_TAG_TO_DELETE, TOVRA_ERROR, "The file has no tag to delete"},
    {TEXT_PLAYING, TOVRA, "Playing"},
    {TEXT_NO_CONVERT_WHILE_PLAYING, TOVRA, "Cannot convert while playing"},
    {TEXT_BUSY_OTHER, TOVRA, "Another job is running"},
    {TEXT_AGAIN, TOVRA, "These files are about to be processed again"},
    {TEXT_RESET_OUTPUT_PATHS, TOVRA, "Reset the output paths?"},
    {TEXT_CANCEL_BATCH, TOVRA, "The file in progress and all the files left\nwill be stopped. Is that all right?"},
    {TEXT_INIT_FAILED, TOVRA_ERROR, "Initialisation failed"},
    {TEXT_TIMEOUT_EXIT, TOVRA_ERROR, "Timeout. Quitting by force."},
    {TEXT_BUSY_CONVERTING, TOVRA, "A conversion is running. Quit anyway?"},
    {TEXT_CANNOT_WRITE, TOVRA_ERROR, "Cannot write: %s"},
    {TEXT_BAD_ID3_CHARACTER, TOVRA_ERROR, "Characters an ID3 tag cannot hold: %s"},
    {TEXT_DONE, TOVRA, "Done"},
    {TEXT_SPLIT_DONE, TOVRA, "Extracted"},
    {TEXT_OPEN_FAILED, TOVRA, "Could not open the file"},
    {TEXT_REMAINING_MINUTES, TOVRA, "[%d/%d]  %d min left"},
    {TEXT_REMAINING_HOURS, TOVRA, "[%d/%d]  %d h %d min left"},
    {TEXT_CONVERSION_STOPPED, TOVRA, "The conversion is stopped"},
    {TEXT_ENCODING_PROGRESS, TOVRA, "encoding... %d%%  %d min left"},
    {TEXT_NEXT_PLAY, TOVRA, "Takes effect from the next playback"},
    {TEXT_BATCH_ENCODE_START, TOVRA, "The batch encode starts"},
    {TEXT_ENCODE_WAVE_ONLY, TOVRA_ERROR,
     "The file to convert must be WAVE/PCM 16 bit at one of\n48000Hz, 44100Hz, 32000Hz, 24000Hz, 22050Hz, "
     "16000Hz.\n\nConvert it with TOVRA's HighQuality Resampling tool%s"},
    {TEXT_ENCODE_FORMAT_LINE, TOVRA_ERROR, "\n\n* Format of this file:\nFormatID=%c%02xh/%c%dHz/%s/%c%dbit"},
    {TEXT_RESAMPLE_PCM_ONLY, TOVRA_ERROR, "The file to convert must be WAVE/PCM%s"},
    {TEXT_RESAMPLE_FORMAT_LINE, TOVRA_ERROR, "\n\n* Format of this file:\nFormatID=%02xh/%dHz/%s/%dbit"},
    {TEXT_ERROR, TOVRA, "error"},
};

const Entry& find(int32_t code) {
  for (const Entry& e : table)
    if (e.code == code) return e;
  return table[sizeof table / sizeof table[0] - 1];
}

bool has_catalogue(const std::string& dir) { return access((dir + "/ja/LC_MESSAGES/tovra.mo").c_str(), R_OK) == 0; }

// The locale's name for messages, as setlocale would pick it from the environment.
const char* asked_locale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* v = std::getenv(name);
    if (v && v[0]) return v;
  }
  return "";
}

}  // namespace

void init_messages() {
  if (!std::setlocale(LC_ALL, "")) {
    // A Japanese locale that this machine has not generated: the C locale would ignore LANGUAGE,
    // so the messages are chosen with it under C.UTF-8, which glibc always has.
    if (std::strncmp(asked_locale(), "ja", 2) == 0 && std::setlocale(LC_ALL, "C.UTF-8")) setenv("LANGUAGE", "ja", 1);
  }
  // Numbers in files, settings and reports are written and read with a point whatever the locale.
  std::setlocale(LC_NUMERIC, "C");
  // The build tree keeps the catalogues beside the program; an install under PREFIX/share/locale.
  const std::string folder = library::executable_folder();
  std::string dir = folder + "/share/locale";
  if (!has_catalogue(dir)) dir = folder + "/../share/locale";
  bindtextdomain(DOMAIN, dir.c_str());
  bind_textdomain_codeset(DOMAIN, "UTF-8");
  textdomain(DOMAIN);
}

bool message_is_error(int32_t code) {
  const char* caption = find(code).caption;
  return caption == TOVRA_ERROR || caption == ERROR;
}

const char* message_caption(int32_t code) { return dgettext(DOMAIN, find(code).caption); }

const char* message_format(int32_t code) { return dgettext(DOMAIN, find(code).text); }

std::string message_text(int32_t code, const char* arg) {
  std::string text = message_format(code);
  size_t at = text.find("%s");
  if (at != std::string::npos) text.replace(at, 2, arg ? arg : "");
  return text;
}

std::string wave_problem_message(int32_t code, const tools::WaveHeader& h) {
  std::string base = find(code).code == TEXT_ERROR ? dgettext(DOMAIN, "An error") : message_text(code);
  char why[200] = "";
  switch (h.problem) {
    case tools::WAVE_PROBLEM_NOT_RIFF:
      std::snprintf(why, sizeof why, "%s", dgettext(DOMAIN, "not a RIFF WAVE file"));
      break;
    case tools::WAVE_PROBLEM_NO_FMT:
      std::snprintf(why, sizeof why, "%s", dgettext(DOMAIN, "the \"data\" chunk comes before the \"fmt \" chunk"));
      break;
    case tools::WAVE_PROBLEM_SHORT_FMT:
      std::snprintf(why, sizeof why, "%s", dgettext(DOMAIN, "the \"fmt \" chunk is short"));
      break;
    case tools::WAVE_PROBLEM_FORMAT_TAG:
      std::snprintf(why, sizeof why, dgettext(DOMAIN, "WAVE of format tag 0x%04X: PCM and floating point only"),
                    unsigned(h.format_tag));
      break;
    case tools::WAVE_PROBLEM_CHANNELS:
      std::snprintf(why, sizeof why, dgettext(DOMAIN, "WAVE of %d channels: mono or stereo only"), h.channels);
      break;
    case tools::WAVE_PROBLEM_BITS:
      std::snprintf(why, sizeof why,
                    h.is_float ? dgettext(DOMAIN,
                                          "%d-bit floating-point WAVE: integers of 8 to 32 bits and floating "
                                          "point of 32 or 64 bits only")
                               : dgettext(DOMAIN,
                                          "%d-bit integer WAVE: integers of 8 to 32 bits and floating point of "
                                          "32 or 64 bits only"),
                    h.bits);
      break;
    case tools::WAVE_PROBLEM_RATE:
      std::snprintf(why, sizeof why, dgettext(DOMAIN, "WAVE at a sampling rate of %d"), h.rate);
      break;
    case tools::WAVE_PROBLEM_NO_DATA:
      std::snprintf(why, sizeof why, "%s", dgettext(DOMAIN, "no \"data\" chunk"));
      break;
    default:
      break;
  }
  return why[0] ? base + " (" + why + ")" : base;
}

}  // namespace session
