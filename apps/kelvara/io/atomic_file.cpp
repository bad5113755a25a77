#include "io/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace kelvara
{

namespace
{

bool WriteAll(int fd, const char* data, std::size_t size)
{
  while (size > 0)
  {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0)
    {
      if (errno == EINTR)
        continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

} // namespace

bool WriteFileAtomically(const std::string& path, std::string_view content, std::string& error)
{
  const std::string prefix = "cannot write '" + path + "': ";
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  if (base.empty() || base == "." || base == "..")
  {
    error = prefix + "not a file name";
    return false;
  }
  // Beside the target so that the rename stays within one file system; process id and counter
  // keep concurrent writers (threads of one batch, several runs) apart.
  static std::atomic<unsigned> counter{0};
  const std::string temp = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + "." + base +
                           ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
  // Where the file system allows, the content goes to a file without a name, so that a process
  // killed while writing leaves nothing behind; it gets its temporary name only when complete.
  bool named = false;
  int fd = ::open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
  if (fd < 0 && errno != EACCES && errno != EROFS && errno != ENOSPC && errno != EDQUOT)
  {
    named = true;
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  }
  if (fd < 0)
  {
    error = prefix + "cannot create a file in '" + dir + "': " + std::strerror(errno);
    return false;
  }
  auto abandon = [&] {
    const int saved = errno;
    if (fd >= 0)
      ::close(fd);
    if (named)
      ::unlink(temp.c_str());
    error = prefix + std::strerror(saved);
    return false;
  };
  if (!WriteAll(fd, content.data(), content.size()) || ::fsync(fd) != 0)
    return abandon();
  if (!named)
  {
    // Naming an unnamed file goes through /proc; without it, the content is written again
    // under the temporary name.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temp.c_str(), AT_SYMLINK_FOLLOW) != 0)
    {
      if (errno != ENOENT)
        return abandon();
      ::close(fd);
      named = true;
      fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
      if (fd < 0 || !WriteAll(fd, content.data(), content.size()) || ::fsync(fd) != 0)
        return abandon();
    }
    named = true;
  }
  const int closed = ::close(fd);
  fd = -1;
  if (closed != 0 || ::rename(temp.c_str(), path.c_str()) != 0)
    return abandon();
  // Make the rename durable; failing here does not undo a complete, renamed file.
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0)
  {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
}

} // namespace kelvara
