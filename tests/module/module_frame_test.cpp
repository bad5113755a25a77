// The module as the real loader loads it: its exports, what it announces in which order, and its withdrawal.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "support/loaded_module.h"
#include "telvo/loader.h"

using namespace telvo;

namespace
{

// The words of text, each between prefix and suffix.
std::vector<std::string> Names(const std::string& text, const std::string& prefix = "", const char* suffix = "")
{
  std::istringstream in(text);
  std::vector<std::string> names;
  for (std::string word; in >> word;)
    names.push_back(prefix + word + suffix);
  return names;
}

// The implementations in the order they register; the registration units come before the last one.
constexpr const char* kImplementations =
  "kelvarahelper charactersolver charactertree characternodetransform characterbodypartsolversetting "
  "characterdefinition characterassociation characterbodypart characterpose charactersolverconfiguration "
  "characternodeinfo";
const std::vector<std::string> kDependencies =
  Names("net.telvo.animation_base_private.framework net.telvo.core.framework net.telvo.math.framework "
        "net.telvo.telvo.framework net.telvo.misc.framework net.telvo.kelvara.framework");

TEST(ModuleFrame, ExportsExactlyTheModuleRecordAndTheYieldDelegate)
{
  FILE* pipe = popen(("nm -D --defined-only --format=just-symbols '" + kelvara_test::ModulePath() + "'").c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string symbols;
  for (int c; (c = std::fgetc(pipe)) != EOF;)
    symbols += static_cast<char>(c);
  ASSERT_EQ(pclose(pipe), 0);
  EXPECT_EQ(Names(symbols), (std::vector<std::string>{"g_CpuYieldDelegate", "g_telvo"}));
}

// Loads and unloads the module in a fresh process; lists every mismatch and exits with 1 if there is one.
void LoadCheckAndUnload()
{
  Registry& registry = Registry::Get();
  registry.ClearJournal();
  std::string why;
  std::unique_ptr<LoadedModule> module = LoadedModule::Load(kelvara_test::ModulePath(), why);
  if (!module)
    std::exit(100);
  const std::vector<RegistryEvent> loaded = registry.GetJournal();
  std::vector<std::string> units = Names(kImplementations, "source/impl/", "_impl");
  units.insert(units.end() - 1, {"generated/hxx/interface_registration", "register"});
  std::string failures;
  for (auto [kind, expected] :
       {std::pair{RegistryKind::Unit, units},
        {RegistryKind::Class, Names(kImplementations, "net.telvo.animation.class.")},
        {RegistryKind::Interface,
         Names("characterbodypart characternodetransform charactertree characterbodypartsolversetting characterpose "
               "kelvarahelper characterdefinition charactersolver characterassociation characternodeinfo "
               "charactersolverconfiguration",
               "net.telvo.animation.interface.")},
        {RegistryKind::DataType, Names("CharacterAssociation CharacterNodeInfo CharacterSolverConfiguration "
                                       "CharacterBodyPartRef CharacterNodeTransform CharacterTreeRef "
                                       "CharacterBodyPartSolverSetting CharacterPose KelvaraHelperRef "
                                       "CharacterDefinition CharacterSolver",
                                       "telvo::")},
        {RegistryKind::Dependency, kDependencies}})
  {
    std::vector<std::string> actual;
    for (const RegistryEvent& event : loaded)
      if (event.kind == kind && event.registered && event.owner == "net.telvo.kelvara")
        actual.push_back(event.name);
    if (actual != expected)
      failures += std::string(RegistryKindName(kind)) + " registered: " + testing::PrintToString(actual) + "\n";
  }
  const std::vector<std::string>* installed = registry.GetDependencies("net.telvo.kelvara");
  if (installed == nullptr || *installed != kDependencies)
    failures += "installed dependencies\n";

  registry.ClearJournal();
  module->Unload();
  // Withdrawal is the registration in reverse, entry for entry.
  std::vector<std::pair<RegistryKind, std::string>> expectedWithdrawal, actualWithdrawal;
  for (auto it = loaded.rbegin(); it != loaded.rend(); ++it)
    if (it->kind != RegistryKind::Framework)
      expectedWithdrawal.emplace_back(it->kind, it->name);
  for (const RegistryEvent& event : registry.GetJournal())
    if (event.kind != RegistryKind::Framework)
      actualWithdrawal.emplace_back(event.kind, event.name);
  if (actualWithdrawal != expectedWithdrawal)
    failures += "withdrawal is not the registration in reverse\n";
  for (const std::string& id : Names(kImplementations, "net.telvo.animation.class."))
    if (registry.FindClass(id) != nullptr)
      failures += id + " left behind\n";
  if (registry.GetDependencies("net.telvo.kelvara") != nullptr ||
      registry.GetFrameworkUseCount("net.telvo.kelvara.framework") != 0 || registry.HasModule("net.telvo.kelvara"))
    failures += "module left installed\n";
  std::fputs(failures.c_str(), stderr);
  std::exit(failures.empty() ? 0 : 1);
}

// Death tests re-run the binary, so the child starts without the module loaded.
TEST(ModuleFrame, RegistersInLoadOrderAndWithdrawsInReverse)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(LoadCheckAndUnload(), ::testing::ExitedWithCode(0), "");
}

TEST(ModuleFrame, InstallingTheDependencyListTwiceIsFatal)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
    {
      kelvara_test::LoadedModuleForTests();
      const char* const again[] = {"net.telvo.core.framework"};
      Registry::Get().InstallDependencies("net.telvo.kelvara", again);
    },
    "dependency list of a module was installed twice");
}

} // namespace
