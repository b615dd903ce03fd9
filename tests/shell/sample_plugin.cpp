// A plug-in module for the host's tests, built in three kinds: with both entries
// (TOVRA_SAMPLE_BOTH), with the output filter's only (TOVRA_SAMPLE_FILTER), or with none. Each
// entry call and each destruction appends a letter to the file named by TOVRA_PLUGIN_LOG:
// "x" filter made, "f" effect made, "d" destroyed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void note(const char* letter) {
  if (const char* path = std::getenv("TOVRA_PLUGIN_LOG")) {
    if (std::FILE* f = std::fopen(path, "a")) {
      std::fputs(letter, f);
      std::fclose(f);
    }
  }
}

// The object's table holds C functions taking the object as a plain pointer, as the host calls them.
void destroy(void* self, int32_t flags);
using Destroy = void (*)(void*, int32_t);
const Destroy table[] = {destroy};
struct Object {
  const Destroy* vtable = table;
};
void destroy(void* self, int32_t flags) {
  note("d");
  if (flags & 1) delete static_cast<Object*>(self);
}

}  // namespace

#if defined(TOVRA_SAMPLE_BOTH) || defined(TOVRA_SAMPLE_FILTER)
extern "C" __attribute__((visibility("default"))) void* TvX_PlugInModule() {
  note("x");
  return new Object;
}
#endif
#if defined(TOVRA_SAMPLE_BOTH)
extern "C" __attribute__((visibility("default"))) void* TvFX_PlugInModule() {
  note("f");
  return new Object;
}
#endif
