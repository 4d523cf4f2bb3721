// An event that is signalled or not. It is reset by a call or by the wait that it ends.
#ifndef GX_BASE_EVENT_H
#define GX_BASE_EVENT_H

namespace tarn {

struct event_t;

inline constexpr int event_ok = 0;
inline constexpr int event_timeout = 1;
inline constexpr int event_error = -1;

// With manual reset the event stays signalled until event_reset and wakes every waiter. Otherwise one
// successful wait consumes the signal. Returns null when memory or system resources run out. The caller owns
// the event and frees it with event_destroy.
event_t* event_create(bool manual_reset, bool initial_state);
// Returns event_ok or event_error.
int event_wait(event_t* event);
// `ms` -1 waits without a time limit. Returns event_ok, event_timeout or event_error.
int event_timedwait(event_t* event, long ms);
int event_set(event_t* event);
int event_reset(event_t* event);
// All waiters must have returned.
void event_destroy(event_t* event);
// The name of a result code; static text.
const char* event_get_code_name(int code);

}  // namespace tarn

#endif  // GX_BASE_EVENT_H
