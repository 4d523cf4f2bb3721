// The three functions of the entry record.
#ifndef GX_MODULE_CREATE_H
#define GX_MODULE_CREATE_H

#include <cstdint>

// gxlink_module_t describes each one. They catch all exceptions.
bool ssh_control_init(void* runtime);
void ssh_control_uninit();
std::uint32_t ssh_control_create(void* params, void** out);

#endif  // GX_MODULE_CREATE_H
