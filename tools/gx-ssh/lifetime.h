// Keeps handlers from running after their object is destroyed.
#ifndef GX_SSH_LIFETIME_H
#define GX_SSH_LIFETIME_H

#include <memory>
#include <utility>

namespace gxtool {

// A member of the object whose handlers it guards. Threads: handlers run on the thread that destroys the
// object; any thread may copy and post them.
class Lifetime {
 public:
  // Wraps `function` in a handler that does nothing after the end of this lifetime.
  template <class Function>
  auto Guard(Function function) const {
    return [alive = std::weak_ptr<char>(alive_), function = std::move(function)](auto&&... arguments) {
      if (!alive.expired()) function(std::forward<decltype(arguments)>(arguments)...);
    };
  }

 private:
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace gxtool

#endif  // GX_SSH_LIFETIME_H
