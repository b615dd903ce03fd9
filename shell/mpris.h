// MPRIS 2 on the session bus as org.mpris.MediaPlayer2.tovra: the root and Player interfaces, so
// that media keys, playerctl and the desktop's sound menu steer the window's play session. Calls
// from the bus go through the same commands and transport as the window's buttons; a short timer
// on the main loop compares what the engine publishes and sends PropertiesChanged on each change.
#pragma once

namespace shell {

// Claims the bus name and exports the object (main thread, after the window exists). Without a
// session bus the program runs without it.
void mpris_start();
// Releases the name and the object before the main loop ends.
void mpris_stop();

}  // namespace shell
