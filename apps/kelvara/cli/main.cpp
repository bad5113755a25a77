#include "cli/command_line.h"

int main(int argc, char** argv)
{
  return kelvara::RunCommandLine(argc, argv);
}
