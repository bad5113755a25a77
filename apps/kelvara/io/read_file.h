// Reading a whole file into memory, the one way every reader does it: memory running out
// throws std::bad_alloc (the command reports it as such) instead of leaving a short buffer that
// would read as a broken file.
#pragma once

#include <string>

namespace kelvara
{

// False with "cannot read 'PATH': why" when the file cannot be opened or read.
bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error);

} // namespace kelvara
