// The render commands' argument checks, made in lumora2-model itself so that a mistyped command
// line is refused at once; then the render host (render_host.h) takes over the process, or, in
// the render host, the installed handler renders.
#include <string>

#include "host/command.h"
#include "host/commands.h"
#include "host/render_host.h"

namespace lumora2 {

int cmdValidate(const Positionals& positionals, const Options& options) {
  if (positionals.empty())
    throw Err("usage: validate <X.avatar> --engine vivra.model [--min-sharp F]");
  if (option(options, "engine") == nullptr) throw Err("validate requires --engine <vivra.model>");
  if (Handler render = renderHandlers().validate) return render(positionals, options);
  execRenderHost();
}

int cmdRenderStream(const Positionals& positionals, const Options& options) {
  if (positionals.empty()) throw Err("usage: render-stream <X.avatar> --engine <vivra.model>");
  if (option(options, "engine") == nullptr) {
    throw Err("render-stream requires --engine <vivra.model>");
  }
  if (Handler render = renderHandlers().renderStream) return render(positionals, options);
  execRenderHost();
}

}  // namespace lumora2
