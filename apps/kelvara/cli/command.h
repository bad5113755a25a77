// The kelvara command line: one Command per subcommand, each registering its own options.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "output/view_page.h"
#include "road/setup.h"
#include "telvo/loader.h"

namespace kelvara
{

// Exit status of every command.
enum class ExitCode : int
{
  kOk = 0,
  kFailure = 1,  // the work failed (memory, a full disk, the module)
  kBadInput = 2, // usage, unreadable or malformed files; nothing is written then
};

class Command
{
public:
  virtual ~Command() = default;
  // Adds the subcommand and its options to app; returns the subcommand.
  virtual CLI::App* Register(CLI::App& app) = 0;
  // Runs it after the command line was parsed into the options.
  virtual ExitCode Run() = 0;
};

std::unique_ptr<Command> MakeRetargetCommand();
std::unique_ptr<Command> MakeInspectCommand();
std::unique_ptr<Command> MakePreviewCommand();
std::unique_ptr<Command> MakeViewCommand();
std::unique_ptr<Command> MakeCharacterCommand();
std::unique_ptr<Command> MakeDemoCommand();
std::unique_ptr<Command> MakeModulesCommand();

struct ClipRun;
// Writes the viewer page of a finished single run to path: source as given, the result the run
// wrote at resultPath (its last animation), the run's pairs and, when it was measured, its report.
ExitCode WriteRunView(const std::string& path, const ViewFile& source, const std::string& resultPath, const Road& road,
                      const ClipRun& run);

// The module file built beside the executable (or named by $KELVARA_MODULE).
std::string DefaultModulePath();
// Loads that module, runs work and unloads it; every module object work makes must be gone when
// it returns. kFailure after saying why on stderr when the module cannot be loaded.
ExitCode RunWithModule(const std::function<ExitCode()>& work);

// Reads the file a command works on and checks the preset it names: kOk, or the refusal reported
// (bad input); the file's warnings are printed.
ExitCode ReadCommandFile(const std::string& path, const ReadRequest& request, const std::string& preset,
                         AnimationFile& file);

// "kelvara: message" on stderr, and the exit code for it.
ExitCode Report(const Problem& problem);
ExitCode Report(ExitCode code, const std::string& message);
// "kelvara: warning: ..." for each.
void PrintWarnings(const std::vector<std::string>& warnings);

// Options that several commands take, added to a subcommand in one place so that they read
// alike everywhere.
void AddPresetOption(CLI::App& command, std::string& preset, const char* whose);
void AddSkeletonRootOption(CLI::App& command, std::string& root, const char* name, const char* whose);
void AddAnimationOption(CLI::App& command, std::string& animation);
extern const char* const kMatchRestHelp;
extern const char* const kPlantFeetHelp;

} // namespace kelvara
