#include "server.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "frame.h"
#include "messages.h"
#include "options.h"
#include "posix_io.h"

namespace tessmar::nm {
namespace {

// Reads exactly `size` bytes; false at end of input or on an error.
bool ReadExactly(int fd, char* buffer, std::size_t size) {
  return tools::ReadFully(fd, buffer, size) == static_cast<ssize_t>(size);
}

class Server {
 public:
  Server(const tools::Bridge& bridge, int in, int out, bool host)
      : bridge_(bridge), in_(in), out_(out), host_(host) {}

  int Run() {
    Send(ModeMessage(host_));
    const int callbacks = bridge_.CallbackDescriptor();
    pollfd waits[2] = {{in_, POLLIN, 0}, {callbacks, POLLIN, 0}};
    // Without the descriptor (no eventfd could be made) the queue is
    // looked at every few milliseconds instead.
    const int timeout = callbacks >= 0 ? -1 : 5;
    bool input_open = true;
    while (input_open && !browser_gone_) {
      const int ready = poll(waits, callbacks >= 0 ? 2 : 1, timeout);
      if (ready < 0 && errno != EINTR) break;
      if (ready > 0 && waits[0].revents != 0) input_open = ServeOneMessage();
      DrainCallbacks();
    }
    // Stop the modules (the host's, or those loaded in this process), so
    // that none is left running threads, then pass on what they sent
    // before they stopped.
    if (host_) {
      bridge_.End();
    } else {
      bridge_.Unload();
    }
    DrainCallbacks();
    return browser_gone_ ? kExitBrowserGone : kExitOk;
  }

 private:
  // Reads and answers one message; false at the end of the input.
  bool ServeOneMessage() {
    std::uint32_t length = 0;
    if (tools::ReadFrameLength(in_, length) != tools::FrameRead::kMessage) return false;
    if (length > kMaxIncoming) return SkipOversized(length);
    body_.resize(length);
    if (!ReadExactly(in_, &body_[0], length)) {
      std::fprintf(stderr,
                   "tessmar-nm-host: input ended inside a message of %u "
                   "bytes\n",
                   static_cast<unsigned>(length));
      return false;
    }
    const Incoming message = ParseIncoming(body_.data(), length);
    // The buffer keeps the capacity of the largest message so far; a large
    // one is not kept for the rest of the session.
    if (body_.capacity() > kKeptBuffer) std::string().swap(body_);
    if (!message.error.empty()) {
      Send(ErrorMessage(message.has_seq, message.seq, message.error));
    } else {
      Answer(message);
    }
    return true;
  }

  // Reads a message over the limit away in chunks, never holding it whole,
  // and answers it with an error under its "seq" when its first bytes tell.
  bool SkipOversized(std::uint32_t length) {
    char chunk[65536];
    std::size_t left = length;
    SeqPrefix seq;
    while (left > 0) {
      const std::size_t n = left < sizeof chunk ? left : sizeof chunk;
      if (!ReadExactly(in_, chunk, n)) return false;
      if (left == length) seq = ReadSeqPrefix(chunk, n);
      left -= n;
    }
    Send(ErrorMessage(seq.found, seq.seq,
                      "request too large (" + std::to_string(length) +
                          " bytes, at most " + std::to_string(kMaxIncoming) +
                          ")"));
    return true;
  }

  void Answer(const Incoming& message) {
    if (host_ && message.request.empty()) {
      // A zero-length message is the host's stop message.
      Send(ErrorMessage(true, message.seq,
                        "an empty request is not sent to the host"));
      return;
    }
    char* reply = bridge_.Invoke(message.request.c_str());
    std::string text = ReplyMessage(message.seq, reply);
    const std::size_t reply_size = reply != nullptr ? std::strlen(reply) : 0;
    bridge_.Free(reply);
    if (text.size() > kMaxOutgoing) {
      std::fprintf(stderr,
                   "tessmar-nm-host: reply of %zu bytes to request %lld is "
                   "too large for the browser\n",
                   reply_size, static_cast<long long>(message.seq));
      text = ErrorMessage(true, message.seq, "reply too large");
    }
    Send(text);
  }

  void DrainCallbacks() {
    while (!browser_gone_) {
      char* text = bridge_.Pop();
      if (text == nullptr) return;
      const std::string callback = text;
      bridge_.Free(text);
      if (callback.empty()) return;  // "" is the empty queue
      const std::string message = CallbackMessage(callback);
      if (message.size() > kMaxOutgoing) {
        std::fprintf(stderr,
                     "tessmar-nm-host: callback of %zu bytes dropped: too "
                     "large for the browser\n",
                     callback.size());
        continue;
      }
      Send(message);
    }
  }

  void Send(const std::string& message) {
    if (browser_gone_) return;
    const std::string frame = tools::Frame(message);
    if (!tools::WriteFully(out_, frame.data(), frame.size())) {
      std::fprintf(stderr, "tessmar-nm-host: cannot write to the browser: %s\n",
                   std::strerror(errno));
      browser_gone_ = true;
    }
  }

  // Messages up to this size leave their buffer allocated for the next one.
  static constexpr std::size_t kKeptBuffer = 64 * 1024;

  const tools::Bridge& bridge_;
  const int in_;
  const int out_;
  const bool host_;
  std::string body_;  // the message being read
  bool browser_gone_ = false;
};

}  // namespace

int Serve(const tools::Bridge& bridge, int in, int out, bool host) {
  return Server(bridge, in, out, host).Run();
}

}  // namespace tessmar::nm
