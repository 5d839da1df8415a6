#include "render_channel.h"

namespace lumora2::render {
namespace {

class OwnChild final : public RenderChannel {
 public:
  explicit OwnChild(std::unique_ptr<StreamChild> child) : child_(std::move(child)) {}
  const StreamGeometry& geometry() const override { return child_->geometry(); }
  pid_t pid() const override { return child_->pid(); }
  void sendAudio(const float* samples, std::size_t count) override {
    child_->sendAudio(samples, count);
  }
  void sendFlush() override { child_->sendFlush(); }
  void sendReset() override { child_->sendReset(); }
  Event next(std::chrono::steady_clock::time_point deadline) override {
    return child_->next(deadline);
  }
  bool endsWithin(std::chrono::milliseconds wait) override { return child_->exitsWithin(wait); }
  Ending ending() override {
    const int status = child_->exitStatus();
    return {status == 3, "the render process ended with exit status " + std::to_string(status)};
  }

 private:
  std::unique_ptr<StreamChild> child_;
};

}  // namespace

std::unique_ptr<RenderChannel> OwnChildren::open(const StreamChild::Command& command) {
  return std::make_unique<OwnChild>(StreamChild::start(command));
}

}  // namespace lumora2::render
