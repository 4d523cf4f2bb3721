// A connection to a target.
//
//   state     entered when               left when
//   kOpening  constructed                the target has answered; Close; Abort; no target could be reached
//   kOpen     the target has answered    Close; Abort
//   kClosing  Close                      all is written and the target has ended, too; Abort
//   kGone     the socket is closed       -
//
// Accepts bytes for the target in any state. Bytes that the target does not take at once are queued, also while
// the connection opens and closes. Bytes from the target are read when the owner asks for them; while the
// connection closes they are discarded.
// Threads: the one that runs the io_context. Ownership: shared with the pending operations.
#ifndef GX_PEER_CONNECTION_H
#define GX_PEER_CONNECTION_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "peer/asio_types.h"
#include "peer/byte_queue.h"
#include "peer/name_query.h"
#include "peer/read_wait.h"

namespace gxtool {

class Connection final : public std::enable_shared_from_this<Connection>, private ReadWait::Owner {
 public:
  enum class State { kOpening, kOpen, kClosing, kGone };

  class Owner {
   public:
    virtual void OnOpen(Connection& connection) = 0;
    // No target was reached; the state is kGone. Not called after Close.
    virtual void OnOpenFailed(Connection& connection, asio::error_code error) = 0;
    // Called once after WaitReadable, in kOpen: the next Read returns data, the end or an error.
    virtual void OnReadable(Connection& connection) = 0;
    // Called after FinishWriting, in kOpen: the target has taken every byte, and its end of stream was sent.
    virtual void OnWritten(Connection& connection) = 0;
    // queued() has changed by `delta`.
    virtual void OnQueued(Connection& connection, std::ptrdiff_t delta) = 0;
    // kClosing has ended in kGone, other than by Abort.
    virtual void OnGone(Connection& connection) = 0;

   protected:
    ~Owner() = default;
  };

  // `name` is for messages. `owner` is borrowed and outlives the connection.
  Connection(asio::io_context& io, std::uint32_t id, std::string name, Owner* owner);

  std::uint32_t id() const { return id_; }
  const std::string& name() const { return name_; }
  State state() const { return state_; }
  // The target's connection failed instead of ending normally: bytes may be missing in either direction.
  bool broken() const { return read_failed_ || write_failed_; }
  // The target sends little at a time, so a user may be waiting for each answer.
  bool interactive() const { return small_reads_ >= 2; }
  // Bytes that are waiting for the target.
  std::size_t queued() const { return queue_.size(); }
  // Total bytes to and from the target.
  std::uint64_t sent() const { return sent_; }
  std::uint64_t received() const { return received_; }
  // When a byte last moved in either direction; initially the time of construction.
  Clock::time_point last_move() const { return last_move_; }
  // When the target last took a byte, or when nothing was queued for it.
  Clock::time_point last_taken() const { return last_taken_; }

  // Tries the endpoints one after another.
  void Open(std::vector<StreamEndpoint> endpoints);
  // Tries the next endpoint, if any, when the current one has not answered within its share of `time`.
  void Hurry(Clock::duration time);

  // Collects bytes for the target without copying them; they must stay valid until Deliver.
  void Gather(std::string_view bytes);
  // True when bytes are collected.
  bool gathering() const { return !gathered_.empty(); }
  // Sends the collected bytes, and queues a copy of those that the target does not take.
  void Deliver();

  // Waits for bytes from the target, or for its end; see OnReadable.
  void WaitReadable();
  // Returns the number of bytes read into `out`; 0 when there are none now; nothing after the target's end.
  std::optional<std::size_t> Read(std::span<char> out);

  // Writes the queue, then shuts down the sending side of the socket. Reading continues.
  void FinishWriting();
  // Like FinishWriting, and discards what the target still sends. Enters kGone once the target has ended, too.
  void Close();
  // Closes the socket now. If bytes are lost, the target gets a reset.
  void Abort();

  // For the owner's use.
  std::unique_ptr<NameQuery> query;  // for the target's addresses; dropped by Abort
  Clock::time_point close_until;
  bool over_mark = false;
  bool answer_when_written = false;

 private:
  asio::error_code OpenSocket(const StreamEndpoint& endpoint);
  void TryNext(asio::error_code last);
  void ForgetWritability();
  void ConnectUnix(const StreamEndpoint& endpoint);
  void OnConnected();
  void OnReadReady() override;
  void Discard();
  std::size_t SendSome(std::span<iovec> bytes);
  void WriteQueue();
  void SetQueued(std::size_t before);
  void AfterWrite();
  void Leave();

  const std::uint32_t id_;
  const std::string name_;
  Owner* const owner_;
  State state_ = State::kOpening;
  StreamSocket socket_;
  ReadWait read_wait_;
  std::size_t unwaited_ = 0;  // bytes read since the last wait
  std::vector<StreamEndpoint> endpoints_;
  std::size_t next_endpoint_ = 0;
  Clock::time_point tried_at_;  // start of the current attempt
  bool connected_ = false;
  bool write_waiting_ = false;
  bool target_ended_ = false;    // the target has sent its last byte
  bool read_failed_ = false;     // reading ended with an error
  bool write_failed_ = false;    // the target takes no more bytes
  bool finish_writing_ = false;  // shut down once the queue is empty
  std::vector<iovec> gathered_;
  ByteQueue queue_;
  std::uint64_t sent_ = 0;
  std::uint64_t received_ = 0;
  unsigned small_reads_ = 0;  // number of small reads in a row
  Clock::time_point last_move_ = Clock::now();
  Clock::time_point last_taken_ = last_move_;
};

}  // namespace gxtool

#endif  // GX_PEER_CONNECTION_H
