#include "api_messages.h"

#include <initializer_list>

#include <nlohmann/json.hpp>

namespace lumora2::serve::api {
namespace {

using Json = nlohmann::json;

// The body as a JSON object whose keys are all among `known`; `shape` is the documented form,
// quoted in every refusal.
Json object(std::string_view body, std::initializer_list<std::string_view> known,
            const std::string& shape) {
  Json j = Json::parse(body.begin(), body.end(), nullptr, /*allow_exceptions=*/false);
  if (j.is_discarded()) throw BadMessage("the body must be JSON: " + shape);
  if (!j.is_object()) throw BadMessage("the body must be " + shape);
  for (const auto& [key, value] : j.items()) {
    bool expected = false;
    for (std::string_view k : known) expected = expected || key == k;
    if (!expected) throw BadMessage("unknown field \"" + key + "\"; the body must be " + shape);
  }
  return j;
}

std::string stringField(const Json& j, const char* key, const std::string& shape) {
  const auto it = j.find(key);
  if (it == j.end() || !it->is_string()) {
    throw BadMessage(std::string("\"") + key + "\" must be a string: " + shape);
  }
  return it->get<std::string>();
}

// An optional boolean flag: absent is false; present, it must be true or false.
bool flag(const Json& j, const char* key, const std::string& shape) {
  const auto it = j.find(key);
  if (it == j.end()) return false;
  if (!it->is_boolean())
    throw BadMessage(std::string("\"") + key + "\" must be true or false: " + shape);
  return it->get<bool>();
}

}  // namespace

CreateSession parseCreateSession(std::string_view body) {
  const std::string shape = "{\"avatar\": \"<code>\"}";
  const Json j = object(body, {"avatar"}, shape);
  return CreateSession{stringField(j, "avatar", shape)};
}

Say parseSay(std::string_view body) {
  const std::string shape = "{\"text\": \"<words>\"} (and optionally \"interrupt\": true)";
  const Json j = object(body, {"text", "interrupt"}, shape);
  return Say{stringField(j, "text", shape), flag(j, "interrupt", shape)};
}

SocketMessage parseSocketMessage(std::string_view message) {
  const std::string shape =
      "{\"end\": true}, {\"interrupt\": true} or {\"text\": \"<words>\"}; PCM goes in binary "
      "messages";
  Json j = Json::parse(message.begin(), message.end(), nullptr, false);
  if (j.is_discarded() || !j.is_object() || j.size() != 1) {
    throw BadMessage("a text message must be " + shape);
  }
  const std::string key = j.begin().key();
  const Json& value = j.begin().value();
  if (key == "text") {
    if (!value.is_string()) throw BadMessage("\"text\" must be a string: " + shape);
    return SocketMessage{SocketMessage::Kind::text, value.get<std::string>()};
  }
  if ((key == "end" || key == "interrupt") && value.is_boolean() && value.get<bool>()) {
    return SocketMessage{key == "end" ? SocketMessage::Kind::end : SocketMessage::Kind::interrupt,
                         {}};
  }
  throw BadMessage("a text message must be " + shape);
}

}  // namespace lumora2::serve::api
