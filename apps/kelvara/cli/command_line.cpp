#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "cli/command.h"
#include "cli/command_line.h"
#include "io/animation_file.h"

namespace kelvara
{

namespace
{

const char* const kFooter =
  "Exit status: 0 success, 1 failure of the work, 2 bad input (usage, unreadable or malformed\n"
  "files; nothing is written then).\n"
  "\n"
  "Environment:\n"
  "  KELVARA_MODULE   Module file to load instead of the one beside the executable.\n";

std::string ExecutableFolder()
{
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0)
    return ".";
  path[n] = '\0';
  std::string s(path);
  std::size_t slash = s.rfind('/');
  return slash == std::string::npos ? "." : s.substr(0, slash);
}

int ParseAndRun(int argc, char** argv)
{
  CLI::App app{"kelvara: retargets motion from one skeleton onto another through the kelvara module.\n"
               "Reads " + ReadableFormats() + ".\nWrites " + WritableFormats() + ".",
               "kelvara"};
  app.footer(kFooter);
  app.require_subcommand(1);

  std::vector<std::unique_ptr<Command>> commands;
  commands.push_back(MakeModulesCommand());
  commands.push_back(MakeRetargetCommand());
  commands.push_back(MakeCharacterCommand());
  commands.push_back(MakePreviewCommand());
  commands.push_back(MakeViewCommand());
  commands.push_back(MakeInspectCommand());
  commands.push_back(MakeDemoCommand());
  std::vector<CLI::App*> subcommands;
  for (const std::unique_ptr<Command>& c : commands)
    subcommands.push_back(c->Register(app));

  if (argc <= 1)
  {
    std::fputs(app.help().c_str(), stderr);
    return static_cast<int>(ExitCode::kBadInput);
  }
  const std::string first = argv[1];
  if (first == "help")
  {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  }
  bool known = false;
  for (CLI::App* s : subcommands)
    known = known || s->get_name() == first;
  if (!first.empty() && first[0] != '-' && !known)
  {
    std::fprintf(stderr, "kelvara: unknown command '%s'\n\n%s", first.c_str(), app.help().c_str());
    return static_cast<int>(ExitCode::kBadInput);
  }
  try
  {
    app.parse(argc, argv);
  }
  catch (const CLI::ParseError& e)
  {
    // Help and version requests are successes; every other parse error is bad usage.
    const int status = app.exit(e);
    return status == 0 ? 0 : static_cast<int>(ExitCode::kBadInput);
  }
  for (std::size_t i = 0; i < commands.size(); ++i)
    if (subcommands[i]->parsed())
      return static_cast<int>(commands[i]->Run());
  return static_cast<int>(ExitCode::kBadInput);
}

} // namespace

const char* const kMatchRestHelp =
  "On by default: the target's rest pose is turned first so that every mapped bone points where its source bone "
  "points at rest (an A-pose rig driven by a T-pose clip). --keep-rest keeps the target's own rest: for a target "
  "whose rest already matches, or for the raw rotation transfer";
const char* const kPlantFeetHelp =
  "On by default: during each ground contact of the source the target's foot stays where it touched down, on the "
  "target's ground, reached by bending thigh and shin (the hips go lower only where a leg cannot reach). "
  "--no-plant-feet writes the transferred rotations as they are";

std::string DefaultModulePath()
{
  if (const char* path = std::getenv("KELVARA_MODULE"); path != nullptr && *path != '\0')
    return path;
  return ExecutableFolder() + "/libkelvara.so";
}

ExitCode RunWithModule(const std::function<ExitCode()>& work)
{
  std::string why;
  std::unique_ptr<telvo::LoadedModule> module = telvo::LoadedModule::Load(DefaultModulePath(), why);
  if (!module)
    return Report(ExitCode::kFailure, "cannot load the module: " + why);
  const ExitCode code = work();
  module->Unload();
  return code;
}

ExitCode Report(ExitCode code, const std::string& message)
{
  std::fprintf(stderr, "kelvara: %s\n", message.c_str());
  return code;
}

ExitCode Report(const Problem& problem)
{
  return Report(problem.badInput ? ExitCode::kBadInput : ExitCode::kFailure, problem.message);
}

ExitCode ReadCommandFile(const std::string& path, const ReadRequest& request, const std::string& preset,
                         AnimationFile& file)
{
  std::string error;
  if (!ReadAnimationFile(path, request, file, error))
    return Report(ExitCode::kBadInput, error);
  PrintWarnings(file.warnings);
  Problem problem;
  return CheckPreset(preset, problem) ? ExitCode::kOk : Report(problem);
}

void PrintWarnings(const std::vector<std::string>& warnings)
{
  for (const std::string& w : warnings)
    std::fprintf(stderr, "kelvara: warning: %s\n", w.c_str());
}

void AddPresetOption(CLI::App& command, std::string& preset, const char* whose)
{
  command.add_option("--preset", preset,
                     std::string("Keyword preset for ") + whose + " (" + PresetNames() +
                       "); default: the one that fills the most body parts");
}

void AddSkeletonRootOption(CLI::App& command, std::string& root, const char* name, const char* whose)
{
  command.add_option(name, root,
                     std::string("Node whose subtree is ") + whose +
                       "'s skeleton (glTF, FBX, ...); default: the skin's joints");
}

void AddAnimationOption(CLI::App& command, std::string& animation)
{
  command.add_option("--animation", animation,
                     "Animation of a glTF, FBX, ... source, by name or index; default: the first");
}

int RunCommandLine(int argc, char** argv)
{
  // Memory of the host's own containers running out unwinds to here; every output is written to
  // a temporary file and renamed when complete, so nothing partial is left behind.
  try
  {
    return ParseAndRun(argc, argv);
  }
  catch (const std::bad_alloc&)
  {
    std::fputs("kelvara: out of memory\n", stderr);
    return static_cast<int>(ExitCode::kFailure);
  }
}

} // namespace kelvara
