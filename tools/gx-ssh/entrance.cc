#include "gx-ssh/entrance.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/control_frames.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;

// Takes the same time for every wrong proof, so that timing reveals nothing about the secret.
bool AreEqual(const Entrance::Secret& secret, std::string_view proof) {
  unsigned difference = 0;
  for (std::size_t i = 0; i < secret.size(); ++i)
    difference |= static_cast<unsigned>(secret[i] ^ proof[i]) & 0xFF;
  return difference == 0;
}

}  // namespace

Entrance::Pass::~Pass() {
  if (entrance_) entrance_->Forget(ticket_);
}

bool Entrance::Pass::EndInput(std::uint64_t bytes) {
  if (!entrance_ || !entrance_->tells_end_) return false;
  entrance_->EndInput(ticket_, bytes);
  return true;
}

bool Entrance::HasRoom() {
  const std::lock_guard lock(mutex_);
  const bool full = expected_.size() >= kOnTheirWay;
  if (full) room_is_wanted_ = true;
  return !full;
}

Entrance::Pass Entrance::Expect(Route route) {
  Pass pass;
  if (getentropy(pass.secret_.data(), pass.secret_.size()) != 0) {
    throw std::system_error(errno, std::generic_category(), "random bytes");
  }
  const std::lock_guard lock(mutex_);
  pass.entrance_ = shared_from_this();
  pass.ticket_ = ++last_ticket_;
  expected_.push_back({pass.ticket_, pass.secret_, std::move(route), {}});
  return pass;
}

std::string_view Entrance::Filter(std::string_view block) {
  passed_.clear();
  {
    const std::lock_guard lock(mutex_);
    // The most common case, the data of an entered connection, needs no copy.
    if (IsOwnData(block)) return block;
    frames_.Feed(block);
  }
  CallHandler();
  return passed_;
}

void Entrance::OnSent(const gxmod::FrameHeader& header) {
  bool ends = false;
  {
    const std::lock_guard lock(mutex_);
    const auto found = own_.find(header.connection_id);
    if (found == own_.end()) return;
    Own& own = found->second;
    if (header.type == ConnectionType::Connect) own.connect_sent = true;
    if (header.type == ConnectionType::Data) own.sent += header.length;
    ends = TakeEnd(own);
  }
  if (ends && handler_ != nullptr) handler_->OnInputSent(header.connection_id);
}

bool Entrance::Admits(const gxmod::FrameHeader& header) const {
  if (header.type != ConnectionType::Data) return true;
  const std::lock_guard lock(mutex_);
  return own_.contains(header.connection_id);
}

std::optional<Entrance::Clock::time_point> Entrance::Expire(Clock::time_point now) {
  std::vector<std::uint32_t> refused;
  std::optional<Clock::time_point> next;
  {
    const std::lock_guard lock(mutex_);
    while (!waiting_.empty() && waiting_.front().until <= now) Refuse(waiting_.begin());
    refused.swap(to_close_);
    if (!waiting_.empty()) next = waiting_.front().until;
    expiry_is_due_ = next.has_value();
  }
  for (const std::uint32_t id : refused) {
    if (handler_ != nullptr) handler_->OnRefused(id);
  }
  return next;
}

void Entrance::OnFrame(const gxmod::FrameHeader& header) {
  frame_ = header;
  fate_ = Judge(header);
  if (fate_ == Fate::kPasses) PassHeader(header);
}

void Entrance::OnPayload(std::string_view piece) {
  if (fate_ == Fate::kPasses) {
    passed_ += piece;
    return;
  }
  if (fate_ == Fate::kIsDropped) return;
  const Guest guest = FindGuest(frame_.connection_id);
  if (guest != waiting_.end()) TakeProof(guest, piece);
}

bool Entrance::IsOwnData(std::string_view block) const {
  if (!frames_.AtFrameEnd() || block.size() < gxmod::kFrameHeaderBytes) return false;
  const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(block.data());
  return header.type == ConnectionType::Data && block.size() == gxmod::kFrameHeaderBytes + header.length &&
         own_.contains(header.connection_id);
}

Entrance::Fate Entrance::Judge(const gxmod::FrameHeader& header) {
  const std::uint32_t id = header.connection_id;
  switch (header.type) {
    case ConnectionType::Connect:
      BeginToWait(id);
      return Fate::kIsDropped;
    case ConnectionType::Data:
      if (own_.contains(id)) return Fate::kPasses;
      return FindGuest(id) != waiting_.end() ? Fate::kIsProof : Fate::kIsDropped;
    case ConnectionType::Close:
      std::erase_if(waiting_, [id](const Waiting& guest) { return guest.id == id; });
      refused_.erase(id);
      return own_.erase(id) != 0 ? Fate::kPasses : Fate::kIsDropped;
    default:
      return Fate::kPasses;
  }
}

void Entrance::BeginToWait(std::uint32_t id) {
  if (waiting_.size() >= kWaiting + expected_.size()) Refuse(waiting_.begin());
  waiting_.push_back({id, Clock::now() + kSilence, {}});
  if (!std::exchange(expiry_is_due_, true)) wait_begins_ = true;
}

void Entrance::TakeProof(Guest guest, std::string_view piece) {
  const std::size_t taken = std::min(piece.size(), Secret().size() - guest->proof.size());
  guest->proof += piece.substr(0, taken);
  frame_.length -= static_cast<std::uint32_t>(taken);
  if (guest->proof.size() < Secret().size()) return;
  const auto target = Enter(*guest);
  if (!target) return Refuse(guest);
  passed_ += MakeFrame(ConnectionType::Connect, guest->id, *target);
  waiting_.erase(guest);
  if (frame_.length > 0) PassHeader(frame_);
  passed_ += piece.substr(taken);
  fate_ = Fate::kPasses;
}

std::optional<std::string> Entrance::Enter(const Waiting& guest) {
  const auto found = std::find_if(expected_.begin(), expected_.end(), [&guest](const Expected& expected) {
    return AreEqual(expected.secret, guest.proof);
  });
  if (found == expected_.end()) return std::nullopt;
  own_.emplace(guest.id, Own{found->ticket, found->end});
  std::string target = found->route.target;
  entered_.emplace_back(guest.id, std::move(found->route));
  expected_.erase(found);
  MakeRoom();
  return target;
}

void Entrance::Refuse(Guest guest) {
  refused_.insert(guest->id);
  to_close_.push_back(guest->id);
  waiting_.erase(guest);
}

Entrance::Guest Entrance::FindGuest(std::uint32_t id) {
  return std::find_if(waiting_.begin(), waiting_.end(), [id](const Waiting& guest) { return guest.id == id; });
}

void Entrance::PassHeader(const gxmod::FrameHeader& header) {
  const std::size_t at = passed_.size();
  passed_.resize(at + gxmod::kFrameHeaderBytes);
  gxmod::EncodeFrameHeader(header, passed_.data() + at);
}

bool Entrance::TakeEnd(Own& own) {
  // Before its Connect the far side does not know the connection.
  if (!own.connect_sent || !own.end || own.sent < *own.end) return false;
  own.end.reset();
  return true;
}

void Entrance::EndInput(std::uint64_t ticket, std::uint64_t bytes) {
  std::optional<std::uint32_t> ended;
  {
    const std::lock_guard lock(mutex_);
    for (Expected& expected : expected_) {
      if (expected.ticket == ticket) expected.end = bytes;
    }
    for (auto& [id, own] : own_) {
      if (own.ticket != ticket) continue;
      own.end = bytes;
      if (TakeEnd(own)) ended = id;
    }
  }
  if (ended && handler_ != nullptr) handler_->OnInputSent(*ended);
}

void Entrance::Forget(std::uint64_t ticket) {
  bool room_is_made = false;
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(expected_, [ticket](const Expected& expected) { return expected.ticket == ticket; });
    MakeRoom();
    room_is_made = std::exchange(room_is_made_, false);
  }
  if (room_is_made && handler_ != nullptr) handler_->OnRoom();
}

// Waits until half is free, so that each call of the handler lets many connections start.
void Entrance::MakeRoom() {
  if (!room_is_wanted_ || expected_.size() > kOnTheirWay / 2) return;
  room_is_wanted_ = false;
  room_is_made_ = true;
}

// Only Filter calls this: OnEntered has to come before the Connect is sent.
void Entrance::CallHandler() {
  std::vector<std::uint32_t> refused;
  std::vector<std::pair<std::uint32_t, Route>> entered;
  bool wait_begins = false;
  bool room_is_made = false;
  {
    const std::lock_guard lock(mutex_);
    refused.swap(to_close_);
    entered.swap(entered_);
    wait_begins = std::exchange(wait_begins_, false);
    room_is_made = std::exchange(room_is_made_, false);
  }
  if (handler_ == nullptr) return;
  for (auto& [id, route] : entered) handler_->OnEntered(id, std::move(route));
  for (const std::uint32_t id : refused) handler_->OnRefused(id);
  if (wait_begins) handler_->OnWaiting();
  if (room_is_made) handler_->OnRoom();
}

}  // namespace gxtool
