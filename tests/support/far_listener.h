// Records what a client hears from its far side.
#ifndef GX_TESTS_SUPPORT_FAR_LISTENER_H
#define GX_TESTS_SUPPORT_FAR_LISTENER_H

#include "portfwd/port_forward_client.h"
#include "support/plugin_stream.h"

namespace gxtest {

class FarListener final : public IPortForwardClientRaw::IListener, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  void OnChannelsList(const char* text) override { Add(std::string("list ") + text); }
  void OnTestRespond(const char* text, bool ok) override { Add(std::string(ok ? "works " : "fails ") + text); }

  // Waits for `count` calls; returns those since the last time.
  std::vector<std::string> WaitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return calls_.size() >= count; });
    return std::exchange(calls_, {});
  }

 private:
  void Add(std::string call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> calls_;
};

// A far side's answer to a channel test. Status 0: the channel works.
inline Frame Answer(std::uint32_t status, const std::string& text) {
  std::string payload(gxmod::kTestRespondHeaderBytes + text.size(), '\0');
  gxmod::EncodeTestResponse(status, text.data(), static_cast<std::uint16_t>(text.size()), payload.data());
  return {gxmod::ConnectionType::TestRespond, 0, payload};
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_FAR_LISTENER_H
