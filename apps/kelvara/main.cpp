#include "commands.h"

int main(int argc, char** argv)
{
  return kelvara::RunCommandLine(argc, argv);
}
