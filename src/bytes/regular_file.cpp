// Every file is opened without blocking and checked with fstat before a
// byte is read. No legitimate installation has a FIFO, a device or an
// oversized file where the library reads, so these checks narrow behaviour
// only for such files: they read as unreadable, as a missing file does.
#include "bytes/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tessmar {

int OpenRegularFile(const std::string& path, off_t* size) {
  int fd;
  do {
    fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return -1;
  }
  *size = info.st_size;
  return fd;
}

bool ReadRegularFile(const std::string& path, std::size_t max_size,
                     std::string* data) {
  off_t size = 0;
  const int fd = OpenRegularFile(path, &size);
  if (fd < 0) return false;
  if (size < 0 || static_cast<unsigned long long>(size) > max_size) {
    close(fd);
    return false;
  }
  std::string text(static_cast<std::size_t>(size), '\0');
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = read(fd, &text[done], text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // an error, or a file that shrank meanwhile
    done += static_cast<std::size_t>(n);
  }
  close(fd);
  if (done != text.size()) return false;
  data->swap(text);
  return true;
}

bool IsReadableRegularFile(const std::string& path) {
  off_t size = 0;
  const int fd = OpenRegularFile(path, &size);
  if (fd < 0) return false;
  close(fd);
  return true;
}

}  // namespace tessmar
