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

int OpenRetrying(const char* path, int flags) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

int SyncRetrying(int fd) {
  int result;
  do {
    result = ::fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result;
}

bool WriteAll(int fd, const std::string& data, int* error_number) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error_number = errno;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// The directory part of `path` ("." for a bare name, "/" for the root).
std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The process umask. Reading it means setting it; the tool is
// single-threaded, so nothing can create a file in between.
mode_t CurrentUmask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

// Where a replacement of `path` must be written and with which mode.
bool ResolveTarget(const std::string& path, std::string* target, mode_t* mode,
                   std::string* error) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT) {
      *error = Reason(path, errno);
      return false;
    }
    *target = path;
    *mode = 0666 & ~CurrentUmask();
    return true;
  }
  *target = path;
  if (S_ISLNK(info.st_mode)) {
    // Renaming over the link would replace the link itself; update the file
    // it points to instead, as an editor would.
    if (!AbsolutePath(path, target, error)) return false;
    if (::stat(target->c_str(), &info) != 0) {
      *error = Reason(*target, errno);
      return false;
    }
  }
  if (!S_ISREG(info.st_mode)) {
    *error = *target + ": not a regular file";
    return false;
  }
  *mode = info.st_mode & 07777;
  return true;
}

// Makes a rename in `directory` durable.
bool SyncDirectory(const std::string& directory, std::string* error) {
  Descriptor dir(OpenRetrying(directory.c_str(), O_RDONLY | O_DIRECTORY));
  if (!dir.valid()) {
    *error = Reason(directory, errno);
    return false;
  }
  // Some file systems cannot sync a directory (EINVAL); the rename has
  // happened and nothing more can be done there.
  if (SyncRetrying(dir.get()) != 0 && errno != EINVAL) {
    *error = Reason(directory, "fsync", errno);
    return false;
  }
  if (dir.Close() != 0) {
    *error = Reason(directory, "close", errno);
    return false;
  }
  return true;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* data,
                   std::string* error, bool* missing) {
  if (missing != nullptr) *missing = false;
  Descriptor file(OpenRetrying(path.c_str(), O_RDONLY));
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
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(file.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = Reason(path, "read", errno);
      return false;
    }
    if (n == 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  if (file.Close() != 0) {
    *error = Reason(path, "close", errno);
    return false;
  }
  data->swap(text);
  return true;
}

bool WriteFileAtomically(const std::string& path, const std::string& data,
                         std::string* error) {
  std::string target;
  mode_t mode = 0;
  if (!ResolveTarget(path, &target, &mode, error)) return false;

  // The temporary file lives beside the target so that the rename stays
  // within one file system and is atomic.
  const std::string directory = DirectoryOf(target);
  std::string temporary = directory + "/." + BaseNameOf(target) + ".XXXXXX";
  Descriptor file(::mkostemp(&temporary[0], O_CLOEXEC));
  if (!file.valid()) {
    *error = Reason(directory, "cannot create a temporary file", errno);
    return false;
  }

  int failure = 0;
  const char* step = nullptr;
  // mkostemp creates the file 0600; give it the final mode before it gets
  // its name, so the file never appears with the wrong permissions.
  if (::fchmod(file.get(), mode) != 0) {
    failure = errno;
    step = "fchmod";
  } else if (!WriteAll(file.get(), data, &failure)) {
    step = "write";
  } else if (SyncRetrying(file.get()) != 0) {
    failure = errno;
    step = "fsync";
  } else if (file.Close() != 0) {
    failure = errno;
    step = "close";
  } else if (::rename(temporary.c_str(), target.c_str()) != 0) {
    failure = errno;
    step = "rename";
  }
  if (step != nullptr) {
    *error = Reason(target, step, failure);
    // The descriptor (if still open) is closed by its owner; the name goes.
    ::unlink(temporary.c_str());
    return false;
  }
  return SyncDirectory(directory, error);
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
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return Reason(path, errno);
  if (!S_ISREG(info.st_mode)) return path + ": not a regular file";
  if (info.st_size == 0) {
    return path + ": file is empty; an empty file has no signature";
  }
  if (info.st_size > INT32_MAX) {
    return path + ": file is too large to sign (2 GiB or more)";
  }
  Descriptor file(OpenRetrying(path.c_str(), O_RDONLY));
  if (!file.valid()) return Reason(path, errno);
  if (file.Close() != 0) return Reason(path, "close", errno);
  return std::string();
}

}  // namespace tessmar::sign
