// The title in the face: the entry's text in the "Font" settings' face, drawn through Pango into a
// strip on the main thread, and the scroller thread that moves it one pixel per 80 ms, repeating it
// with a 20-pixel gap, after wiping it in through one of the skin's two wipe patterns. The scroller
// only copies pixels into the title's rectangle of the back buffer (under back_lock) and asks for a
// repaint through display_host; it never calls the toolkit.
#pragma once

#include <cstdint>
#include <string>

#include "library/settings.h"
#include "shell/skin_draw.h"

namespace shell {

// Main thread, after the skin is loaded.
void install_title(Skin& skin);

// Main thread: the text to show (UTF-8; empty when no entry) in the given font. A new text starts
// at the left and, with the scroller running, wipes in. Returns whether the text changed.
bool set_title_text(const std::string& text, const library::FontSettings& font);
// Main thread: puts the title on the face unless a wipe is drawing it.
void draw_title_text();

// One step of the title: clears the mask, writes the text along the row (draw_text), fades its
// right end, applies the wipe pattern at column wipe (when 0 or more) and copies it to the face.
void draw_title_frame(bool draw_text, int32_t wipe);

// Main thread: start or stop the scroller. Stopping waits for it to end.
void start_title_thread();
void stop_title_thread();

}  // namespace shell
