#include "peer/peer.h"

#include <utility>

#include "peer/session.h"

namespace gxtool {

Peer::Peer(PeerOptions options, int read_fd, int write_fd)
    : session_(std::make_unique<PeerSession>(std::move(options), read_fd, write_fd)) {}

Peer::~Peer() = default;

int Peer::Run() { return session_->Run(); }

void Peer::Stop() { session_->RequestStop(); }

}  // namespace gxtool
