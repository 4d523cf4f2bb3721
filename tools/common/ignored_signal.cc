#include "common/ignored_signal.h"

#include <csignal>

namespace gxtool {

bool IsIgnored(int number) {
  struct sigaction current {};
  return sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

}  // namespace gxtool
