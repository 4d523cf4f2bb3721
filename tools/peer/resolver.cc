#include "peer/resolver.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace gxtool {

// Also held by the thread, so that it may outlive the resolver.
struct Resolver::Shared {
  explicit Shared(asio::io_context* io_context, Lookup function)
      : lookup(std::move(function)), io(io_context) {}

  void Work();

  const Lookup lookup;
  std::mutex mutex;
  std::condition_variable wake;
  asio::io_context* io;  // null: the resolver is gone
  std::deque<std::pair<std::string, Done>> waiting;
  bool busy = false;  // in the look-up
  std::thread thread;
};

void Resolver::Shared::Work() {
  std::unique_lock lock(mutex);
  while (true) {
    wake.wait(lock, [this] { return io == nullptr || !waiting.empty(); });
    if (io == nullptr) return;
    auto [host, done] = std::move(waiting.front());
    waiting.pop_front();
    busy = true;
    lock.unlock();
    LookupResult result = lookup(host);
    lock.lock();
    busy = false;
    if (io == nullptr) return;
    asio::post(*io, [done = std::move(done), result = std::move(result)] { done(result); });
  }
}

Resolver::Resolver(asio::io_context& io, Lookup lookup)
    : shared_(std::make_shared<Shared>(&io, std::move(lookup))) {}

Resolver::~Resolver() {
  std::unique_lock lock(shared_->mutex);
  shared_->io = nullptr;
  shared_->waiting.clear();
  const bool hangs = shared_->busy;
  lock.unlock();
  shared_->wake.notify_one();
  if (!shared_->thread.joinable()) return;
  hangs ? shared_->thread.detach() : shared_->thread.join();
}

void Resolver::Resolve(const std::string& host, Done done) {
  const std::lock_guard lock(shared_->mutex);
  if (!shared_->thread.joinable()) {
    shared_->thread = std::thread([shared = shared_] { shared->Work(); });
  }
  shared_->waiting.emplace_back(host, std::move(done));
  shared_->wake.notify_one();
}

}  // namespace gxtool
