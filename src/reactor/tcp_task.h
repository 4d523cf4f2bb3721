// Socket tasks: what the reactor waits for and what it runs then.
#ifndef GX_REACTOR_TCP_TASK_H
#define GX_REACTOR_TCP_TASK_H

#include <cstdint>

#include "object/reference.h"

// What a task is about.
enum SelectOp : std::int32_t {
  kSelectReadable = 0,
  kSelectWritable = 1,
  kSelectError = 2,  // set by the tracker
  kSelectAccept = 3,
  kSelectConnect = 4,
  kSelectNone = 8,
};

// Values of ITCPTask::write_interest.
inline constexpr int kWaitReadable = 0;
inline constexpr int kWaitWritable = 1;

// A descriptor, what to wait for, and what to do then.
// Threads: timeout and Done run on the reactor's work thread; AddRef and Release on any.
class ITCPTask : public CReference {
 public:
  // Waits for readability when the operation is to read or to accept, for writability otherwise.
  ITCPTask(int descriptor, SelectOp op)
      : write_interest(op == kSelectReadable || op == kSelectAccept ? kWaitReadable : kWaitWritable),
        socket(descriptor),
        selectop(op) {}

  // The descriptor is ready, is in error (selectop is then kSelectError), or the time limit has passed.
  virtual bool Done() = 0;
  // True: the time limit has passed, and the task is to be done now.
  virtual bool timeout() = 0;
  // Milliseconds to the limit; all ones when there is none.
  virtual unsigned long timeleft() = 0;

  // For the tracker.
  std::int32_t write_interest;
  std::int32_t socket;
  SelectOp selectop;

 protected:
  ~ITCPTask() override = default;
};

// Holds one reference to a task, or none.
class CTCPTask {
 public:
  CTCPTask() = default;
  explicit CTCPTask(ITCPTask* task) : task_(task) {}

  explicit operator bool() const { return static_cast<bool>(task_); }
  ITCPTask* operator->() const { return task_.get(); }

  // The task's fields. Those of an empty CTCPTask are statics (0, -1 and kSelectNone at first) that all callers
  // share; a write through them stays.
  std::int32_t& type() const;
  std::int32_t& socket() const;
  SelectOp& selectop() const;

 private:
  CRefObj<ITCPTask> task_;
};

// Takes socket tasks. Streams and acceptors hold one, not owned.
class ITCPTaskTracker {
 public:
  virtual ~ITCPTaskTracker() = default;
  // Threads: any. False: stopped, and the task is not kept.
  virtual bool AddTask(const CTCPTask& task) = 0;
};

#endif  // GX_REACTOR_TCP_TASK_H
