#include "host/artifact_rules.h"

#include <array>
#include <map>
#include <set>
#include <utility>

namespace lumora2 {
namespace {

constexpr std::string_view kPackageSuffix = ".mlpackage";

struct Required {
  std::string_view name;
  bool package;
};

constexpr std::array<Required, 4> kEngineNeeds{{
    {"w2v_frontend_cpuAndNE.mlpackage", true},
    {"audiotokenizer_cpuAndNE.mlpackage", true},
    {"student_v4_forward_frame_cpuAndNE.mlpackage", true},
    {"warm.wav", false},
}};

constexpr std::array<Required, 2> kAvatarNeeds{{
    {"dec_p2_v3_all.mlpackage", true},
    {"canon.f32", false},
}};

constexpr std::array<std::pair<std::string_view, std::string_view>, 8> kFixedLabels{{
    {"w2v_frontend_cpuAndNE.mlpackage", "w2v"},
    {"audiotokenizer_cpuAndNE.mlpackage", "atok"},
    {"student_v4_forward_frame_cpuAndNE.mlpackage", "student"},
    {"warm.wav", "warm"},
    {"dec_p2_v3_all.mlpackage", "decp2"},
    {"canon.f32", "canon"},
    {"idle.mp4", "idle"},
    {"provenance.json", "provenance"},
}};

std::string_view fixedLabel(std::string_view entry) {
  for (const auto& [name, label] : kFixedLabels) {
    if (name == entry) return label;
  }
  return {};
}

// "notes.txt" → "notes", "a.tar.gz" → "a.tar", ".env" → ".env", "README" → "README".
std::string stemLabel(std::string_view entry) {
  std::size_t dot = entry.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return std::string(entry);
  return std::string(entry.substr(0, dot));
}

bool isPackageDir(std::string_view topLevel) {
  return topLevel.size() > kPackageSuffix.size() && topLevel.ends_with(kPackageSuffix);
}

}  // namespace

std::vector<std::string> missingRequirements(const std::vector<std::string>& memberNames,
                                             ArtifactKind kind) {
  std::set<std::string, std::less<>> files;
  std::set<std::string, std::less<>> directories;
  for (const std::string& name : memberNames) {
    std::size_t slash = name.find('/');
    if (slash == std::string::npos) {
      files.insert(name);
    } else {
      directories.insert(name.substr(0, slash));
    }
  }
  std::vector<std::string> missing;
  auto check = [&](const auto& needs) {
    for (const Required& need : needs) {
      if (need.package && !directories.contains(need.name)) {
        missing.push_back(std::string(need.name) + "/");
      } else if (!need.package && !files.contains(need.name)) {
        missing.emplace_back(need.name);
      }
    }
  };
  if (kind == ArtifactKind::engine) {
    check(kEngineNeeds);
  } else {
    check(kAvatarNeeds);
  }
  return missing;
}

std::vector<LabelledPath> labelFiles(const std::vector<std::string>& memberNames) {
  // The entries in member-name order: a top-level file, a top-level package (once), or a nested
  // file outside any package.
  std::vector<std::string> entries;
  std::set<std::string, std::less<>> packagesSeen;
  for (const std::string& name : memberNames) {
    std::size_t slash = name.find('/');
    if (slash == std::string::npos) {
      entries.push_back(name);
      continue;
    }
    std::string top = name.substr(0, slash);
    if (!isPackageDir(top)) {
      entries.push_back(name);
    } else if (packagesSeen.insert(top).second) {
      entries.push_back(top);
    }
  }

  std::map<std::string, std::string> labelOf;  // entry → label
  std::set<std::string, std::less<>> taken;
  for (const std::string& entry : entries) {
    std::string_view fixed = fixedLabel(entry);
    if (!fixed.empty()) {
      labelOf[entry] = fixed;
      taken.emplace(fixed);
    }
  }
  for (const std::string& entry : entries) {
    if (labelOf.contains(entry)) continue;
    if (entry.find('/') != std::string::npos) {
      labelOf[entry] = entry;  // nested: the path itself, unique and never a top-level label
      continue;
    }
    std::string base = stemLabel(entry);
    std::string label = base;
    for (int n = 2; taken.contains(label); ++n) label = base + "-" + std::to_string(n);
    taken.insert(label);
    labelOf[entry] = label;
  }

  std::vector<LabelledPath> labelled;
  labelled.reserve(entries.size());
  for (const std::string& entry : entries) labelled.push_back({labelOf[entry], entry});
  return labelled;
}

bool isSha256Hex(std::string_view text) {
  if (text.size() != 64) return false;
  for (char c : text) {
    bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (!hex) return false;
  }
  return true;
}

ProvenanceVerdict provenanceVerdict(const Provenance& provenance) {
  if (provenance.studentSha256 && isSha256Hex(*provenance.studentSha256)) {
    return ProvenanceVerdict::bound;
  }
  auto given = [](const std::optional<std::string>& field) { return field && !field->empty(); };
  if (given(provenance.studentSha) || given(provenance.jntSha256)) {
    return ProvenanceVerdict::legacyBound;
  }
  return ProvenanceVerdict::unstamped;
}

std::string_view verdictName(ProvenanceVerdict verdict) {
  switch (verdict) {
    case ProvenanceVerdict::bound:
      return "bound";
    case ProvenanceVerdict::legacyBound:
      return "legacy-bound";
    case ProvenanceVerdict::unstamped:
      return "unstamped";
  }
  return "unstamped";
}

}  // namespace lumora2
