#include "gx-ssh/module_library.h"

#include <dlfcn.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <cstring>
#include <filesystem>
#include <system_error>

#include "gx-ssh/counted.h"
#include "gx-ssh/failure.h"

namespace gxtool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kModuleName = "gx-control-ssh";

class Value final : public Counted<IGXModData> {
 public:
  explicit Value(std::uint64_t number) : type_(kGXModDataUInt64), number_(number) {}
  explicit Value(const char* text) : type_(kGXModDataText), text_(text) {}

  int GetType() const override { return type_; }
  const char* GetText() const override { return text_; }
  std::uint64_t GetUInt64() const override { return number_; }

 private:
  const int type_;
  const char* const text_ = "";
  const std::uint64_t number_ = 0;
};

class CreateParams final : public Counted<IGXModCreateParams> {
 public:
  IGXModData* GetProperty(const char* key) override {
    if (std::strcmp(key, kGXModPropertyVersion) == 0) return version_.get();
    if (std::strcmp(key, kGXModPropertyInterfaceName) == 0) return name_.get();
    return nullptr;
  }

 private:
  const CRefObj<IGXModData> version_{new Value(GXModPackVersion(kControlSshVersion))};
  const CRefObj<IGXModData> name_{new Value(kControlSshInterfaceName)};
};

std::string VersionText(std::uint64_t packed) {
  const GXModVersion version = GXModUnpackVersion(packed);
  return std::to_string(version.major_number) + "." + std::to_string(version.minor_number) + "." +
         std::to_string(version.build_number);
}

}  // namespace

std::string ProgramPath() {
#ifdef __APPLE__
  char path[4096];
  std::uint32_t size = sizeof path;
  if (_NSGetExecutablePath(path, &size) != 0) return {};
  return path;
#else
  std::error_code none;
  return fs::read_symlink("/proc/self/exe", none).string();
#endif
}

std::string InstalledPath(const std::string& built, const std::string& installed) {
  const fs::path folder = fs::path(ProgramPath()).parent_path();
  // Only a program in its build tree uses other built files: an installed one uses what was installed with it.
  const bool in_build_tree = folder.filename() == "gx-ssh" && folder.parent_path().filename() == "tools";
  return (folder / (in_build_tree ? built : installed)).lexically_normal();
}

std::string DefaultModulePath() { return InstalledPath(GX_SSH_BUILT_MODULE, GX_SSH_INSTALLED_MODULE); }

ModuleLibrary::ModuleLibrary(const std::string& path, IGXModRuntime& runtime)
    // dlopen searches the system's folders for a name without a slash.
    : path_(path.find('/') == std::string::npos ? "./" + path : path),
      handle_(dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (!handle_) {
    throw Failure(kExitModule,
                  std::string("cannot load the module: ") + dlerror() + "; --module PATH names another one");
  }
  const auto get_entry = reinterpret_cast<gxmod_get_entrypoint_t>(dlsym(handle_.get(), kGXModEntryPoint));
  if (get_entry == nullptr) throw Failure(kExitModule, std::string("cannot load the module: ") + dlerror());

  const gxlink_module_t* entry = get_entry();
  if (entry == nullptr || entry->name == nullptr || std::strcmp(entry->name, kModuleName) != 0) {
    throw Failure(kExitModule, path_ + ": not the module " + kModuleName);
  }
  if (GXModUnpackVersion(entry->version).major_number != kControlSshVersion.major_number) {
    throw Failure(kExitModule, path_ + ": version " + VersionText(entry->version) + " of the module, but " +
                                   VersionText(GXModPackVersion(kControlSshVersion)) + " is needed");
  }
  if (!entry->init(&runtime)) throw Failure(kExitModule, path_ + ": the module does not start");
  entry_ = entry;
}

ModuleLibrary::~ModuleLibrary() { entry_->uninit(); }

void ModuleLibrary::Unload::operator()(void* handle) const { dlclose(handle); }

CRefObj<IControlSshPlugin> ModuleLibrary::CreatePlugin() {
  const CRefObj<CreateParams> params(new CreateParams);
  void* plugin = nullptr;
  if (entry_->create(static_cast<IGXModCreateParams*>(params.get()), &plugin) != 1) return {};
  return CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(plugin));
}

std::string ModuleLibrary::Description() const {
  return std::string(entry_->name) + " " + VersionText(entry_->version) + ", built " + entry_->build_stamp;
}

}  // namespace gxtool
