// What a client sends lumora2-serve, judged before any session sees it: the JSON of bodies and
// WebSocket messages (every shape that is not documented is refused with one line, never an
// escaping exception), and whether a request's Host, Origin and content type may call at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "serve/api_messages.h"
#include "serve/request_checks.h"

namespace lumora2::serve {
namespace {

using ::testing::HasSubstr;

struct Message {
  const char* name;
  std::string text;
  std::optional<api::SocketMessage::Kind> kind;  // none: refused
};

class SocketMessages : public ::testing::TestWithParam<Message> {};

TEST_P(SocketMessages, AreOneOfTheThreeOrRefusedWithOneLine) {
  const Message& m = GetParam();
  if (m.kind) {
    EXPECT_EQ(api::parseSocketMessage(m.text).kind, *m.kind);
  } else {
    try {
      api::parseSocketMessage(m.text);
      ADD_FAILURE() << "taken: " << m.text;
    } catch (const api::BadMessage& e) {
      EXPECT_THAT(e.what(), HasSubstr("{\"end\": true}"));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Api, SocketMessages,
    ::testing::Values(Message{"End", R"({"end": true})", api::SocketMessage::Kind::end},
                      Message{"Interrupt", R"({"interrupt": true})",
                              api::SocketMessage::Kind::interrupt},
                      Message{"Text", R"({"text": "Hello. How"})", api::SocketMessage::Kind::text},
                      // Each of these once ended the whole server.
                      Message{"EndNumber", R"({"end": 1})", std::nullopt},
                      Message{"EndString", R"({"end": "yes"})", std::nullopt},
                      Message{"EndNull", R"({"end": null})", std::nullopt},
                      Message{"ArrayOfTrue", "[true]", std::nullopt},
                      Message{"EndFalse", R"({"end": false})", std::nullopt},
                      Message{"TextNumber", R"({"text": 5})", std::nullopt},
                      Message{"TwoKeys", R"({"end": true, "text": "x"})", std::nullopt},
                      Message{"NotJson", "hello", std::nullopt}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(ApiBodies, AreTakenOnlyInTheirDocumentedShape) {
  EXPECT_EQ(api::parseCreateSession(R"({"avatar": "ava"})").avatar, "ava");
  const api::Say say = api::parseSay(R"({"text": "Hi.", "interrupt": true})");
  EXPECT_EQ(say.text, "Hi.");
  EXPECT_TRUE(say.interrupt);
  for (const char* bad : {R"({"avatar": 7})", R"({"avatar": "ava", "x": 1})", "[]", "{avatar"}) {
    EXPECT_THROW(api::parseCreateSession(bad), api::BadMessage) << bad;
  }
  for (const char* bad : {R"({"text": "Hi", "interrupt": 1})", R"({"words": "hi"})", "null"}) {
    EXPECT_THROW(api::parseSay(bad), api::BadMessage) << bad;
  }
}

struct Caller {
  const char* name;
  std::string host, origin;
  bool hostOk;
  OriginVerdict verdict;
};

class Callers : public ::testing::TestWithParam<Caller> {};

TEST_P(Callers, AreJudgedByTheirHostAndOrigin) {
  const Caller& c = GetParam();
  CallerRules rules;
  rules.hosts = {"avatars.example.org"};
  rules.origins = {"https://app.example.com"};
  EXPECT_EQ(hostAllowed(c.host, rules), c.hostOk) << c.host;
  EXPECT_EQ(judgeOrigin(c.origin, c.host, rules), c.verdict) << c.origin << " on " << c.host;
}

INSTANTIATE_TEST_SUITE_P(
    Api, Callers,
    ::testing::Values(
        Caller{"Curl", "127.0.0.1:8080", "", true, OriginVerdict::none},
        Caller{"OwnPage", "127.0.0.1:8080", "http://127.0.0.1:8080", true,
               OriginVerdict::sameOrigin},
        Caller{"OwnPageDefaultPort", "avatars.example.org", "https://avatars.example.org:443", true,
               OriginVerdict::sameOrigin},
        Caller{"Ipv6", "[::1]:8080", "http://[::1]:8080", true, OriginVerdict::sameOrigin},
        Caller{"Localhost", "localhost:8080", "http://localhost:8080", true,
               OriginVerdict::sameOrigin},
        Caller{"AllowedOrigin", "127.0.0.1:8080", "https://app.example.com", true,
               OriginVerdict::allowed},
        Caller{"OtherSite", "127.0.0.1:8080", "http://evil.example", true, OriginVerdict::refused},
        Caller{"OtherPort", "127.0.0.1:8080", "http://127.0.0.1:9090", true,
               OriginVerdict::refused},
        Caller{"SandboxedFrame", "127.0.0.1:8080", "null", true, OriginVerdict::refused},
        // DNS rebinding: the attacker's name resolved to this address.
        Caller{"ReboundName", "evil.example:8080", "http://evil.example:8080", false,
               OriginVerdict::sameOrigin},
        Caller{"BareIpv6", "::1:8080", "", false, OriginVerdict::none},
        Caller{"BadPort", "127.0.0.1:80x", "", false, OriginVerdict::none}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(ContentTypes, FormsAreToldFromTheApisTypes) {
  EXPECT_TRUE(isContentType("application/json; charset=utf-8", "application/json"));
  EXPECT_TRUE(isContentType(" Application/JSON", "application/json"));
  EXPECT_FALSE(isContentType("application/jsonp", "application/json"));
  for (const char* form :
       {"text/plain", "text/plain;charset=UTF-8", "multipart/form-data; boundary=x",
        "application/x-www-form-urlencoded"}) {
    EXPECT_TRUE(isFormType(form)) << form;
  }
  for (const char* audio : {"audio/wav", "application/octet-stream", ""}) {
    EXPECT_FALSE(isFormType(audio)) << audio;
  }
}

}  // namespace
}  // namespace lumora2::serve
