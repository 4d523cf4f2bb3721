#include "stream/ibuffer.h"

#include <utility>

void* IBuffer::SetUserData(void* data) { return std::exchange(user_data_, data); }

void* IBuffer::GetUserData() const { return user_data_; }
