// Writing a file so that a reader never sees a partial one: the content goes to a temporary file
// beside the target (unnamed until complete where the file system allows), is synced, and is
// renamed over the target only when complete. A process killed at any moment leaves the old file
// or the complete new one.
#pragma once

#include <string>
#include <string_view>

namespace kelvara
{

// On failure nothing is left behind, any existing file at path is untouched, and error reads
// "cannot write 'PATH': why". Safe to call from several threads at once.
bool WriteFileAtomically(const std::string& path, std::string_view content, std::string& error);

} // namespace kelvara
