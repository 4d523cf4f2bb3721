// The module as its host sees it: a file to load, and the public headers.
#include <dlfcn.h>

#include "gxmod/control_ssh.h"
#include "gxmod/module.h"
#include "support/far_side.h"
#include "support/host_objects.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/tcp_client.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

using namespace gxtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// GX_MODULE_UNDER_TEST names a module of another build, for example of another compiler.
const char* ModulePath() {
  const char* path = std::getenv("GX_MODULE_UNDER_TEST");
  return path != nullptr ? path : GX_MODULE_PATH;
}

class ModuleTest : public LeakGate {
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
    EXPECT_THAT(FileText("/proc/self/maps"), testing::Not(HasSubstr("libgx-control-ssh.so")));
  }

  CRefObj<IControlSshPlugin> Create(const CRefObj<CreateParams>& params = new CreateParams) {
    void* made = nullptr;
    const std::uint32_t result = entry_->create(static_cast<IGXModCreateParams*>(params.get()), &made);
    EXPECT_EQ(result, made != nullptr ? 1U : 0U);
    return CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(made));
  }

  // The lines since the last call, without the verbose ones.
  std::vector<LogKeeper::Line> Lines() {
    auto lines = runtime_.Lines();
    std::erase_if(lines, [](const auto& line) { return line.first == kGXModLogTrace; });
    return lines;
  }

  LogKeeper runtime_;
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
  const auto line = [](int level, const std::string& text) {
    return LogKeeper::Line(level, "[ssh_control] ssh_control_create " + text);
  };
  const std::tuple<std::string, std::optional<std::uint64_t>, LogKeeper::Line> cases[] = {
      {"icontrolsshplugin", GXModPackVersion({2, 5, 7}), line(1, "success")},
      {"IControlSshPlugin", GXModPackVersion({3, 0, 0}), line(4, "fail, version not match")},
      {"IControlSshPlugin", GXModPackVersion({1, 9, 9}), line(4, "fail, version not match")},
      {"IOther", GXModPackVersion({2, 0, 0}), line(4, "invalid interface IOther")},
      {"", GXModPackVersion({2, 0, 0}), line(4, "invalid property")},
      {"IControlSshPlugin", 0, line(4, "invalid property")},
      {"IControlSshPlugin", std::nullopt, line(4, "invalid property")},
  };
  for (const auto& [name, version, outcome] : cases) {
    EXPECT_EQ(static_cast<bool>(Create(new CreateParams(name, version))), outcome.first == kGXModLogInfo);
    EXPECT_EQ(Lines().back(), outcome);
  }
  Create(new CreateParams("IControlSshPlugin", GXModPackVersion({2, 1, 7})));
  EXPECT_EQ(Lines().front(), line(1, "interface IControlSshPlugin  version 2.1.7 modversion 2.0.0"));
  void* made = nullptr;
  EXPECT_EQ(entry_->create(nullptr, &made), 0U);
  EXPECT_THAT(Lines(), ElementsAre(line(4, "invalid param")));
}

TEST_F(ModuleTest, PluginWalksItsRoad) {
  const CRefObj<IControlSshPlugin> plugin = Create();
  const CRefObj<PluginStream> stream(new PluginStream);
  const CRefObj<PluginListener> listener(new PluginListener("10.0.0.5:2222"));
  void* same = nullptr;
  EXPECT_FALSE(plugin->GetInterface("IOther", &same));
  EXPECT_FALSE(plugin->GetInterface(kControlSshInterfaceName, nullptr));
  EXPECT_TRUE(plugin->GetInterface(kControlSshInterfaceName, &same));
  EXPECT_EQ(CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(same)).get(), plugin.get());
  plugin->SetListener(listener.get());
  EXPECT_STREQ(plugin->GetLocalAddress(), "127.0.0.1");
  EXPECT_EQ(plugin->GetLocalPort(), 22);
  EXPECT_EQ(plugin->InitInstance(stream.get()), kGXModOk);
  EXPECT_EQ(plugin->GetPluginStream().get(), stream.get());
  EXPECT_EQ(plugin->Run(), kGXModOk);
  EXPECT_THAT(listener->calls, ElementsAre("127.0.0.1:" + std::to_string(plugin->GetLocalPort())));

  EXPECT_EQ(stream->Receive().value().payload, "name=ssh&pro=&addr=10%2E0%2E0%2E5%3A2222;");
  TcpClient local(plugin->GetLocalPort());
  EXPECT_EQ(stream->Receive(), (Frame{gxmod::ConnectionType::Connect, 1, "10.0.0.5:2222"}));

  EXPECT_EQ(plugin->ExitInstance(), kGXModOk);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_TRUE(local.WaitForEnd());
  EXPECT_EQ(listener->calls.back(), "exit");
  const auto called = [](const char* name) { return Pair(1, std::string("[SSH] call ") + name + " "); };
  EXPECT_THAT(Lines(), testing::IsSupersetOf({called("InitInstance"), called("Run"), called("ExitInstance")}));
}

// Loads the library, connects, carries data both ways, exits, unloads: nothing hangs and nothing is left.
// Without a text from the listener the target is the default.
TEST_F(ModuleTest, LoadsWorksAndGoesAgainAndAgain) {
  for (int round = Rounds(10, 100); round > 0 && !HasFailure(); --round) {
    {
      const CRefObj<IControlSshPlugin> plugin = Create();
      const CRefObj<PluginStream> stream(new PluginStream);
      const CRefObj<PluginListener> listener(round % 2 == 0 ? new PluginListener("") : nullptr);
      plugin->SetListener(listener.get());
      ASSERT_EQ(plugin->InitInstance(stream.get()), kGXModOk);
      ASSERT_EQ(plugin->Run(), kGXModOk);
      EXPECT_THAT(stream->Receive().value().payload, HasSubstr("addr=127%2E0%2E0%2E1%3A22;"));
      const FarSide far(stream);
      std::vector<TcpClient> locals;
      for (int i = 0; i < 5; ++i) {
        locals.emplace_back(plugin->GetLocalPort());
        EXPECT_TRUE(locals.back().Echoes(20'000));
      }
      plugin->ExitInstance();
      for (TcpClient& local : locals) EXPECT_TRUE(local.WaitForEnd());
    }
    Unload();
    Load();
  }
}

}  // namespace
