// What the process was told about signals before it began.
#ifndef GX_COMMON_IGNORED_SIGNAL_H
#define GX_COMMON_IGNORED_SIGNAL_H

namespace gxtool {

// Whoever started the program wants `number` to have no effect: nohup, say.
bool IsIgnored(int number);

}  // namespace gxtool

#endif  // GX_COMMON_IGNORED_SIGNAL_H
