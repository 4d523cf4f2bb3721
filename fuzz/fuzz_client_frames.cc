// The frames that the module reads, from a far side that sends any bytes, with a real client, port and two
// connections. Every byte reaches only its own connection, only channel lists open ports, and the listener gets
// exactly the messages that were sent.
//
// An input is a byte of options and then frames. The ids 1 and 2 stand for the connections' real ids. A frame
// that is longer than the input is shortened, unless the stream ends inside it. The client is used for all
// inputs until one of them ends its stream.
#include <algorithm>
#include <array>
#include <set>
#include <utility>
#include <vector>

#include "check.h"
#include "portfwd/channel_list.h"
#include "portfwd/port_forward_client.h"
#include "support/far_listener.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/plugin_stream.h"
#include "support/tcp_client.h"

using gxmod::ConnectionType;
using gxtest::Encode;
using gxtest::FarListener;
using gxtest::PluginStream;
using gxtest::TcpClient;

namespace {

constexpr std::uint8_t kReadAtMost = 0x0F;  // bytes at a time; 0: all available ones
constexpr std::uint8_t kTalk = 0x10;        // the local clients send, too
constexpr std::uint8_t kEndStream = 0xE0;   // when all three are set, the stream ends in the middle; see Ends
constexpr std::size_t kMostChannels = 4;    // in one list
constexpr std::size_t kMostPromised = 1 << 16;  // of a payload that does not come
constexpr std::size_t kConnections = 2;
constexpr std::uint32_t kNobody = 0x8000'0000;  // a bit for ids that no connection has

using Frames = std::vector<gxtest::Frame>;

struct Input {
  Frames frames;
  bool ends = false;  // the stream, behind `tail`
  std::string tail;   // the beginning of a frame
};

// True for one in sixteen inputs with kEndStream: a restart takes as long as ten other runs, and the fuzzer
// takes each for new behaviour.
bool Ends(std::uint8_t options, std::size_t size) {
  return (options & kEndStream) == kEndStream && size % 16 == 9;
}

Input Parse(std::uint8_t options, const std::string& wire) {
  Input input;
  input.ends = Ends(options, wire.size());
  std::size_t at = 0;
  while (wire.size() - at >= gxmod::kFrameHeaderBytes) {
    const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(&wire[at]);
    const std::size_t rest = wire.size() - at - gxmod::kFrameHeaderBytes;
    if (input.ends && header.length > rest && header.length < kMostPromised) break;
    std::string payload = wire.substr(at + gxmod::kFrameHeaderBytes, header.length);
    at += gxmod::kFrameHeaderBytes + payload.size();
    const bool is_long = std::count(payload.begin(), payload.end(), ';') > std::ptrdiff_t{kMostChannels};
    if (header.type == ConnectionType::ChannelList && is_long) continue;
    input.frames.push_back({header.type, header.connection_id, std::move(payload)});
  }
  input.tail = wire.substr(at);
  return input;
}

class Fixture {
 public:
  Fixture() { Start(); }
  ~Fixture() { Stop(); }

  void Run(std::uint8_t options, const Input& input) {
    const std::size_t at_most = options & kReadAtMost;
    if (at_most != 0) stream_->Behave({.read_at_most = at_most});
    Say(input.frames);
    if (at_most != 0) stream_->Behave({});
    log_.Lines();
    if ((options & kTalk) != 0) Talk();
    if (!input.ends) return;
    stream_->Send(input.tail);
    stream_->End();
    Check(stream_->WaitUntilRead());
    Stop();
    Start();
  }

 private:
  struct Connection {
    TcpClient local;
    std::uint32_t id;
  };

  void Start() {
    stream_ = CRefObj<PluginStream>(new PluginStream);
    client_ = CRefObj<CPortForwardClientRaw>(new CPortForwardClientRaw);
    client_->SetListener(listener_.get());
    Check(client_->InitInstance(stream_.get()) == kGXModOk && client_->Run() == kGXModOk);
    address_ = client_->NewChannel("ssh", "", "10.0.0.1:22")->get_LocalAddress();
    for (std::size_t i = 0; i < kConnections; ++i) connections_.push_back(Open());
  }

  void Stop() {
    client_->ExitInstance();
    for (Connection& connection : connections_) Check(connection.local.WaitForEnd());
    connections_.clear();
    Check(!gxtest::AnyPortListens());
  }

  Connection Open() {
    TcpClient local(address_);
    Check(local.IsConnected());
    const gxtest::Frame frame = Next(ConnectionType::Connect);
    Check(frame.payload == "10.0.0.1:22");
    return {std::move(local), frame.id};
  }

  // The client's next frame of that type. It may send channel lists at any time; they are skipped.
  gxtest::Frame Next(ConnectionType type) {
    for (;;) {
      const auto frame = stream_->Receive();
      Check(frame.has_value());
      if (frame->type == type) return *frame;
      Check(frame->type == ConnectionType::ChannelList && frame->id == 0);
    }
  }

  // Sends the frames as the far side and checks their effects.
  void Say(Frames frames) {
    std::array<std::string, kConnections> data;
    std::array<bool, kConnections> closed{};
    std::vector<std::string> heard;
    std::size_t channels = 1;
    std::string wire;
    for (gxtest::Frame& frame : frames) {
      const std::size_t index = frame.id - 1;
      frame.id = index < kConnections ? connections_[index].id : frame.id | kNobody;
      if (frame.type == ConnectionType::Data && index < kConnections && !closed[index])
        data[index] += frame.payload;
      if (frame.type == ConnectionType::Close && index < kConnections) closed[index] = true;
      if (frame.type == ConnectionType::TestRespond) Expect(&heard, frame.payload);
      if (frame.type == ConnectionType::ChannelList) {
        heard.push_back(std::string("list ") + frame.payload.c_str());
        channels += ParseChannelList(frame.payload.c_str()).size();
      }
      wire += Encode(frame);
    }
    heard.push_back("works last");
    stream_->Send(wire + Encode(gxtest::Answer(0, "last")));
    Check(listener_->WaitFor(heard.size()) == heard);
    CheckChannels(channels);
    std::set<std::uint32_t> ended;
    for (std::size_t i = 0; i < kConnections; ++i) {
      if (closed[i]) ended.insert(connections_[i].id);
    }
    for (std::size_t count = ended.size(); count > 0; --count)
      Check(ended.erase(Next(ConnectionType::Close).id) == 1);
    for (std::size_t i = 0; i < kConnections; ++i) CheckConnection(connections_[i], data[i], closed[i]);
  }

  static void Expect(std::vector<std::string>* heard, const std::string& payload) {
    gxmod::TestResponse response;
    if (!gxmod::DecodeTestResponse(payload.data(), payload.size(), &response)) return;
    heard->push_back((response.status == 0 ? "works " : "fails ") +
                     std::string(response.text, response.text_length));
  }

  void CheckChannels(std::size_t count) {
    Check(client_->GetChannelsCount() == count);
    while (IChannelRaw* channel = client_->GetChannel(1)) {
      const std::string address = channel->get_LocalAddress();
      Check(address.starts_with("127.0.0.1:") && !address.ends_with(":0"));
      client_->DeleteChannel2(channel->get_Index());
    }
  }

  void CheckConnection(Connection& connection, const std::string& data, bool closed) {
    if (!closed) return Check(connection.local.Receive(data.size()) == data);
    Check(connection.local.ReceiveToEnd() == data);
    connection.local.Reset();  // leaves no port in TIME_WAIT
    connection = Open();
  }

  void Talk() {
    for (Connection& connection : connections_) {
      Check(connection.local.Send("here"));
      const gxtest::Frame frame = Next(ConnectionType::Data);
      Check(frame.id == connection.id && frame.payload == "here");
    }
  }

  LogCapture log_;
  const CRefObj<FarListener> listener_{new FarListener};
  CRefObj<PluginStream> stream_;
  CRefObj<CPortForwardClientRaw> client_;
  std::string address_;
  std::vector<Connection> connections_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  if (size == 0) return 0;
  fixture.Run(data[0], Parse(data[0], Text(data + 1, size - 1)));
  return 0;
}
