// One connection to a target.
//
//   state     entered when               left when
//   kOpening  constructed                the target has answered; Close; Abort; nothing could be reached
//   kOpen     the target has answered    Close; Abort
//   kClosing  Close                      all is written and the target has ended too; Abort
//   kGone     the socket is closed       -
//
// Bytes for the target are taken in any state; what the target does not take at once waits in a queue, also
// while the connection opens and closes. Bytes from the target are read when the owner asks for them, and are
// thrown away while the connection closes.
// Threads: the one that runs the io_context. Ownership: shared with the operations that are under way.
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
    // No target was reached, kGone was entered. Not called once Close was.
    virtual void OnOpenFailed(Connection& connection, asio::error_code error) = 0;
    // Once after WaitReadable, in kOpen: Read will not come back with nothing to say.
    virtual void OnReadable(Connection& connection) = 0;
    // After FinishWriting, in kOpen: the target has taken every byte and knows that it was the last one.
    virtual void OnWritten(Connection& connection) = 0;
    // queued() has changed by `delta`.
    virtual void OnQueued(Connection& connection, std::ptrdiff_t delta) = 0;
    // kClosing was left for kGone, other than by Abort.
    virtual void OnGone(Connection& connection) = 0;

   protected:
    ~Owner() = default;
  };

  // `name` is for people. `owner` is not owned and outlives the connection.
  Connection(asio::io_context& io, std::uint32_t id, std::string name, Owner* owner);

  std::uint32_t id() const { return id_; }
  const std::string& name() const { return name_; }
  State state() const { return state_; }
  // The target's end was no end in order: bytes may be missing, there or here.
  bool broken() const { return read_failed_ || write_failed_; }
  // The target says little at a time: somebody may be waiting for each word.
  bool interactive() const { return small_reads_ >= 2; }
  // Bytes that the target has not taken yet.
  std::size_t queued() const { return queue_.size(); }
  // Bytes so far.
  std::uint64_t sent() const { return sent_; }
  std::uint64_t received() const { return received_; }
  // When a byte last moved in either direction; to begin with, the time of construction.
  Clock::time_point last_move() const { return last_move_; }
  // When the target last took a byte, or had none to take.
  Clock::time_point last_taken() const { return last_taken_; }

  // Tries the endpoints one after the other.
  void Open(std::vector<StreamEndpoint> endpoints);
  // Goes on to the next endpoint, if there is one, when this one has kept silent for its share of `time`.
  void Hurry(Clock::duration time);

  // Gathers bytes for the target without a copy; they stay valid until Deliver.
  void Gather(std::string_view bytes);
  // False: nothing is gathered.
  bool gathering() const { return !gathered_.empty(); }
  // Sends what was gathered, and copies what the target does not take.
  void Deliver();

  // Waits for bytes from the target, or its end; see OnReadable.
  void WaitReadable();
  // Bytes read into `out`; 0 when there are none now; nothing when the target has ended.
  std::optional<std::size_t> Read(std::span<char> out);

  // Writes what is queued, then shuts the target's reading side down. Reading from it goes on.
  void FinishWriting();
  // FinishWriting, and whatever the target still says is thrown away. kGone follows when it has ended, too.
  void Close();
  // Closes the socket now. The target's side is told of lost bytes, when there are some, by a reset.
  void Abort();

  // For the owner's use.
  std::unique_ptr<NameQuery> query;  // of the target's addresses; dropped by Abort
  Clock::time_point close_until;
  bool over_mark = false;
  bool answer_when_written = false;

 private:
  asio::error_code OpenSocket(const StreamEndpoint& endpoint);
  void TryNext(asio::error_code last);
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
  Clock::time_point tried_at_;  // the current endpoint
  bool connected_ = false;
  bool write_waiting_ = false;
  bool target_ended_ = false;    // it has sent its last byte
  bool read_failed_ = false;     // its end is an error
  bool write_failed_ = false;    // it takes no more bytes
  bool finish_writing_ = false;  // shut down once the queue is empty
  std::vector<iovec> gathered_;
  ByteQueue queue_;
  std::uint64_t sent_ = 0;
  std::uint64_t received_ = 0;
  unsigned small_reads_ = 0;  // in a row
  Clock::time_point last_move_ = Clock::now();
  Clock::time_point last_taken_ = last_move_;
};

}  // namespace gxtool

#endif  // GX_PEER_CONNECTION_H
