// kelvara modules: shows what a module announces and how it is withdrawn.
#include <cstdio>
#include <map>
#include <string>

#include "cli/command.h"
#include "telvo/loader.h"

namespace kelvara
{

namespace
{

void PrintEvents(const std::vector<telvo::RegistryEvent>& events, const std::string& moduleId, bool registered)
{
  for (const telvo::RegistryEvent& event : events)
    if (event.registered == registered && event.owner == moduleId)
      std::printf("  %-15s %s\n", telvo::RegistryKindName(event.kind), event.name.c_str());
}

ExitCode ShowModule(const std::vector<std::string>& args)
{
  if (args.size() > 1)
  {
    std::fprintf(stderr, "kelvara modules: expected at most one module path, found %zu arguments\n", args.size());
    return ExitCode::kBadInput;
  }
  const std::string path = args.empty() ? DefaultModulePath() : args[0];
  telvo::Registry& registry = telvo::Registry::Get();
  registry.ClearJournal();

  std::string why;
  std::unique_ptr<telvo::LoadedModule> module = telvo::LoadedModule::Load(path, why);
  if (!module)
  {
    std::fprintf(stderr, "kelvara modules: %s\n", why.c_str());
    return ExitCode::kBadInput;
  }
  const std::string moduleId = module->GetModuleId();
  std::printf("Module %s\n  file: %s\n", moduleId.c_str(), path.c_str());
  if (const std::vector<std::string>* dependencies = registry.GetDependencies(moduleId))
  {
    std::printf("Dependencies (%zu):\n", dependencies->size());
    for (const std::string& id : *dependencies)
      std::printf("  %s\n", id.c_str());
  }

  const std::vector<telvo::RegistryEvent> loaded = registry.GetJournal();
  std::map<telvo::RegistryKind, int> counts;
  for (const telvo::RegistryEvent& event : loaded)
    if (event.registered && event.owner == moduleId)
      ++counts[event.kind];
  std::printf("Registered, in order:\n");
  PrintEvents(loaded, moduleId, true);
  std::printf("Totals:");
  for (telvo::RegistryKind kind : {telvo::RegistryKind::Unit, telvo::RegistryKind::Interface,
                                   telvo::RegistryKind::Class, telvo::RegistryKind::DataType,
                                   telvo::RegistryKind::Implementation})
    std::printf(" %d %s%s", counts[kind], telvo::RegistryKindName(kind), counts[kind] == 1 ? "" : "s");
  std::printf("\n");

  registry.ClearJournal();
  module->Unload();
  std::printf("Withdrawn at unload, in order:\n");
  PrintEvents(registry.GetJournal(), moduleId, false);
  return ExitCode::kOk;
}

class ModulesCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand(
      "modules", "Load the module (default: the one built beside kelvara), print its id, its dependencies and every "
                 "registration in order, unload it and print the order of withdrawal.");
    c->add_option("PATH", _paths, "Module file to load");
    return c;
  }

  ExitCode Run() override { return ShowModule(_paths); }

private:
  std::vector<std::string> _paths;
};

} // namespace

std::unique_ptr<Command> MakeModulesCommand()
{
  return std::make_unique<ModulesCommand>();
}

} // namespace kelvara
