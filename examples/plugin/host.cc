// SPDX-License-Identifier: Apache-2.0
// Loads the plugin and unloads it unused, then asks it for the time and unloads it while its threads run, and
// asks again: plugin_host PLUGIN SERVER
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace {

using NowUs = int64_t (*)(const char*);

int64_t SystemTimeUs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Asks until there is a time, `tries` times at most. 0 when there is none.
int64_t Ask(const char* plugin, const char* server, int tries) {
  void* const handle = dlopen(plugin, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 0;
  }
  const auto now_us_of = reinterpret_cast<NowUs>(dlsym(handle, "plugin_now_us"));
  int64_t now_us = 0;
  for (int i = 0; i < tries && now_us == 0; ++i) {
    now_us = now_us_of(server);
    if (now_us == 0 && i + 1 < tries) {
      usleep(50000);
    }
  }
  dlclose(handle);
  return now_us;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: plugin_host PLUGIN SERVER\n");
    return 2;
  }
  Ask(argv[1], argv[2], 0);  // unloaded before any use of the library
  Ask(argv[1], argv[2], 1);  // unloaded in the middle of the first attempt
  usleep(300000);            // its thread goes on
  const int64_t now_us = Ask(argv[1], argv[2], 100);
  std::printf("offset %lld us\n", static_cast<long long>(now_us - SystemTimeUs()));
  return now_us != 0 ? 0 : 1;
}
