#include "target.h"

#include <chrono>

#include "failure.h"
#include "pattern.h"

namespace gxbench {
namespace {

using Clock = std::chrono::steady_clock;

void Echo(Socket& connection) {
  std::byte bytes[4096];
  while (const std::size_t count = connection.Receive(bytes)) connection.Send(std::span(bytes).first(count));
}

// Adds received bytes to the current part.
void Count(std::size_t bytes, Clock::duration time, const Request& request, Receipt& receipt) {
  for (std::size_t i = 0; i < kMostParts; ++i) {
    const bool begun = time >= std::chrono::milliseconds(request.edges_ms[i]);
    if (begun && time < std::chrono::milliseconds(request.edges_ms[i + 1])) receipt.in_part[i] += bytes;
  }
}

}  // namespace

void SendPattern(Socket& connection, const Request& request) {
  const auto end = Clock::now() + std::chrono::milliseconds(request.time_ms);
  PatternWriter writer(request.key);
  while (Clock::now() < end) connection.Send(writer.Block());
  connection.Send(writer.End());
}

Receipt ReceivePattern(Socket& connection, const Request& request) {
  const auto start = Clock::now();
  PatternReader reader(request.key);
  Receipt receipt;
  while (!reader.ended()) {
    const std::size_t count = connection.Receive(reader.Space());
    if (count == 0) throw Failure("the stream ended too early");
    reader.Take(count);
    receipt.bytes += count;
    Count(count, Clock::now() - start, request, receipt);
  }
  return receipt;
}

Target::Target(std::uint16_t port, std::size_t connections) : listener_(port) {
  for (std::size_t i = 0; i < connections; ++i) threads_.emplace_back([this] { Work(); });
}

Target::~Target() {
  listener_.Shut();
  for (std::thread& thread : threads_) thread.join();
}

std::string Target::failure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

void Target::Work() {
  for (Socket connection; listener_.Accept(connection); connection = Socket()) {
    try {
      Serve(connection);
    } catch (const Failure& failure) {
      const std::lock_guard lock(mutex_);
      if (failure_.empty()) failure_ = failure.what();
    }
  }
}

void Target::Serve(Socket& connection) {
  Request request{};
  // Some tunnels connect in advance, and close connections that were not used.
  if (!ReceiveObject(connection, request)) return;
  switch (request.service) {
    case Service::kEcho:
      return Echo(connection);
    case Service::kSink:
      return SendObject(connection, ReceivePattern(connection, request));
    case Service::kSource:
      return SendPattern(connection, request);
  }
  throw Failure("unknown service");
}

}  // namespace gxbench
