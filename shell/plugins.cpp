#include "shell/plugins.h"

#include <dirent.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace shell {

Plugins plugins;

namespace {

using Factory = void* (*)();
using Destructor = void (*)(void* self, int32_t flags);

// The folder's "*.so" files in name order, so that which five load does not depend on the file
// system's order.
std::vector<std::string> module_files(const char* folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder);
  if (!dir) return names;
  while (dirent* e = readdir(dir)) {
    size_t n = std::strlen(e->d_name);
    if (n > 3 && std::strcmp(e->d_name + n - 3, ".so") == 0) names.emplace_back(e->d_name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

void load_table(const char* folder, const char* entry_name, PluginSlot* slots, int32_t capacity, int32_t& count) {
  for (const std::string& name : module_files(folder)) {
    if (count >= capacity) break;
    PluginSlot& slot = slots[count];
    std::snprintf(slot.file, sizeof slot.file, "%s", name.c_str());
    std::string path = std::string(folder) + "/" + name;
    slot.module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!slot.module) {
      slot.object = nullptr;
      continue;
    }
    slot.entry = dlsym(slot.module, entry_name);
    if (!slot.entry) {
      dlclose(slot.module);
      slot.module = nullptr;
      slot.object = nullptr;
      continue;  // the next file takes this slot
    }
    slot.object = reinterpret_cast<Factory>(slot.entry)();
    ++count;
  }
}

void unload_table(PluginSlot* slots, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    PluginSlot& slot = slots[i];
    if (slot.object) {
      Destructor destroy = *reinterpret_cast<Destructor*>(*static_cast<void**>(slot.object));
      destroy(slot.object, 1);
      slot.object = nullptr;
    }
    if (slot.module) {
      dlclose(slot.module);
      slot.module = nullptr;
    }
  }
}

}  // namespace

void load_plugins(const char* folder) {
  plugins = Plugins{};
  load_table(folder, "TvX_PlugInModule", plugins.output, OUTPUT_PLUGIN_SLOTS, plugins.output_count);
  load_table(folder, "TvFX_PlugInModule", plugins.effect, EFFECT_PLUGIN_SLOTS, plugins.effect_count);
}

void unload_plugins() {
  unload_table(plugins.output, plugins.output_count);
  unload_table(plugins.effect, plugins.effect_count);
}

}  // namespace shell
