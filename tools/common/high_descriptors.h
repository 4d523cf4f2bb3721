// Room for many descriptors beside a library that uses select, which can watch none from FD_SETSIZE on: the
// program's own ones move above, and leave the numbers below to the library.
#ifndef GX_COMMON_HIGH_DESCRIPTORS_H
#define GX_COMMON_HIGH_DESCRIPTORS_H

namespace gxtool {

// Lets this process have thousands of descriptors, if the system allows it. Once, before there are threads.
void RaiseDescriptorLimit();

// For a forked child, before it becomes another program: the limit that RaiseDescriptorLimit found, because a
// program may walk through all numbers up to it, or use select itself. Safe in a signal handler.
void RestoreDescriptorLimit();

// Takes a descriptor, or -1, and returns its number from then on: one from FD_SETSIZE on, close-on-exec, if the
// limit was raised and has room for it; `fd` otherwise. Threads: any.
int MoveUp(int fd);

}  // namespace gxtool

#endif  // GX_COMMON_HIGH_DESCRIPTORS_H
