// The module, as a host loads it.
#ifndef GX_SSH_MODULE_LIBRARY_H
#define GX_SSH_MODULE_LIBRARY_H

#include <gxmod/control_ssh.h>
#include <gxmod/module.h>

#include <memory>
#include <string>

namespace gxtool {

// Where the module lies that belongs to this program: beside it in the build tree, or where both were
// installed.
std::string DefaultModulePath();
// What belongs to this program: `built` in the build tree, else `installed`, either from the program's folder.
std::string InstalledPath(const std::string& built, const std::string& installed);
// Of this program; empty when the system does not tell.
std::string ProgramPath();

// Loaded while this object lives. Every plugin is released before.
class ModuleLibrary {
 public:
  // Throws Failure (kExitModule) with the loader's reason. `runtime` outlives the object.
  ModuleLibrary(const std::string& path, IGXModRuntime& runtime);
  ~ModuleLibrary();
  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;

  // Null: the module refused, and has logged why.
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
