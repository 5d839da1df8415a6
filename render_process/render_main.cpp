// lumora2-model-render: the part of lumora2-model that links the engine. lumora2-model hands a
// validate or render-stream command line over to it unchanged (host/render_host.h); it runs the
// same entry point with the rendering handlers installed. render-sessions, which only parents
// that share a render process start, is its own.
#include <malloc.h>

#include <string_view>

#include "host/entry.h"
#include "host/render_host.h"
#include "render_commands.h"

namespace {

// Every frame passes through buffers of a megabyte or more (the graphs' outputs, the pictures),
// made and freed on several threads. With glibc's defaults those come from mmap or from a heap
// per thread and go back to the kernel when freed, so each new frame's buffers are fresh pages:
// 55,000 page faults a second and a quarter of the process's processor time at eight sessions.
// One heap that keeps up to 16 MiB free at its top and serves blocks of up to 64 MiB itself
// reuses the same pages frame after frame (about 1,000 faults a second, 30 % less processor
// time, the same resident memory); StreamSession still hands free pages back now and then.
void tuneAllocator() {
  ::mallopt(M_ARENA_MAX, 1);
  ::mallopt(M_MMAP_THRESHOLD, 64 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 16 << 20);
}

}  // namespace

int main(int argc, char** argv) {
  tuneAllocator();
  if (argc >= 2 && std::string_view(argv[1]) == "render-sessions") {
    return lumora2::renderSessionsMain(argc, argv);
  }
  lumora2::installRenderHandlers({lumora2::renderValidate, lumora2::renderStream});
  return lumora2::lumora2_host_main(argc, argv);
}
