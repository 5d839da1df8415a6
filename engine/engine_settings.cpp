// Reading the settings: the only place where the engine looks at the environment.
#include "engine/engine_settings.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cache_entry.h"
#include "engine/log.h"

namespace lumora2 {
namespace {

using Path = std::filesystem::path;

constexpr const char* kArmValidation = "LUMORA2_ARM_VALIDATION=v1";

// A 32-bit float written in decimal, the whole text and nothing else: an optional sign, digits
// with an optional fraction and exponent. No blanks, no hexadecimal, no "inf" or "nan".
std::optional<float> parseFloat(const std::string& text) {
  if (text.empty()) return std::nullopt;
  bool digit = false;
  for (char c : text) {
    if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
      digit = true;
    } else if (std::strchr("+-.eE", c) == nullptr) {
      return std::nullopt;
    }
  }
  if (!digit) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  float value = std::strtof(text.c_str(), &end);
  if (end != text.c_str() + text.size()) return std::nullopt;
  return value;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string trimmedLower(const std::string& value) {
  const char* blanks = " \t\n\r\v\f";
  std::size_t first = value.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  std::size_t last = value.find_last_not_of(blanks);
  return lower(value.substr(first, last - first + 1));
}

std::string joined(const std::vector<std::string>& items, const char* separator) {
  std::string out;
  for (const std::string& item : items) {
    if (!out.empty()) out += separator;
    out += item;
  }
  return out;
}

// The arm named by `raw` (trimmed, lower-cased) when it is one of `known`; otherwise `fallback`,
// with one line saying so.
Arm resolveArm(std::string_view name, const std::optional<std::string>& raw,
               const std::vector<std::string>& known, const std::string& fallback) {
  if (!raw) return {fallback, std::nullopt, true};
  std::string value = trimmedLower(*raw);
  if (std::find(known.begin(), known.end(), value) != known.end()) return {value, value, true};
  engineLog("[vivra] " + std::string(name) + "=" + (value.empty() ? "<empty>" : value) +
            " is not a recognised arm (known: " + joined(known, "|") + ") — arming the DEFAULT " +
            fallback + ", NOT the pre-09-02 legacy arm. " + kArmValidation);
  return {fallback, value, false};
}

std::optional<Path> passwdHome(const char* user) {
  std::vector<char> buf(16384);
  passwd entry{};
  passwd* found = nullptr;
  int rc = user == nullptr ? getpwuid_r(getuid(), &entry, buf.data(), buf.size(), &found)
                           : getpwnam_r(user, &entry, buf.data(), buf.size(), &found);
  if (rc != 0 || found == nullptr || found->pw_dir == nullptr || *found->pw_dir == '\0') {
    return std::nullopt;
  }
  return Path(found->pw_dir);
}

// $HOME when set and non-empty, else the password database's home of the real user.
std::optional<Path> homeDir() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return Path(home);
  return passwdHome(nullptr);
}

// "~" and "~/…" become the home directory, "~user/…" that user's home; anything else, and a "~"
// whose home is unknown, stays as it is.
std::string expandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  std::size_t slash = path.find('/');
  std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  std::optional<Path> home = user.empty() ? homeDir() : passwdHome(user.c_str());
  if (!home) return path;
  std::string out = home->string();
  if (slash != std::string::npos) {
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    out += path.substr(slash);
  }
  return out;
}

std::optional<Path> directoryKnob(const std::optional<std::string>& value) {
  if (!value || value->empty()) return std::nullopt;
  return Path(expandTilde(*value));
}

}  // namespace

std::optional<std::string> EngineSettings::knob(std::string_view name) const {
  auto found = knobs.find(name);
  if (found == knobs.end()) return std::nullopt;
  return found->second;
}

std::optional<EngineSettings::Path> EngineSettings::devDir() const {
  return lumora2Dir ? lumora2Dir : vivraDir;
}

EngineSettings EngineSettings::fromKnobs(const Lookup& lookup) {
  EngineSettings s;
  for (std::string_view name : kHonouredKnobs) {
    if (std::optional<std::string> value = lookup(name)) s.knobs.emplace(name, std::move(*value));
  }
  s.process.onset = resolveArm("LUMORA2_ONSET", s.knob("LUMORA2_ONSET"),
                               {"gpu", "gpu_noclamp", "prepend", "clamp_only"}, "gpu");
  s.process.ctxSeed =
      resolveArm("LUMORA2_CTX_SEED", s.knob("LUMORA2_CTX_SEED"), {"canon", "warm"}, "canon");
  if (auto preproc = s.knob("LUMORA2_AUDIO_PREPROC")) s.process.audioPreproc = lower(*preproc);
  s.process.graphLiveness = s.knob("LUMORA2_GRAPH_LIVENESS") != "0";
  s.process.sharedFrontEnd = s.knob("LUMORA2_SHARED_W2V") == "1";

  std::optional<std::string> sharpen = s.knob("LUMORA2_SHARPEN");
  if (!sharpen) sharpen = s.knob("VIVRA_SHARPEN");
  const std::optional<float> amount = sharpen ? parseFloat(*sharpen) : std::nullopt;
  s.sharpen = amount ? std::max(*amount, 0.0f) : 0.8f;
  s.fullWarmUp = s.knob("LUMORA2_WARMUP") == "full";

  s.lumora2Dir = directoryKnob(s.knob("MORVANE_LUMORA2_DIR"));
  s.vivraDir = directoryKnob(s.knob("MORVANE_VIVRA_DIR"));
  if (auto cache = s.knob("LUMORA2_MLMODELC_CACHE"); cache && !cache->empty()) s.cacheRoot = *cache;
  s.cacheKeep = cacheEntry::keepFromText(s.knob("LUMORA2_MLMODELC_CACHE_KEEP"));
  return s;
}

EngineSettings EngineSettings::fromEnvironment() {
  auto variable = [](std::string_view name) -> std::optional<std::string> {
    const char* value = std::getenv(std::string(name).c_str());
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
  };
  EngineSettings s = fromKnobs(variable);
  if (!s.cacheRoot) {
    const std::optional<std::string> xdg = variable("XDG_CACHE_HOME");
    if (xdg && !xdg->empty() && xdg->front() == '/') {
      s.cacheRoot = Path(*xdg) / "lumora2-model";
    } else if (std::optional<Path> home = homeDir()) {
      s.cacheRoot = *home / ".cache" / "lumora2-model";
    }
  }
  // OMP_NUM_THREADS, when set to a positive number, is the user's (or a parent's share of the
  // cores among its children).
  if (const std::optional<std::string> threads = variable("OMP_NUM_THREADS")) {
    char* end = nullptr;
    const long n = std::strtol(threads->c_str(), &end, 10);
    if (end != threads->c_str() && *end == '\0' && n > 0 && n <= 4096) {
      s.computeThreads = static_cast<int>(n);
    }
  }
  return s;
}

}  // namespace lumora2
