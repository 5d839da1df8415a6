#include "ice_servers.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace lumora2::serve {
namespace {

bool digitsOnly(std::string_view text) {
  return !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == text.npos;
}

bool hostName(std::string_view host) {
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    in6_addr ignored{};
    return inet_pton(AF_INET6, std::string(host.substr(1, host.size() - 2)).c_str(), &ignored) == 1;
  }
  return !host.empty() && host.size() <= 253 && host.front() != '-' && host.front() != '.' &&
         host.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-") == host.npos;
}

// Percent-encoding of everything but unreserved characters, as URI user information needs.
std::string urlEncoded(std::string_view text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += char(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

IceServer parseIceServer(const std::string& url) {
  const auto bad = [&](const std::string& why) {
    return IceConfigError("--ice-server \"" + url + "\": " + why +
                          " (stun:HOST[:PORT], turn:HOST[:PORT][?transport=udp|tcp] or "
                          "turns:HOST[:PORT][?transport=tcp])");
  };
  IceServer server;
  server.url = url;
  const std::size_t colon = url.find(':');
  const std::string scheme = url.substr(0, colon);
  if (colon == url.npos || (scheme != "stun" && scheme != "turn" && scheme != "turns")) {
    throw bad("the scheme is not stun, turn or turns");
  }
  server.kind = scheme == "stun"   ? IceServer::Kind::stun
                : scheme == "turn" ? IceServer::Kind::turn
                                   : IceServer::Kind::turns;
  server.port = server.kind == IceServer::Kind::turns ? 5349 : 3478;
  std::string rest = url.substr(colon + 1);
  if (const std::size_t query = rest.find('?'); query != rest.npos) {
    const std::string q = rest.substr(query + 1);
    rest.resize(query);
    if (q != "transport=udp" && q != "transport=tcp")
      throw bad("the query is not ?transport=udp|tcp");
    server.transport = q.substr(10);
    if (server.kind == IceServer::Kind::stun) throw bad("a STUN server takes no transport");
    if (server.kind == IceServer::Kind::turns && server.transport == "udp") {
      throw bad("turns: is TLS, over TCP");
    }
  }
  if (rest.find('@') != rest.npos || rest.find('/') != rest.npos) {
    throw bad("credentials come from --turn-secret-file, not the URL");
  }
  // The port follows the last colon outside an IPv6 address's brackets.
  const std::size_t close = rest.rfind(']');
  const std::size_t portColon = rest.rfind(':');
  if (portColon != rest.npos && (close == rest.npos || portColon > close)) {
    const std::string port = rest.substr(portColon + 1);
    if (!digitsOnly(port) || std::stoul(port) == 0 || std::stoul(port) > 65535) {
      throw bad("the port is not a number from 1 to 65535");
    }
    server.port = unsigned(std::stoul(port));
    rest.resize(portColon);
  }
  if (!hostName(rest)) throw bad("\"" + rest + "\" is not a host name or address");
  server.host = rest;
  return server;
}

PortRange parsePortRange(const std::string& text) {
  const std::size_t dash = text.find('-');
  const std::string low = text.substr(0, dash);
  const std::string high = dash == text.npos ? "" : text.substr(dash + 1);
  if (digitsOnly(low) && digitsOnly(high)) {
    const PortRange range{unsigned(std::stoul(low)), unsigned(std::stoul(high))};
    if (range.min >= 1024 && range.min <= range.max && range.max <= 65535) return range;
  }
  throw IceConfigError("--udp-ports wants MIN-MAX with 1024 <= MIN <= MAX <= 65535, not \"" + text +
                       "\"");
}

std::string parsePublicAddress(const std::string& text) {
  in_addr v4{};
  in6_addr v6{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1 || inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
    return text;
  }
  throw IceConfigError("--public-address wants an IPv4 or IPv6 address, not \"" + text + "\"");
}

std::string readSecretFile(const std::string& path, const std::string& what) {
  // Only a regular file: a FIFO would hold the start-up until someone writes to it.
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) {
    throw IceConfigError(what + " " + path + " is not a regular file");
  }
  std::ifstream in(path);
  std::string secret;
  if (!in || !std::getline(in, secret)) throw IceConfigError("cannot read " + what + " " + path);
  while (!secret.empty() && (secret.back() == '\r' || secret.back() == ' ')) secret.pop_back();
  if (secret.size() < 16) {
    throw IceConfigError("the secret in " + what + " " + path + " is shorter than 16 characters");
  }
  return secret;
}

TurnCredential turnCredential(std::string_view secret, std::string_view name,
                              std::chrono::system_clock::time_point expires) {
  TurnCredential out;
  out.username =
      std::to_string(
          std::chrono::duration_cast<std::chrono::seconds>(expires.time_since_epoch()).count()) +
      ":" + std::string(name);
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha1(), secret.data(), int(secret.size()),
       reinterpret_cast<const unsigned char*>(out.username.data()), out.username.size(), mac,
       &length);
  std::string encoded(4 * ((length + 2) / 3) + 1, '\0');
  encoded.resize(std::size_t(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()), mac, int(length))));
  out.credential = encoded;
  return out;
}

void IceConfig::check() const {
  for (const IceServer& server : servers) {
    if (server.kind != IceServer::Kind::stun && turnSecret.empty()) {
      throw IceConfigError("--ice-server " + server.url +
                           " is a TURN server: give its shared secret with --turn-secret-file");
    }
  }
}

std::vector<IceConfig::Entry> IceConfig::entries(std::string_view name,
                                                 std::chrono::system_clock::time_point now) const {
  std::vector<Entry> out;
  std::optional<TurnCredential> credential;
  for (const IceServer& server : servers) {
    if (server.kind != IceServer::Kind::stun && !credential) {
      credential = turnCredential(turnSecret, name, now + turnLifetime);
    }
    out.push_back({&server, server.kind == IceServer::Kind::stun ? std::nullopt : credential});
  }
  return out;
}

nlohmann::json IceConfig::browserServers(const std::vector<Entry>& entries) {
  nlohmann::json out = nlohmann::json::array();
  for (const Entry& e : entries) {
    nlohmann::json server{{"urls", e.server->url}};
    if (e.credential) {
      server["username"] = e.credential->username;
      server["credential"] = e.credential->credential;
    }
    out.push_back(server);
  }
  return out;
}

std::vector<std::string> IceConfig::linkHeaders(const std::vector<Entry>& entries) {
  std::vector<std::string> out;
  for (const Entry& e : entries) {
    std::string link = "<" + e.server->url + ">; rel=\"ice-server\"";
    if (e.credential) {
      link += "; username=" + quoted(e.credential->username) +
              "; credential=" + quoted(e.credential->credential) + "; credential-type=\"password\"";
    }
    out.push_back(link);
  }
  return out;
}

std::string IceConfig::agentStunServer(const std::vector<Entry>& entries) {
  for (const Entry& e : entries) {
    if (e.server->kind == IceServer::Kind::stun) {
      return "stun://" + e.server->host + ":" + std::to_string(e.server->port);
    }
  }
  return {};
}

std::vector<std::string> IceConfig::agentTurnServers(const std::vector<Entry>& entries) {
  std::vector<std::string> out;
  for (const Entry& e : entries) {
    if (!e.credential) continue;
    // The agent ignores a URI it cannot parse, silently: the username's ':' and the base64's
    // '+', '/' and '=' are percent-encoded.
    std::string uri = (e.server->kind == IceServer::Kind::turns ? "turns://" : "turn://") +
                      urlEncoded(e.credential->username) + ":" +
                      urlEncoded(e.credential->credential) + "@" + e.server->host + ":" +
                      std::to_string(e.server->port);
    if (e.server->transport == "tcp") uri += "?transport=tcp";
    out.push_back(uri);
  }
  return out;
}

std::string announceAddress(const std::string& sdp, const std::string& address) {
  const bool v6 = address.find(':') != address.npos;
  std::istringstream in(sdp);
  std::string out, line;
  while (std::getline(in, line)) {
    // a=candidate:FOUNDATION COMPONENT TRANSPORT PRIORITY ADDRESS PORT typ TYPE ...
    if (line.rfind("a=candidate:", 0) == 0) {
      std::vector<std::string> fields;
      std::istringstream words(line);
      for (std::string w; words >> w;) fields.push_back(w);
      if (fields.size() >= 8 && fields[6] == "typ" && fields[7] == "host" &&
          (fields[4].find(':') != std::string::npos) == v6) {
        const std::size_t at = line.find(" " + fields[4] + " " + fields[5] + " typ");
        if (at != line.npos) line.replace(at + 1, fields[4].size(), address);
      }
    }
    out += line;
    out += '\n';
  }
  return out;
}

}  // namespace lumora2::serve
