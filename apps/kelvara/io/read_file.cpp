#include "io/read_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelvara
{

namespace
{

struct Descriptor
{
  int fd;
  ~Descriptor()
  {
    if (fd >= 0)
      ::close(fd);
  }
};

} // namespace

bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error)
{
  const Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  auto fail = [&] {
    error = "cannot read '" + path + "': " + std::strerror(errno);
    return false;
  };
  if (file.fd < 0)
    return fail();
  // One read of the whole file; a byte of slack lets the common case end without regrowing.
  struct stat st;
  const bool known = ::fstat(file.fd, &st) == 0;
  if (known && S_ISDIR(st.st_mode))
  {
    errno = EISDIR;
    return fail();
  }
  const bool regular = known && S_ISREG(st.st_mode);
  bytes.resize(regular ? static_cast<std::size_t>(st.st_size) + 1 : std::size_t{1} << 16);
  std::size_t used = 0;
  for (;;)
  {
    if (used == bytes.size())
      bytes.resize(bytes.size() * 2);
    const ssize_t n = ::read(file.fd, bytes.data() + used, bytes.size() - used);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return fail();
    if (n == 0)
      break;
    used += static_cast<std::size_t>(n);
  }
  bytes.resize(used);
  return true;
}

} // namespace kelvara
