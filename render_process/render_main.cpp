// lumora2-model-render: the part of lumora2-model that links the engine. lumora2-model hands a
// validate or render-stream command line over to it unchanged (host/render_host.h); it runs the
// same entry point with the rendering handlers installed. render-sessions, which only parents
// that share a render process start, is its own.
#include <string_view>

#include "host/entry.h"
#include "host/render_host.h"
#include "render_commands.h"

int main(int argc, char** argv) {
  if (argc >= 2 && std::string_view(argv[1]) == "render-sessions") {
    return lumora2::renderSessionsMain(argc, argv);
  }
  lumora2::installRenderHandlers({lumora2::renderValidate, lumora2::renderStream});
  return lumora2::lumora2_host_main(argc, argv);
}
