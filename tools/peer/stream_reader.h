// The incoming half of the stream: a socket, pipe, terminal or file, read in large pieces.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_STREAM_READER_H
#define GX_PEER_STREAM_READER_H

#include <cstddef>
#include <memory>
#include <string_view>

#include "peer/asio_types.h"

namespace gxtool {

class StreamReader {
 public:
  class Owner {
   public:
    // `bytes` are valid during the call.
    virtual void OnBytes(std::string_view bytes) = 0;
    // The writer has ended or is gone. Called also while the reader is paused.
    virtual void OnEnd() = 0;

   protected:
    ~Owner() = default;
  };

  // Takes ownership of `fd`, which is non-blocking. `owner` is borrowed.
  StreamReader(asio::io_context& io, int fd, Owner* owner);

  void Start() { Read(); }

  // Pause stops OnBytes until Resume; both may be called from OnBytes.
  void Pause();
  void Resume();
  bool paused() const { return paused_; }
  // Stops all calls.
  void Stop();

 private:
  void Read();
  void WatchHangUp();

  StreamDescriptor end_;
  Owner* const owner_;
  const std::unique_ptr<char[]> buffer_;
  bool paused_ = false;
  bool reading_ = false;
  bool watching_ = false;
  bool stopped_ = false;
};

}  // namespace gxtool

#endif  // GX_PEER_STREAM_READER_H
