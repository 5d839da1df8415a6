// lumora2-serve: live talking sessions in a browser. Serves the page and the HTTP API
// (docs/SERVE.md); each session has a render-stream child of its own and streams over WebRTC.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "admission.h"
#include "catalog.h"
#include "client/client_error.h"
#include "client/shared_render.h"
#include "client/stream_child.h"
#include "container/platform.h"
#include "engine/log.h"
#include "http_server.h"
#include "media/webrtc_sender.h"
#include "server_metrics.h"
#include "session_registry.h"

namespace {

using lumora2::render::ClientError;
namespace fs = std::filesystem;
namespace serve = lumora2::serve;

constexpr const char* kUsage =
    "usage: lumora2-serve --engine vivra.model --avatars DIR [--listen 127.0.0.1:8080]\n"
    "                     [--max-sessions auto|N] [--drain-seconds S] [--token-file F]\n"
    "                     [--host PATH] [--idle-timeout SECONDS] [--voice NAME]\n"
    "                     [--viewer-grace SECONDS] [--allow-host NAME]... [--allow-origin "
    "ORIGIN]...\n"
    "                     [--clip-memory MIB] [--ice-server URL]... [--turn-secret-file F]\n"
    "                     [--turn-lifetime SECONDS] [--public-address ADDR] [--udp-ports MIN-MAX]\n"
    "                     [--render-processes auto|N|per-session]\n"
    "\n"
    "Serves live talking sessions of the avatars in DIR (*.avatar) to a browser: open\n"
    "http://ADDRESS:PORT/ for the page, or use the HTTP API (docs/SERVE.md). Each session runs a\n"
    "render-stream child of --host (default: the lumora2-model beside lumora2-serve). With\n"
    "--token-file, every /v1 call needs 'Authorization: Bearer <the file's first line>'.\n"
    "A session is admitted while the machine keeps every session in real time, as measured\n"
    "while sessions run (--max-sessions auto, the default); --max-sessions N also caps them at N.\n"
    "GET /readyz says whether one more would be admitted, GET /metrics what the server does.\n"
    "SIGTERM drains: no new session or speech, what was said is spoken (up to --drain-seconds,\n"
    "default 30), then the server exits 0; a second SIGTERM ends at once. A session nobody has\n"
    "called for --idle-timeout seconds (default 600) ends. Text is spoken with each avatar's own\n"
    "voice (from its gender and persona), or with the espeak-ng voice --voice names. A viewer\n"
    "who leaves may come back within --viewer-grace seconds (default 30). Requests must name\n"
    "this server in their Host header (an address, localhost, or a --allow-host name); pages of\n"
    "other origins may call it only with --allow-origin. Decoded idle clips are kept for the\n"
    "next session up to --clip-memory MiB (default 1024). Sessions are rendered by a few shared\n"
    "render processes, one per usable core (--render-processes auto) or N, each session on the\n"
    "least loaded; --render-processes per-session gives each session a child of its own.\n"
    "Viewers on other networks: --ice-server stun:HOST[:PORT] or turn(s):HOST[:PORT][?transport=\n"
    "udp|tcp] (repeatable) are used by the server and given to browsers, TURN with credentials\n"
    "made from --turn-secret-file's shared secret that expire after --turn-lifetime seconds\n"
    "(default 86400); --public-address names the server's address outside a 1:1 NAT in its\n"
    "candidates; --udp-ports keeps every media socket in MIN-MAX (two ports per viewer).\n";

struct Arguments {
  fs::path engine, avatars, host, tokenFile;
  std::string voice;
  std::vector<std::string> allowHosts, allowOrigins;
  long viewerGrace = 30;
  long clipMemoryMiB = 1024;
  std::string address = "127.0.0.1";
  unsigned short port = 8080;
  std::size_t maxSessions = 64;  // the ceiling of auto
  bool measured = true;          // false: --max-sessions N was given
  long idleTimeout = 600;
  long drainSeconds = 30;
  long renderProcesses = 0;  // 0: one per usable core; -1: a child per session
  std::vector<std::string> iceServers;
  fs::path turnSecretFile;
  long turnLifetime = 86400;
  std::string publicAddress, udpPorts;
};

long wholeNumber(const std::string& option, const std::string& text, long low, long high) {
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < low || value > high) {
    throw ClientError(option + " wants a whole number from " + std::to_string(low) + " to " +
                      std::to_string(high) + ", not \"" + text + "\"");
  }
  return value;
}

Arguments parseArguments(const std::vector<std::string>& args) {
  Arguments a;
  a.host = lumora2::render::StreamChild::defaultHost();
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& option = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw ClientError(option + " needs a value");
      return args[++i];
    };
    if (option == "--engine") {
      a.engine = value();
    } else if (option == "--avatars") {
      a.avatars = value();
    } else if (option == "--host") {
      a.host = value();
    } else if (option == "--token-file") {
      a.tokenFile = value();
    } else if (option == "--voice") {
      a.voice = value();
    } else if (option == "--max-sessions") {
      const std::string& text = value();
      a.measured = text == "auto";
      a.maxSessions = a.measured ? 64 : std::size_t(wholeNumber(option, text, 1, 64));
    } else if (option == "--drain-seconds") {
      a.drainSeconds = wholeNumber(option, value(), 0, 3600);
    } else if (option == "--idle-timeout") {
      a.idleTimeout = wholeNumber(option, value(), 1, 86400);
    } else if (option == "--viewer-grace") {
      a.viewerGrace = wholeNumber(option, value(), 0, 3600);
    } else if (option == "--clip-memory") {
      a.clipMemoryMiB = wholeNumber(option, value(), 0, 1 << 20);
    } else if (option == "--render-processes") {
      const std::string& text = value();
      a.renderProcesses = text == "auto"          ? 0
                          : text == "per-session" ? -1
                                                  : wholeNumber(option, text, 1, 64);
    } else if (option == "--ice-server") {
      a.iceServers.push_back(value());
    } else if (option == "--turn-secret-file") {
      a.turnSecretFile = value();
    } else if (option == "--turn-lifetime") {
      a.turnLifetime = wholeNumber(option, value(), 60, 30 * 86400);
    } else if (option == "--public-address") {
      a.publicAddress = value();
    } else if (option == "--udp-ports") {
      a.udpPorts = value();
    } else if (option == "--allow-host") {
      a.allowHosts.push_back(value());
    } else if (option == "--allow-origin") {
      const std::string& origin = value();
      if (origin != "*" && origin.rfind("http://", 0) != 0 && origin.rfind("https://", 0) != 0) {
        throw ClientError("--allow-origin wants http(s)://host[:port] or *, not \"" + origin +
                          "\"");
      }
      a.allowOrigins.push_back(origin);
    } else if (option == "--listen") {
      const std::string& listen = value();
      const std::size_t colon = listen.rfind(':');
      if (colon == std::string::npos || colon == 0) {
        throw ClientError("--listen wants ADDRESS:PORT, not \"" + listen + "\"");
      }
      a.address = listen.substr(0, colon);
      if (a.address.size() > 2 && a.address.front() == '[' && a.address.back() == ']') {
        a.address = a.address.substr(1, a.address.size() - 2);
      }
      a.port = static_cast<unsigned short>(
          wholeNumber("--listen's port", listen.substr(colon + 1), 0, 65535));
    } else {
      throw ClientError("unknown argument " + option);
    }
  }
  if (a.engine.empty()) throw ClientError("missing --engine vivra.model");
  if (a.avatars.empty()) throw ClientError("missing --avatars DIR");
  return a;
}

// How viewers on other networks reach the server; every value checked before it serves.
std::shared_ptr<const serve::IceConfig> iceConfig(const Arguments& a) {
  auto ice = std::make_shared<serve::IceConfig>();
  for (const std::string& url : a.iceServers) ice->servers.push_back(serve::parseIceServer(url));
  if (!a.turnSecretFile.empty()) {
    ice->turnSecret = serve::readSecretFile(a.turnSecretFile, "the TURN secret file");
  }
  ice->turnLifetime = std::chrono::seconds(a.turnLifetime);
  if (!a.publicAddress.empty()) ice->publicAddress = serve::parsePublicAddress(a.publicAddress);
  if (!a.udpPorts.empty()) ice->udpPorts = serve::parsePortRange(a.udpPorts);
  ice->check();
  return ice;
}

// Temporary directories of servers that did not end (killed, or the machine went down): each is
// named after its server's process id, removed when that process is gone.
void removeStaleScratch(const fs::path& tmp) {
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(tmp, ec)) {
    const std::string name = entry.path().filename().string();
    constexpr std::string_view prefix = "lumora2-serve-";
    if (name.rfind(prefix, 0) != 0 || !entry.is_directory(ec)) continue;
    const long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
    if (pid <= 0 || pid == long(::getpid())) continue;
    if (::kill(pid_t(pid), 0) == 0 || errno != ESRCH) continue;
    lumora2::removeTreeQuietly(entry.path());
  }
}

// "http://ADDRESS:PORT/", with an IPv6 address in brackets.
std::string serverUrl(const std::string& address, unsigned port) {
  const bool v6 = address.find(':') != std::string::npos;
  return "http://" + (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port) + "/";
}

// Where sessions are rendered: shared render processes (started now, so that sessions find them
// warm), or a render-stream child per session.
std::shared_ptr<lumora2::render::RenderPool> makeRenderers(
    const Arguments& arguments, const lumora2::render::StreamChild::Command& child, double cores) {
  namespace render = lumora2::render;
  if (arguments.renderProcesses < 0) return std::make_shared<render::OwnChildren>();
  const int processes = arguments.renderProcesses > 0 ? int(arguments.renderProcesses)
                                                      : std::max(1, int(cores + 0.5));
  render::SharedRenderProcess::Command command;
  command.renderHost = child.host.parent_path() / "lumora2-model-render";
  command.engine = child.engine;
  command.niceness = child.niceness;
  command.threads = std::max(1, int(std::thread::hardware_concurrency()) / processes);
  command.i420 = true;  // the encoder's own form: the server converts nothing
  auto pool = std::make_shared<render::SharedProcesses>(command, processes);
  std::string why;
  if (!pool->startAll(why)) throw ClientError(why);
  return pool;
}

// The avatars of --avatars, what was skipped or is doubtful about them said on standard error.
serve::Catalog loadAvatars(const Arguments& arguments) {
  serve::Catalog catalog = serve::loadCatalog(arguments.engine, arguments.avatars, arguments.voice);
  for (const std::string& line : catalog.skipped) {
    std::fprintf(stderr, "lumora2-serve: skipped %s\n", line.c_str());
  }
  for (const std::string& line : catalog.warnings) {
    std::fprintf(stderr, "lumora2-serve: warning: %s\n", line.c_str());
  }
  if (catalog.avatars.empty()) {
    throw ClientError("no usable avatar in " + arguments.avatars.string());
  }
  return catalog;
}

serve::SessionOptions sessionOptions(const Arguments& arguments,
                                     std::shared_ptr<const serve::IceConfig> ice) {
  serve::SessionOptions options;
  options.command.host = arguments.host;
  options.command.engine = arguments.engine;
  // Children render ahead of the clock (their frames wait in the timeline); the server's
  // encoding and pacing keep it and must not queue behind them for the processor.
  options.command.niceness = 5;
  // A newcomer's warm-up (a second or two of graph runs) yields to the children already
  // rendering for a viewer, so that a join never makes them late.
  options.command.warmUpNiceness = 15;
  options.viewerGrace = std::chrono::seconds(arguments.viewerGrace);
  options.ice = std::move(ice);
  if (const char* trace = std::getenv("LUMORA2_SERVE_TRACE"); trace != nullptr && *trace) {
    options.trace = std::make_shared<serve::TraceFile>(trace);
  }
  if (const char* delay = std::getenv("LUMORA2_SERVE_SOUND_DELAY_MS"); delay != nullptr) {
    options.soundDelay = serve::parseSoundDelay(delay);  // a planted lip-sync fault
  }
  return options;
}

// Waits for a terminating signal; SIGTERM drains first (--drain-seconds), a second one cuts the
// drain short.
void awaitStop(sigset_t& stopSignals, const Arguments& arguments,
               serve::SessionRegistry& sessions) {
  int signal = 0;
  sigwait(&stopSignals, &signal);
  if (signal != SIGTERM || arguments.drainSeconds <= 0) {
    std::fprintf(stderr, "lumora2-serve: signal %d — ending every session\n", signal);
    return;
  }
  std::fprintf(stderr,
               "lumora2-serve: SIGTERM — draining: no new session, what was said is spoken "
               "(at most %ld s)\n",
               arguments.drainSeconds);
  const timespec none{0, 0};
  const auto started = std::chrono::steady_clock::now();
  const serve::SessionRegistry::Drained drained =
      sessions.drain(started + std::chrono::seconds(arguments.drainSeconds),
                     [&] { return sigtimedwait(&stopSignals, nullptr, &none) > 0; });
  std::fprintf(stderr,
               "lumora2-serve: %s in %.1f s (utterances spoken to their end: %llu) — ending "
               "every session\n",
               drained.complete ? "drained" : "drain cut short",
               std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
               static_cast<unsigned long long>(drained.spoken));
}

int serveUntilStopped(const Arguments& arguments, sigset_t& stopSignals) {
  if (::access(arguments.host.c_str(), X_OK) != 0) {
    throw ClientError("render host " + arguments.host.string() +
                      " is not an executable (choose one with --host)");
  }
  const std::shared_ptr<const serve::IceConfig> ice = iceConfig(arguments);
  // The idle clip reader's log lines (one per clip loop of every session) go nowhere: standard
  // error carries the server's own lines.
  lumora2::setEngineLogProgram("lumora2-serve");
  lumora2::setEngineLogDestination(-1);
  serve::initMedia();
  const serve::Catalog catalog = loadAvatars(arguments);

  // Everything temporary of this server and its children lives in one directory named after
  // it (TMPDIR for the children), removed when it ends, or by the next server if it is killed.
  removeStaleScratch(lumora2::systemTempDir());
  lumora2::ScratchDir scratch("lumora2-serve-" + std::to_string(::getpid()) + "-");
  ::setenv("TMPDIR", scratch.path().c_str(), 1);
  serve::ServerConfig config;
  config.address = arguments.address;
  config.port = arguments.port;
  config.scratch = scratch.path();
  config.ice = ice;
  if (!arguments.tokenFile.empty()) {
    config.token = serve::readSecretFile(arguments.tokenFile, "the token file");
  }
  config.callers.hosts = arguments.allowHosts;
  config.callers.origins = arguments.allowOrigins;
  serve::Admission::Options admit;
  admit.cores = serve::usableCores();
  admit.cap = arguments.maxSessions;
  serve::Admission admission(admit);
  serve::ServerMetrics metrics;
  serve::SessionOptions options = sessionOptions(arguments, ice);
  options.renderers = makeRenderers(arguments, options.command, admit.cores);
  serve::SessionRegistry sessions(options, admission, metrics,
                                  std::chrono::seconds(arguments.idleTimeout),
                                  std::size_t(arguments.clipMemoryMiB) << 20);
  sessions.preload(catalog.avatars);
  serve::HttpServer server(config, catalog, sessions, metrics);
  server.run();
  std::printf("lumora2-serve: listening on %s (%zu avatars, %s sessions, %.1f cores)\n",
              serverUrl(arguments.address, server.port()).c_str(), catalog.avatars.size(),
              arguments.measured ? "measured"
                                 : ("at most " + std::to_string(arguments.maxSessions)).c_str(),
              admit.cores);
  std::fflush(stdout);
  awaitStop(stopSignals, arguments, sessions);
  server.stop();
  sessions.endAll();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && (args[0] == "-h" || args[0] == "--help")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  // The terminating signals are taken by this thread alone (sigwait), in every thread's mask
  // from the start; a peer or a child that goes away is a failed write, not our death.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&stopSignals, s);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  try {
    return serveUntilStopped(parseArguments(args), stopSignals);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return 1;
  }
}
