// Keeps what a client hears from its far side.
#ifndef GX_TESTS_SUPPORT_FAR_LISTENER_H
#define GX_TESTS_SUPPORT_FAR_LISTENER_H

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "portfwd/port_forward_client.h"
#include "support/plugin_stream.h"
#include "support/wait.h"

namespace gxtest {

class FarListener final : public IPortForwardClientRaw::IListener, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  void OnChannelsList(const char* text) override { Add(std::string("list ") + text); }
  void OnTestRespond(const char* text, bool ok) override { Add(std::string(ok ? "works " : "fails ") + text); }

  // Everything since the last call, once there are `count` calls or time is up.
  std::vector<std::string> WaitFor(std::size_t count) {
    Eventually([&] {
      const std::lock_guard lock(mutex_);
      return calls_.size() >= count;
    });
    const std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
  }

 private:
  void Add(std::string call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

// A test response as a far side may send it, right or wrong.
inline std::string TestResponse(std::uint32_t status, std::uint16_t offset, std::uint16_t length,
                                const std::string& rest) {
  std::string payload(gxmod::kTestRespondHeaderBytes, '\0');
  gxmod::EncodeTestResponse(status, nullptr, 0, payload.data());
  std::memcpy(&payload[4], &offset, sizeof offset);
  std::memcpy(&payload[6], &length, sizeof length);
  return payload + rest;
}

// "works" with `text`.
inline Frame GoodAnswer(const std::string& text) {
  return {gxmod::ConnectionType::TestRespond, 0,
          TestResponse(0, gxmod::kTestRespondHeaderBytes, static_cast<std::uint16_t>(text.size()), text)};
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_FAR_LISTENER_H
