// Golden command-line tests: every tests/host/golden/<case>.case is a short script run against the
// real lumora2-model binary in a fresh scratch directory. Each `run` step's exit status, standard
// output and standard error are compared, separately, with <case>.status, <case>.stdout and
// <case>.stderr. LUMORA2_REGEN_GOLDEN=1 rewrites those files from what the binary does now.
//
// Script steps, one per line ("#" starts a comment line; words are split on blanks, "…" groups a
// word with blanks, "" is an empty word):
//   run <args…>                 run lumora2-model with these arguments
//   env NAME=VALUE / unenv NAME set or clear a variable for later runs
//   stage-engine <dir>          a small engine staging directory (three packages and warm.wav)
//   stage-avatar <dir>          a small avatar staging directory (decoder package, canon, idle)
//   write <path> <text>         a file holding <text> (the rest of the line)
//   mkdir <path> / rm <path> / symlink <target> <path>
//   flip <path> <offset>        invert one byte of a file
//   zip <out> <dir>             /usr/bin/zip -rXq <out> . inside <dir>, as the legacy tool did
//   legacy-manifest <dir> <format-tag>
//                               an unstamped manifest.json in <dir> declaring each top-level entry
//                               under its own name as label
//   ls <dir>                    record the files below <dir> with their sizes (in .stdout)
// Volatile text is normalised before comparison: the scratch directory's path becomes <scratch>,
// ISO 8601 UTC times become <time>, UUIDs become <uuid>.
//
// The same file checks that the executable links no render library: the artifact commands must
// start in milliseconds, and LibTorch alone costs 0.4 s and 160 MiB to load. Their time and memory
// on a 1 GiB container are measured by bench/artifacts.sh against a baseline, not here.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "container/archive.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::string>;

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void spit(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

fs::path makeTempDir() {
  std::string pattern = "/tmp/lumora2-golden-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  return fs::canonical(pattern);
}

struct Outcome {
  int status = -1;  // exit status, or 128 + signal number
  std::string out, err;
};

std::string shellWord(const std::string& word) {
  std::string q = "'";
  for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Runs argv[0] in `cwd` with exactly `env` and standard input from /dev/null. The two output
// streams go to files under `capture`, so that a chatty child never stalls on a pipe.
Outcome runProcess(const std::vector<std::string>& argv, const fs::path& cwd, const Env& env,
                   const fs::path& capture) {
  // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) about `" " + std::string`.
  std::string command = "cd ";
  auto word = [&](const std::string& text) { command.append(" ").append(shellWord(text)); };
  command.append(shellWord(cwd)).append(" && exec /usr/bin/env -i");
  for (const auto& [name, value] : env) word(std::string(name).append("=").append(value));
  for (const std::string& w : argv) word(w);
  command.append(" </dev/null >").append(shellWord(capture / "out"));
  command.append(" 2>").append(shellWord(capture / "err"));
  int raw = std::system(command.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), slurp(capture / "out"),
          slurp(capture / "err")};
}

TEST(StartupTest, ExecutableLinksNoRenderLibraries) {
  fs::path capture = makeTempDir();
  Outcome r = runProcess({"/usr/bin/ldd", LUMORA2_MODEL_BIN}, "/", {}, capture);
  fs::remove_all(capture);
  ASSERT_EQ(r.status, 0) << r.err;
  // Only the library names count: load addresses are hex and may spell "c10".
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string library;
    words >> library;
    for (const char* heavy :
         {"torch", "c10", "opencv", "avcodec", "avformat", "swscale", "sndfile"}) {
      EXPECT_EQ(library.find(heavy), std::string::npos) << heavy << " in:\n" << r.out;
    }
  }
}

// The small but complete staging directories the packing cases work on.
void stage(const fs::path& dir, bool engine) {
  auto package = [&](const std::string& name) {
    spit(dir / name / "model.pt", "torchscript:" + name + "\n");
    spit(dir / name / "io.json", "{\"inputs\":[],\"outputs\":[]}\n");
  };
  if (engine) {
    for (const char* name : {"w2v_frontend_cpuAndNE.mlpackage", "audiotokenizer_cpuAndNE.mlpackage",
                             "student_v4_forward_frame_cpuAndNE.mlpackage"}) {
      package(name);
    }
    spit(dir / "warm.wav", "RIFF warm-up speech\n");
  } else {
    package("dec_p2_v3_all.mlpackage");
    spit(dir / "canon.f32", std::string(16, '\x01'));
    spit(dir / "idle.mp4", "idle clip\n");
  }
}

void writeLegacyManifest(const fs::path& dir, const std::string& format) {
  nlohmann::json files = nlohmann::json::object();  // keyed by name, so in name order
  for (const fs::directory_entry& e : fs::directory_iterator(dir)) {
    std::string name = e.path().filename().string();
    if (name == "manifest.json") continue;
    Archive::Digest digest = Archive::digest(e.path());
    files[name] = {{"path", name}, {"sha256", digest.sha256}, {"bytes", digest.bytes}};
  }
  nlohmann::json m = {{"format", format}, {"created", "2024-05-01T12:00:00Z"}, {"files", files}};
  if (format.find("engine") != std::string::npos) {
    m["abi"] = 2;
    m["runtime"] = {{"input_rate", 16000}, {"frame", {416, 720}}, {"fps", 20}};
  } else {
    m.update({{"code", "legacy"}, {"name", "Legacy"}, {"gender", "f"}, {"persona", "calm"}});
    m["requires_engine_abi"] = 2;
    m["provenance"] = {{"student_sha", "0123abcd"}};
  }
  spit(dir / "manifest.json", m.dump(2) + "\n");
}

std::string listTree(const fs::path& dir) {
  if (!fs::exists(dir)) return "(no " + dir.filename().string() + ")\n";
  std::vector<std::string> lines;
  for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir)) {
    std::string rel = e.path().lexically_relative(dir).generic_string();
    lines.push_back(e.is_symlink()     ? rel + " -> " + fs::read_symlink(e.path()).string()
                    : e.is_directory() ? rel + "/"
                                       : rel + "  " + std::to_string(e.file_size()));
  }
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& line : lines) out += line + "\n";
  return out;
}

// One stream's record of a run, so that an unterminated last line stays visible.
std::string section(const std::string& title, const std::string& body) {
  std::string out = "$ " + title + "\n" + body;
  return !body.empty() && body.back() != '\n' ? out + "\n[no newline at end]\n" : out;
}

class GoldenCase : public ::testing::TestWithParam<std::string> {
 protected:
  // The case works in base/s; the captured streams of each run lie beside it, out of its listings.
  void SetUp() override {
    base_ = makeTempDir();
    scratch_ = base_ / "s";
    fs::create_directories(scratch_ / "tmp");
    env_ = {{"PATH", "/usr/bin:/bin"},
            {"LANG", "C.UTF-8"},
            {"TMPDIR", (scratch_ / "tmp").string()},
            // A fixed creation time: a compressed manifest's size must not depend on the clock.
            {"SOURCE_DATE_EPOCH", "1700000000"}};
  }
  void TearDown() override {
    if (!HasFailure()) fs::remove_all(base_);
  }

  std::string normalise(std::string text) const {
    static const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
    static const std::regex uuid(
        R"([0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12})");
    for (std::size_t at; (at = text.find(scratch_.string())) != std::string::npos;) {
      text.replace(at, scratch_.string().size(), "<scratch>");
    }
    return std::regex_replace(std::regex_replace(text, time, "<time>"), uuid, "<uuid>");
  }

  // Plays the script; returns the status, standard output and standard error records.
  std::array<std::string, 3> play(const std::string& script) {
    std::array<std::string, 3> t;
    std::istringstream lines(script);
    std::string line;
    for (int lineNo = 1; std::getline(lines, line); ++lineNo) {
      if (line.empty() || line[0] == '#') continue;
      std::vector<std::string> w;
      std::istringstream words(line);
      for (std::string word; words >> std::quoted(word);) w.push_back(word);
      auto at = [&](std::size_t i) { return scratch_ / (i < w.size() ? w[i] : ""); };
      const std::string rest = line.substr(line.find(' ') + 1);  // after the step word
      const std::string text =
          rest.find(' ') == std::string::npos ? "" : rest.substr(rest.find(' ') + 1);
      const std::map<std::string, std::function<void()>> steps{
          {"run",
           [&] {
             std::vector<std::string> argv{LUMORA2_MODEL_BIN};
             argv.insert(argv.end(), w.begin() + 1, w.end());
             Outcome r = runProcess(argv, scratch_, env_, base_);
             std::string title = "lumora2-model" + line.substr(3);
             t[0] += std::to_string(r.status) + "  " + title + "\n";
             t[1] += section(title, r.out);
             t[2] += section(title, r.err);
           }},
          {"env", [&] { env_[rest.substr(0, rest.find('='))] = rest.substr(rest.find('=') + 1); }},
          {"unenv", [&] { env_.erase(w[1]); }},
          {"stage-engine", [&] { stage(at(1), true); }},
          {"stage-avatar", [&] { stage(at(1), false); }},
          {"write", [&] { spit(at(1), text); }},
          {"mkdir", [&] { fs::create_directories(at(1)); }},
          {"rm", [&] { fs::remove_all(at(1)); }},
          {"symlink", [&] { fs::create_symlink(w[1], at(2)); }},
          {"flip",
           [&] {
             std::string bytes = slurp(at(1));
             bytes[std::stoul(w[2])] ^= '\xff';
             spit(at(1), bytes);
           }},
          {"zip",
           [&] {
             Outcome r =
                 runProcess({"/usr/bin/zip", "-rXq", at(1).string(), "."}, at(2), env_, base_);
             EXPECT_EQ(r.status, 0) << "zip: " << r.out << r.err;
           }},
          {"legacy-manifest", [&] { writeLegacyManifest(at(1), w[2]); }},
          {"ls", [&] { t[1] += section(line, listTree(at(1))); }},
      };
      auto step = steps.find(w[0]);
      if (step == steps.end()) {
        ADD_FAILURE() << GetParam() << ".case:" << lineNo << ": unknown step '" << w[0] << "'";
      } else {
        step->second();
      }
    }
    for (std::string& record : t) record = normalise(record);
    return t;
  }

  fs::path base_, scratch_;
  Env env_;
};

fs::path goldenDir() { return fs::path(LUMORA2_SOURCE_DIR) / "tests" / "host" / "golden"; }

TEST_P(GoldenCase, MatchesExpectedStatusOutputAndErrors) {
  const std::string base = (goldenDir() / GetParam()).string();
  const std::array<std::string, 3> actual = play(slurp(base + ".case"));
  const char* const suffixes[] = {".status", ".stdout", ".stderr"};
  const char* regen = std::getenv("LUMORA2_REGEN_GOLDEN");
  for (int i = 0; i < 3; ++i) {
    if (regen != nullptr && std::string(regen) == "1") {
      spit(base + suffixes[i], actual[i]);
    } else {
      EXPECT_EQ(actual[i], slurp(base + suffixes[i])) << suffixes[i] << " differs";
    }
  }
}

std::vector<std::string> caseNames() {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(goldenDir())) {
    if (entry.path().extension() == ".case") names.push_back(entry.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldenCase, ::testing::ValuesIn(caseNames()), [](const auto& p) {
  return std::regex_replace(p.param, std::regex("-"), "_");
});

}  // namespace
}  // namespace lumora2
