// Starting and stopping the host process and its three FIFOs.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "bridge/bridge_state.h"
#include "config/config_location.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"

namespace tessmar::bridge {
namespace {

constexpr mode_t kFifoMode = 0600;
constexpr mode_t kDirectoryMode = 0755;

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// Anything at the path, a dangling symbolic link included.
bool SomethingAt(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// Set once the reader thread has been joined, so that a repeated tsmx_End
// never joins a thread twice.
bool g_readerJoined = false;

}  // namespace

std::string FifoDirectory() {
  // HOME is taken as it is; unset reads as empty.
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : "") + kUserConfigSubdirectory +
         "/";
}

bool CreateDirectories(std::string& path) {
  if (!path.empty() && path.back() == '/') path.pop_back();
  if (Exists(path)) return true;
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos) {
    std::string parent = path.substr(0, slash);
    if (!CreateDirectories(parent)) return false;
  }
  // A directory that appeared meanwhile makes mkdir fail: counted as failure.
  return mkdir(path.c_str(), kDirectoryMode) == 0;
}

}  // namespace tessmar::bridge

using namespace tessmar::bridge;

int tsmx_Startup(void) {
  const std::string directory = FifoDirectory();
  if (!Exists(directory)) {
    std::string copy = directory;
    CreateDirectories(copy);  // a failure shows as a failed mkfifo below
  }
  r_fifo_path = directory + kReplyFifoName;
  w_fifo_path = directory + kRequestFifoName;
  cb_fifo_path = directory + kCallbackFifoName;

  // Stale pipes (or anything else) of an earlier run go unconditionally.
  for (const std::string* path : {&r_fifo_path, &w_fifo_path, &cb_fifo_path}) {
    if (SomethingAt(*path)) unlink(path->c_str());
  }
  for (const std::string* path : {&r_fifo_path, &w_fifo_path, &cb_fifo_path}) {
    if (mkfifo(path->c_str(), kFifoMode) != 0) return 1;
  }

  // The host path is read before the fork: the child of a threaded process
  // should do no more than exec.
  std::string host = GetTessmarInstallPath() + "/" + kHostExecutableName;
  const pid_t pid = fork();
  if (pid < 0) {
    child_pid = 0;
    return 1;
  }
  if (pid == 0) {
    char* argv[] = {&host[0], nullptr};
    execvp(host.c_str(), argv);
    // The failed child deliberately returns into its caller like any failed
    // start; the extension's process decides what its copy does next.
    child_pid = 0;
    return 1;
  }
  child_pid = pid;

  // The host must open its ends in the same order (request for reading,
  // then reply and callback for writing), or both sides block here.
  w_fifo = open(w_fifo_path.c_str(), O_WRONLY);
  r_fifo = open(r_fifo_path.c_str(), O_RDONLY);
  cb_fifo = open(cb_fifo_path.c_str(), O_RDONLY);

  cb_loop = 1;
  g_readerJoined = false;
  pthread_create(&g_CallbackThread, nullptr, ReadCallbackThread, nullptr);
  set_Startup = true;
  return 0;
}

void tsmx_End(void) {
  if (!set_Startup) return;

  const FrameLength stop = 0;  // the stop message
  if (write(w_fifo, &stop, sizeof stop) < 0) {
    // The host is gone; nothing else to tell it.
  }
  fsync(w_fifo);

  // Each descriptor is taken out of use (-1) before it is closed, so neither
  // the reader thread nor a later tsmx_Invoke can reach a file that has
  // reused the number; they fail on a bad descriptor instead.
  close(w_fifo.exchange(-1));
  close(r_fifo.exchange(-1));
  close(cb_fifo.exchange(-1));

  // The reader leaves its blocking read when the host, told to stop,
  // closes its end of the callback FIFO.
  cb_loop = 0;
  if (!g_readerJoined) {
    pthread_join(g_CallbackThread, nullptr);
    g_readerJoined = true;
  }

  int status = 0;
  waitpid(-1, &status, 0);  // any child: the host's exit status is not used

  unlink(r_fifo_path.c_str());
  unlink(w_fifo_path.c_str());
  unlink(cb_fifo_path.c_str());
}
