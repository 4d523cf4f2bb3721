#include "base/event.h"

#include <errno.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <new>

namespace tarn {

struct event_t {
  bool signalled;
  bool manual_reset;
  pthread_mutex_t mutex;
  pthread_cond_t condition;
};

namespace {

constexpr long kNanosecondsPerSecond = 1'000'000'000;

timespec DeadlineIn(long ms) {
  timeval now;
  gettimeofday(&now, nullptr);
  timespec deadline;
  deadline.tv_sec = now.tv_sec + ms / 1000;
  deadline.tv_nsec = ms % 1000 * 1'000'000 + static_cast<long>(now.tv_usec) * 1000;
  if (deadline.tv_nsec >= kNanosecondsPerSecond) {
    deadline.tv_nsec -= kNanosecondsPerSecond;
    ++deadline.tv_sec;
  } else if (deadline.tv_nsec < 0) {
    // A negative time limit gives a time in the past. Without this borrow the system would reject it as invalid
    // on every call.
    deadline.tv_nsec += kNanosecondsPerSecond;
    --deadline.tv_sec;
  }
  return deadline;
}

// Consumes the signal of a signalled event and unlocks its mutex, which the caller holds.
int Consume(event_t* event) {
  if (!event->manual_reset) event->signalled = false;
  return pthread_mutex_unlock(&event->mutex) == 0 ? event_ok : event_error;
}

}  // namespace

event_t* event_create(bool manual_reset, bool initial_state) {
  auto* event = new (std::nothrow) event_t;
  if (event == nullptr) return nullptr;
  event->signalled = initial_state;
  event->manual_reset = manual_reset;
  if (pthread_mutex_init(&event->mutex, nullptr) == 0) {
    if (pthread_cond_init(&event->condition, nullptr) == 0) return event;
    pthread_mutex_destroy(&event->mutex);
  }
  delete event;
  return nullptr;
}

int event_wait(event_t* event) {
  if (pthread_mutex_lock(&event->mutex) != 0) return event_error;
  while (!event->signalled) {
    if (pthread_cond_wait(&event->condition, &event->mutex) != 0) {
      pthread_mutex_unlock(&event->mutex);
      return event_error;
    }
  }
  return Consume(event);
}

int event_timedwait(event_t* event, long ms) {
  if (ms == -1) return event_wait(event);
  const timespec deadline = DeadlineIn(ms);
  if (pthread_mutex_lock(&event->mutex) != 0) return event_error;
  bool failed = false;
  while (!event->signalled) {
    const int result = pthread_cond_timedwait(&event->condition, &event->mutex, &deadline);
    if (result == ETIMEDOUT) return pthread_mutex_unlock(&event->mutex) == 0 ? event_timeout : event_error;
    if (result == 0) continue;
    // The system refused to wait: unlock briefly for event_set, then try again.
    failed = true;
    if (pthread_mutex_unlock(&event->mutex) != 0 || pthread_mutex_lock(&event->mutex) != 0) return event_error;
  }
  if (!failed) return Consume(event);
  pthread_mutex_unlock(&event->mutex);  // after a refused wait the signal stays for the next waiter
  return event_ok;
}

int event_set(event_t* event) {
  if (pthread_mutex_lock(&event->mutex) != 0) return event_error;
  event->signalled = true;
  const int woken =
      event->manual_reset ? pthread_cond_broadcast(&event->condition) : pthread_cond_signal(&event->condition);
  if (woken != 0)
    return event_error;  // keeps the mutex locked: an event that cannot wake its waiters is unusable
  return pthread_mutex_unlock(&event->mutex) == 0 ? event_ok : event_error;
}

int event_reset(event_t* event) {
  if (pthread_mutex_lock(&event->mutex) != 0) return event_error;
  event->signalled = false;
  return pthread_mutex_unlock(&event->mutex) == 0 ? event_ok : event_error;
}

void event_destroy(event_t* event) {
  pthread_cond_destroy(&event->condition);
  pthread_mutex_destroy(&event->mutex);
  delete event;
}

const char* event_get_code_name(int code) {
  switch (code) {
    case event_ok:
      return "event_ok";
    case event_timeout:
      return "event_timeout";
    case event_error:
      return "event_error";
    default:
      return "unknown event code";
  }
}

}  // namespace tarn
