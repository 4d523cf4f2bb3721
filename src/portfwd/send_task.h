// Frames that the reactor writes, so that other threads never wait for the far side: control frames, and the
// Close of a connection that the reader ends.
#ifndef GX_PORTFWD_SEND_TASK_H
#define GX_PORTFWD_SEND_TASK_H

#include <utility>

#include "object/creference.h"
#include "portfwd/plugin_link.h"
#include "reactor/timer.h"
#include "stream/ibuffer.h"
#include "stream/thread_safty.h"

// A frame and its plugin stream.
struct SEND_TASK {
  CRefObj<CPluginLink> link;  // empty: no plugin stream, the frame is dropped
  CRefObj<IBuffer> frame;     // header and payload; its size is the frame's length

  void Done();
};

// A timer task that runs a T once.
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

// Arms a timer of 0 ms that runs `task` on the reactor's thread. Threads: any.
template <class T>
void PostTask(ITimer& timer, T task) {
  const CRefObj<ITask> posted(new ITaskImpl<T>(std::move(task)));
  timer.SetTimer(posted.get(), 0, true);
}

#endif  // GX_PORTFWD_SEND_TASK_H
