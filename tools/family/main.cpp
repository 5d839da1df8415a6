// lumora2-family: writes the reference model family (engine, two avatars) and packs it with the
// host's own pack commands.
#include <charconv>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "family/family.h"

namespace {

using namespace lumora2::family;

constexpr std::string_view kUsage =
    "usage: lumora2-family --out DIR [--heavy] [--faulty-student] [--decoder normal|zeros|nan]\n"
    "                      [--abi N] [--host PATH] [--no-pack]\n"
    "  writes DIR/staging/{engine,ava,bram} and packs DIR/vivra.model, DIR/ava.avatar and\n"
    "  DIR/bram.avatar with `lumora2-model pack-engine|pack-avatar` (--no-pack: staging only)";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

FamilyOptions parseOptions(const std::vector<std::string_view>& args) {
  FamilyOptions options;
#ifdef LUMORA2_FAMILY_HOST
  options.host = LUMORA2_FAMILY_HOST;
#endif
  bool pack = true;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string_view arg = args[i];
    auto value = [&]() -> std::string_view {
      if (i + 1 >= args.size()) throw UsageError(std::string(arg) + " needs a value");
      return args[++i];
    };
    if (arg == "--out") {
      options.out = value();
    } else if (arg == "--heavy") {
      options.graphs.heavy = true;
    } else if (arg == "--faulty-student") {
      options.graphs.faultyStudent = true;
    } else if (arg == "--decoder") {
      const std::string_view kind = value();
      const auto parsed = parseDecoderKind(kind);
      if (!parsed) throw UsageError("unknown decoder kind '" + std::string(kind) + "'");
      options.graphs.decoder = *parsed;
    } else if (arg == "--abi") {
      const std::string_view text = value();
      const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), options.abi);
      if (ec != std::errc() || end != text.data() + text.size()) {
        throw UsageError("--abi wants an integer, not '" + std::string(text) + "'");
      }
    } else if (arg == "--host") {
      options.host = std::filesystem::path(value());
    } else if (arg == "--no-pack") {
      pack = false;
    } else if (arg == "--help" || arg == "-h") {
      throw UsageError("");
    } else {
      throw UsageError("unknown argument '" + std::string(arg) + "'");
    }
  }
  if (options.out.empty()) throw UsageError("--out DIR is required");
  if (!pack) {
    options.host.reset();
  } else if (!options.host) {
    throw UsageError("no lumora2-model binary known: pass --host PATH or --no-pack");
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  FamilyOptions options;
  try {
    options = parseOptions(std::vector<std::string_view>(argv + 1, argv + argc));
  } catch (const UsageError& e) {
    if (*e.what() != '\0') std::cerr << "error: " << e.what() << "\n";
    std::cerr << kUsage << "\n";
    return *e.what() != '\0' ? 1 : 0;
  }
  try {
    const FamilyResult result = buildFamily(
        options, [](const std::string& line) { std::cerr << "[family] " << line << "\n"; });
    std::cout << "reference family: " << (options.graphs.heavy ? "heavy" : "light")
              << " graphs, student " << (options.graphs.faultyStudent ? "faulty" : "normal")
              << ", decoder " << decoderKindName(options.graphs.decoder) << ", abi " << options.abi
              << ", idle clips " << result.videoEncoder << "\n";
    std::cout << "  staging  " << result.staging.string() << "\n";
    for (const Artifact& a : result.artifacts) {
      std::printf("  %-12s %10ju bytes  sha256 %.16s…\n", a.path.filename().c_str(), a.bytes,
                  a.sha256.c_str());
    }
    std::fflush(stdout);
  } catch (const std::exception& e) {
    std::cerr << "error: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
