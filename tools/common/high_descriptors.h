// Makes room for many descriptors beside a library that uses select, which cannot watch descriptors from
// FD_SETSIZE on: the program moves its own descriptors above that and leaves the lower numbers to the library.
#ifndef GX_COMMON_HIGH_DESCRIPTORS_H
#define GX_COMMON_HIGH_DESCRIPTORS_H

namespace gxtool {

// Raises this process's descriptor limit to some thousands, if the system allows it. Call it once, before
// starting threads.
void RaiseDescriptorLimit();

// Restores the original limit in a forked child before it executes another program, which may loop over all
// numbers up to the limit or use select. Safe in a signal handler.
void RestoreDescriptorLimit();

// Takes over `fd` (may be -1) and returns its new number: a close-on-exec descriptor from FD_SETSIZE on, if the
// limit was raised and has room; otherwise `fd`. Threads: any.
int MoveUp(int fd);

}  // namespace gxtool

#endif  // GX_COMMON_HIGH_DESCRIPTORS_H
