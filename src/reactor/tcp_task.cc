#include "reactor/tcp_task.h"

std::int32_t& CTCPTask::type() const {
  static std::int32_t type = kWaitReadable;
  return task_ ? task_->write_interest : type;
}

std::int32_t& CTCPTask::socket() const {
  static std::int32_t s = -1;
  return task_ ? task_->socket : s;
}

SelectOp& CTCPTask::selectop() const {
  static SelectOp op = kSelectNone;
  return task_ ? task_->selectop : op;
}
