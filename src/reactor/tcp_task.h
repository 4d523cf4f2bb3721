// Socket tasks: the event that the reactor waits for, and the function that it runs then.
#ifndef GX_REACTOR_TCP_TASK_H
#define GX_REACTOR_TCP_TASK_H

#include <cstdint>

#include "object/creference.h"

// The event that a task waits for.
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

// A descriptor, the event to wait for, and the function to run then. Threads: timeout and Done run on the
// reactor's work thread; AddRef and Release on any thread.
class ITCPTask : public CReference {
 public:
  // Waits until the descriptor is readable for kSelectReadable and kSelectAccept, and until it is writable
  // otherwise.
  ITCPTask(int descriptor, SelectOp op)
      : write_interest(op == kSelectReadable || op == kSelectAccept ? kWaitReadable : kWaitWritable),
        socket(descriptor),
        selectop(op) {}

  // Called when the descriptor is ready or in error (selectop is then kSelectError), or when the time limit has
  // passed.
  virtual bool Done() = 0;
  // True when the time limit has passed and the task must run now.
  virtual bool timeout() = 0;
  // Milliseconds until the limit; all ones for no limit.
  virtual unsigned long timeleft() = 0;

  // Used by the tracker.
  std::int32_t write_interest;
  std::int32_t socket;
  SelectOp selectop;

 protected:
  ~ITCPTask() override = default;
};

// Holds one reference to a task, or is empty.
class CTCPTask {
 public:
  CTCPTask() = default;
  explicit CTCPTask(ITCPTask* task) : task_(task) {}

  explicit operator bool() const { return static_cast<bool>(task_); }
  ITCPTask* operator->() const { return task_.get(); }

  // The task's fields. An empty CTCPTask refers to static variables (initially 0, -1 and kSelectNone) that all
  // empty ones share; a value written to them stays.
  std::int32_t& type() const;
  std::int32_t& socket() const;
  SelectOp& selectop() const;

 private:
  CRefObj<ITCPTask> task_;
};

// Accepts socket tasks. Streams and acceptors borrow one.
class ITCPTaskTracker {
 public:
  virtual ~ITCPTaskTracker() = default;
  // Returns false when stopped; the task is then dropped. Threads: any.
  virtual bool AddTask(const CTCPTask& task) = 0;
};

#endif  // GX_REACTOR_TCP_TASK_H
