// The Asio types that the far side uses, with io_context's own executor: Asio's type-erased default costs an
// indirection per operation.
#ifndef GX_PEER_ASIO_TYPES_H
#define GX_PEER_ASIO_TYPES_H

#include <asio.hpp>
#include <chrono>

namespace gxtool {

using Clock = std::chrono::steady_clock;
using Executor = asio::io_context::executor_type;
using StreamDescriptor = asio::posix::basic_stream_descriptor<Executor>;
using StreamSocket = asio::basic_stream_socket<asio::generic::stream_protocol, Executor>;
using StreamEndpoint = asio::generic::stream_protocol::endpoint;
using Timer = asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Executor>;

}  // namespace gxtool

#endif  // GX_PEER_ASIO_TYPES_H
