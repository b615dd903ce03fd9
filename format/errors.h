// The engine's one space of error codes. Every converter, reader and session returns these (0 is
// success); the engine never words a message. The front ends turn a code, with its argument (a
// path, a device's number), into the user's language through session/message_text.h.
//
// It sits here, at the bottom of the tree, because every engine folder returns these codes and
// format/ is the one folder they all may include. Codes 1 to 63 keep the numbers that the
// resampler's status message (1051) carries to the progress window.
#pragma once

#include <cstdint>

namespace format {

enum Error : int32_t {
  ERR_OK = 0,
  ERR_READ = 1,           // a file cannot be opened, sought or read
  ERR_WRITE = 2,          // a write failed
  ERR_NO_MEMORY = 7,      // an allocation failed
  ERR_WAVE_CHUNK = 23,    // a WAVE header's chunks run beyond the bytes read
  ERR_WAVE_FORMAT = 58,   // not a WAVE file, or a sample format that is not supported
  ERR_WAVE_NO_DATA = 63,  // a WAVE file without data

  ERR_BUSY = 100,         // a job or the play session holds what the start needs
  ERR_SAME_FILE = 101,    // the output would overwrite the input: nothing was opened
  ERR_OPEN_INPUT = 102,   // argument: the path
  ERR_OPEN_OUTPUT = 103,  // argument: the path
  ERR_CREATE_OUTPUT = 104,
  ERR_NOT_MPEG = 105,        // argument: the path
  ERR_URL = 106,             // argument: the address; there is no network code
  ERR_STREAM_REFUSED = 107,  // the stream would not open; its reader has said why
  ERR_NOT_WAVE = 108,        // not a WAVE file, or one the encoder cannot take
  ERR_BAD_WAVE = 109,        // RIFF WAVE without a usable "data" chunk
  ERR_WAVE_EMPTY = 110,      // a "data" chunk of length 0
  ERR_BAD_PARAMS = 111,      // encoder parameters refused (layer, rate, mode pairing)
  ERR_DECODE = 113,          // a frame that would not decode: playing stops
  ERR_DECODE_ABORTED = 114,  // a frame that would not decode: the file job stops
  ERR_MPEG25 = 115,
  ERR_FREE_FORMAT = 116,
  ERR_SYNC = 117,
  ERR_VIDEO_STREAM = 118,  // a stream with video where audio was expected
  ERR_NOT_SYSTEM = 119,    // the splitter found no MPEG system stream start code
  ERR_VIDEO_FRAME = 120,   // a video packet's header is broken
  ERR_AUDIO_FRAME = 121,   // an audio packet's header is broken
  ERR_VIDEO_WRITE = 122,   // reserved: the splitter never writes video
  ERR_AUDIO_WRITE = 123,
  ERR_NO_AUDIO_FRAMES = 124,  // a system stream without audio packets
  ERR_DEVICE = 125,           // argument: the sound device's error number
  ERR_TIMEOUT = 126,          // a thread did not stop within its bound
  ERR_TEXT_TOO_LARGE = 127,   // argument: the path
  ERR_LINE_TOO_LONG = 128,    // argument: the path
  ERR_RATE_RANGE = 129,       // a resampling rate outside 2000-96000
  ERR_STREAM_END = 130,       // a stream that ends in the search for its first frame
  ERR_NO_TAG = 131,           // a file without an ID3 tag (the cleared record was given)
  ERR_TAG_OPEN = 132,         // a file that cannot be opened for its tag (read-only, missing, a folder)
  ERR_TAG_WRAPPED = 133,      // RIFF-wrapped audio: shown, never tagged
  ERR_TAG_WRITE = 134,        // the tag's write or its check failed; the file is as it was
  ERR_NO_TAG_TO_DELETE = 135,
};

}  // namespace format
