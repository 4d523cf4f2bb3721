// What the process was told about signals before it began.
#ifndef GX_LINK_SIGNALS_H
#define GX_LINK_SIGNALS_H

namespace gxtool {

// Whoever started the program wants `number` to have no effect: nohup, say.
bool IsIgnored(int number);

}  // namespace gxtool

#endif  // GX_LINK_SIGNALS_H
