#include "gx-ssh/peer_store.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "gx-ssh/module_library.h"

namespace gxtool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDigits = 64;  // length of a SHA-256

bool IsDigest(const std::string& text) {
  return text.size() == kDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::vector<std::string> Machines(const std::string& architecture) {
  // 64-bit processors report armv8l to 32-bit programs.
  if (architecture == "armv7") return {"Linux armv7l", "Linux armv8l"};
  return {"Linux " + architecture};
}

}  // namespace

std::vector<StoredPeer> FindPeers(const std::string& folder) {
  std::vector<StoredPeer> found;
  std::error_code error;
  for (const char* architecture : {"x86_64", "aarch64", "armv7", "riscv64"}) {
    const fs::path path = fs::path(folder) / architecture / "gx-ssh-peer";
    StoredPeer peer{architecture, Machines(architecture), path.string(), 0, {}};
    peer.size = fs::file_size(path, error);
    if (error || !fs::exists(path.string() + ".gz", error)) continue;
    std::ifstream(path.string() + ".sha256") >> peer.sha256;
    if (IsDigest(peer.sha256)) found.push_back(peer);
  }
  return found;
}

std::string DefaultPeerFolder() { return InstalledPath(GX_SSH_BUILT_PEERS, GX_SSH_INSTALLED_PEERS); }

std::string LoadPeer(const StoredPeer& peer, bool compressed) {
  const std::string path = peer.path + (compressed ? ".gz" : "");
  std::ifstream file(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file || bytes.empty()) throw std::system_error(errno, std::generic_category(), path);
  return bytes;
}

}  // namespace gxtool
