#include "file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "posix_io.h"

namespace tessmar::sign {
namespace {

// Configuration and signature files are small; the library reads no JSON
// file over 1 MiB either.
constexpr std::size_t kMaxReadSize = std::size_t{1} << 20;

std::string Reason(const std::string& subject, int error_number) {
  return subject + ": " + std::strerror(error_number);
}

std::string Reason(const std::string& subject, const char* call,
                   int error_number) {
  return subject + ": " + call + ": " + std::strerror(error_number);
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* data,
                   std::string* error, bool* missing) {
  std::string reason;
  errno = 0;
  const bool read = tools::ReadRegularFile(path, kMaxReadSize, data, &reason);
  if (missing != nullptr) *missing = !read && errno == ENOENT;
  if (!read) {
    *error = path + ": " + (reason == "too large" ? "too large (over 1 MiB)" : reason);
  }
  return read;
}

bool MakeDirectories(const std::string& path, std::string* error) {
  if (path.empty()) {
    *error = "empty directory name";
    return false;
  }
  if (!tools::MakeDirectories(path)) {
    *error = Reason(path, "mkdir", errno);
    return false;
  }
  return IsDirectory(path, error);
}

bool IsDirectory(const std::string& path, std::string* error) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) {
    *error = Reason(path, errno);
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    *error = path + ": not a directory";
    return false;
  }
  return true;
}

bool AbsolutePath(const std::string& path, std::string* absolute,
                  std::string* error) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    *error = Reason(path, errno);
    return false;
  }
  absolute->assign(resolved);
  std::free(resolved);
  return true;
}

std::string SigningProblem(const std::string& path) {
  // Opened without blocking, so a FIFO cannot stall the tool.
  const int fd = tools::OpenRetrying(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return Reason(path, errno);
  struct stat info;
  const int stat_result = ::fstat(fd, &info);
  const int stat_error = errno;
  ::close(fd);
  if (stat_result != 0) return Reason(path, "fstat", stat_error);
  if (!S_ISREG(info.st_mode)) return path + ": not a regular file";
  if (info.st_size == 0) {
    return path + ": file is empty; an empty file has no signature";
  }
  if (info.st_size > INT32_MAX) {
    return path + ": file is too large to sign (2 GiB or more)";
  }
  return std::string();
}

}  // namespace tessmar::sign
