#include "file_write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tessmar::tools {
namespace {

std::string Reason(const std::string& subject, const char* step, int error_number) {
  return subject + ": " + step + ": " + std::strerror(error_number);
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

// The process umask. Reading it means setting it; the tools are
// single-threaded while they write, so nothing can create a file between.
mode_t CurrentUmask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

// The mode the replacement of `path` gets; false for a target that must
// not be replaced.
bool TargetMode(const std::string& path, mode_t* mode, std::string* error) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT) {
      *error = path + ": " + std::strerror(errno);
      return false;
    }
    *mode = 0666 & ~CurrentUmask();
    return true;
  }
  if (S_ISLNK(info.st_mode)) {
    *error = path + ": is a symbolic link; not replacing it";
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    *error = path + ": not a regular file";
    return false;
  }
  *mode = info.st_mode & 07777;
  return true;
}

// Makes a rename in `directory` durable.
bool SyncDirectory(const std::string& directory, std::string* error) {
  const int dir = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) {
    *error = directory + ": " + std::strerror(errno);
    return false;
  }
  // Some file systems cannot sync a directory (EINVAL); the rename has
  // happened and nothing more can be done there.
  const bool synced = SyncRetrying(dir) == 0 || errno == EINVAL;
  const int failure = errno;
  ::close(dir);
  if (!synced) *error = Reason(directory, "fsync", failure);
  return synced;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const std::string& data,
                         std::string* error) {
  mode_t mode = 0;
  if (!TargetMode(path, &mode, error)) return false;

  // Beside the target, so that the rename stays within one file system.
  const std::string directory = DirectoryOf(path);
  std::string temporary = directory + "/." + BaseNameOf(path) + ".XXXXXX";
  const int fd = ::mkostemp(&temporary[0], O_CLOEXEC);
  if (fd < 0) {
    *error = Reason(directory, "cannot create a temporary file", errno);
    return false;
  }
  int failure = 0;
  const char* step = nullptr;
  // mkostemp creates the file 0600; it gets its final mode before its name.
  if (::fchmod(fd, mode) != 0) {
    failure = errno;
    step = "fchmod";
  } else if (!WriteAll(fd, data, &failure)) {
    step = "write";
  } else if (SyncRetrying(fd) != 0) {
    failure = errno;
    step = "fsync";
  }
  // close() is not retried after EINTR: Linux has released the descriptor.
  if (::close(fd) != 0 && step == nullptr) {
    failure = errno;
    step = "close";
  }
  if (step == nullptr && ::rename(temporary.c_str(), path.c_str()) != 0) {
    failure = errno;
    step = "rename";
  }
  if (step != nullptr) {
    *error = Reason(path, step, failure);
    ::unlink(temporary.c_str());
    return false;
  }
  return SyncDirectory(directory, error);
}

}  // namespace tessmar::tools
