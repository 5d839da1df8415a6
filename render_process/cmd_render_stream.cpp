// render-stream <X.avatar> --engine <vivra.model>: the long-lived child a parent feeds with audio
// and reads frames from. It refuses containers given in each other's place and members that fail
// their checksums before it warms up. After warm-up it writes one header line, then serves
// length-prefixed messages from standard input (audio, reset, flush, no-op, end) and answers with
// frame records (4-byte position + R, G, B pixels) and end-of-segment markers on standard output.
// One serial output queue alone writes standard output after the header; the main thread only
// reads, feeds and waits. SIGTERM, SIGINT and SIGHUP are taken by one thread (sigwait) that removes
// the working directory and ends the process with 128 + the signal number.
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "container/archive.h"
#include "container/platform.h"
#include "engine/lumora2_engine.h"
#include "host/args.h"
#include "host/command.h"
#include "process_io.h"
#include "protocol/stream_wire.h"
#include "render_commands.h"
#include "render_staging.h"
#include "render_support.h"
#include "stream_session.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// render-stream's message loop over one StreamSession; returns the process's exit status.
int serveOneSession(StreamSession& session, const fs::path& workDir) {
  wire::StreamMessageReader messages(readExactly);
  for (;;) {
    wire::StreamMessage message = messages.next();
    switch (message.kind) {
      case wire::StreamMessage::Kind::reset:
        session.reset();
        break;
      case wire::StreamMessage::Kind::flush:
        if (session.flush()) return kExitRespawn;
        break;
      case wire::StreamMessage::Kind::audio:
        session.audio(message.samples);
        break;
      case wire::StreamMessage::Kind::end:
        session.finish();
        stderrLine("[render-stream] stdin closed — exiting (produced " +
                   std::to_string(session.engine().producedTotal()) + " frames)");
        removeTreeQuietly(workDir);
        return kExitOk;
    }
  }
}

}  // namespace

int renderStream(const Positionals& positionals, const Options& options) {
  const fs::path avatarPath = positionals.at(0);
  const fs::path enginePath = *option(options, "engine");

  // Before any thread exists: the terminating signals go to the signal thread only, and a write
  // to a closed standard output is an error to report, not SIGPIPE.
  const sigset_t signals = terminatingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  // The environment is read here, once; the engine is handed what it says.
  EngineSettings settings = EngineSettings::fromEnvironment();
  // Which file is which, from the manifests alone, before anything is unpacked or loaded.
  const RenderManifests manifests = readRenderManifests(enginePath, avatarPath);
  const fs::path workDir = fs::temp_directory_path() / ("ane-render-" + newUUID());
  fs::create_directories(workDir);
  // Every member is checked against its manifest before the engine sees it.
  StagedRender staged;
  try {
    staged = stageForRendering(enginePath, avatarPath, workDir);
    verifyStaged(workDir, manifests);
  } catch (...) {
    removeTreeQuietly(workDir);
    throw;
  }
  stderrLine("[render-stream] warming up avatar=" + avatarPath.filename().string() + " …");
  const auto started = Clock::now();
  std::shared_ptr<Lumora2Engine> engine = warmEngine(staged, std::move(settings));
  if (!engine) {
    removeTreeQuietly(workDir);
    throw Err("render-stream: warmUp failed — engine not ready");
  }
  engine->resetState(true);
  char ready[64];
  std::snprintf(ready, sizeof ready, "[render-stream] ready in %.1fs",
                std::chrono::duration<double>(Clock::now() - started).count());
  stderrLine(ready);
  wire::Header promise;
  promise.width = Lumora2Engine::kWidth;
  promise.height = Lumora2Engine::kHeight;
  promise.decoder = engine->decoderDesc();
  const std::string header = wire::headerLine(promise);
  if (!writeAll(header.data(), header.size())) {
    stderrLine("[render-stream] standard output closed (the parent went away) — exiting");
    removeTreeQuietly(workDir);
    return kExitOk;
  }

  std::thread([signals, workDir] {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) return;
    stderrLine("[render-stream] signal " + std::to_string(signal) + " — exiting");
    removeTreeQuietly(workDir);
    std::_Exit(kExitSignalBase + signal);
  }).detach();

  StreamSession session(
      engine, std::nullopt, false,
      [](const std::uint8_t* bytes, std::size_t size) { return writeAll(bytes, size); },
      [workDir] {
        stderrLine("[render-stream] standard output closed (the parent went away) — exiting");
        removeTreeQuietly(workDir);
        std::_Exit(kExitOk);
      },
      "[render-stream]");
  return serveOneSession(session, workDir);
}

}  // namespace lumora2
