#include "server_metrics.h"

#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <vector>

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

namespace lumora2::serve {

struct ServerMetrics::Impl {
  prometheus::Registry registry;

  prometheus::Family<prometheus::Counter>& refusedFamily =
      prometheus::BuildCounter()
          .Name("lumora2_sessions_refused_total")
          .Help("Sessions refused, by reason (capacity, max_sessions, draining)")
          .Register(registry);
  prometheus::Family<prometheus::Counter>& endedFamily = prometheus::BuildCounter()
                                                             .Name("lumora2_sessions_ended_total")
                                                             .Help("Sessions ended, by cause")
                                                             .Register(registry);
  prometheus::Family<prometheus::Counter>& framesFamily =
      prometheus::BuildCounter()
          .Name("lumora2_frames_sent_total")
          .Help("Frames sent to viewers, by source (idle clip or rendered speech)")
          .Register(registry);
  prometheus::Family<prometheus::Gauge>& queueFamily =
      prometheus::BuildGauge()
          .Name("lumora2_queue_depth")
          .Help("What waits in the sessions' queues, every session together")
          .Register(registry);
  prometheus::Family<prometheus::Gauge>& residentFamily =
      prometheus::BuildGauge()
          .Name("lumora2_resident_bytes")
          .Help("Resident memory of the server and of its render children together")
          .Register(registry);

  prometheus::Counter& admitted = counter("lumora2_sessions_admitted_total", "Sessions admitted");
  prometheus::Counter& rendered =
      counter("lumora2_frames_rendered_total", "Frames the render children rendered");
  prometheus::Counter& stalls =
      counter("lumora2_stalls_total", "Times a session's output waited for a rendered frame");
  prometheus::Counter& behind =
      counter("lumora2_frames_behind_total",
              "Pictures dropped before the video encoder because it fell behind (a stutter)");
  prometheus::Counter& respawns =
      counter("lumora2_child_respawns_total", "Render children replaced at their own request");
  prometheus::Counter& deaths =
      counter("lumora2_child_deaths_total", "Render children that failed or ended unasked");
  prometheus::Counter& idleFrames = framesFamily.Add({{"source", "idle"}});
  prometheus::Counter& renderedFrames = framesFamily.Add({{"source", "rendered"}});

  prometheus::Gauge& active = gauge("lumora2_sessions_active", "Live sessions");
  prometheus::Gauge& capacity =
      gauge("lumora2_sessions_capacity", "Sessions this machine holds in real time (measured)");
  prometheus::Gauge& draining = gauge("lumora2_draining", "1 while the server drains");
  prometheus::Gauge& renderFps =
      gauge("lumora2_render_fps", "Rendering speed of the slowest live child, frames a second");
  prometheus::Gauge& serverMs =
      gauge("lumora2_server_cpu_ms_per_frame", "Server processor time per frame sent, ms");
  prometheus::Gauge& childMs =
      gauge("lumora2_child_cpu_ms_per_frame", "Child processor time per frame rendered, ms");
  prometheus::Gauge& speechQueued = queueFamily.Add({{"queue", "speech"}});
  prometheus::Gauge& framesAhead = queueFamily.Add({{"queue", "rendered_frames"}});
  prometheus::Gauge& textsQueued = queueFamily.Add({{"queue", "texts"}});
  prometheus::Gauge& serverBytes = residentFamily.Add({{"process", "server"}});
  prometheus::Gauge& childrenBytes = residentFamily.Add({{"process", "children"}});

  prometheus::Counter& counter(const char* name, const char* help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry).Add({});
  }
  prometheus::Gauge& gauge(const char* name, const char* help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(registry).Add({});
  }
};

ServerMetrics::ServerMetrics() : impl_(std::make_unique<Impl>()) {
  // Every reason and cause a client may see, present from the start at 0.
  for (const char* reason : {"capacity", "max_sessions", "draining"}) {
    impl_->refusedFamily.Add({{"reason", reason}});
  }
}

ServerMetrics::~ServerMetrics() = default;

void ServerMetrics::admitted() { impl_->admitted.Increment(); }
void ServerMetrics::refused(const std::string& reason) {
  impl_->refusedFamily.Add({{"reason", reason}}).Increment();
}
void ServerMetrics::ended(const std::string& cause) {
  impl_->endedFamily.Add({{"cause", cause}}).Increment();
}
void ServerMetrics::framesSent(std::uint64_t idle, std::uint64_t rendered) {
  impl_->idleFrames.Increment(double(idle));
  impl_->renderedFrames.Increment(double(rendered));
}
void ServerMetrics::framesRendered(std::uint64_t count) {
  impl_->rendered.Increment(double(count));
}
void ServerMetrics::stalls(std::uint64_t count) { impl_->stalls.Increment(double(count)); }
void ServerMetrics::framesBehind(std::uint64_t count) { impl_->behind.Increment(double(count)); }
void ServerMetrics::respawns(std::uint64_t count) { impl_->respawns.Increment(double(count)); }
void ServerMetrics::childDeaths(std::uint64_t count) { impl_->deaths.Increment(double(count)); }

void ServerMetrics::set(const Gauges& g) {
  impl_->active.Set(double(g.active));
  impl_->capacity.Set(double(g.capacity));
  impl_->draining.Set(g.draining ? 1 : 0);
  impl_->renderFps.Set(g.renderFps);
  impl_->serverMs.Set(g.serverMsPerFrame);
  impl_->childMs.Set(g.childMsPerFrame);
  impl_->speechQueued.Set(double(g.speechQueued));
  impl_->framesAhead.Set(double(g.framesAhead));
  impl_->textsQueued.Set(double(g.textsQueued));
  impl_->serverBytes.Set(double(g.serverBytes));
  impl_->childrenBytes.Set(double(g.childrenBytes));
}

std::string ServerMetrics::text() const {
  std::ostringstream out;
  prometheus::TextSerializer().Serialize(out, impl_->registry.Collect());
  return out.str();
}

std::optional<ProcessUsage> processUsage(pid_t pid) {
  if (pid < 0) return std::nullopt;
  const std::string path =
      pid == 0 ? std::string("/proc/self/stat") : "/proc/" + std::to_string(pid) + "/stat";
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  // The command name may hold spaces and parentheses: the fields start after the last ')'.
  const std::size_t close = line.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(line.substr(close + 1));
  std::vector<std::string> f;
  for (std::string word; fields >> word;) f.push_back(word);
  // f[0] is field 3 (state): utime is field 14, stime 15, rss (pages) 24.
  if (f.size() < 22) return std::nullopt;
  static const double ticks = double(::sysconf(_SC_CLK_TCK));
  static const double page = double(::sysconf(_SC_PAGESIZE));
  ProcessUsage usage;
  try {
    usage.cpuSeconds = (std::stod(f[11]) + std::stod(f[12])) / ticks;
    usage.residentBytes = std::uint64_t(std::stod(f[21]) * page);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  return usage;
}

}  // namespace lumora2::serve
