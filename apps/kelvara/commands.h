// The kelvara command line: one function per command.
#pragma once

#include <string>
#include <vector>

namespace kelvara
{

// Runs the command line and returns the process exit status: 0 success, 1 failure of the work,
// 2 bad input (usage, unreadable or malformed files).
int RunCommandLine(int argc, char** argv);

// The module file built beside the executable (or named by $KELVARA_MODULE).
std::string DefaultModulePath();

int RunModulesCommand(const std::vector<std::string>& args);

} // namespace kelvara
