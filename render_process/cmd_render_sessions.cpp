// render-sessions --engine <vivra.model>: one render process for many sessions, over the sessions
// extension of the render-stream wire format (protocol/session_wire.h). The engine file is
// unpacked, checked and its graphs loaded once; each session opened names its avatar and gets an
// engine of its own on those graphs. An avatar is unpacked, checked and loaded at its first
// session, whose engine warms up in full; later sessions of it start from that warm-up's priming
// (Lumora2Engine::warmUpFrom), in milliseconds, and render the same bytes.
//
// Threads: the main thread reads the parent's messages and hands each to its session's thread,
// which drives the session's StreamSession exactly as render-stream drives its one; a session's
// back-pressure therefore holds up that session alone. Every record goes to standard output
// whole, under one lock. A session whose engine fails two segments in a row is closed
// ("respawn"); the parent opens it again. SIGTERM, SIGINT and SIGHUP end the process as they end
// render-stream.
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "container/archive.h"
#include "container/manifest.h"
#include "container/platform.h"
#include "engine/lumora2_engine.h"
#include "engine/thread_annotations.h"
#include "host/args.h"
#include "host/command.h"
#include "process_io.h"
#include "protocol/session_wire.h"
#include "render_commands.h"
#include "render_staging.h"
#include "render_support.h"
#include "stream_session.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
namespace sw = wire::sessions;
using Clock = std::chrono::steady_clock;

constexpr const char* kLabel = "[render-sessions]";

// What the process loaded once: the engine file's graphs, its warm speech and the settings.
struct Shared {
  fs::path enginePath;
  fs::path workDir;
  EngineSettings settings;
  std::shared_ptr<const EngineGraphs> graphs;
  std::optional<std::vector<float>> warmSpeech;
};

// One avatar of the process: loaded by its first session, primed by that session's warm-up.
struct AvatarSlot {
  Mutex lock;  // held while the avatar loads and its first engine warms up
  std::shared_ptr<const AvatarModel> model LUMORA2_GUARDED_BY(lock);
  std::shared_ptr<const Lumora2Engine::Primed> primed LUMORA2_GUARDED_BY(lock);
  fs::path dir;  // where it is unpacked; fixed when the slot is made
};

class SessionHost;

// One session: its own thread, fed the parent's messages for it in order.
class HostedSession {
 public:
  HostedSession(SessionHost& host, sw::Message open);
  ~HostedSession() { thread_.join(); }
  void post(sw::Message message) LUMORA2_EXCLUDES(lock_);
  bool finished() const { return finished_.load(); }

 private:
  void run();
  std::shared_ptr<Lumora2Engine> openEngine(std::string& why, bool& primedBefore);
  sw::Message take() LUMORA2_EXCLUDES(lock_);

  SessionHost& host_;
  const sw::Message open_;
  Mutex lock_;
  std::condition_variable_any posted_;
  std::deque<sw::Message> queue_ LUMORA2_GUARDED_BY(lock_);
  std::atomic<bool> finished_{false};
  std::thread thread_;  // last: started once the rest is made
};

class SessionHost {
 public:
  explicit SessionHost(Shared shared) : shared_(std::move(shared)) {}

  // The parent's messages until its stream ends; the process's exit status.
  int serve() {
    sw::MessageReader messages(readExactly);
    for (;;) {
      sw::Message message = messages.next();
      std::erase_if(sessions_, [](const auto& entry) { return entry.second->finished(); });
      if (message.kind == sw::Message::Kind::end) break;
      const std::uint32_t number = message.session;
      const auto it = sessions_.find(number);
      if (message.kind == sw::Message::Kind::open) {
        if (it != sessions_.end()) {
          stderrLine(std::string(kLabel) + " session " + std::to_string(number) +
                     " is open already — the second open is ignored");
          continue;
        }
        sessions_.emplace(number, std::make_unique<HostedSession>(*this, std::move(message)));
      } else if (it != sessions_.end()) {
        it->second->post(std::move(message));
      }
      // Messages for a session that is not open (closed, or closed by its engine) are dropped.
    }
    for (auto& [number, session] : sessions_) session->post(sw::Message{});
    sessions_.clear();
    stderrLine(std::string(kLabel) + " stdin closed — exiting");
    removeTreeQuietly(shared_.workDir);
    return kExitOk;
  }

  const Shared& shared() const { return shared_; }

  // Writes one whole record; the process ends when the parent has gone.
  bool write(const std::uint8_t* bytes, std::size_t size) LUMORA2_EXCLUDES(outLock_) {
    MutexLock hold(outLock_);
    return writeAll(bytes, size);
  }
  void writeRecord(const std::string& record) {
    if (!write(reinterpret_cast<const std::uint8_t*>(record.data()), record.size())) parentGone();
  }
  [[noreturn]] void parentGone() {
    stderrLine(std::string(kLabel) + " standard output closed (the parent went away) — exiting");
    removeTreeQuietly(shared_.workDir);
    std::_Exit(kExitOk);
  }

  std::shared_ptr<AvatarSlot> slot(const std::string& avatar) LUMORA2_EXCLUDES(slotsLock_) {
    MutexLock hold(slotsLock_);
    std::shared_ptr<AvatarSlot>& slot = slots_[avatar];
    if (!slot) {
      slot = std::make_shared<AvatarSlot>();
      slot->dir = shared_.workDir / ("avatar-" + std::to_string(slots_.size()));
    }
    return slot;
  }

 private:
  const Shared shared_;
  Mutex outLock_;  // standard output, one record at a time
  Mutex slotsLock_;
  std::map<std::string, std::shared_ptr<AvatarSlot>> slots_ LUMORA2_GUARDED_BY(slotsLock_);
  std::map<std::uint32_t, std::unique_ptr<HostedSession>> sessions_;  // the main thread's
};

HostedSession::HostedSession(SessionHost& host, sw::Message open)
    : host_(host), open_(std::move(open)), thread_([this] { run(); }) {}

void HostedSession::post(sw::Message message) {
  {
    MutexLock hold(lock_);
    queue_.push_back(std::move(message));
  }
  posted_.notify_one();
}

sw::Message HostedSession::take() {
  MutexLock hold(lock_);
  posted_.wait(lock_, [&]() LUMORA2_REQUIRES(lock_) { return !queue_.empty(); });
  sw::Message message = std::move(queue_.front());
  queue_.pop_front();
  return message;
}

// The session's engine: on its avatar's priming when an earlier session left one, warmed up in
// full otherwise. Nothing, with `why`, when the avatar or the warm-up fails.
std::shared_ptr<Lumora2Engine> HostedSession::openEngine(std::string& why, bool& primedBefore) {
  const Shared& shared = host_.shared();
  std::shared_ptr<AvatarSlot> slot = host_.slot(open_.avatar);
  MutexLock hold(slot->lock);
  if (!slot->model) {
    try {
      const RenderManifests manifests = readRenderManifests(shared.enginePath, open_.avatar);
      Archive::unzip(open_.avatar, slot->dir);
      std::string problems;
      checkMembers(slot->dir, manifests.avatar.files, problems);
      if (!problems.empty()) throw Err("checksum problems: " + problems);
    } catch (const std::exception& e) {
      removeTreeQuietly(slot->dir);
      why = e.what();
      return nullptr;
    }
    slot->model = AvatarModel::load(slot->dir, shared.settings);
    if (!slot->model) {
      why = "the avatar " + open_.avatar + " did not load (the log says why)";
      return nullptr;
    }
  }
  auto engine = Lumora2Engine::create(shared.graphs, slot->model, shared.settings);
  primedBefore = slot->primed != nullptr;
  if (primedBefore) {
    engine->warmUpFrom(slot->primed);
  } else {
    engine->warmUp(shared.warmSpeech);
    slot->primed = engine->primed();
  }
  if (!engine->isReady()) {
    why = "warmUp failed — engine not ready";
    return nullptr;
  }
  engine->resetState(true);
  return engine;
}

void HostedSession::run() {
  const std::uint32_t number = open_.session;
  const std::string label = std::string(kLabel) + " session " + std::to_string(number);
  const auto started = Clock::now();
  std::string why;
  bool primedBefore = false;
  std::shared_ptr<Lumora2Engine> engine = openEngine(why, primedBefore);
  if (!engine) {
    stderrLine(label + ": " + why);
    host_.writeRecord(sw::closedRecord(number, "failed: " + why));
    finished_ = true;
    return;
  }
  char ready[160];
  std::snprintf(ready, sizeof ready, "%s ready in %.0f ms (%s)", label.c_str(),
                std::chrono::duration<double, std::milli>(Clock::now() - started).count(),
                primedBefore ? "from its avatar's priming" : "warmed up");
  stderrLine(ready);
  const std::uint32_t flags = open_.flags & sw::kFlagI420;  // the flags it knows
  host_.writeRecord(sw::openedRecord(number, flags, engine->decoderDesc()));
  StreamSession session(
      engine, number, (flags & sw::kFlagI420) != 0,
      [this](const std::uint8_t* bytes, std::size_t size) { return host_.write(bytes, size); },
      [this] { host_.parentGone(); }, label);
  std::string closing = sw::kClosedByParent;
  for (bool open = true; open;) {
    sw::Message message = take();
    switch (message.kind) {
      case sw::Message::Kind::audio:
        session.audio(message.samples);
        break;
      case sw::Message::Kind::reset:
        session.reset();
        break;
      case sw::Message::Kind::flush:
        if (session.flush()) {
          closing = sw::kClosedForRespawn;
          open = false;
        }
        break;
      case sw::Message::Kind::open:  // the main thread never posts one
      case sw::Message::Kind::close:
      case sw::Message::Kind::end:
        session.finish();
        open = false;
        break;
    }
  }
  host_.writeRecord(sw::closedRecord(number, closing));
  finished_ = true;
}

}  // namespace

int renderSessions(const std::vector<std::string>& arguments) {
  const ParsedArgs parsed = parseArgs(arguments);
  const std::string* engineOption = option(parsed.options, "engine");
  if (engineOption == nullptr || !parsed.positionals.empty()) {
    throw Err("usage: render-sessions --engine <vivra.model>");
  }
  Shared shared;
  shared.enginePath = *engineOption;

  // Before any thread exists, as render-stream does.
  const sigset_t signals = terminatingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  shared.settings = EngineSettings::fromEnvironment();
  const std::string manifest = Archive::readManifest(shared.enginePath);
  if (ManifestJSON::kindOf(manifest) == ManifestJSON::Kind::avatar) {
    throw Err(shared.enginePath.string() + " is an avatar file, not an engine file");
  }
  const EngineManifest engineManifest = ManifestJSON::decodeEngine(manifest);
  if (!EngineManifest::kAcceptedFormats.contains(engineManifest.format)) {
    throw Err("engine: bad format '" + engineManifest.format + "'");
  }
  shared.workDir = fs::temp_directory_path() / ("ane-render-" + newUUID());
  const fs::path engineDir = shared.workDir / "engine";
  fs::create_directories(shared.workDir);
  try {
    Archive::unzip(shared.enginePath, engineDir);
    std::string problems;
    checkMembers(engineDir, engineManifest.files, problems);
    if (!problems.empty()) throw Err("checksum problems: " + problems);
  } catch (...) {
    removeTreeQuietly(shared.workDir);
    throw;
  }
  try {
    shared.warmSpeech = loadWav(engineDir / "warm.wav", warmSamples());
  } catch (const std::exception&) {
    shared.warmSpeech.reset();
  }
  shared.settings.vivraDir = engineDir;
  shared.graphs = EngineGraphs::load(shared.settings);
  if (!shared.graphs) {
    removeTreeQuietly(shared.workDir);
    throw Err("render-sessions: the engine's graphs did not load");
  }
  const std::string header = sw::headerLine(Lumora2Engine::kWidth, Lumora2Engine::kHeight);
  if (!writeAll(header.data(), header.size())) {
    removeTreeQuietly(shared.workDir);
    return kExitOk;
  }
  const fs::path workDir = shared.workDir;
  std::thread([signals, workDir] {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) return;
    stderrLine(std::string(kLabel) + " signal " + std::to_string(signal) + " — exiting");
    removeTreeQuietly(workDir);
    std::_Exit(kExitSignalBase + signal);
  }).detach();
  return SessionHost(std::move(shared)).serve();
}

int renderSessionsMain(int argc, char** argv) {
  try {
    return renderSessions(std::vector<std::string>(argv + 2, argv + argc));
  } catch (const std::exception& e) {
    stderrLine(std::string("error: ") + e.what());
  }
  return kExitFailure;
}

}  // namespace lumora2
