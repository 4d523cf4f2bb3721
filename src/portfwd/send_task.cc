#include "portfwd/send_task.h"

void SEND_TASK::Done() {
  if (link && frame->GetSize() != 0) link->writer().WriteFrame(frame->GetPointer(), frame->GetSize());
}
