#include "http_server.h"

#include "http_front.h"

#include <algorithm>

namespace lumora2::serve {

std::unique_ptr<ConnectionSlots::Slot> ConnectionSlots::take(const std::string& address) {
  std::function<void()> evicted;
  std::unique_ptr<Slot> slot;
  {
    MutexLock hold(lock_);
    const auto mine = perAddressOpen_.find(address);
    const std::size_t fromThere = mine == perAddressOpen_.end() ? 0 : mine->second;
    if (open_ < total_ && (perAddress_ == 0 || fromThere < perAddress_)) {
      ++open_;
      ++perAddressOpen_[address];
      return std::make_unique<Slot>(*this, address, false);
    }
    if (reserve_ == 0) return nullptr;
    if (reserveOpen_.size() >= reserve_) {
      const auto idle = std::find_if(reserveOpen_.begin(), reserveOpen_.end(),
                                     [](const Waiting& w) { return !w.busy; });
      if (idle == reserveOpen_.end()) return nullptr;
      evicted = std::move(idle->closer);
      reserveOpen_.erase(idle);
    }
    slot = std::make_unique<Slot>(*this, address, true);
    reserveOpen_.push_back(Waiting{slot.get(), {}, false});
  }
  if (evicted) evicted();
  return slot;
}

void ConnectionSlots::giveBack(const Slot& slot) {
  MutexLock hold(lock_);
  if (slot.probesOnly_) {
    // Gone already when it was closed for a newcomer.
    reserveOpen_.remove_if([&](const Waiting& w) { return w.slot == &slot; });
    return;
  }
  --open_;
  const auto it = perAddressOpen_.find(slot.address_);
  if (it != perAddressOpen_.end() && --it->second == 0) perAddressOpen_.erase(it);
}

void ConnectionSlots::setCloser(const Slot& slot, std::function<void()> closer) {
  MutexLock hold(lock_);
  for (Waiting& w : reserveOpen_)
    if (w.slot == &slot) w.closer = std::move(closer);
}

void ConnectionSlots::markBusy(const Slot& slot) {
  MutexLock hold(lock_);
  for (Waiting& w : reserveOpen_)
    if (w.slot == &slot) w.busy = true;
}

HttpServer::Impl::Impl(ServerConfig c, const Catalog& cat, SessionRegistry& reg,
                       const ServerMetrics& m)
    : config(std::move(c)),
      catalog(cat),
      sessions(reg),
      metrics(m),
      slots(config.limits.connections, config.limits.connectionsPerAddress,
            config.limits.probeReserve),
      workers(std::max<std::size_t>(1, config.limits.workers)) {}

namespace {

void accept(HttpServer::Impl& server) {
  server.acceptor.async_accept(
      net::make_strand(server.io), [&server](beast::error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted) return;
        if (!ec) {
          beast::error_code ignored;
          const auto peer = socket.remote_endpoint(ignored);
          std::shared_ptr<ConnectionSlots::Slot> slot =
              ignored ? nullptr : server.slots.take(peer.address().to_string());
          if (slot) {
            serveConnection(std::move(socket), std::move(slot), server);
          } else {
            socket.close(ignored);  // even the probes' reserve is taken
          }
        }
        accept(server);
      });
}

}  // namespace

HttpServer::HttpServer(ServerConfig config, const Catalog& catalog, SessionRegistry& sessions,
                       const ServerMetrics& metrics)
    : impl_(std::make_unique<Impl>(std::move(config), catalog, sessions, metrics)) {
  beast::error_code ec;
  const auto address = net::ip::make_address(impl_->config.address, ec);
  if (ec) {
    throw std::runtime_error("cannot listen on " + impl_->config.address + ": not an address");
  }
  const tcp::endpoint endpoint{address, impl_->config.port};
  impl_->acceptor.open(endpoint.protocol(), ec);
  if (!ec) impl_->acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) impl_->acceptor.bind(endpoint, ec);
  if (!ec) impl_->acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec) {
    throw std::runtime_error("cannot listen on " + impl_->config.address + ":" +
                             std::to_string(impl_->config.port) + ": " + ec.message());
  }
}

HttpServer::~HttpServer() {
  stop();
  // Calls still running on the workers finish (their sessions have ended by now, so they end
  // quickly); their answers have nowhere to go.
  impl_->workers.join();
}

unsigned short HttpServer::port() const { return impl_->acceptor.local_endpoint().port(); }

void HttpServer::run() {
  accept(*impl_);
  for (int i = 0; i < std::max(1, impl_->config.threads); ++i) {
    impl_->threads.emplace_back([this] { impl_->io.run(); });
  }
}

void HttpServer::stop() {
  if (impl_->threads.empty()) return;
  net::post(impl_->io, [this] {
    beast::error_code ignored;
    impl_->acceptor.close(ignored);
  });
  impl_->io.stop();
  for (std::thread& t : impl_->threads) t.join();
  impl_->threads.clear();
}

}  // namespace lumora2::serve
