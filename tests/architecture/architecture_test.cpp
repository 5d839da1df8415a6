// The house's rules, read from docs/ARCHITECTURE.md and held against the source tree: every quoted
// include of a product folder resolves to a file of that folder or of a folder it may use, the
// rules only point down the floors, every product folder is in the table, no folder that must stay
// free of LibTorch includes it, and no product file grows past 600 lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace lumora2::architecture::test {
namespace {

namespace fs = std::filesystem;
const fs::path kRoot = LUMORA2_SOURCE_DIR;

struct Rule {
  int floor = 0;
  std::set<std::string> uses;        // folders, with their trailing '/'
  bool graphFreeEngineOnly = false;  // uses the engine's graph-free base, not the engine
};

struct House {
  std::map<std::string, Rule> rules;  // by folder ("serve/")
  std::set<std::string> graphFree;    // engine headers as included ("engine/log.h")
};

std::vector<std::string> backticked(const std::string& cell) {
  std::vector<std::string> out;
  static const std::regex word("`([^`]+)`");
  for (auto it = std::sregex_iterator(cell.begin(), cell.end(), word); it != std::sregex_iterator();
       ++it) {
    out.push_back((*it)[1]);
  }
  return out;
}

std::vector<std::string> cells(const std::string& row) {
  std::vector<std::string> out;
  std::stringstream in(row);
  std::string cell;
  std::getline(in, cell, '|');  // before the first bar
  while (std::getline(in, cell, '|')) out.push_back(cell);
  return out;
}

// The two tables: "| Folder | Floor | May use |" and "| Header | What |".
House readHouse() {
  std::ifstream doc(kRoot / "docs" / "ARCHITECTURE.md");
  EXPECT_TRUE(doc) << "docs/ARCHITECTURE.md is missing";
  House house;
  enum class Table { none, rules, headers } table = Table::none;
  std::string line;
  while (std::getline(doc, line)) {
    if (line.rfind("| Folder | Floor | May use |", 0) == 0) table = Table::rules;
    if (line.rfind("| Header | What |", 0) == 0) table = Table::headers;
    if (line.rfind("|", 0) != 0) {
      table = Table::none;
      continue;
    }
    const std::vector<std::string> row = cells(line);
    if (row.empty() || backticked(row[0]).empty()) continue;
    const std::string first = backticked(row[0]).front();
    if (table == Table::rules && row.size() >= 3) {
      Rule rule;
      rule.floor = std::atoi(row[1].c_str());
      for (const std::string& used : backticked(row[2])) {
        if (used == "engine/ (graph-free)") {
          rule.graphFreeEngineOnly = true;
          rule.uses.insert("engine/");
        } else {
          rule.uses.insert(used);
        }
      }
      house.rules[first] = rule;
    } else if (table == Table::headers) {
      house.graphFree.insert(first);
    }
  }
  return house;
}

const House& house() {
  static const House h = readHouse();
  return h;
}

// The folder of the table that owns `file` (a path relative to the root): the longest one that is
// a prefix of it.
std::string ownerOf(const std::string& file) {
  std::string best;
  for (const auto& [folder, rule] : house().rules) {
    if (file.rfind(folder, 0) == 0 && folder.size() > best.size()) best = folder;
  }
  return best;
}

std::string fromRoot(const fs::path& path) { return fs::relative(path, kRoot).generic_string(); }

// Where a quoted include of `from` lands: beside it, under a library's include/ directory, at the
// root (client/…), under a folder (serve's media/…) or under tools/ (family/…). Empty when it is
// none of the project's.
std::string resolve(const fs::path& from, const std::string& name) {
  std::vector<fs::path> candidates = {from.parent_path() / name, kRoot / name,
                                      kRoot / "tools" / name};
  for (const auto& [folder, rule] : house().rules) {
    candidates.push_back(kRoot / folder / "include" / name);
    candidates.push_back(kRoot / folder / name);
  }
  for (const fs::path& c : candidates) {
    if (fs::is_regular_file(c)) return fromRoot(fs::weakly_canonical(c));
  }
  return "";
}

std::vector<fs::path> sources(const std::string& folder) {
  std::vector<fs::path> out;
  for (const auto& entry : fs::recursive_directory_iterator(kRoot / folder)) {
    const std::string ext = entry.path().extension().string();
    if (entry.is_regular_file() && (ext == ".cpp" || ext == ".h")) out.push_back(entry.path());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> includes(const fs::path& file) {
  std::vector<std::string> out;
  std::ifstream in(file);
  std::string line;
  static const std::regex include(R"(^\s*#\s*include\s*([<"])([^">]+)[">])");
  std::smatch m;
  while (std::getline(in, line)) {
    if (std::regex_search(line, m, include)) out.push_back(m[1].str() + m[2].str());
  }
  return out;
}

class Folder : public ::testing::TestWithParam<std::string> {};

TEST_P(Folder, IncludesOnlyWhatItMayUse) {
  const std::string folder = GetParam();
  const Rule& rule = house().rules.at(folder);
  const bool mayLoadTorch =
      folder == "engine/" || folder == "render_process/" || folder == "tools/family/";
  std::vector<std::string> crossings;
  for (const fs::path& file : sources(folder)) {
    for (const std::string& include : includes(file)) {
      const std::string name = include.substr(1);
      const std::string where = fromRoot(file) + " includes " + name;
      if (include[0] == '<') {
        if (!mayLoadTorch && (name.rfind("torch/", 0) == 0 || name.rfind("ATen/", 0) == 0)) {
          crossings.push_back(where + ", a LibTorch header");
        }
        continue;
      }
      const std::string target = resolve(file, name);
      if (target.empty()) {
        crossings.push_back(where + ", which is no file of the project");
        continue;
      }
      const std::string owner = ownerOf(target);
      if (owner == folder || (owner != "engine/" && folder.rfind(owner, 0) == 0)) continue;
      if (owner.empty() || rule.uses.count(owner) == 0) {
        crossings.push_back(where + " (" + (owner.empty() ? target : owner) +
                            "), which it may not use");
      } else if (owner == "engine/" && rule.graphFreeEngineOnly &&
                 house().graphFree.count(name) == 0) {
        crossings.push_back(where + ", which is not in the engine's graph-free base");
      }
    }
  }
  EXPECT_THAT(crossings, ::testing::IsEmpty());
}

TEST_P(Folder, FilesStayUnderSixHundredLines) {
  std::vector<std::string> long_;
  for (const fs::path& file : sources(GetParam())) {
    std::ifstream in(file);
    const auto lines =
        std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n');
    if (lines > 600) long_.push_back(fromRoot(file) + ": " + std::to_string(lines) + " lines");
  }
  EXPECT_THAT(long_, ::testing::IsEmpty());
}

std::vector<std::string> folders() {
  std::vector<std::string> out;
  for (const auto& [folder, rule] : house().rules) out.push_back(folder);
  return out;
}

INSTANTIATE_TEST_SUITE_P(House, Folder, ::testing::ValuesIn(folders()),
                         [](const ::testing::TestParamInfo<std::string>& param) {
                           std::string name = param.param;
                           std::replace(name.begin(), name.end(), '/', '_');
                           name.erase(std::remove(name.begin(), name.end(), '_'), name.end());
                           return name;
                         });

TEST(House, RulesPointDownTheFloorsAndCoverEveryProductFolder) {
  ASSERT_GE(house().rules.size(), 9u) << "the rule table of docs/ARCHITECTURE.md was not read";
  for (const auto& [folder, rule] : house().rules) {
    EXPECT_TRUE(fs::is_directory(kRoot / folder)) << folder << " is in the table but not the tree";
    for (const std::string& used : rule.uses) {
      ASSERT_EQ(house().rules.count(used), 1u)
          << folder << " uses " << used << ", not in the table";
      EXPECT_LT(house().rules.at(used).floor, rule.floor) << folder << " uses " << used;
    }
  }
  // Every top-level folder with C++ sources is either in the table or a test, bench or fuzz folder.
  const std::set<std::string> exempt = {"tests/", "bench/",        "fuzz/",
                                        "build/", "node_modules/", "tools/"};
  for (const auto& entry : fs::directory_iterator(kRoot)) {
    const std::string name = entry.path().filename().string() + "/";
    if (!entry.is_directory() || name[0] == '.' || exempt.count(name) != 0 ||
        house().rules.count(name) != 0) {
      continue;
    }
    EXPECT_THAT(sources(name), ::testing::IsEmpty())
        << name << " holds C++ sources but docs/ARCHITECTURE.md has no rule for it";
  }
  for (const std::string& header : house().graphFree) {
    EXPECT_TRUE(fs::is_regular_file(kRoot / "engine" / "include" / header)) << header;
  }
}

}  // namespace
}  // namespace lumora2::architecture::test
