// tessmar-nm-host as the browser runs it: framed messages on its standard
// input, framed messages back on its standard output. Also its manifest
// commands and its usage line.

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <filesystem>
#include <thread>

#include "bridge_host/host_fixture.h"
#include "config/json_file.h"
#include "messages.h"
#include "support/piped_child.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kNmHost[] = TESSMAR_NM_HOST;
constexpr char kLibrary[] = TESSMAR_TEST_LIBRARY;
constexpr char kManifest[] = "zz.qx.pelmora.morrowhost.json";
constexpr std::size_t kMiB = 1024 * 1024;

std::string Quoted(const std::string& text) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string Request(int seq, const std::string& request) {
  return Frame("{\"seq\":" + std::to_string(seq) + ",\"request\":" + Quoted(request) + "}");
}

std::string ErrFile() { return std::string(std::getenv("HOME")) + "/err"; }

// The adapter as a browser keeps it: running, its pipes open, while the test
// writes messages and reads answers. Its stderr goes to HOME/err.
struct Adapter : PipedChild {
  explicit Adapter(std::vector<std::string> argv)
      : PipedChild(std::move(argv),
                   [] { dup2(open(ErrFile().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), 2); }),
        mode(Read()) {}
  const std::string mode;  // its first message
};

// A string member of a message, decoded ("" when absent).
std::string Text(const std::string& message, const char* name) {
  return JsonDocument(message).String(name);
}

std::string Envelope(const std::string& id, const std::string& reply) {
  return BuildReplyEnvelope(id.c_str(), "t", REPLY_TRUE, reply.c_str(), "");
}

std::string ModuleRequest(const std::string& id, const std::string& members) {
  return R"({"cmd":"native","id":")" + id +
         R"(","tabid":"t","module":"nm")" + members + "}";
}

// A signed installation of the built library, named by config.json, with
// the test module as "nm" and the example module as "echo".
class NmHostTest : public ::testing::Test {
 protected:
  NmHostTest() {
    const std::string library = install.install_dir() + "/libTessmarFirefox.so";
    unlink(library.c_str());
    EXPECT_EQ(0, symlink(kLibrary, library.c_str()));
    install.Sign();
    install.AddModule("nm", TESSMAR_TEST_NM_MODULE);
    install.AddModule("echo", TESSMAR_TEST_ECHO_MODULE);
  }
  TempHome home;
  SignedInstallation install{home};
};

// Started as a browser starts it: its own arguments (manifest and
// extension) are ignored, and the library is the one config.json names. It
// answers each message in order and ends with its input. It sleeps in poll()
// while nothing happens, and a callback queued by a module's own thread wakes
// it at once. Nothing a page sends makes it big: an oversized message is read
// away in chunks, and input waits in the browser's pipe while a request is
// served, however much of it comes. Every message it writes keeps within the
// protocol's limits.
TEST_F(NmHostTest, AnswersInOrderSleepsWhileIdleAndKeepsWithinTheProtocolsLimits) {
  Adapter adapter({kNmHost, "/x/zz.qx.pelmora.morrowhost.json", "morrowhost@tessmar.example"});
  EXPECT_EQ(R"({"mode":"in-process"})", adapter.mode);
  adapter.Write(Request(1, R"({"cmd":"setcallback","id":"9","tabid":"t","callback":"cb","module":"echo"})"));
  EXPECT_EQ(0u, Text(adapter.Read(), "reply").find(R"({"response": {"id": "9")"));
  EXPECT_EQ(R"({"response":{"id":"setcallback", "tabid":"t", "callback":"cb", "reply":{"module":"echo","event":"ping","id":"9"}}})",
            Text(adapter.Read(), "callback"));
  std::this_thread::sleep_for(milliseconds(100));  // to its waiting point
  const long before = adapter.ContextSwitches();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(0, adapter.ContextSwitches() - before) << "wake-ups in a second of idleness";

  // Not JSON, with quotes, backslashes, control characters and non-ASCII;
  // bytes that are not UTF-8 become U+FFFD, each byte of a broken sequence
  // on its own.
  const std::string odd = "not json: \"q\" \\ \t\x01\x1f caf\xc3\xa9 \xf0\x9f\x99\x82 ";
  const std::string broken = "\xff\xe2\x82(", repaired = "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd(";
  std::string input =
      Request(1, "not json") + Request(2, R"({"init":"x"})") +
      Frame("[1,2]") + Frame(R"({"request":"{}"})") +
      Frame(R"({"seq":3,"request":{"cmd":"native"}})") +
      Frame(R"({"seq":4,"request":"{\"init\":\"get_version\"}\u0000x"})") +
      Request(5, ModuleRequest("1", ",\"say\":" + Quoted(odd + broken))) +
      // A module writing to standard output cannot break the stream.
      Request(6, ModuleRequest("3", R"(,"print":true)")) +
      // The example module takes only callback names that need no escaping.
      Request(7, R"({"cmd":"setcallback","id":"4","tabid":"t","callback":"a\"b","module":"echo"})");
  // Empty arrays are what costs the parser most per byte of text (about 17
  // times it); no module is loaded to parse them again.
  const auto arrays = [](std::size_t bytes) {
    std::string request = R"({"cmd":"native","id":"1","tabid":"t","module":"absent","pad":[[])";
    while (request.size() + 5 < bytes) request += ",[]";
    return request + "]}";
  };
  const std::string largest = Request(1, arrays(nm::kMaxIncoming - 64));
  input += Request(1, ModuleRequest("1", R"(,"sleepMs":200)")) + Request(2, arrays(63 * kMiB));
  for (int i = 0; i < 8; ++i) input += largest;
  const auto letters = [](std::size_t n) {
    return Request(3, ModuleRequest("3", ",\"say\":\"" + std::string(n, 'x') + "\""));
  };
  // {"seq":3,"reply":"..."} around the envelope of an empty reply.
  constexpr std::size_t overhead = 121;
  // A reply that fits, one byte of message more does not.
  input += letters(kMiB - overhead) + letters(kMiB - overhead + 1);
  // A callback too large is dropped; the next one still arrives.
  input += Request(4, ModuleRequest("4", ",\"callbackBytes\":" + std::to_string(kMiB)));
  // Over the input limit without a "seq" in its first bytes.
  input += Frame(std::string(nm::kMaxIncoming + 1, ' '));
  // Input that ends inside a message ends the adapter cleanly.
  input += Request(5, "{}").substr(0, 10);
  // The input is written, then closed, while the answers are read to the end.
  std::thread writer([&] {
    adapter.Write(input);
    adapter.CloseInput();
  });
  std::vector<std::string> messages;
  for (std::string m; (m = adapter.Read()) != "<none>";) messages.push_back(m);
  writer.join();
  rusage usage{};
  EXPECT_EQ(0, adapter.Wait(usage)) << "its exit status";
  const std::string err = ReadFile(ErrFile());
  ASSERT_EQ(24u, messages.size()) << err;
  auto next = messages.begin();
  EXPECT_EQ(R"({"seq":1,"reply":null})", *next++);
  EXPECT_EQ(R"({"seq":2,"reply":""})", *next++);
  EXPECT_EQ(0u, next++->find(R"({"error":"malformed message: not a JSON object)"));
  EXPECT_EQ(0u, next++->find(R"({"error":"malformed message: \"seq\" must be)"));
  EXPECT_EQ(0u, next++->find(R"({"seq":3,"error":"malformed message: \"request\")"));
  EXPECT_EQ(R"({"seq":4,"error":"the request contains a NUL character"})", *next++);
  EXPECT_EQ(Envelope("1", odd + repaired), Text(*next++, "reply"));
  EXPECT_EQ(Envelope("3", "{}"), Text(*next++, "reply"));
  EXPECT_NE(std::string::npos,
            Text(*next++, "reply").find(R"("reply":{"module":"echo","registered":false})"));
  EXPECT_EQ(Envelope("1", "{}"), Text(*next++, "reply"));
  EXPECT_EQ(0u, next++->find("{\"seq\":2,\"error\":\"request too large ("));
  const std::string refused = BuildReplyEnvelope("1", "t", REPLY_FALSE, "{}", "");
  for (int i = 0; i < 8; ++i) EXPECT_EQ(refused, Text(*next++, "reply"));
  EXPECT_EQ(kMiB, next++->size());
  EXPECT_EQ(R"({"seq":3,"error":"reply too large"})", *next++);
  EXPECT_EQ(Envelope("4", "{}"), Text(*next++, "reply"));
  EXPECT_EQ(0u, Text(*next++, "callback")
                    .find(R"({"response":{"id":"setcallback", "tabid":"t1", "callback":"after")"));
  EXPECT_EQ(R"x({"error":"request too large (4194305 bytes, at most 4194304)"})x", *next++);
  for (const char* logged : {"a module writing to standard output\n", "dropped: too large",
                             "input ended inside a message"}) {
    EXPECT_NE(std::string::npos, err.find(logged)) << err;
  }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(usage.ru_maxrss, 128 * 1024) << "KiB at the peak";  // sanitizers need more
#endif
}

// Through the reference host, which is stopped at the end. A browser may
// start the adapter with a standard stream closed: it is opened on /dev/null,
// so that a module's output goes nowhere and no file opened later (a FIFO to
// the host) takes the stream's place.
TEST_F(NmHostTest, ServesThroughTheHostWithAStandardStreamClosed) {
  ASSERT_EQ(0, symlink(TESSMAR_TEST_REFERENCE_HOST, (install.install_dir() + "/TessmarFirefox").c_str()));
  const auto run = [](const std::string& options) {
    return RunProgram({"/bin/sh", "-c", "exec \"$0\" --library \"$1\" " + options, kNmHost, kLibrary},
                      Request(1, ModuleRequest("1", R"(,"say":"{\"via\":\"host\"}")")) +
                          Request(2, ModuleRequest("2", R"(,"print":true)")) +
                          // An empty request would be the host's stop message.
                          Request(3, ""));
  };
  const auto reply = [](int seq, const std::string& envelope) {
    return Frame("{\"seq\":" + std::to_string(seq) + ",\"reply\":" + Quoted(envelope) + "}");
  };
  const ProgramResult result = run("--host 2>&-");
  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ(Frame(R"({"mode":"host"})") + reply(1, Envelope("1", R"({"via":"host"})")) +
                reply(2, Envelope("2", "{}")) +
                Frame(R"({"seq":3,"error":"an empty request is not sent to the host"})"),
            result.out);
  EXPECT_EQ("absent", Node(RequestFifo())) << "tsmx_End removed the FIFOs";
  // Without a standard output it answers into /dev/null and ends as usual.
  EXPECT_EQ(0, run(">&-").exit_code);
}

// Manifests go where each browser looks (what they say is proven by the
// browser tests, which start the adapter through them). Uninstalling removes
// what installing wrote; with nothing left to remove it succeeds quietly, and
// the other browsers' files stay. The usage line names the program as
// started. In a shared directory a planted link is never followed, replaced
// or removed. Refusals print nothing on standard output.
TEST(NmHostCommandTest, AnswersItsCommandLine) {
  TempHome home;
  const std::string firefox = home.path() + "/.mozilla/native-messaging-hosts/" + kManifest;
  const std::string chromium = home.path() + "/.config/chromium/NativeMessagingHosts/" + kManifest;
  const std::string id = "abcdefghijklmnopponmlkjihgfedcba";  // 'a' to 'p' are taken
  const std::string usage = " [--library PATH] [--host] [CALLER...]\n";
  const std::string dir = home.path() + "/shared";
  const std::string victim = home.WriteHomeFile("victim", "precious");
  MakeDirectories(dir);
  ASSERT_EQ(0, symlink(victim.c_str(), (dir + "/" + kManifest).c_str()));
  const struct {
    std::vector<std::string> argv;
    int exit_code;
    std::string out;  // the first line of standard output
    std::string err;  // a part of standard error
  } cases[] = {
      {{kNmHost, "--install-manifests", "firefox"}, 0, firefox + "\n", ""},
      {{kNmHost, "--install-manifests", "chromium", "--extension-id", id}, 0, chromium + "\n", ""},
      {{kNmHost, "--uninstall-manifests", "firefox"}, 0, firefox + "\n", ""},
      {{kNmHost, "--uninstall-manifests", "firefox"}, 0, "", ""},
      {{kNmHost, "--help"}, 0, "usage: tessmar-nm-host" + usage, ""},
      {{TESSMAR_NM_HOST_INSTALLED, "--help"}, 0, "usage: TessmarChrome" + usage, ""},
      {{kNmHost, "--install-manifests", "firefox", "--dir", dir}, 1, "", "symbolic link"},
      {{kNmHost, "--uninstall-manifests", "firefox", "--dir", dir}, 1, "", "symbolic link"},
      {{kNmHost, "--install-manifests", "opera"}, 2, "", R"(not "opera")"},
      {{kNmHost, "--install-manifests", "chromium", "--extension-id", "abc"}, 2, "",
       "not an extension id"},
      {{kNmHost, "--install-manifests", "chromium", "--extension-id", std::string(32, 'q')}, 2, "",
       "not an extension id"},
      {{kNmHost, "--extension-id", std::string(32, 'a')}, 2, "", "--extension-id goes with"},
      {{kNmHost, "--install-manifests", "firefox", "--host"}, 2, "", "cannot pass options"},
      {{kNmHost, "--library"}, 2, "", "--library needs a value"}};
  for (const auto& c : cases) {
    const ProgramResult result = RunProgram(c.argv);
    EXPECT_EQ(c.exit_code, result.exit_code) << c.argv[1] << " " << c.argv.back();
    EXPECT_EQ(c.out, result.out.substr(0, result.out.find('\n') + 1));
    EXPECT_NE(std::string::npos, result.err.find(c.err)) << result.err;
  }
  EXPECT_EQ("absent", Node(firefox));
  EXPECT_NE(std::string::npos,
            ReadFile(chromium).find("\"allowed_origins\": [\"chrome-extension://" + id + "/\"]"));
  EXPECT_EQ(std::string::npos,
            RunProgram({TESSMAR_NM_HOST_INSTALLED, "--help"}).out.find(TESSMAR_BUILD_DIR));
  EXPECT_TRUE(std::filesystem::is_symlink(dir + "/" + kManifest));
  EXPECT_EQ("precious", ReadFile(victim));
  // Nothing else was left there either, no temporary file.
  EXPECT_EQ(std::string(kManifest) + "\n", RunProgram({"/bin/ls", "-A", dir}).out);
}

}  // namespace
}  // namespace tessmar::testing
