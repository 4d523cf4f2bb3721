// The module as its host sees it: a file to load, and the public headers.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "gxmod/control_ssh.h"
#include "gxmod/module.h"
#include "object/reference.h"
#include "support/leak_gate.h"
#include "support/plugin_stream.h"
#include "support/scale.h"
#include "support/tcp_client.h"

namespace {

using gxmod::ConnectionType;
using gxtest::PluginStream;
using gxtest::TcpClient;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class Data final : public IGXModData, private CReference {
 public:
  explicit Data(std::variant<std::uint64_t, std::string> value) : value_(std::move(value)) {}
  GX_FORWARD_REFERENCE();
  int GetType() const override { return value_.index() == 0 ? kGXModDataUInt64 : kGXModDataText; }
  const char* GetText() const override { return std::get<std::string>(value_).c_str(); }
  std::uint64_t GetUInt64() const override { return std::get<std::uint64_t>(value_); }

 private:
  const std::variant<std::uint64_t, std::string> value_;
};

class Params final : public IGXModCreateParams, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  IGXModData* GetProperty(const char* key) override {
    const auto found = values_.find(key);
    return found != values_.end() ? found->second.get() : nullptr;
  }
  std::map<std::string, CRefObj<Data>> values_;
};

CRefObj<Params> Request(const std::string& name, std::uint64_t version) {
  CRefObj<Params> params(new Params);
  params->values_[kGXModPropertyInterfaceName] = new Data(name);
  params->values_[kGXModPropertyVersion] = new Data(version);
  return params;
}

class Runtime final : public IGXModRuntime {
 public:
  void Log(int level, const char* text) override {
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(level, text);
  }
  int GetConfig(bool, const char*, const char*, IGXModData**, const char*) override { return 0; }
  int SaveConfig(bool, const char*, const char*, const char*) override { return 0; }
  const char* GetEnv(const char*) override { return nullptr; }

  // Without the verbose ones, since the last call.
  std::vector<std::pair<int, std::string>> Lines() {
    const std::lock_guard lock(mutex_);
    std::erase_if(lines_, [](const auto& line) { return line.first == kGXModLogTrace; });
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::pair<int, std::string>> lines_;
};

class Listener final : public IControlSshListener, private CReference {
 public:
  explicit Listener(std::string target) : target_(std::move(target)) {}
  GX_FORWARD_REFERENCE();
  void OnLocalAddress(const char* address, std::uint16_t port) override {
    calls_.push_back(std::string(address) + ":" + std::to_string(port));
  }
  void OnExit() override { calls_.push_back("exit"); }
  const char* GetRemoteAddress() override { return target_.c_str(); }
  std::vector<std::string> calls_;

 private:
  const std::string target_;
};

// One built by another compiler can be put in the place of this build's.
const char* ModulePath() {
  const char* path = std::getenv("GX_MODULE_UNDER_TEST");
  return path != nullptr ? path : GX_MODULE_PATH;
}

bool IsMapped() {
  std::ifstream maps("/proc/self/maps");
  const std::string all((std::istreambuf_iterator<char>(maps)), {});
  return all.find("libgx-control-ssh.so") != std::string::npos;
}

class ModuleTest : public gxtest::LeakGate {
 protected:
  void SetUp() override { Load(); }

  void TearDown() override {
    Unload();
    LeakGate::TearDown();
  }

  void Load() {
    library_ = dlopen(ModulePath(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << dlerror();
    entry_ = reinterpret_cast<gxmod_get_entrypoint_t>(dlsym(library_, kGXModEntryPoint))();
    ASSERT_TRUE(entry_->init(&runtime_));
  }

  void Unload() {
    if (library_ == nullptr) return;
    entry_->uninit();
    dlclose(library_);
    library_ = nullptr;
    EXPECT_FALSE(IsMapped());
  }

  CRefObj<IControlSshPlugin> Create(const CRefObj<Params>& params) {
    void* made = nullptr;
    const std::uint32_t result = entry_->create(params.get(), &made);
    EXPECT_EQ(result, made != nullptr ? 1U : 0U);
    return CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(made));
  }
  CRefObj<IControlSshPlugin> Create() {
    auto plugin = Create(Request(kControlSshInterfaceName, GXModPackVersion(kControlSshVersion)));
    runtime_.Lines();
    return plugin;
  }

  Runtime runtime_;
  void* library_ = nullptr;
  const gxlink_module_t* entry_ = nullptr;
};

TEST_F(ModuleTest, EntryRecord) {
  EXPECT_EQ(entry_->version, 0x0002000000000000U);
  EXPECT_STREQ(entry_->name, "gx-control-ssh");
  EXPECT_THAT(entry_->build_stamp, testing::MatchesRegex("[A-Z][a-z][a-z] [ 0-9][0-9] [0-9]{4} [0-9:]{8}"));
  for (const void* reserved : entry_->reserved) EXPECT_EQ(reserved, nullptr);
  EXPECT_FALSE(entry_->init(nullptr));
}

TEST_F(ModuleTest, CreationChecksWhatIsAskedFor) {
  const std::string asked = "[ssh_control] ssh_control_create interface ";
  const std::string success = "[ssh_control] ssh_control_create success";
  const std::string mismatch = "[ssh_control] ssh_control_create fail, version not match";
  const struct {
    const char* name;
    std::uint64_t version;
    std::vector<std::pair<int, std::string>> log;
  } cases[] = {
      {"IControlSshPlugin",
       0x0002000100000007,
       {{1, asked + "IControlSshPlugin  version 2.1.7 modversion 2.0.0"}, {1, success}}},
      {"icontrolsshplugin",
       GXModPackVersion({2, 5, 7}),
       {{1, asked + "icontrolsshplugin  version 2.5.7 modversion 2.0.0"}, {1, success}}},
      {"IControlSshPlugin",
       GXModPackVersion({3, 0, 0}),
       {{1, asked + "IControlSshPlugin  version 3.0.0 modversion 2.0.0"}, {4, mismatch}}},
      {"IControlSshPlugin",
       GXModPackVersion({1, 9, 9}),
       {{1, asked + "IControlSshPlugin  version 1.9.9 modversion 2.0.0"}, {4, mismatch}}},
      {"IOther",
       GXModPackVersion({2, 0, 0}),
       {{1, asked + "IOther  version 2.0.0 modversion 2.0.0"},
        {4, "[ssh_control] ssh_control_create invalid interface IOther"}}},
      {"", GXModPackVersion({2, 0, 0}), {{4, "[ssh_control] ssh_control_create invalid property"}}},
      {"IControlSshPlugin", 0, {{4, "[ssh_control] ssh_control_create invalid property"}}},
  };
  for (const auto& c : cases) {
    const CRefObj<IControlSshPlugin> plugin = Create(Request(c.name, c.version));
    EXPECT_EQ(static_cast<bool>(plugin), c.log.back().second == success) << c.name << c.version;
    EXPECT_EQ(runtime_.Lines(), c.log);
  }

  const CRefObj<Params> text_version = Request(kControlSshInterfaceName, 0);
  text_version->values_[kGXModPropertyVersion] = new Data(std::string("2.0.0"));
  EXPECT_FALSE(Create(text_version));
  EXPECT_FALSE(Create(CRefObj<Params>(new Params)));
  runtime_.Lines();
  EXPECT_EQ(entry_->create(text_version.get(), nullptr), 0U);
  EXPECT_EQ(entry_->create(nullptr, nullptr), 0U);
  const auto invalid = Pair(4, "[ssh_control] ssh_control_create invalid param");
  EXPECT_THAT(runtime_.Lines(), ElementsAre(invalid, invalid));
}

TEST_F(ModuleTest, PluginWalksItsRoad) {
  const CRefObj<IControlSshPlugin> plugin = Create();
  const CRefObj<PluginStream> stream(new PluginStream);
  const CRefObj<Listener> listener(new Listener("10.0.0.5:2222"));
  plugin->SetListener(listener.get());
  EXPECT_STREQ(plugin->GetLocalAddress(), "127.0.0.1");
  EXPECT_EQ(plugin->GetLocalPort(), 22);
  EXPECT_EQ(plugin->Run(), kGXModNothingDone);
  EXPECT_EQ(plugin->InitInstance(stream.get()), kGXModOk);
  EXPECT_EQ(plugin->GetPluginStream().get(), stream.get());
  EXPECT_EQ(plugin->Run(), kGXModOk);
  EXPECT_THAT(listener->calls_, ElementsAre("127.0.0.1:" + std::to_string(plugin->GetLocalPort())));

  const auto list = stream->Receive();
  ASSERT_TRUE(list);
  EXPECT_EQ(list->payload, "name=ssh&pro=&addr=10%2E0%2E0%2E5%3A2222;");
  TcpClient local(plugin->GetLocalPort());
  const auto connect = stream->Receive();
  ASSERT_TRUE(connect);
  EXPECT_EQ(connect->type, ConnectionType::Connect);
  EXPECT_EQ(connect->id, 1U) << "the first connection of the process";
  EXPECT_EQ(connect->payload, "10.0.0.5:2222");

  EXPECT_EQ(plugin->ExitInstance(), kGXModOk);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_TRUE(local.WaitForEnd());
  EXPECT_FALSE(TcpClient(plugin->GetLocalPort()).IsConnected());
  EXPECT_EQ(listener->calls_.back(), "exit");
  EXPECT_EQ(plugin->Run(), kGXModFail) << "stopped until the next InitInstance";
  const auto called = [](const char* name) { return Pair(1, std::string("[SSH] call ") + name + " "); };
  const auto lines = runtime_.Lines();
  EXPECT_THAT(lines, testing::IsSupersetOf({called("InitInstance"), called("Run"), called("ExitInstance")}));
}

TEST_F(ModuleTest, DefaultTarget) {
  for (const bool with_listener : {false, true}) {
    const CRefObj<IControlSshPlugin> plugin = Create();
    const CRefObj<PluginStream> stream(new PluginStream);
    if (with_listener) plugin->SetListener(CRefObj<Listener>(new Listener("")).get());
    plugin->InitInstance(stream.get());
    EXPECT_EQ(plugin->Run(), kGXModOk);
    const auto list = stream->Receive();
    ASSERT_TRUE(list);
    EXPECT_THAT(list->payload, HasSubstr("addr=127%2E0%2E0%2E1%3A22;"));
    plugin->SetListener(nullptr);
    plugin->ExitInstance();
  }
}

TEST_F(ModuleTest, InterfacesAndProperties) {
  const CRefObj<IControlSshPlugin> plugin = Create();
  void* found = nullptr;
  EXPECT_FALSE(plugin->GetInterface("icontrolsshplugin", &found));
  EXPECT_FALSE(plugin->GetInterface(nullptr, &found));
  EXPECT_FALSE(plugin->GetInterface(kControlSshInterfaceName, nullptr));
  ASSERT_TRUE(plugin->GetInterface(kControlSshInterfaceName, &found));
  const auto same = CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(found));
  EXPECT_EQ(same, plugin);
  EXPECT_EQ(plugin->SetProperty("key", nullptr), 0);
  EXPECT_EQ(plugin->GetProperty("key"), nullptr);
  EXPECT_EQ(plugin->Load(L""), kGXModOk);
  EXPECT_EQ(plugin->ExitInstance(), kGXModOk) << "nothing has been started";
  EXPECT_EQ(plugin->InitInstance(nullptr), kGXModOk) << "the refusal comes with Run";
  EXPECT_FALSE(plugin->GetPluginStream());
}

// Load the library, connect, carry data both ways, exit, unload: nothing hangs and nothing is left.
TEST_F(ModuleTest, LoadsWorksAndGoesAgainAndAgain) {
  const std::string bytes(20'000, 'x');
  const int rounds = gxtest::Rounds(10, 100);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    {
      const CRefObj<IControlSshPlugin> plugin = Create();
      const CRefObj<PluginStream> stream(new PluginStream);
      ASSERT_EQ(plugin->InitInstance(stream.get()), kGXModOk);
      ASSERT_EQ(plugin->Run(), kGXModOk);
      std::vector<TcpClient> locals;
      for (int i = 0; i < 5; ++i) {
        locals.emplace_back(plugin->GetLocalPort());
        const auto connect = stream->Receive(ConnectionType::Connect);
        ASSERT_TRUE(connect);
        stream->Send({ConnectionType::Data, connect->id, bytes});
        EXPECT_TRUE(locals.back().Send(bytes));
      }
      EXPECT_EQ(locals[static_cast<std::size_t>(round) % locals.size()].Receive(bytes.size()), bytes);
      plugin->ExitInstance();
      for (TcpClient& local : locals) EXPECT_TRUE(local.WaitForEnd());
    }
    Unload();
    Load();
  }
}

}  // namespace
