#ifndef GX_SSH_DESCRIPTOR_H
#define GX_SSH_DESCRIPTOR_H

#include "link/descriptor.h"

#endif  // GX_SSH_DESCRIPTOR_H
