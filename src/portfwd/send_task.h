// Frames that the reactor writes, so that whoever causes one never waits for the far side: control frames, and
// the Close of a connection whose end the reader finds.
#ifndef GX_PORTFWD_SEND_TASK_H
#define GX_PORTFWD_SEND_TASK_H

#include <utility>

#include "object/reference.h"
#include "portfwd/plugin_link.h"
#include "reactor/timer.h"
#include "stream/ibuffer.h"
#include "stream/thread_safty.h"

// A frame and where it goes.
struct SEND_TASK {
  CRefObj<CPluginLink> link;  // empty: there is no plugin stream, and the frame is dropped
  CRefObj<IBuffer> frame;     // header and payload; its size is the frame's length

  void Done();
};

// A timer task that does a T once.
template <class T>
class ITaskImpl final : public ITask, private CReference {
 public:
  explicit ITaskImpl(T work) : work_(std::move(work)) {}
  GX_FORWARD_REFERENCE();

  void MarkedForDeletion() override {}
  void Done() override { work_.Done(); }
  virtual IThreadSafty* ThreadSaftyImpl() { return &thread_safty_; }

 private:
  IThreadSaftyImpl thread_safty_;
  T work_;
};

// Has `task` done by the timer's thread, as soon as it looks at its timers. Threads: any.
template <class T>
void PostTask(ITimer& timer, T task) {
  const CRefObj<ITask> posted(new ITaskImpl<T>(std::move(task)));
  timer.SetTimer(posted.get(), 0, true);
}

#endif  // GX_PORTFWD_SEND_TASK_H
