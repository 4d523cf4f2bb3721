// Loads the module, as any host does.
#ifndef GX_SSH_MODULE_LIBRARY_H
#define GX_SSH_MODULE_LIBRARY_H

#include <gxmod/control_ssh.h>
#include <gxmod/module.h>

#include <memory>
#include <string>

namespace gxtool {

// The path of this program's module: beside the program in the build tree, or where both were installed.
std::string DefaultModulePath();
// Returns `built` in the build tree and `installed` otherwise, both relative to the program's folder.
std::string InstalledPath(const std::string& built, const std::string& installed);
// The path of this program; empty when it is unknown.
std::string ProgramPath();

// The loaded module, until this object is destroyed. Release every plugin first.
class ModuleLibrary {
 public:
  // Throws Failure (kExitModule) with the loader's reason. `runtime` outlives this object.
  ModuleLibrary(const std::string& path, IGXModRuntime& runtime);
  ~ModuleLibrary();
  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;

  // Null when the module refused; the reason is in its log.
  CRefObj<IControlSshPlugin> CreatePlugin();

  // "gx-control-ssh 2.0.0, built Nov 17 2025 12:09:42"
  std::string Description() const;
  const std::string& path() const { return path_; }

 private:
  struct Unload {
    void operator()(void* handle) const;
  };
  const std::string path_;
  std::unique_ptr<void, Unload> handle_;
  const gxlink_module_t* entry_ = nullptr;
};

}  // namespace gxtool

#endif  // GX_SSH_MODULE_LIBRARY_H
