// info <file.model|file.avatar> [--verify]: what an artifact is and holds, without reading its
// data. It reads the container's table of contents and its manifest only, so it answers at once
// even on multi-gigabyte files; --verify also digests every declared file.
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "artifact_manifest.h"
#include "artifact_output.h"
#include "container/archive.h"
#include "container/imx.h"
#include "container/verify.h"
#include "host/artifact_rules.h"
#include "host/command.h"
#include "host/commands.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

// One row of the member table; a zip listing does not give offsets.
struct MemberRow {
  std::string name;
  std::optional<std::uint64_t> offset;
  std::uint64_t size = 0;
};

std::vector<MemberRow> imxMembers(const fs::path& file) {
  std::vector<Member> members;
  try {
    members = Lumora2Container::members(file);
  } catch (const Lumora2ContainerError& e) {
    throw Err(std::string("IMX: ") + e.what());
  }
  std::vector<MemberRow> rows;
  rows.reserve(members.size());
  for (Member& m : members) rows.push_back({std::move(m.name), m.offset, m.size});
  return rows;
}

bool isDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// "hh:mm", the last field before the name in the zip tool's short listing.
bool isClockTime(std::string_view text) {
  return text.size() == 5 && text[2] == ':' && isDigits(text.substr(0, 2)) &&
         isDigits(text.substr(3));
}

// The zip tool's short listing: "perms version os size type method date time name". Header,
// footer and directory entries are not members.
std::vector<MemberRow> zipMembers(const fs::path& file) {
  std::string listing = Archive::run("/usr/bin/unzip", {"-Z", "-s", file.string()});
  std::vector<MemberRow> rows;
  std::istringstream lines(listing);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string token[8];
    bool complete = true;
    for (std::string& t : token) complete = complete && static_cast<bool>(fields >> t);
    if (!complete || !isDigits(token[3]) || !isClockTime(token[7])) continue;
    std::string name;
    if (fields.get() == ' ') std::getline(fields, name);
    if (name.empty() || name.ends_with('/')) continue;
    rows.push_back({name, std::nullopt, std::stoull(token[3])});
  }
  return rows;
}

// Names from a container are untrusted: control characters are shown as \xNN so that one member
// is always one line.
std::string printable(std::string_view text) {
  std::string out;
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", byte);
      out += buf;
    } else {
      out += c;
    }
  }
  return out;
}

std::string padRight(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

std::string scalar(const nlohmann::json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

// The unified header a re-stamp sets, or "none" for a manifest that was never stamped.
std::string unifiedHeaderLine(const std::string& bytes) {
  nlohmann::json parsed = nlohmann::json::parse(bytes, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object() || !parsed.contains("engine")) return "  unified header: none\n";
  std::string line = "  unified header:";
  for (const char* key : {"engine", "engine_abi", "unified_format_version", "decoder"}) {
    auto it = parsed.find(key);
    line += std::string(" ") + key + "=" + (it == parsed.end() ? "-" : scalar(*it));
  }
  return line + "\n";
}

// Present with its declared size, missing, or of another size. A package directory's size is the
// sum of the members below it.
struct Presence {
  bool found = false;
  std::uint64_t size = 0;
};

Presence presenceOf(const FileRef& ref, const std::vector<MemberRow>& rows) {
  Presence presence;
  const std::string prefix = ref.path + "/";
  std::optional<std::uint64_t> exact;
  std::uint64_t below = 0;
  bool anyBelow = false;
  for (const MemberRow& row : rows) {
    if (row.name == ref.path) {
      exact = row.size;  // the later entry wins, as when reading or unpacking
    } else if (row.name.starts_with(prefix)) {
      below += row.size;
      anyBelow = true;
    }
  }
  if (exact) return {true, *exact};
  if (anyBelow) return {true, below};
  return presence;
}

}  // namespace

int cmdInfo(const Positionals& positionals, const Options& options) {
  if (positionals.empty()) throw Err("usage: info <file.model|file.avatar>");
  const fs::path file = positionals[0];
  if (!fs::exists(file)) throw Err("no such archive: " + positionals[0]);

  // A zip goes to the zip tool; anything else to the IMX reader, whose refusals say what it is.
  const bool zip = Lumora2Container::isLegacyZip(file);
  const ArtifactForm form = zip ? ArtifactForm::zip : ArtifactForm::imx;
  std::vector<MemberRow> rows = zip ? zipMembers(file) : imxMembers(file);
  ArtifactManifest manifest = readArtifactManifest(file);

  const bool verify = option(options, "verify") != nullptr;
  std::vector<std::string> problems;
  if (verify) problems = verifyChecksums(file, manifest.files());
  if (!problems.empty()) {
    std::string message = "checksum problems:";
    for (const std::string& p : problems) message += "\n  " + p;
    throw Err(message);
  }

  std::string out;
  out += file.string() + "  [" + std::string(formName(form)) + "]  " + std::to_string(rows.size()) +
         " members · " + std::to_string(fs::file_size(file)) + " bytes\n";
  out += "  " + manifest.description() + "\n";
  if (manifest.avatar) {
    out += "  name=" + manifest.avatar->name + " gender=" + manifest.avatar->gender +
           " persona=" + manifest.avatar->persona + "\n";
  }
  out +=
      "  created " + (manifest.engine ? manifest.engine->created : manifest.avatar->created) + "\n";
  out += unifiedHeaderLine(manifest.bytes);
  if (manifest.avatar) {
    out += "  provenance: " +
           std::string(verdictName(provenanceVerdict(manifest.avatar->provenance))) + "\n";
  }

  out += "members:\n";
  char buf[64];
  std::snprintf(buf, sizeof buf, "  %14s  %14s  ", "offset", "size");
  out += std::string(buf) + "name\n";
  for (const MemberRow& row : rows) {
    std::string offset = row.offset ? std::to_string(*row.offset) : "-";
    std::snprintf(buf, sizeof buf, "  %14s  %14" PRIu64 "  ", offset.c_str(), row.size);
    out += buf + printable(row.name) + "\n";
  }

  const std::map<std::string, FileRef>& declared = manifest.files();
  out += "declared files:\n";
  std::size_t bad = 0;
  for (const auto& [label, ref] : declared) {
    Presence presence = presenceOf(ref, rows);
    std::string status;
    if (!presence.found) {
      status = "missing";
      ++bad;
    } else if (static_cast<std::int64_t>(presence.size) != ref.bytes) {
      status = "size " + std::to_string(presence.size) + " ≠ declared " + std::to_string(ref.bytes);
      ++bad;
    } else {
      status = "present " + std::to_string(ref.bytes) + " bytes";
    }
    out += "  " + padRight(printable(label), 10) + "  " + padRight(status, 20) + "  " +
           printable(ref.path) + "\n";
  }
  if (bad == 0) {
    out += "  all " + std::to_string(declared.size()) + " declared files present";
  } else {
    out += "  " + std::to_string(bad) + " of " + std::to_string(declared.size()) +
           " declared files missing or of another size";
  }
  out += verify ? " · checksums OK\n" : " (checksums not digested; use --verify)\n";
  std::cout << out << std::flush;
  return kExitOk;
}

}  // namespace lumora2
