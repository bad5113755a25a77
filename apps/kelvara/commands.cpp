#include "commands.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kelvara
{

namespace
{

const char* const kUsage =
  "Usage: kelvara COMMAND [ARGS]\n"
  "\n"
  "Commands:\n"
  "  modules [PATH]   Load the module (default: the one built beside kelvara), print its id, its\n"
  "                   dependencies and every registration in order, unload it and print the\n"
  "                   order of withdrawal.\n"
  "  --help           Show this text.\n"
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

} // namespace

std::string DefaultModulePath()
{
  if (const char* path = std::getenv("KELVARA_MODULE"); path != nullptr && *path != '\0')
    return path;
  return ExecutableFolder() + "/libkelvara.so";
}

int RunCommandLine(int argc, char** argv)
{
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help")
  {
    std::fputs(kUsage, args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  if (command == "modules")
    return RunModulesCommand(args);
  std::fprintf(stderr, "kelvara: unknown command '%s'\n\n%s", command.c_str(), kUsage);
  return 2;
}

} // namespace kelvara
