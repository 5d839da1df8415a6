// The JSON a client sends lumora2-serve, read strictly: request bodies and the audio WebSocket's
// text messages. Every value is checked for its type before it is used, and anything that is not
// exactly one of the documented shapes is refused with BadMessage, one line for the client; no
// other exception leaves these functions, whatever the bytes (fuzz/fuzz_api_messages.cpp holds
// them to that). No sockets, no sessions: the HTTP front and the fuzzer both use it.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace lumora2::serve::api {

// A body or message that is not one the API takes; the text is fit to show a client.
struct BadMessage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// POST /v1/sessions: {"avatar": "<code>"}.
struct CreateSession {
  std::string avatar;
};
CreateSession parseCreateSession(std::string_view body);

// POST /v1/sessions/{id}/say: {"text": "<words>"} with an optional "interrupt": true (cut what
// plays and is queued first).
struct Say {
  std::string text;
  bool interrupt = false;
};
Say parseSay(std::string_view body);

// A text message on the audio WebSocket: {"end": true} ends the streamed utterance,
// {"interrupt": true} cuts what plays and is queued, {"text": "<words>"} appends words to a
// streamed text utterance (spoken sentence by sentence).
struct SocketMessage {
  enum class Kind { end, interrupt, text };
  Kind kind = Kind::end;
  std::string text;
};
SocketMessage parseSocketMessage(std::string_view message);

}  // namespace lumora2::serve::api
