#include "posix_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tessmar::tools {

ssize_t ReadFully(int fd, void* buffer, std::size_t size) {
  auto* bytes = static_cast<char*>(buffer);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = read(fd, bytes + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

bool WriteFully(int fd, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t wrote = write(fd, bytes, size);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    bytes += wrote;
    size -= static_cast<std::size_t>(wrote);
  }
  return true;
}

int OpenRetrying(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool ReadRegularFile(const std::string& path, std::size_t max_size,
                     std::string* data, std::string* reason) {
  std::string ignored;
  if (reason == nullptr) reason = &ignored;
  const int fd = OpenRetrying(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    *reason = std::strerror(errno);
    return false;
  }
  struct stat info;
  bool ok = false;
  if (fstat(fd, &info) != 0) {
    *reason = std::strerror(errno);
  } else if (!S_ISREG(info.st_mode)) {
    *reason = "not a regular file";
  } else if (static_cast<unsigned long long>(info.st_size) > max_size) {
    *reason = "too large";
  } else {
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    const ssize_t got = ReadFully(fd, &text[0], text.size());
    if (got == static_cast<ssize_t>(text.size())) {
      data->swap(text);
      ok = true;
    } else {
      *reason = got < 0 ? std::strerror(errno) : "changed while read";
    }
  }
  close(fd);
  return ok;
}

bool MakeDirectories(const std::string& path, mode_t mode) {
  for (std::size_t at = 0; at != std::string::npos;) {
    at = path.find('/', at + 1);
    const std::string prefix = path.substr(0, at);
    if (prefix.empty()) continue;
    if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  return true;
}

}  // namespace tessmar::tools
