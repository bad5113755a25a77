// The module as a real shared object loaded by the real loader: its exports, what it announces,
// in which order, and how it is withdrawn.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>

#include "support/loaded_module.h"
#include "telvo/loader.h"

using namespace telvo;

namespace
{

const std::vector<std::string> kUnitsInLoadOrder{
  "source/impl/kelvarahelper_impl",
  "source/impl/charactersolver_impl",
  "source/impl/charactertree_impl",
  "source/impl/characternodetransform_impl",
  "source/impl/characterbodypartsolversetting_impl",
  "source/impl/characterdefinition_impl",
  "source/impl/characterassociation_impl",
  "source/impl/characterbodypart_impl",
  "source/impl/characterpose_impl",
  "source/impl/charactersolverconfiguration_impl",
  "generated/hxx/interface_registration",
  "register",
  "source/impl/characternodeinfo_impl",
};

const std::vector<std::string> kClassesInLoadOrder{
  "net.telvo.animation.class.kelvarahelper",
  "net.telvo.animation.class.charactersolver",
  "net.telvo.animation.class.charactertree",
  "net.telvo.animation.class.characternodetransform",
  "net.telvo.animation.class.characterbodypartsolversetting",
  "net.telvo.animation.class.characterdefinition",
  "net.telvo.animation.class.characterassociation",
  "net.telvo.animation.class.characterbodypart",
  "net.telvo.animation.class.characterpose",
  "net.telvo.animation.class.charactersolverconfiguration",
  "net.telvo.animation.class.characternodeinfo",
};

const std::vector<std::string> kInterfaces{
  "net.telvo.animation.interface.characterbodypart",
  "net.telvo.animation.interface.characternodetransform",
  "net.telvo.animation.interface.charactertree",
  "net.telvo.animation.interface.characterbodypartsolversetting",
  "net.telvo.animation.interface.characterpose",
  "net.telvo.animation.interface.kelvarahelper",
  "net.telvo.animation.interface.characterdefinition",
  "net.telvo.animation.interface.charactersolver",
  "net.telvo.animation.interface.characterassociation",
  "net.telvo.animation.interface.characternodeinfo",
  "net.telvo.animation.interface.charactersolverconfiguration",
};

const std::vector<std::string> kDataTypes{
  "telvo::CharacterAssociation",  "telvo::CharacterNodeInfo",
  "telvo::CharacterSolverConfiguration", "telvo::CharacterBodyPartRef",
  "telvo::CharacterNodeTransform", "telvo::CharacterTreeRef",
  "telvo::CharacterBodyPartSolverSetting", "telvo::CharacterPose",
  "telvo::KelvaraHelperRef",      "telvo::CharacterDefinition",
  "telvo::CharacterSolver",
};

const std::vector<std::string> kDependencies{
  "net.telvo.animation_base_private.framework", "net.telvo.core.framework", "net.telvo.math.framework",
  "net.telvo.telvo.framework",                  "net.telvo.misc.framework", "net.telvo.kelvara.framework",
};

std::vector<std::string> Names(const std::vector<RegistryEvent>& journal, RegistryKind kind, bool registered)
{
  std::vector<std::string> names;
  for (const RegistryEvent& event : journal)
    if (event.kind == kind && event.registered == registered && event.owner == "net.telvo.kelvara")
      names.push_back(event.name);
  return names;
}

std::string Describe(const std::vector<std::string>& names)
{
  std::ostringstream out;
  for (const std::string& name : names)
    out << "\n  " << name;
  return out.str();
}

// Death tests re-run the binary, so the child starts without the module loaded.
class ModuleFrameTest : public ::testing::Test
{
protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ModuleFrameTest, ExportsExactlyTheModuleRecordAndTheYieldDelegate)
{
  const std::string command = "nm -D --defined-only '" + kelvara_test::ModulePath() + "'";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> defined;
  char line[1024];
  while (std::fgets(line, sizeof(line), pipe) != nullptr)
  {
    std::istringstream fields(line);
    std::string address, type, name;
    fields >> address >> type >> name;
    if (!name.empty())
      defined.insert(name);
  }
  ASSERT_EQ(pclose(pipe), 0) << command;
  EXPECT_EQ(defined, (std::set<std::string>{"g_CpuYieldDelegate", "g_telvo"}));
}

// Loads and unloads the module in a fresh process and checks every registration and withdrawal.
void LoadCheckAndUnload()
{
  Registry& registry = Registry::Get();
  registry.ClearJournal();
  std::string why;
  std::unique_ptr<LoadedModule> module = LoadedModule::Load(kelvara_test::ModulePath(), why);
  if (!module)
  {
    std::fprintf(stderr, "load failed: %s\n", why.c_str());
    std::exit(3);
  }
  const std::vector<RegistryEvent> loaded = registry.GetJournal();
  int failures = 0;
  auto expectNames = [&](RegistryKind kind, const std::vector<std::string>& expected) {
    std::vector<std::string> actual = Names(loaded, kind, true);
    if (actual != expected)
    {
      std::fprintf(stderr, "%s registered:%s\nexpected:%s\n", RegistryKindName(kind), Describe(actual).c_str(),
                   Describe(expected).c_str());
      ++failures;
    }
  };
  expectNames(RegistryKind::Unit, kUnitsInLoadOrder);
  expectNames(RegistryKind::Class, kClassesInLoadOrder);
  expectNames(RegistryKind::Interface, kInterfaces);
  expectNames(RegistryKind::DataType, kDataTypes);
  expectNames(RegistryKind::Dependency, kDependencies);
  const std::vector<std::string>* installed = registry.GetDependencies("net.telvo.kelvara");
  if (installed == nullptr || *installed != kDependencies)
    ++failures;

  registry.ClearJournal();
  module->Unload();
  const std::vector<RegistryEvent> withdrawn = registry.GetJournal();
  // Withdrawal is the registration in reverse, entry for entry.
  std::vector<std::pair<RegistryKind, std::string>> expectedWithdrawal, actualWithdrawal;
  for (auto it = loaded.rbegin(); it != loaded.rend(); ++it)
    if (it->kind != RegistryKind::Framework)
      expectedWithdrawal.emplace_back(it->kind, it->name);
  for (const RegistryEvent& event : withdrawn)
    if (event.kind != RegistryKind::Framework)
      actualWithdrawal.emplace_back(event.kind, event.name);
  if (actualWithdrawal != expectedWithdrawal)
  {
    std::fprintf(stderr, "withdrawal is not the reverse of registration\n");
    ++failures;
  }
  for (const std::string& id : kClassesInLoadOrder)
    if (registry.FindClass(id) != nullptr)
      ++failures;
  if (registry.GetDependencies("net.telvo.kelvara") != nullptr || registry.GetFrameworkUseCount("net.telvo.kelvara.framework") != 0 ||
      registry.HasModule("net.telvo.kelvara"))
    ++failures;
  std::exit(failures == 0 ? 0 : 1);
}

TEST_F(ModuleFrameTest, RegistersInLoadOrderAndWithdrawsInReverse)
{
  EXPECT_EXIT(LoadCheckAndUnload(), ::testing::ExitedWithCode(0), "");
}

TEST_F(ModuleFrameTest, InstallingTheDependencyListTwiceIsFatal)
{
  EXPECT_DEATH(
    {
      kelvara_test::LoadedModuleForTests();
      const char* const again[] = {"net.telvo.core.framework"};
      Registry::Get().InstallDependencies("net.telvo.kelvara", again);
    },
    "dependency list of a module was installed twice");
}

TEST_F(ModuleFrameTest, RefusesFilesThatAreNotModules)
{
  std::string why;
  EXPECT_EQ(LoadedModule::Load("/nonexistent/libkelvara.so", why), nullptr);
  EXPECT_NE(why.find("/nonexistent/libkelvara.so"), std::string::npos) << why;

  // The framework library is a shared object but announces nothing.
  const std::string modulePath = kelvara_test::ModulePath();
  const std::string frameworkPath = modulePath.substr(0, modulePath.rfind('/')) + "/libtelvo.so";
  why.clear();
  EXPECT_EQ(LoadedModule::Load(frameworkPath, why), nullptr);
  EXPECT_NE(why.find("not a module"), std::string::npos) << why;
}

} // namespace
