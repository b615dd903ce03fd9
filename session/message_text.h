// The program's messages: one table that turns a code (an engine error from format/errors.h or a
// front end's own text below) and its argument into the caption and text the user reads, in the
// user's language. English is the message id; a Japanese locale reads the catalogue (po/ja.po),
// every other locale the English. Both front ends call init_messages first thing.
#pragma once

#include <cstdint>
#include <string>

#include "format/errors.h"

namespace tools {
struct WaveHeader;
}

namespace session {

// Texts of the front ends and the play session that are not engine errors.
enum Text : int32_t {
  TEXT_PLAYING = 1000,
  TEXT_NO_CONVERT_WHILE_PLAYING,
  TEXT_BUSY_OTHER,
  TEXT_AGAIN,
  TEXT_RESET_OUTPUT_PATHS,
  TEXT_CANCEL_BATCH,
  TEXT_INIT_FAILED,
  TEXT_TIMEOUT_EXIT,
  TEXT_BUSY_CONVERTING,
  TEXT_CANNOT_WRITE,       // argument: the path
  TEXT_BAD_ID3_CHARACTER,  // argument: the characters
  TEXT_DONE,
  TEXT_SPLIT_DONE,
  TEXT_OPEN_FAILED,
  TEXT_REMAINING_MINUTES,  // printf format: entry, entries, minutes
  TEXT_REMAINING_HOURS,    // printf format: entry, entries, hours, minutes
  TEXT_CONVERSION_STOPPED,
  TEXT_ENCODING_PROGRESS,  // printf format: percent, minutes left
  TEXT_NEXT_PLAY,          // settings that a running session takes at its next track
  TEXT_BATCH_ENCODE_START,
  TEXT_ENCODE_WAVE_ONLY,    // argument: the format line below, or nothing
  TEXT_ENCODE_FORMAT_LINE,  // printf format: marks and values of the file's format
  TEXT_RESAMPLE_PCM_ONLY,   // argument: the format line below, or nothing
  TEXT_RESAMPLE_FORMAT_LINE,
  TEXT_ERROR,  // any code the table does not know
};

// setlocale(LC_ALL, "") and the catalogue, found beside the program (the build tree) or under the
// installed prefix. A Japanese LANG without a generated locale still gets Japanese (C.UTF-8 with
// LANGUAGE=ja).
void init_messages();

// Whether code's box tells of an error (its caption is an error caption).
bool message_is_error(int32_t code);
// The caption of code's message box, translated.
const char* message_caption(int32_t code);
// The translated text of code, the argument put in where the text has a place for it.
std::string message_text(int32_t code, const char* arg = nullptr);
// The translated printf format of code (for the texts that take numbers).
const char* message_format(int32_t code);
// Why a WAVE header was refused: code's text and the header's problem.
std::string wave_problem_message(int32_t code, const tools::WaveHeader& h);

}  // namespace session
