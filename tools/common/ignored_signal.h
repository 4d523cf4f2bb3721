// Signals that the process inherited as ignored.
#ifndef GX_COMMON_IGNORED_SIGNAL_H
#define GX_COMMON_IGNORED_SIGNAL_H

namespace gxtool {

// True when the parent process started this program with `number` ignored (nohup does that).
bool IsIgnored(int number);

}  // namespace gxtool

#endif  // GX_COMMON_IGNORED_SIGNAL_H
