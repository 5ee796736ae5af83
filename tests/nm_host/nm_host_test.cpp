// tessmar-nm-host as the browser runs it: a child process with pipes on its
// standard input and output, framed messages in and out, a deadline on
// every read, and the whole process group killed at the end.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "bridge_host/host_fixture.h"
#include "config/json_document.h"
#include "messages.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kNmHost[] = TESSMAR_NM_HOST;
constexpr char kLibrary[] = TESSMAR_TEST_LIBRARY;
constexpr std::size_t kMiB = 1024 * 1024;

std::string Frame(const std::string& body) {
  const std::uint32_t length = static_cast<std::uint32_t>(body.size());
  return std::string(reinterpret_cast<const char*>(&length), 4) + body;
}

// `text` as a JSON string: quotes, backslashes and control characters
// escaped, everything else as it is.
std::string JsonString(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[7];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      quoted += escape;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

// {"seq":N,"request":TEXT}
std::string RequestMessage(int seq, const std::string& request) {
  return "{\"seq\":" + std::to_string(seq) + ",\"request\":" +
         JsonString(request) + "}";
}

// The adapter running in its own process group; stderr goes to a file.
class NmHost {
 public:
  explicit NmHost(std::vector<std::string> args) {
    err_path_ = std::string(std::getenv("HOME")) + "/nm-host.err";
    int in[2], out[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    args.insert(args.begin(), kNmHost);
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      dup2(in[0], 0);
      dup2(out[1], 1);
      const int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(err, 2);
      std::vector<char*> argv;
      for (std::string& arg : args) argv.push_back(&arg[0]);
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(126);
    }
    setpgid(pid_, pid_);
    close(in[0]);
    close(out[1]);
    to_ = in[1];
    from_ = out[0];
  }
  ~NmHost() {
    kill(-pid_, SIGKILL);
    if (!reaped_) waitpid(pid_, nullptr, 0);
    if (to_ >= 0) close(to_);
    close(from_);
  }

  void SendRaw(const std::string& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              write(to_, bytes.data(), bytes.size()));
  }
  void Send(const std::string& body) { SendRaw(Frame(body)); }
  void Request(int seq, const std::string& request) {
    Send(RequestMessage(seq, request));
  }
  void CloseInput() {
    close(to_);
    to_ = -1;
  }

  // The next message's body; "<timeout>" or "<eof>" when none comes.
  std::string Next(milliseconds deadline = milliseconds(5000)) {
    std::string header;
    if (!Read(header, 4, deadline)) return header.empty() ? "<eof>" : "<torn>";
    std::uint32_t length;
    std::memcpy(&length, header.data(), 4);
    std::string body;
    return Read(body, length, deadline) ? body : "<torn>";
  }

  // The exit status once the process ends by itself (-1 on a timeout).
  int Wait(milliseconds deadline = milliseconds(5000)) {
    const auto end = Clock::now() + deadline;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() > end) return -1;
      std::this_thread::sleep_for(milliseconds(5));
    }
    reaped_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string Stderr() const { return ReadFile(err_path_); }

 private:
  bool Read(std::string& into, std::size_t size, milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    char buffer[65536];
    while (into.size() < size) {
      const auto left =
          std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
      pollfd fd{from_, POLLIN, 0};
      if (left <= 0 || poll(&fd, 1, static_cast<int>(left)) <= 0) return false;
      const std::size_t want = std::min(size - into.size(), sizeof buffer);
      const ssize_t n = read(from_, buffer, want);
      if (n <= 0) return false;
      into.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
  }

  pid_t pid_ = -1;
  int to_ = -1;
  int from_ = -1;
  bool reaped_ = false;
  std::string err_path_;
};

// A string member of an outgoing message, decoded, or "<absent>".
std::string Text(const std::string& message, const char* name) {
  const JsonDocument document(message);
  const json_value* value = document.Member(name);
  if (value == nullptr || value->type != json_string) return "<absent>";
  return std::string(value->u.string.ptr, value->u.string.length);
}

std::string Envelope(const std::string& id, const std::string& reply) {
  return BuildReplyEnvelope(id.c_str(), "t", REPLY_TRUE, reply.c_str(), "");
}

std::string ModuleRequest(const std::string& id, const std::string& members) {
  return R"({"cmd":"native","id":")" + id +
         R"(","tabid":"t","module":"nm")" + members + "}";
}

// A signed installation with the test module as "nm" and the echo module.
struct Sandbox {
  Sandbox() {
    install.AddModule("nm", TESSMAR_TEST_NM_MODULE);
    install.AddModule("echo", TESSMAR_TEST_ECHO_MODULE);
  }
  TempHome home;
  SignedInstallation install{home};
};

TEST(NmHostTest, AnswersEachMessageInOrderAndEndsWithItsInput) {
  Sandbox sandbox;
  // The browser's own arguments (manifest and extension) are ignored.
  NmHost host({"--library", kLibrary, "/x/zz.qx.pelmora.morrowhost.json",
               "morrowhost@tessmar.example"});
  constexpr char kEcho[] = R"({"cmd":"native","id":"7","tabid":"t","echo":true})";
  host.Request(1, kEcho);
  host.Request(2, "not json");        // no answer: null
  host.Request(3, R"({"init":"x"})");  // "" stays ""
  host.Send("[1,2]");
  host.Send(R"({"request":"{}"})");
  host.Send(R"({"seq":-1,"request":"{}"})");
  host.Send(R"({"seq":4,"request":{"cmd":"native"}})");
  host.Send(R"({"seq":5,"request":"{\"init\":\"get_version\"}\u0000x"})");
  host.Request(6, R"({"init":"get_version","module":"echo"})");

  const std::string echo = process_request(nullptr, kEcho, sizeof kEcho - 1, nullptr);
  EXPECT_EQ("{\"seq\":1,\"reply\":" + nm::Quote(echo) + "}", host.Next());
  EXPECT_EQ(R"({"seq":2,"reply":null})", host.Next());
  EXPECT_EQ(R"({"seq":3,"reply":""})", host.Next());
  for (const char* reason : {"not a JSON object", "\\\"seq\\\" must be",
                             "\\\"seq\\\" must be"}) {
    const std::string message = host.Next();
    EXPECT_EQ(0u, message.find("{\"error\":")) << message;
    EXPECT_NE(std::string::npos, message.find(reason)) << message;
  }
  EXPECT_EQ(0u, host.Next().find(R"({"seq":4,"error":"malformed message: \"request\")"));
  EXPECT_EQ(R"({"seq":5,"error":"the request contains a NUL character"})",
            host.Next());
  EXPECT_EQ(R"({"seq":6,"reply":"\"version: 1.0.0.1\""})", host.Next());

  host.CloseInput();
  EXPECT_EQ("<eof>", host.Next());
  EXPECT_EQ(0, host.Wait());
  EXPECT_EQ("", host.Stderr());
}

TEST(NmHostTest, RepliesTravelAsStringsWhateverTheyHold) {
  Sandbox sandbox;
  NmHost host({"--library", kLibrary});
  // Not JSON, with quotes, backslashes, control characters and non-ASCII.
  const std::string odd = "not json: \"q\" \\ \t\x01 caf\xc3\xa9 \xf0\x9f\x99\x82";
  host.Request(1, ModuleRequest("1", ",\"say\":" + JsonString(odd)));
  EXPECT_EQ(Envelope("1", odd), Text(host.Next(), "reply"));

  // Bytes that are not UTF-8 become U+FFFD; the rest is kept.
  host.Request(2, ModuleRequest("2", R"(,"badUtf8":true)"));
  EXPECT_EQ(Envelope("2", "\"a\xef\xbf\xbd" "b\xef\xbf\xbd(c\""),
            Text(host.Next(), "reply"));

  // A module writing to standard output cannot break the stream.
  host.Request(3, ModuleRequest("3", R"(,"print":true)"));
  EXPECT_EQ(Envelope("3", "{}"), Text(host.Next(), "reply"));
  host.CloseInput();
  EXPECT_EQ(0, host.Wait());
  EXPECT_EQ("a module writing to standard output\n", host.Stderr());
}

TEST(NmHostTest, KeepsEveryMessageWithinTheProtocolsLimits) {
  Sandbox sandbox;
  NmHost host({"--library", kLibrary});
  // A reply that fits, one byte of message more does not.
  const auto letters = [](std::size_t n) {
    return ModuleRequest("1", ",\"bytes\":" + std::to_string(n));
  };
  const std::size_t overhead =
      nm::ReplyMessage(1, Envelope("1", "\"\"").c_str()).size();
  host.Request(1, letters(kMiB - overhead));
  EXPECT_EQ(kMiB, host.Next().size());
  host.Request(1, letters(kMiB - overhead + 1));
  EXPECT_EQ(R"({"seq":1,"error":"reply too large"})", host.Next());

  // A callback too large is dropped; the next one still arrives.
  host.Request(2, ModuleRequest("2", ",\"callbackBytes\":" +
                                         std::to_string(kMiB)));
  EXPECT_EQ(Envelope("2", "{}"), Text(host.Next(), "reply"));
  EXPECT_EQ(0u, Text(host.Next(), "callback")
                    .find(R"({"response":{"id":"setcallback", "tabid":"t1", "callback":"after")"));

  // A message over the input limit is skipped whole and answered.
  host.SendRaw(Frame(std::string(nm::kMaxIncoming + 1, ' ')));
  host.Request(3, R"({"init":"x"})");
  EXPECT_EQ(0u, host.Next().find(R"({"error":"message too large ()"));
  EXPECT_EQ(R"({"seq":3,"reply":""})", host.Next());

  // Input that ends inside a message ends the adapter cleanly.
  host.SendRaw(Frame("{\"seq\":4,\"request\":\"{}\"}").substr(0, 10));
  host.CloseInput();
  EXPECT_EQ("<eof>", host.Next());
  EXPECT_EQ(0, host.Wait());
  const std::string err = host.Stderr();
  EXPECT_NE(std::string::npos, err.find("dropped: too large")) << err;
  EXPECT_NE(std::string::npos, err.find("input ended inside a message")) << err;
}

TEST(NmHostTest, CallbacksArriveWhileNoRequestComes) {
  Sandbox sandbox;
  NmHost host({"--library", kLibrary});
  host.Request(1, R"({"cmd":"setcallback","id":"9","tabid":"t","callback":"cb","module":"echo"})");
  EXPECT_EQ(0u, Text(host.Next(), "reply").find(R"({"response": {"id": "9")"));
  // The echo module answers about 50 ms later, from a thread of its own.
  EXPECT_EQ("{\"callback\":" +
                nm::Quote(R"({"response":{"id":"setcallback", "tabid":"t", "callback":"cb", "reply":{"module":"echo","event":"ping","id":"9"}}})") +
                "}",
            host.Next(milliseconds(3000)));
  host.CloseInput();
  EXPECT_EQ(0, host.Wait());
}

TEST(NmHostTest, HostModeServesThroughTheReferenceHostAndStopsIt) {
  Sandbox sandbox;
  LinkHost(sandbox.install.install_dir(), TESSMAR_TEST_REFERENCE_HOST);
  {
    NmHost host({"--library", kLibrary, "--host"});
    host.Request(1, ModuleRequest("1", R"(,"say":"{\"via\":\"host\"}")"));
    EXPECT_EQ(Envelope("1", R"({"via":"host"})"), Text(host.Next(), "reply"));
    host.Request(2, "");  // would be the host's stop message
    EXPECT_EQ(R"({"seq":2,"error":"an empty request is not sent to the host"})",
              host.Next());
    host.Request(3, R"({"cmd":"setcallback","id":"3","tabid":"t","callback":"cb","module":"echo"})");
    EXPECT_NE("<timeout>", host.Next());
    EXPECT_NE("<absent>", Text(host.Next(milliseconds(3000)), "callback"));
    EXPECT_FALSE(Absent(RequestFifo()));
    host.CloseInput();
    EXPECT_EQ(0, host.Wait());
    EXPECT_EQ("", host.Stderr());
  }
  EXPECT_TRUE(Absent(RequestFifo())) << "tsmx_End removed the FIFOs";

  // Without a host executable host mode is refused before tsmx_Startup.
  TempHome home;
  home.WriteConfig("config.json", "{\"Tessmar\":\"" + home.path() + "/none\"}");
  const ProgramResult result = RunProgram({kNmHost, "--library", kLibrary, "--host"});
  EXPECT_EQ(3, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("/none/TessmarFirefox"));
  EXPECT_TRUE(Absent(RequestFifo()));
}

TEST(NmHostTest, FindsTheLibraryOfTheInstallationOrSaysWhyNot) {
  TempHome home;
  // config.json's "Tessmar" directory when none lies beside the program.
  MakeDirectories(home.path() + "/inst");
  ASSERT_EQ(0, symlink(kLibrary, (home.path() + "/inst/libTessmarFirefox.so").c_str()));
  home.WriteConfig("config.json", "{\"Tessmar\":\"" + home.path() + "/inst\"}");
  ProgramResult result = RunProgram(
      {kNmHost}, Frame(RequestMessage(1, R"({"init":"get_version"})")));
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(Frame(R"({"seq":1,"reply":"\"version: \""})"), result.out);

  const std::string none = home.path() + "/none.so";
  result = RunProgram({kNmHost, "--library", none});
  EXPECT_EQ(1, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find(none));
  EXPECT_EQ("", result.out) << "nothing but protocol on standard output";
}

TEST(NmHostTest, InstallsManifestsForTheBrowsers) {
  TempHome home;
  ProgramResult result = RunProgram({kNmHost, "--install-manifests", "firefox"});
  const std::string firefox =
      home.path() + "/.mozilla/native-messaging-hosts/zz.qx.pelmora.morrowhost.json";
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(firefox + "\n", result.out);
  std::string manifest = ReadFile(firefox);
  EXPECT_EQ("zz.qx.pelmora.morrowhost", Text(manifest, "name"));
  EXPECT_EQ(kNmHost, Text(manifest, "path"));
  EXPECT_EQ("stdio", Text(manifest, "type"));
  EXPECT_NE(std::string::npos,
            manifest.find(R"("allowed_extensions": ["morrowhost@tessmar.example"])"));

  const std::string id(32, 'k');
  result = RunProgram({kNmHost, "--install-manifests", "chromium",
                       "--extension-id", id, "--dir", home.path() + "/udd/NMH"});
  EXPECT_EQ(0, result.exit_code) << result.err;
  manifest = ReadFile(home.path() + "/udd/NMH/zz.qx.pelmora.morrowhost.json");
  EXPECT_NE(std::string::npos,
            manifest.find("\"allowed_origins\": [\"chrome-extension://" + id + "/\"]"));

  struct {
    std::vector<std::string> argv;
    int exit_code;
    const char* message;
  } const refused[] = {
      {{kNmHost, "--install-manifests", "opera"}, 2, "opera"},
      {{kNmHost, "--install-manifests", "chromium", "--extension-id", "abc"}, 2, "abc"},
      {{kNmHost, "--extension-id", id}, 2, "go with --install-manifests"},
      {{kNmHost, "--install-manifests", "firefox", "--host"}, 2, "cannot pass options"},
      {{kNmHost, "--hots"}, 2, "unknown option --hots"},
      {{kNmHost, "--library"}, 2, "needs a value"},
  };
  for (const auto& c : refused) {
    SCOPED_TRACE(c.argv.back());
    result = RunProgram(c.argv);
    EXPECT_EQ(c.exit_code, result.exit_code);
    EXPECT_NE(std::string::npos, result.err.find(c.message)) << result.err;
    EXPECT_EQ("", result.out);
  }
  result = RunProgram({kNmHost, "--version"});
  EXPECT_EQ("tessmar-nm-host " TESSMAR_TEST_VERSION "\n", result.out);
  result = RunProgram({kNmHost, "--help"});
  EXPECT_NE(std::string::npos, result.out.find("exit status"));
}

}  // namespace
}  // namespace tessmar::testing
