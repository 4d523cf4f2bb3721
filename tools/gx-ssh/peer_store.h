// The static builds of gx-ssh-peer that gx-ssh can bring to other computers.
#ifndef GX_SSH_PEER_STORE_H
#define GX_SSH_PEER_STORE_H

#include <cstdint>
#include <string>
#include <vector>

namespace gxtool {

// One of them, for one architecture.
struct StoredPeer {
  std::string architecture;           // of its folder: x86_64, aarch64, armv7, riscv64
  std::vector<std::string> machines;  // what `uname -sm` says where it runs
  std::string path;                   // beside it lies the same compressed, with .gz
  std::uint64_t size = 0;
  std::string sha256;  // 64 digits
};

// Those in `folder`: <architecture>/gx-ssh-peer, gx-ssh-peer.gz and gx-ssh-peer.sha256, which begins with the
// digits. What is not whole is left out.
std::vector<StoredPeer> FindPeers(const std::string& folder);

// Where those lie that belong to this program: beside it in the build tree, or where it is installed.
std::string DefaultPeerFolder();

// The bytes to send. Throws std::system_error when they cannot be read.
std::string LoadPeer(const StoredPeer& peer, bool compressed);

}  // namespace gxtool

#endif  // GX_SSH_PEER_STORE_H
