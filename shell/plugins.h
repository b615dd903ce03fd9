// The plug-in host: shared objects in "Plugins" beside the executable are loaded at start-up, each
// asked once for its object, and at exit each object is destroyed and its module unloaded. Nothing
// in between calls a plug-in.
//
// The C ABI of a module: an exported function "TvX_PlugInModule" (an output filter) or
// "TvFX_PlugInModule" (an effect) taking nothing and returning a pointer to an object whose first
// word points at a table of functions; the table's first entry is the deleting destructor,
// void (*)(void* self, int32_t flags), called once with flags 1. A module with both entries is
// loaded once for each table.
//
// Main thread only.
#pragma once

#include <cstdint>

namespace shell {

constexpr int32_t OUTPUT_PLUGIN_SLOTS = 5;
constexpr int32_t EFFECT_PLUGIN_SLOTS = 3;

struct PluginSlot {
  char file[260] = {};
  void* module = nullptr;
  void* entry = nullptr;
  void* object = nullptr;
};

struct Plugins {
  PluginSlot output[OUTPUT_PLUGIN_SLOTS];
  PluginSlot effect[EFFECT_PLUGIN_SLOTS];
  int32_t output_count = 0;
  int32_t effect_count = 0;
  // Kept for the plug-in selection that no one makes: two counters and the selected filter and
  // effect (-1 none).
  int32_t reserved[2] = {};
  int32_t selected_output = -1;
  int32_t selected_effect = -1;
};

extern Plugins plugins;

// Loads the modules of folder (no trailing "/") into the two tables. A missing folder is empty.
void load_plugins(const char* folder);
// Destroys each object and unloads each module, output table first.
void unload_plugins();

}  // namespace shell
