#include "json_text.h"

#include "container/error.h"

namespace lumora2 {

nlohmann::json parseJsonText(std::string_view text, const std::string& context) {
  auto depthGuard = [](int depth, nlohmann::json::parse_event_t event, nlohmann::json&) {
    if ((event == nlohmann::json::parse_event_t::object_start ||
         event == nlohmann::json::parse_event_t::array_start) &&
        depth >= kMaxJsonDepth) {
      throw ArtifactError("JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    }
    return true;
  };
  try {
    return nlohmann::json::parse(text.begin(), text.end(), depthGuard);
  } catch (const nlohmann::json::exception& e) {
    throw ArtifactError(context + ": " + e.what());
  } catch (const ArtifactError& e) {
    throw ArtifactError(context + ": " + e.what());
  }
}

std::string manifestText(const nlohmann::json& value) {
  return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace lumora2
