// lumora2-model-render: the part of lumora2-model that links the engine. lumora2-model hands a
// validate or render-stream command line over to it unchanged (host/render_host.h); it runs the
// same entry point with the rendering handlers installed.
#include "host/entry.h"
#include "host/render_host.h"
#include "render_commands.h"

int main(int argc, char** argv) {
  lumora2::installRenderHandlers({lumora2::renderValidate, lumora2::renderStream});
  return lumora2::lumora2_host_main(argc, argv);
}
