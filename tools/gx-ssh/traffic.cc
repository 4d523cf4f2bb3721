#include "gx-ssh/traffic.h"

#include <utility>

namespace gxtool {
namespace {

std::vector<Traffic::Connection> List(const std::map<std::uint32_t, Traffic::Connection>& connections) {
  std::vector<Traffic::Connection> result;
  result.reserve(connections.size());
  for (const auto& [id, connection] : connections) result.push_back(connection);
  return result;
}

}  // namespace

void Traffic::OnRoute(std::uint32_t id, Route route) {
  const std::lock_guard lock(mutex_);
  routes_[id] = std::move(route);
}

std::optional<Traffic::Change> Traffic::Count(const gxmod::FrameHeader& header, bool sent) {
  using gxmod::ConnectionType;
  const std::lock_guard lock(mutex_);
  if (header.type == ConnectionType::Connect && sent) {
    ++totals_.connections;
    Connection opened{header.connection_id, Clock::now()};
    if (const auto known = routes_.extract(opened.id)) opened.route = known.mapped();
    open_[opened.id] = opened;
    return Change{true, opened};
  }
  const auto found = open_.find(header.connection_id);
  if (found == open_.end()) return {};
  if (header.type == ConnectionType::Data) {
    (sent ? found->second.sent : found->second.received) += header.length;
    (sent ? totals_.sent : totals_.received) += header.length;
  } else if (header.type == ConnectionType::Close) {
    const Connection closed = found->second;
    open_.erase(found);
    return Change{false, closed};
  }
  return {};
}

Traffic::Totals Traffic::totals() const {
  const std::lock_guard lock(mutex_);
  Totals result = totals_;
  result.open = open_.size();
  return result;
}

std::vector<Traffic::Connection> Traffic::open() const {
  const std::lock_guard lock(mutex_);
  return List(open_);
}

std::vector<Traffic::Connection> Traffic::CloseAll() {
  const std::lock_guard lock(mutex_);
  routes_.clear();
  return List(std::exchange(open_, {}));
}

}  // namespace gxtool
