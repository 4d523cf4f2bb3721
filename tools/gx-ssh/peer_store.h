// The static builds of gx-ssh-peer that gx-ssh can bring to other computers.
#ifndef GX_SSH_PEER_STORE_H
#define GX_SSH_PEER_STORE_H

#include <cstdint>
#include <string>
#include <vector>

namespace gxtool {

// The build for one architecture.
struct StoredPeer {
  std::string architecture;           // the folder's name: x86_64, aarch64, armv7, riscv64
  std::vector<std::string> machines;  // outputs of `uname -sm` on matching computers
  std::string path;                   // the same file compressed is beside it, with .gz
  std::uint64_t size = 0;
  std::string sha256;  // 64 hexadecimal digits
};

// The peers in `folder`: <architecture>/gx-ssh-peer, gx-ssh-peer.gz and gx-ssh-peer.sha256, which starts with
// the digits. Incomplete ones are left out.
std::vector<StoredPeer> FindPeers(const std::string& folder);

// The folder with this program's peers: beside it in the build tree, or where it is installed.
std::string DefaultPeerFolder();

// The bytes to send. Throws std::system_error when they cannot be read.
std::string LoadPeer(const StoredPeer& peer, bool compressed);

}  // namespace gxtool

#endif  // GX_SSH_PEER_STORE_H
