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
//   write <path> <text>         a file holding <text> (rest of the line; \n for a line break)
//   mkdir <path> / rm <path> / symlink <target> <path>
//   flip <path> <offset>        invert one byte of a file
//   zip <out> <dir>             /usr/bin/zip -rXq <out> . inside <dir>, as the legacy tool did
//   legacy-manifest <dir> <format-tag>
//                               an unstamped manifest.json in <dir> declaring each top-level entry
//                               under its own name as label
//   ls <dir>                    record the files below <dir> with their sizes (in .stdout)
// Volatile text is normalised before comparison: the scratch directory's path becomes <scratch>,
// ISO 8601 UTC times become <time>, UUIDs become <uuid>.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "container/archive.h"
#include "host/support/process.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

fs::path goldenDir() { return fs::path(LUMORA2_SOURCE_DIR) / "tests" / "host" / "golden"; }

std::vector<std::string> caseNames() {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(goldenDir())) {
    if (entry.path().extension() == ".case") names.push_back(entry.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void spit(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::vector<std::string> splitWords(const std::string& line) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (i < line.size()) {
    if (line[i] == ' ' || line[i] == '\t') {
      ++i;
      continue;
    }
    std::string word;
    if (line[i] == '"') {
      std::size_t close = line.find('"', i + 1);
      if (close == std::string::npos) close = line.size();
      word = line.substr(i + 1, close - i - 1);
      i = close + 1;
    } else {
      while (i < line.size() && line[i] != ' ' && line[i] != '\t') word += line[i++];
    }
    words.push_back(word);
  }
  return words;
}

// The small but complete staging directories the packing cases work on.
void stagePackage(const fs::path& dir, const std::string& name) {
  spit(dir / name / "model.pt", "torchscript:" + name + "\n");
  spit(dir / name / "io.json", R"({"inputs":[],"outputs":[]})"
                               "\n");
}

void stageEngine(const fs::path& dir) {
  stagePackage(dir, "w2v_frontend_cpuAndNE.mlpackage");
  stagePackage(dir, "audiotokenizer_cpuAndNE.mlpackage");
  stagePackage(dir, "student_v4_forward_frame_cpuAndNE.mlpackage");
  spit(dir / "warm.wav", "RIFF warm-up speech\n");
}

void stageAvatar(const fs::path& dir) {
  stagePackage(dir, "dec_p2_v3_all.mlpackage");
  spit(dir / "canon.f32", std::string(16, '\x01'));
  spit(dir / "idle.mp4", "idle clip\n");
}

void writeLegacyManifest(const fs::path& dir, const std::string& format) {
  nlohmann::json files = nlohmann::json::object();
  std::vector<fs::path> entries;
  for (const fs::directory_entry& e : fs::directory_iterator(dir)) entries.push_back(e.path());
  std::sort(entries.begin(), entries.end());
  for (const fs::path& entry : entries) {
    std::string name = entry.filename().string();
    if (name == "manifest.json") continue;
    Archive::Digest digest = Archive::digest(entry);
    files[name] = {{"path", name}, {"sha256", digest.sha256}, {"bytes", digest.bytes}};
  }
  nlohmann::json manifest = {
      {"format", format}, {"created", "2024-05-01T12:00:00Z"}, {"files", files}};
  if (format.find("engine") != std::string::npos) {
    manifest["abi"] = 2;
    manifest["runtime"] = {{"input_rate", 16000}, {"frame", {416, 720}}, {"fps", 20}};
  } else {
    manifest["code"] = "legacy";
    manifest["name"] = "Legacy";
    manifest["gender"] = "f";
    manifest["persona"] = "calm";
    manifest["requires_engine_abi"] = 2;
    manifest["provenance"] = {{"student_sha", "0123abcd"}};
  }
  spit(dir / "manifest.json", manifest.dump(2) + "\n");
}

std::string listTree(const fs::path& dir) {
  std::vector<std::string> lines;
  if (!fs::exists(dir)) return "(no " + dir.filename().string() + ")\n";
  for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir)) {
    std::string rel = e.path().lexically_relative(dir).generic_string();
    if (e.is_symlink()) {
      lines.push_back(rel + " -> " + fs::read_symlink(e.path()).string());
    } else if (e.is_directory()) {
      lines.push_back(rel + "/");
    } else {
      lines.push_back(rel + "  " + std::to_string(e.file_size()));
    }
  }
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& line : lines) out += line + "\n";
  return out;
}

std::string normalise(std::string text, const std::string& scratch) {
  for (std::size_t at; (at = text.find(scratch)) != std::string::npos;) {
    text.replace(at, scratch.size(), "<scratch>");
  }
  static const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
  static const std::regex uuid(
      R"([0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12})");
  text = std::regex_replace(text, time, "<time>");
  return std::regex_replace(text, uuid, "<uuid>");
}

// One stream's record of a run, so that an unterminated last line stays visible.
std::string section(const std::string& title, const std::string& body) {
  std::string out = "$ " + title + "\n" + body;
  if (!body.empty() && body.back() != '\n') out += "\n[no newline at end]\n";
  return out;
}

struct Transcript {
  std::string status;
  std::string out;
  std::string err;
};

class GoldenCase : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/lumora2-golden-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    scratch_ = fs::canonical(pattern);
    fs::create_directories(scratch_ / "tmp");
    env_ = {
        {"PATH", "/usr/bin:/bin"}, {"LANG", "C.UTF-8"}, {"TMPDIR", (scratch_ / "tmp").string()}};
  }
  void TearDown() override {
    if (!HasFailure()) fs::remove_all(scratch_);
  }

  Transcript play(const std::string& script) {
    Transcript t;
    std::istringstream lines(script);
    std::string line;
    int lineNo = 0;
    while (std::getline(lines, line)) {
      ++lineNo;
      if (line.empty() || line[0] == '#') continue;
      std::vector<std::string> w = splitWords(line);
      const std::string& step = w[0];
      auto arg = [&](std::size_t i) { return i < w.size() ? w[i] : std::string(); };
      auto at = [&](std::size_t i) { return scratch_ / arg(i); };
      if (step == "run") {
        std::vector<std::string> args(w.begin() + 1, w.end());
        test::ProcessResult r = test::runProcess(test::modelBinary(), args, scratch_, env_);
        std::string title = "lumora2-model" + line.substr(3);
        t.status += std::to_string(r.status) + "  " + title + "\n";
        t.out += section(title, r.out);
        t.err += section(title, r.err);
      } else if (step == "env") {
        std::string assignment = line.substr(4);
        std::size_t eq = assignment.find('=');
        env_[assignment.substr(0, eq)] = assignment.substr(eq + 1);
      } else if (step == "unenv") {
        env_.erase(arg(1));
      } else if (step == "stage-engine") {
        stageEngine(at(1));
      } else if (step == "stage-avatar") {
        stageAvatar(at(1));
      } else if (step == "write") {
        std::size_t end = line.find(' ', 6);  // after "write <path>"
        std::string text = end == std::string::npos ? "" : line.substr(end + 1);
        for (std::size_t p; (p = text.find("\\n")) != std::string::npos;) text.replace(p, 2, "\n");
        spit(at(1), text);
      } else if (step == "mkdir") {
        fs::create_directories(at(1));
      } else if (step == "rm") {
        fs::remove_all(at(1));
      } else if (step == "symlink") {
        fs::create_symlink(arg(1), at(2));
      } else if (step == "flip") {
        std::fstream f(at(1), std::ios::in | std::ios::out | std::ios::binary);
        f.seekg(std::stoll(arg(2)));
        char c = static_cast<char>(f.get() ^ 0xff);
        f.seekp(std::stoll(arg(2)));
        f.put(c);
      } else if (step == "zip") {
        test::ProcessResult r =
            test::runProcess("/usr/bin/zip", {"-rXq", at(1).string(), "."}, at(2), env_);
        EXPECT_EQ(r.status, 0) << "zip: " << r.out << r.err;
      } else if (step == "legacy-manifest") {
        writeLegacyManifest(at(1), arg(2));
      } else if (step == "ls") {
        t.out += section(line, listTree(at(1)));
      } else {
        ADD_FAILURE() << GetParam() << ".case:" << lineNo << ": unknown step '" << step << "'";
      }
    }
    t.status = normalise(t.status, scratch_.string());
    t.out = normalise(t.out, scratch_.string());
    t.err = normalise(t.err, scratch_.string());
    return t;
  }

  fs::path scratch_;
  std::map<std::string, std::string> env_;
};

TEST_P(GoldenCase, MatchesExpectedStatusOutputAndErrors) {
  const fs::path base = goldenDir() / GetParam();
  Transcript actual = play(slurp(base.string() + ".case"));
  const char* regen = std::getenv("LUMORA2_REGEN_GOLDEN");
  if (regen != nullptr && std::string(regen) == "1") {
    spit(base.string() + ".status", actual.status);
    spit(base.string() + ".stdout", actual.out);
    spit(base.string() + ".stderr", actual.err);
    GTEST_SKIP() << "regenerated " << base.string() << ".{status,stdout,stderr}";
  }
  EXPECT_EQ(actual.status, slurp(base.string() + ".status")) << "exit statuses differ";
  EXPECT_EQ(actual.out, slurp(base.string() + ".stdout")) << "standard output differs";
  EXPECT_EQ(actual.err, slurp(base.string() + ".stderr")) << "standard error differs";
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldenCase, ::testing::ValuesIn(caseNames()),
                         [](const ::testing::TestParamInfo<std::string>& p) {
                           std::string name = p.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
}  // namespace lumora2
