#include "gx-ssh/module_library.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "gx-ssh/failure.h"

namespace gxtool {
namespace {

class Runtime final : public IGXModRuntime {
 public:
  void Log(int, const char* text) override { log += text; }
  int GetConfig(bool, const char*, const char*, IGXModData**, const char*) override { return 0; }
  int SaveConfig(bool, const char*, const char*, const char*) override { return 0; }
  const char* GetEnv(const char*) override { return nullptr; }

  std::string log;
};

class ModuleLibraryTest : public testing::Test {
 protected:
  ~ModuleLibraryTest() override { unsetenv("FAKE_MODULE"); }

  // The line that says why `path` is no module to work with; empty: it is one.
  std::string Complaint(const std::string& path, const char* fault = "") {
    setenv("FAKE_MODULE", fault, 1);
    try {
      const ModuleLibrary library(path, runtime_);
      return {};
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.status(), kExitModule);
      return failure.what();
    }
  }

  Runtime runtime_;
};

TEST_F(ModuleLibraryTest, LoadsAndUnloads) {
  {
    ModuleLibrary library(GX_FAKE_MODULE, runtime_);
    EXPECT_FALSE(library.CreatePlugin()) << "refused";
    EXPECT_EQ(library.Description(), "gx-control-ssh 2.0.0, built Nov 17 2025 12:09:42");
  }
  EXPECT_EQ(runtime_.log, "uninit");
}

TEST_F(ModuleLibraryTest, SaysWhatIsWrongWithAFile) {
  EXPECT_NE(Complaint("/nowhere/module.so").find("/nowhere/module.so: cannot open"), std::string::npos);
  EXPECT_NE(Complaint("/etc/passwd").find("/etc/passwd"), std::string::npos);
  EXPECT_NE(Complaint("libc.so.6").find("./libc.so.6: cannot open"), std::string::npos)
      << "a bare name means a file here, not one of the system's libraries";
  EXPECT_NE(Complaint(GX_LIBRARY_WITHOUT_ENTRY).find("gxmod_get_entrypoint"), std::string::npos);
  EXPECT_NE(Complaint(GX_FAKE_MODULE, "name").find("not the module gx-control-ssh"), std::string::npos);
  EXPECT_NE(Complaint(GX_FAKE_MODULE, "version").find("version 3.0.0 of the module, but 2.0.0 is needed"),
            std::string::npos);
  EXPECT_NE(Complaint(GX_FAKE_MODULE, "init").find("does not start"), std::string::npos);
}

}  // namespace
}  // namespace gxtool
