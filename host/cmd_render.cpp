// The render commands' argument checks. Rendering itself arrives with the render engine; until
// then both commands stop, after checking their arguments exactly as they will, with one line
// saying so. This file is the one the render work replaces.
#include <optional>
#include <string>

#include "container/command.h"
#include "host/args.h"
#include "host/commands.h"

namespace lumora2 {
namespace {

constexpr double kDefaultMinSharp = 12.0;
constexpr double kDefaultOnsetRatio = 0.6;

// An option read as a number; absent or not a number gives the fallback.
double decimalOption(const Options& options, const std::string& name, double fallback) {
  const std::string* raw = option(options, name);
  if (raw == nullptr) return fallback;
  return parseDecimal(*raw).value_or(fallback);
}

}  // namespace

void cmdValidate(const Positionals& positionals, const Options& options) {
  if (positionals.empty())
    throw Err("usage: validate <X.avatar> --engine vivra.model [--min-sharp F]");
  if (option(options, "engine") == nullptr) throw Err("validate requires --engine <vivra.model>");
  [[maybe_unused]] double minSharp = decimalOption(options, "min-sharp", kDefaultMinSharp);
  [[maybe_unused]] double onsetRatio = decimalOption(options, "onset-ratio", kDefaultOnsetRatio);
  throw Err("validate: rendering is not available in this build");
}

void cmdRenderStream(const Positionals& positionals, const Options& options) {
  if (positionals.empty()) throw Err("usage: render-stream <X.avatar> --engine <vivra.model>");
  if (option(options, "engine") == nullptr) {
    throw Err("render-stream requires --engine <vivra.model>");
  }
  throw Err("render-stream: rendering is not available in this build");
}

}  // namespace lumora2
