// The kelvara command line as a whole: what main() runs.
#pragma once

namespace kelvara
{

// Runs the command line and returns the process exit status: 0 success, 1 failure of the work,
// 2 bad input (usage, unreadable or malformed files).
int RunCommandLine(int argc, char** argv);

} // namespace kelvara
