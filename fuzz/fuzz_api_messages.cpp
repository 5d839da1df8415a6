// libFuzzer target: what a client may send lumora2-serve as JSON - the bodies of POST
// /v1/sessions and say, and the audio WebSocket's text messages - over arbitrary bytes. Each
// parser either returns one of the documented shapes or throws BadMessage, whose text the server
// then sends back as JSON: anything else escaping (a type error, a parse error) would end the
// server, so it aborts here.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include "serve/api_messages.h"

namespace {

template <typename Parse>
void exercise(std::string_view input, Parse parse) {
  try {
    parse(input);
  } catch (const lumora2::serve::api::BadMessage& e) {
    // The refusal goes back to the client as one line of JSON, whatever bytes it quotes.
    const std::string line = nlohmann::json{{"error", e.what()}}.dump(
        -1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (line.empty()) std::abort();
  } catch (...) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  using namespace lumora2::serve::api;
  exercise(input, parseSocketMessage);
  exercise(input, parseSay);
  exercise(input, parseCreateSession);
  return 0;
}
