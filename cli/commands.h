// tovra-cli subcommands. Each returns the process exit status: 0 only when the job ended as done.
#pragma once

namespace cli {

int cmd_info(int argc, char** argv);
int cmd_decode(int argc, char** argv);
int cmd_settings(int argc, char** argv);
int cmd_resample(int argc, char** argv);
int cmd_split(int argc, char** argv);
int cmd_encode(int argc, char** argv);
int cmd_play(int argc, char** argv);
int cmd_tag(int argc, char** argv);
int cmd_batch(int argc, char** argv);

// The demo playlist (a Layer II and a Layer III track) that the play command uses by default.
const char* demo_playlist_path();

}  // namespace cli
