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
constexpr char kInProcess[] = R"({"mode":"in-process"})";
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
// writes messages and reads answers. Its stderr goes to HOME/err, unless
// `closed` names a standard descriptor it starts without.
struct Adapter : PipedChild {
  explicit Adapter(std::vector<std::string> args, int closed = -1)
      : PipedChild([&args] {
                     args.insert(args.begin(), kNmHost);
                     return args;
                   }(),
                   [closed] {
                     close(closed >= 0 ? closed : 2);
                     if (closed < 0) open(ErrFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                   }),
        mode(Read()) {}
  const std::string mode;  // its first message
};

struct Session {
  int exit_code;
  std::vector<std::string> messages;  // after the mode
  std::string err;
};

// Writes `input`, closes the adapter's input and reads its output to the end.
Session Finish(Adapter& adapter, const std::string& input = "") {
  std::thread writer([&] {
    adapter.Write(input);
    adapter.CloseInput();
  });
  Session session{};
  for (std::string m; (m = adapter.Read()) != "<none>";) session.messages.push_back(m);
  writer.join();
  const int status = adapter.Wait().status;
  session.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  session.err = ReadFile(ErrFile());
  return session;
}

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

constexpr char kSetCallback[] =
    R"({"cmd":"setcallback","id":"9","tabid":"t","callback":"cb","module":"echo"})";

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
// extension) are ignored, and the library is the one config.json names.
TEST_F(NmHostTest, AnswersEachMessageInOrderAndEndsWithItsInput) {
  // Not JSON, with quotes, backslashes, control characters and non-ASCII.
  const std::string odd = "not json: \"q\" \\ \t\x01\x1f caf\xc3\xa9 \xf0\x9f\x99\x82";
  Adapter adapter({"/x/zz.qx.pelmora.morrowhost.json", "morrowhost@tessmar.example"});
  EXPECT_EQ(kInProcess, adapter.mode);
  const Session session = Finish(
      adapter,
      Request(1, "not json") + Request(2, R"({"init":"x"})") +
          Frame("[1,2]") + Frame(R"({"request":"{}"})") +
          Frame(R"({"seq":3,"request":{"cmd":"native"}})") +
          Frame(R"({"seq":4,"request":"{\"init\":\"get_version\"}\u0000x"})") +
          Request(5, R"({"init":"get_version","module":"echo"})") +
          Request(6, ModuleRequest("1", ",\"say\":" + Quoted(odd))) +
          // Bytes that are not UTF-8 become U+FFFD; the rest is kept.
          Request(7, ModuleRequest("2", R"(,"badUtf8":true)")) +
          // A module writing to standard output cannot break the stream.
          Request(8, ModuleRequest("3", R"(,"print":true)")) +
          // The example module takes only callback names that need no escaping.
          Request(9, R"({"cmd":"setcallback","id":"4","tabid":"t","callback":"a\"b","module":"echo"})"));
  EXPECT_EQ(0, session.exit_code);
  EXPECT_EQ("a module writing to standard output\n", session.err);
  ASSERT_EQ(11u, session.messages.size());
  EXPECT_EQ(R"({"seq":1,"reply":null})", session.messages[0]);
  EXPECT_EQ(R"({"seq":2,"reply":""})", session.messages[1]);
  EXPECT_EQ(0u, session.messages[2].find(R"({"error":"malformed message: not a JSON object)"));
  EXPECT_EQ(0u, session.messages[3].find(R"({"error":"malformed message: \"seq\" must be)"));
  EXPECT_EQ(0u, session.messages[4].find(R"({"seq":3,"error":"malformed message: \"request\")"));
  EXPECT_EQ(R"({"seq":4,"error":"the request contains a NUL character"})",
            session.messages[5]);
  EXPECT_EQ(R"({"seq":5,"reply":"\"version: 1.0.0.1\""})", session.messages[6]);
  EXPECT_EQ(Envelope("1", odd), Text(session.messages[7], "reply"));
  EXPECT_EQ(Envelope("2", "\"a\xef\xbf\xbd" "b\xef\xbf\xbd(c\""),
            Text(session.messages[8], "reply"));
  // A sequence broken after its second byte is replaced byte by byte too.
  EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbd(", nm::RepairUtf8("\xe2\x82("));
  EXPECT_EQ(Envelope("3", "{}"), Text(session.messages[9], "reply"));
  EXPECT_NE(std::string::npos,
            Text(session.messages[10], "reply").find(R"("reply":{"module":"echo","registered":false})"));
}

// A browser may start the adapter with a standard stream closed: it is
// opened on /dev/null, so that a module's output goes nowhere and no file
// opened later takes the stream's place.
TEST_F(NmHostTest, RunsWithAStandardStreamClosed) {
  const std::string print = Request(1, ModuleRequest("3", R"(,"print":true)"));
  Adapter no_stderr({"--library", kLibrary}, 2);
  EXPECT_EQ(kInProcess, no_stderr.mode);
  const Session session = Finish(no_stderr, print);
  ASSERT_EQ(1u, session.messages.size());
  EXPECT_EQ(Envelope("3", "{}"), Text(session.messages[0], "reply"));
  // Without a standard output it answers into /dev/null and ends as usual.
  Adapter no_stdout({"--library", kLibrary}, 1);
  EXPECT_EQ(0, Finish(no_stdout, print).exit_code);
}

TEST_F(NmHostTest, KeepsEveryMessageWithinTheProtocolsLimits) {
  const auto letters = [](std::size_t n) {
    return ModuleRequest("1", ",\"bytes\":" + std::to_string(n));
  };
  // {"seq":1,"reply":"..."} around the envelope of an empty string.
  constexpr std::size_t overhead = 125;
  Adapter adapter({"--library", kLibrary});
  const Session session = Finish(
      adapter,
      // A reply that fits, one byte of message more does not.
      Request(1, letters(kMiB - overhead)) +
          Request(1, letters(kMiB - overhead + 1)) +
          // A callback too large is dropped; the next one still arrives.
          Request(2, ModuleRequest("2", ",\"callbackBytes\":" + std::to_string(kMiB))) +
          // A message over the input limit is read away and answered (under
          // its "seq" when its first bytes carry one: StaysSmallWhateverPagesSend).
          Frame(std::string(nm::kMaxIncoming + 1, ' ')) +
          // Input that ends inside a message ends the adapter cleanly.
          Request(4, "{}").substr(0, 10));
  EXPECT_EQ(0, session.exit_code);
  ASSERT_EQ(5u, session.messages.size()) << session.err;
  EXPECT_EQ(kMiB, session.messages[0].size());
  EXPECT_EQ(R"({"seq":1,"error":"reply too large"})", session.messages[1]);
  EXPECT_EQ(Envelope("2", "{}"), Text(session.messages[2], "reply"));
  EXPECT_EQ(0u, Text(session.messages[3], "callback")
                    .find(R"({"response":{"id":"setcallback", "tabid":"t1", "callback":"after")"));
  EXPECT_EQ(R"x({"error":"request too large (4194305 bytes, at most 4194304)"})x",
            session.messages[4]);
  EXPECT_NE(std::string::npos, session.err.find("dropped: too large")) << session.err;
  EXPECT_NE(std::string::npos, session.err.find("input ended inside a message"))
      << session.err;
}

// Through the reference host: a module's callback arrives while no request
// comes, and the host is stopped at the end.
TEST_F(NmHostTest, CarriesCallbacksThroughTheHost) {
  LinkHost(install.install_dir(), TESSMAR_TEST_REFERENCE_HOST);
  Adapter adapter({"--library", kLibrary, "--host"});
  EXPECT_EQ(R"({"mode":"host"})", adapter.mode);
  adapter.Write(Request(1, ModuleRequest("1", R"(,"say":"{\"via\":\"host\"}")")) +
                Request(2, "") + Request(3, kSetCallback));
  EXPECT_EQ(Envelope("1", R"({"via":"host"})"), Text(adapter.Read(), "reply"));
  // An empty request would be the host's stop message.
  EXPECT_EQ(R"({"seq":2,"error":"an empty request is not sent to the host"})",
            adapter.Read());
  EXPECT_EQ(0u, Text(adapter.Read(), "reply").find(R"({"response": {"id": "9")"));
  EXPECT_EQ(R"({"response":{"id":"setcallback", "tabid":"t", "callback":"cb", "reply":{"module":"echo","event":"ping","id":"9"}}})",
            Text(adapter.Read(), "callback"));
  const Session session = Finish(adapter);
  EXPECT_EQ(0, session.exit_code);
  EXPECT_EQ("", session.err);
  EXPECT_TRUE(session.messages.empty());
  EXPECT_EQ("absent", Node(RequestFifo())) << "tsmx_End removed the FIFOs";
}

// Nothing a page sends makes the adapter big: an oversized message is read
// away in chunks, and input waits in the browser's pipe while a request is
// served, however much of it comes.
TEST_F(NmHostTest, StaysSmallWhateverPagesSend) {
  Adapter adapter({"--library", kLibrary});
  // Empty arrays are what costs the parser most per byte of text (about 17
  // times it); no module is loaded to parse them again.
  const auto arrays = [](std::size_t bytes) {
    std::string request = R"({"cmd":"native","id":"1","tabid":"t","module":"absent","pad":[[])";
    while (request.size() + 5 < bytes) request += ",[]";
    return request + "]}";
  };
  const std::string largest = Request(1, arrays(nm::kMaxIncoming - 64));
  ASSERT_LE(largest.size() - 4, nm::kMaxIncoming);
  std::string input = Request(1, ModuleRequest("1", R"(,"sleepMs":200)")) +
                      Request(2, arrays(63 * kMiB));
  for (int i = 0; i < 8; ++i) input += largest;
  std::thread writer([&] { adapter.Write(input); });
  EXPECT_EQ(Envelope("1", "{}"), Text(adapter.Read(), "reply"));
  EXPECT_EQ(0u, adapter.Read().find("{\"seq\":2,\"error\":\"request too large ("));
  const std::string refused = BuildReplyEnvelope("1", "t", REPLY_FALSE, "{}", "");
  for (int i = 0; i < 8; ++i) EXPECT_EQ(refused, Text(adapter.Read(), "reply"));
  writer.join();
  adapter.CloseInput();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(adapter.Wait().peak_kib, 128 * 1024) << "KiB at the peak";  // sanitizers need more
#endif
}

// The adapter sleeps in poll() while nothing happens, and a callback queued
// by a module's own thread wakes it at once.
TEST_F(NmHostTest, SleepsWhileIdleAndWakesForCallbacks) {
  Adapter adapter({"--library", kLibrary});
  adapter.Write(Request(1, kSetCallback));
  EXPECT_EQ(0u, Text(adapter.Read(), "reply").find(R"({"response": {"id": "9")"));
  EXPECT_EQ(0u, Text(adapter.Read(), "callback").find(R"({"response":{"id":"setcallback")"));
  std::this_thread::sleep_for(milliseconds(100));  // to its waiting point
  const long before = adapter.ContextSwitches();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(0, adapter.ContextSwitches() - before) << "wake-ups in a second of idleness";
}

TEST(NmHostCommandTest, InstallsAndRemovesManifestsForTheBrowsers) {
  TempHome home;
  // What the manifests say is proven by the browser tests, which start the
  // adapter through them; here, where they go and what removes them.
  const ProgramResult result = RunProgram({kNmHost, "--install-manifests", "firefox"});
  const std::string firefox = home.path() + "/.mozilla/native-messaging-hosts/" + kManifest;
  EXPECT_EQ(firefox + "\n", result.out) << result.err;
  const std::string manifest = ReadFile(firefox);

  // An id of 'a' to 'p' is taken. Uninstalling removes what installing
  // wrote; with nothing left to remove it succeeds quietly, and the other
  // browsers' files stay.
  const std::string id = "abcdefghijklmnopponmlkjihgfedcba";
  const std::string chromium = home.path() + "/.config/chromium/NativeMessagingHosts/" + kManifest;
  ASSERT_EQ(0, RunProgram({kNmHost, "--install-manifests", "chromium", "--extension-id", id})
                   .exit_code);
  EXPECT_NE(std::string::npos,
            ReadFile(chromium).find("\"allowed_origins\": [\"chrome-extension://" + id + "/\"]"));
  for (const std::string& removed : {chromium + "\n", std::string()}) {
    const ProgramResult uninstall = RunProgram({kNmHost, "--uninstall-manifests", "chromium"});
    EXPECT_EQ(0, uninstall.exit_code) << uninstall.err;
    EXPECT_EQ(removed, uninstall.out);
    EXPECT_EQ("absent", Node(chromium));
  }
  EXPECT_EQ(manifest, ReadFile(firefox));
}

// The usage line names the program as started. In a shared directory a
// planted link is never followed, replaced or removed. Refusals print
// nothing on standard output.
TEST(NmHostCommandTest, AnswersItsCommandLine) {
  TempHome home;
  const std::string dir = home.path() + "/shared";
  const std::string victim = home.WriteHomeFile("victim", "precious");
  MakeDirectories(dir);
  ASSERT_EQ(0, symlink(victim.c_str(), (dir + "/" + kManifest).c_str()));
  const struct {
    std::vector<std::string> argv;
    int exit_code;
    std::string out;  // how standard output starts
    std::string err;  // a part of standard error
  } cases[] = {
      {{kNmHost, "--help"}, 0, "usage: tessmar-nm-host ", ""},
      {{TESSMAR_NM_HOST_INSTALLED, "--help"}, 0, "usage: TessmarChrome ", ""},
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
    EXPECT_EQ(c.out, c.exit_code == 0 ? result.out.substr(0, c.out.size()) : result.out);
    EXPECT_NE(std::string::npos, result.err.find(c.err)) << result.err;
  }
  EXPECT_EQ(std::string::npos,
            RunProgram({TESSMAR_NM_HOST_INSTALLED, "--help"}).out.find(TESSMAR_BUILD_DIR));
  EXPECT_TRUE(std::filesystem::is_symlink(dir + "/" + kManifest));
  EXPECT_EQ("precious", ReadFile(victim));
  // Nothing else was left there either, no temporary file.
  EXPECT_EQ(std::string(kManifest) + "\n", RunProgram({"/bin/ls", "-A", dir}).out);
}

}  // namespace
}  // namespace tessmar::testing
