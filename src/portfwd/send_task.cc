#include "portfwd/send_task.h"

void SEND_TASK::Done() {
  if (writer && frame && frame->GetSize() != 0) writer->WriteFrame(frame->GetPointer(), frame->GetSize());
}

void PostSendTask(ITimer& timer, SEND_TASK task) {
  const CRefObj<ITask> posted(new ITaskImpl<SEND_TASK>(std::move(task)));
  timer.SetTimer(posted.get(), 0, true);
}
