#include <cctype>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "container/error.h"
#include "container/manifest.h"
#include "json_text.h"

namespace lumora2 {

const std::set<std::string> EngineManifest::kAcceptedFormats{"vivra-engine/1", "lumora2-engine/1"};
const std::set<std::string> AvatarManifest::kAcceptedFormats{"vivra-avatar/1", "lumora2-avatar/1"};

namespace ManifestJSON {

using nlohmann::json;

namespace {

bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }

// Reads one record's fields from a JSON object, naming every refusal by the key's full path
// ("runtime.fps", "files.w2v.sha256") so a broken manifest says where it is broken.
class FieldReader {
 public:
  FieldReader(const json& value, std::string where) : value_(value), where_(std::move(where)) {
    if (!value_.is_object()) {
      throw ArtifactError(
          "manifest: " + (where_.empty() ? std::string("top level") : quoted(where_)) +
          " must be a JSON object");
    }
  }

  std::string string(std::string_view field) const {
    const auto& [key, v] = required(field);
    if (!v.is_string()) throw typeError(key, "a string");
    return v.get<std::string>();
  }

  std::int64_t integer(std::string_view field) const {
    const auto& [key, v] = required(field);
    return toInteger(v, key);
  }

  std::vector<std::int64_t> integers(std::string_view field) const {
    const auto& [key, v] = required(field);
    if (!v.is_array()) throw typeError(key, "an array of integers");
    std::vector<std::int64_t> out;
    for (std::size_t i = 0; i < v.size(); ++i) {
      out.push_back(toInteger(v[i], key + "[" + std::to_string(i) + "]"));
    }
    return out;
  }

  std::optional<std::string> optionalString(std::string_view field) const {
    std::string key = snakeCase(field);
    auto it = value_.find(key);
    if (it == value_.end() || it->is_null()) return std::nullopt;
    if (!it->is_string()) throw typeError(path(key), "a string");
    return it->get<std::string>();
  }

  // The object under `field`, with its own path for messages.
  FieldReader object(std::string_view field) const {
    const auto& [key, v] = required(field);
    return FieldReader(v, key);
  }

  std::map<std::string, FileRef> files(std::string_view field) const;

 private:
  static std::string quoted(const std::string& key) { return "key \"" + key + "\""; }

  std::string path(const std::string& key) const {
    return where_.empty() ? key : where_ + "." + key;
  }

  static ArtifactError typeError(const std::string& key, const char* expected) {
    return ArtifactError("manifest: " + quoted(key) + " must be " + expected);
  }

  std::pair<std::string, const json&> required(std::string_view field) const {
    std::string key = snakeCase(field);
    auto it = value_.find(key);
    if (it == value_.end())
      throw ArtifactError("manifest: missing required key \"" + path(key) + "\"");
    return {path(key), *it};
  }

  static std::int64_t toInteger(const json& v, const std::string& key) {
    if (v.is_number_integer() && !v.is_number_unsigned()) return v.get<std::int64_t>();
    if (v.is_number_unsigned() &&
        v.get<std::uint64_t>() <=
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<std::int64_t>(v.get<std::uint64_t>());
    }
    // 3.0 is the integer 3, as the platform's decoders read it; 3.5 and 1e300 are not integers.
    if (v.is_number_float()) {
      double d = v.get<double>();
      if (std::trunc(d) == d && d >= -9.2e18 && d <= 9.2e18) return static_cast<std::int64_t>(d);
    }
    throw typeError(key, "an integer");
  }

  const json& value_;
  std::string where_;
};

FileRef decodeFileRef(const FieldReader& in) {
  return {in.string("path"), in.string("sha256"), in.integer("bytes")};
}

std::map<std::string, FileRef> FieldReader::files(std::string_view field) const {
  const auto& [key, v] = required(field);
  if (!v.is_object()) throw typeError(key, "an object of file entries");
  std::map<std::string, FileRef> out;
  for (auto it = v.begin(); it != v.end(); ++it) {
    out.emplace(it.key(), decodeFileRef(FieldReader(it.value(), key + "." + it.key())));
  }
  return out;
}

Provenance decodeProvenance(const FieldReader& in) {
  Provenance p;
  p.trainerVersion = in.optionalString("trainerVersion");
  p.studentSha = in.optionalString("studentSha");
  p.jntSha256 = in.optionalString("jntSha256");
  p.studentKind = in.optionalString("studentKind");
  p.w2vKind = in.optionalString("w2vKind");
  p.agentCode = in.optionalString("agentCode");
  p.studentSha256 = in.optionalString("studentSha256");
  p.studentKindSource = in.optionalString("studentKindSource");
  p.adaptSha256 = in.optionalString("adaptSha256");
  p.decv3Sha256 = in.optionalString("decv3Sha256");
  p.bundleManifestSha256 = in.optionalString("bundleManifestSha256");
  return p;
}

// Sets out[snakeCase(field)] = value: the one place where a field name becomes a key.
template <typename T>
void put(json& out, std::string_view field, T&& value) {
  out[snakeCase(field)] = std::forward<T>(value);
}

void putOptional(json& out, std::string_view field, const std::optional<std::string>& value) {
  if (value) put(out, field, *value);
}

json toJson(const std::map<std::string, FileRef>& files) {
  json out = json::object();
  for (const auto& [label, ref] : files) {
    json entry = json::object();
    put(entry, "path", ref.path);
    put(entry, "sha256", ref.sha256);
    put(entry, "bytes", ref.bytes);
    out[label] = std::move(entry);
  }
  return out;
}

json toJson(const Provenance& p) {
  json out = json::object();
  putOptional(out, "trainerVersion", p.trainerVersion);
  putOptional(out, "studentSha", p.studentSha);
  putOptional(out, "jntSha256", p.jntSha256);
  putOptional(out, "studentKind", p.studentKind);
  putOptional(out, "w2vKind", p.w2vKind);
  putOptional(out, "agentCode", p.agentCode);
  putOptional(out, "studentSha256", p.studentSha256);
  putOptional(out, "studentKindSource", p.studentKindSource);
  putOptional(out, "adaptSha256", p.adaptSha256);
  putOptional(out, "decv3Sha256", p.decv3Sha256);
  putOptional(out, "bundleManifestSha256", p.bundleManifestSha256);
  return out;
}

}  // namespace

// The platform encoder's rule, including its treatment of capital runs: "myURLValue" gives
// "my_url_value"; a capital followed by a small letter starts a word, digits never do.
std::string snakeCase(std::string_view key) {
  if (key.empty()) return {};
  const std::size_t n = key.size();
  std::vector<std::pair<std::size_t, std::size_t>> words;
  std::size_t wordStart = 0;
  std::size_t searchFrom = 1;
  for (;;) {
    std::size_t upper = searchFrom;
    while (upper < n && !isUpper(key[upper])) ++upper;
    if (upper >= n) break;
    words.emplace_back(wordStart, upper);
    std::size_t lower = upper;
    while (lower < n && !isLower(key[lower])) ++lower;
    if (lower >= n) {
      wordStart = upper;
      break;
    }
    if (lower == upper + 1) {
      wordStart = upper;
    } else {
      words.emplace_back(upper, lower - 1);
      wordStart = lower - 1;
    }
    searchFrom = lower + 1;
  }
  words.emplace_back(wordStart, n);

  std::string out;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) out.push_back('_');
    for (std::size_t k = words[i].first; k < words[i].second; ++k) {
      char c = key[k];
      out.push_back(isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c);
    }
  }
  return out;
}

std::string encode(const EngineManifest& m) {
  json runtime = json::object();
  put(runtime, "inputRate", m.runtime.inputRate);
  put(runtime, "frame", m.runtime.frame);
  put(runtime, "fps", m.runtime.fps);
  json out = json::object();
  put(out, "format", m.format);
  put(out, "abi", m.abi);
  put(out, "runtime", std::move(runtime));
  put(out, "created", m.created);
  put(out, "files", toJson(m.files));
  return manifestText(out);
}

std::string encode(const AvatarManifest& m) {
  json out = json::object();
  put(out, "format", m.format);
  put(out, "code", m.code);
  put(out, "name", m.name);
  put(out, "gender", m.gender);
  put(out, "persona", m.persona);
  put(out, "requiresEngineAbi", m.requiresEngineAbi);
  put(out, "created", m.created);
  put(out, "provenance", toJson(m.provenance));
  put(out, "files", toJson(m.files));
  return manifestText(out);
}

std::string encode(const Provenance& provenance) { return manifestText(toJson(provenance)); }

EngineManifest decodeEngine(std::string_view text) {
  json value = parseJsonText(text, "manifest");
  FieldReader in(value, "");
  EngineManifest m;
  m.format = in.string("format");
  m.abi = in.integer("abi");
  FieldReader runtime = in.object("runtime");
  m.runtime.inputRate = runtime.integer("inputRate");
  m.runtime.frame = runtime.integers("frame");
  m.runtime.fps = runtime.integer("fps");
  m.created = in.string("created");
  m.files = in.files("files");
  return m;
}

AvatarManifest decodeAvatar(std::string_view text) {
  json value = parseJsonText(text, "manifest");
  FieldReader in(value, "");
  AvatarManifest m;
  m.format = in.string("format");
  m.code = in.string("code");
  m.name = in.string("name");
  m.gender = in.string("gender");
  m.persona = in.string("persona");
  m.requiresEngineAbi = in.integer("requiresEngineAbi");
  m.created = in.string("created");
  m.provenance = decodeProvenance(in.object("provenance"));
  m.files = in.files("files");
  return m;
}

Provenance decodeProvenance(std::string_view text) {
  json value = parseJsonText(text, "provenance");
  return decodeProvenance(FieldReader(value, ""));
}

Kind kindOf(std::string_view text) {
  try {
    if (EngineManifest::kAcceptedFormats.contains(decodeEngine(text).format)) return Kind::engine;
  } catch (const ArtifactError&) {
    // Not an engine's manifest.
  }
  try {
    if (AvatarManifest::kAcceptedFormats.contains(decodeAvatar(text).format)) return Kind::avatar;
  } catch (const ArtifactError&) {
    // Nor an avatar's.
  }
  return Kind::unknown;
}

}  // namespace ManifestJSON
}  // namespace lumora2
