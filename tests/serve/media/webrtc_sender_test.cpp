// The sender's answer with a one-port range: the candidates it offers when that port is free,
// held for TCP only (as a TCP port stays after this side closed an ICE-TCP connection on it:
// TIME_WAIT, a minute), and held for both.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "media/webrtc_sender.h"

namespace lumora2::serve {
namespace {

// A browser's offer to receive H.264 and Opus, as small as the sender takes.
std::string offer() {
  std::string media;
  for (const char* m :
       {"video 9 UDP/TLS/RTP/SAVPF 102\r\na=mid:0\r\n"
        "a=rtpmap:102 H264/90000\r\n"
        "a=fmtp:102 level-asymmetry-allowed=1;packetization-mode=1;"
        "profile-level-id=42e01f\r\n",
        "audio 9 UDP/TLS/RTP/SAVPF 111\r\na=mid:1\r\na=rtpmap:111 opus/48000/2\r\n"}) {
    media +=
        std::string("m=") + m +
        "c=IN IP4 0.0.0.0\r\na=ice-ufrag:nMFo\r\na=ice-pwd:VDqVsmnUTuOBchIz4sa1p+HU\r\n"
        "a=fingerprint:sha-256 BB:2A:3E:00:55:AE:17:1D:12:7A:C8:15:28:B6:BC:F0:78:6F:5D:73:"
        "F9:DB:3B:45:12:A7:7F:92:E1:82:77:25\r\na=setup:actpass\r\na=recvonly\r\na=rtcp-mux\r\n";
  }
  return "v=0\r\no=- 1 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=group:BUNDLE 0 1\r\n" + media;
}

// A socket of `type` bound (not listening) to `port` (0: one the kernel picks) of every address
// of both families, or -1: nothing else binds that port for that protocol while it is open.
int bound(int type, unsigned port) {
  const int fd = ::socket(AF_INET6, type | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int no = 0;
  ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
  sockaddr_in6 at{};
  at.sin6_family = AF_INET6;
  at.sin6_port = htons(std::uint16_t(port));
  at.sin6_addr = in6addr_any;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0) return fd;
  ::close(fd);
  return -1;
}

struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

struct Case {
  const char* name;
  bool tcpHeld, udpHeld;
  bool answered, udp, tcp;  // answered, with UDP and with TCP candidates
};

class PortRange : public ::testing::TestWithParam<Case> {};

TEST_P(PortRange, AnswersWithTheTransportsLeft) {
  const Case& c = GetParam();
  unsigned port = 0;
  {
    Fd probe{bound(SOCK_STREAM, 0)};
    ASSERT_GE(probe.fd, 0);
    sockaddr_in6 at{};
    socklen_t size = sizeof at;
    ::getsockname(probe.fd, reinterpret_cast<sockaddr*>(&at), &size);
    port = ntohs(at.sin6_port);
  }
  const Fd tcp{c.tcpHeld ? bound(SOCK_STREAM, port) : -1};
  const Fd udp{c.udpHeld ? bound(SOCK_DGRAM, port) : -1};
  ASSERT_EQ(tcp.fd >= 0, c.tcpHeld);
  ASSERT_EQ(udp.fd >= 0, c.udpHeld);

  WebRtcSender::Options options;
  options.minPort = options.maxPort = port;
  std::string answer;
  try {
    answer = WebRtcSender::create(offer(), options, {})->answer();
  } catch (const NoCandidateError& e) {
    if (!c.tcpHeld && !c.udpHeld) GTEST_SKIP() << "no candidate on a free port: " << e.what();
    EXPECT_FALSE(c.answered) << e.what();
    EXPECT_NE(std::string(e.what()).find(std::to_string(port)), std::string::npos) << e.what();
    return;
  }
  ASSERT_TRUE(c.answered) << answer;
  const std::regex udpCandidate(
      "a=candidate:\\S+ 1 UDP \\d+ \\S+ " + std::to_string(port) + " typ host", std::regex::icase);
  const std::regex tcpCandidate(
      "a=candidate:\\S+ 1 TCP \\d+ \\S+ " + std::to_string(port) + " typ host tcptype passive",
      std::regex::icase);
  EXPECT_EQ(std::regex_search(answer, udpCandidate), c.udp) << answer;
  EXPECT_EQ(std::regex_search(answer, tcpCandidate), c.tcp) << answer;
}

INSTANTIATE_TEST_SUITE_P(Sender, PortRange,
                         ::testing::Values(Case{"Free", false, false, true, true, true},
                                           Case{"TcpHeld", true, false, true, true, false},
                                           Case{"BothHeld", true, true, false, false, false}),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace lumora2::serve
