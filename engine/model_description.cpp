#include "engine/model_description.h"

#include <fstream>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace lumora2 {

namespace {

using nlohmann::json;

const FeatureDescription* findFeature(const std::vector<FeatureDescription>& list,
                                      std::string_view name) {
  for (const auto& f : list) {
    if (f.name == name) return &f;
  }
  return nullptr;
}

// One list of io.json; false with the reason when an entry breaks the format.
bool parseFeatures(const json& doc, const char* key, std::vector<FeatureDescription>& out,
                   std::string& error) {
  auto it = doc.find(key);
  if (it == doc.end() || !it->is_array()) {
    error = std::string("\"") + key + "\" is not a list";
    return false;
  }
  std::set<std::string> seen;
  for (const auto& entry : *it) {
    const std::string where = std::string(key) + " entry " + std::to_string(out.size());
    if (!entry.is_object()) {
      error = where + " is not an object";
      return false;
    }
    auto name = entry.find("name");
    if (name == entry.end() || !name->is_string() || name->get<std::string>().empty()) {
      error = where + " has no name";
      return false;
    }
    FeatureDescription feature{name->get<std::string>(), std::nullopt};
    if (!seen.insert(feature.name).second) {
      error = "feature \"" + feature.name + "\" is listed twice in \"" + key + "\"";
      return false;
    }
    auto shape = entry.find("shape");
    auto dtype = entry.find("dtype");
    if ((shape == entry.end()) != (dtype == entry.end())) {
      error = "feature \"" + feature.name + "\" needs both \"shape\" and \"dtype\"";
      return false;
    }
    if (shape != entry.end()) {
      MultiArrayConstraint constraint;
      if (!shape->is_array()) {
        error = "feature \"" + feature.name + "\" has a shape that is not a list";
        return false;
      }
      for (const auto& d : *shape) {
        if (!d.is_number_integer()) {
          error = "feature \"" + feature.name + "\" has a non-integer dimension";
          return false;
        }
        constraint.shape.push_back(d.get<std::int64_t>());
      }
      auto type = dtype->is_string() ? describedDataType(dtype->get<std::string>()) : std::nullopt;
      if (!type) {
        error = "feature \"" + feature.name + "\" has an unknown dtype " + dtype->dump();
        return false;
      }
      constraint.dataType = *type;
      feature.multiArray = std::move(constraint);
    }
    out.push_back(std::move(feature));
  }
  return true;
}

}  // namespace

const FeatureDescription* ModelDescription::input(std::string_view name) const {
  return findFeature(inputs, name);
}

const FeatureDescription* ModelDescription::output(std::string_view name) const {
  return findFeature(outputs, name);
}

const FeatureDescription* ModelDescription::firstOutput() const {
  return outputs.empty() ? nullptr : &outputs.front();
}

std::optional<ModelDescription> ModelDescription::parse(std::string_view text, std::string* error) {
  std::string why;
  json doc = json::parse(text, nullptr, /*allow_exceptions=*/false);
  ModelDescription description;
  if (doc.is_discarded() || !doc.is_object()) {
    why = "io.json is not a JSON object";
  } else if (parseFeatures(doc, "inputs", description.inputs, why) &&
             parseFeatures(doc, "outputs", description.outputs, why)) {
    return description;
  }
  if (error != nullptr) *error = why;
  return std::nullopt;
}

std::optional<ModelDescription> ModelDescription::read(const std::filesystem::path& ioJson,
                                                       std::string* error) {
  std::ifstream in(ioJson, std::ios::binary);
  if (!in) {
    if (error != nullptr) *error = "cannot read " + ioJson.string();
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parse(text.str(), error);
}

}  // namespace lumora2
