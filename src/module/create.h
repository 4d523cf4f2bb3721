// The three functions of the entry record.
#ifndef GX_MODULE_CREATE_H
#define GX_MODULE_CREATE_H

#include <cstdint>

// See gxlink_module_t for what each does. No exception leaves them.
bool ssh_control_init(void* runtime);
void ssh_control_uninit();
std::uint32_t ssh_control_create(void* params, void** out);

#endif  // GX_MODULE_CREATE_H
