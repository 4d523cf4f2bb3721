// Handlers that must not run once their object is gone.
#ifndef GX_SSH_LIFETIME_H
#define GX_SSH_LIFETIME_H

#include <memory>
#include <utility>

namespace gxtool {

// A member of the object that hands out handlers. Threads: handlers run, and the object goes, on one thread;
// they may be copied and posted from any.
class Lifetime {
 public:
  // `function`, which does nothing after the end of this lifetime.
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
