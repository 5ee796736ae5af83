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

// Owns one file descriptor and closes it exactly once.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    // Errors on this path are secondary to the one already being reported.
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

  // Closes now and reports the result; close() is not retried after EINTR
  // because Linux has released the descriptor by then.
  int Close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

// Opens for reading without blocking, so a FIFO cannot stall the tool.
int OpenForReading(const char* path) {
  int fd;
  do {
    fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* data,
                   std::string* error, bool* missing) {
  if (missing != nullptr) *missing = false;
  Descriptor file(OpenForReading(path.c_str()));
  if (!file.valid()) {
    if (missing != nullptr) *missing = errno == ENOENT;
    *error = Reason(path, errno);
    return false;
  }
  struct stat info;
  if (::fstat(file.get(), &info) != 0) {
    *error = Reason(path, "fstat", errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    *error = path + ": not a regular file";
    return false;
  }
  if (static_cast<unsigned long long>(info.st_size) > kMaxReadSize) {
    *error = path + ": too large (over 1 MiB)";
    return false;
  }
  // Read up to the size fstat gave, never beyond.
  std::string text(static_cast<std::size_t>(info.st_size), '\0');
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::read(file.get(), &text[done], text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = Reason(path, "read", errno);
      return false;
    }
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  text.resize(done);
  if (file.Close() != 0) {
    *error = Reason(path, "close", errno);
    return false;
  }
  data->swap(text);
  return true;
}

bool MakeDirectories(const std::string& path, std::string* error) {
  if (path.empty()) {
    *error = "empty directory name";
    return false;
  }
  const mode_t mode = 0755;
  // Every prefix ending before a slash, then the whole path.
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string prefix = path.substr(0, end);
    if (!prefix.empty() && prefix.back() != '/' &&
        ::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
      *error = Reason(prefix, "mkdir", errno);
      return false;
    }
    if (end == std::string::npos) break;
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
  Descriptor file(OpenForReading(path.c_str()));
  if (!file.valid()) return Reason(path, errno);
  struct stat info;
  if (::fstat(file.get(), &info) != 0) return Reason(path, "fstat", errno);
  if (!S_ISREG(info.st_mode)) return path + ": not a regular file";
  if (info.st_size == 0) {
    return path + ": file is empty; an empty file has no signature";
  }
  if (info.st_size > INT32_MAX) {
    return path + ": file is too large to sign (2 GiB or more)";
  }
  if (file.Close() != 0) return Reason(path, "close", errno);
  return std::string();
}

}  // namespace tessmar::sign
