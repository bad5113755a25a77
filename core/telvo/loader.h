// Loads a module with the OS loader and makes its announcements known to the registries.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "telvo/module.h"

namespace telvo
{

class TELVO_API LoadedModule
{
public:
  // Opens the file, finds its g_telvo record, processes its announcements in order and brings its
  // classes up. On failure returns nullptr with the reason in `why`; nothing stays registered.
  static std::unique_ptr<LoadedModule> Load(const std::string& path, std::string& why);

  // Unloads if still loaded.
  ~LoadedModule();

  // Withdraws every registration of the module in reverse order, runs its clean-ups and closes
  // the library. Every object the module made must be released before.
  void Unload();

  const std::string& GetModuleId() const { return _moduleId; }
  const std::string& GetPath() const { return _path; }
  const ModuleRecord& GetRecord() const { return *_record; }

private:
  struct Action
  {
    AnnouncementKind kind;
    const char* name;
    const void* payload;
  };

  LoadedModule() = default;
  Bool Process(std::string& why);
  Bool BringUp(std::string& why);

  void* _handle = nullptr;
  ModuleRecord* _record = nullptr;
  std::string _path;
  std::string _moduleId;
  std::vector<Action> _done; // registrations made, in order; undone in reverse
};

} // namespace telvo
