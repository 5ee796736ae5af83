// tessmar-nm-host as the browser runs it: framed messages on its standard
// input, framed messages back on its standard output.

#include <algorithm>
#include <cstdint>
#include <cstring>
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
constexpr std::size_t kMiB = 1024 * 1024;

std::string Request(int seq, const std::string& request) {
  return Frame("{\"seq\":" + std::to_string(seq) + ",\"request\":" +
               nm::Quote(request) + "}");
}

struct Session : ProgramResult {
  std::vector<std::string> messages;  // `out`, unframed, after the mode
};

constexpr char kInProcess[] = R"({"mode":"in-process"})";

// Runs the adapter on `input`. With `linger` its input stays open, as a
// browser's does, until a callback is out (at most 5 s).
Session RunAdapter(std::vector<std::string> args, const std::string& input,
                   bool linger = false) {
  args.insert(args.begin(), kNmHost);
  if (linger) {
    args.insert(args.begin(),
                {"sh", "-c",
                 "{ cat; for i in $(seq 100); do grep -qa '{\"callback\":' "
                 "\"$HOME/.run-out\" && break; sleep 0.05; done; } | exec \"$0\" \"$@\""});
  }
  Session session{RunProgram(args, input), {}};
  for (std::size_t at = 0; at + 4 <= session.out.size();
       at += 4 + session.messages.back().size()) {
    std::uint32_t length;
    std::memcpy(&length, session.out.data() + at, 4);
    session.messages.push_back(session.out.substr(at + 4, length));
  }
  const bool host = std::find(args.begin(), args.end(), "--host") != args.end();
  if (!session.messages.empty() &&
      session.messages.front() == (host ? R"({"mode":"host"})" : kInProcess)) {
    session.messages.erase(session.messages.begin());
  } else {
    ADD_FAILURE() << "the session does not start with its mode";
  }
  return session;
}

// The adapter as a browser keeps it: running, its pipes open, while the
// test writes messages, reads answers and watches the process.
struct LiveAdapter : PipedChild {
  explicit LiveAdapter(std::vector<std::string> args)
      : PipedChild([&args] {
          args.insert(args.begin(), kNmHost);
          return args;
        }()) {}
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
  constexpr char kEcho[] = R"({"cmd":"native","id":"7","tabid":"t","echo":true})";
  // Not JSON, with quotes, backslashes, control characters and non-ASCII.
  const std::string odd = "not json: \"q\" \\ \t\x01 caf\xc3\xa9 \xf0\x9f\x99\x82";
  const Session session = RunAdapter(
      // The browser's own arguments (manifest and extension) are ignored.
      {"--library", kLibrary, "/x/zz.qx.pelmora.morrowhost.json",
       "morrowhost@tessmar.example"},
      Request(1, kEcho) + Request(2, "not json") + Request(3, R"({"init":"x"})") +
          Frame("[1,2]") + Frame(R"({"request":"{}"})") +
          Frame(R"({"seq":4,"request":{"cmd":"native"}})") +
          Frame(R"({"seq":5,"request":"{\"init\":\"get_version\"}\u0000x"})") +
          Request(6, R"({"init":"get_version","module":"echo"})") +
          Request(7, ModuleRequest("1", ",\"say\":" + nm::Quote(odd))) +
          // Bytes that are not UTF-8 become U+FFFD; the rest is kept.
          Request(8, ModuleRequest("2", R"(,"badUtf8":true)")) +
          // A module writing to standard output cannot break the stream.
          Request(9, ModuleRequest("3", R"(,"print":true)")) +
          // The example module takes only callback names that need no escaping.
          Request(10, R"({"cmd":"setcallback","id":"4","tabid":"t","callback":"a\"b","module":"echo"})"));
  EXPECT_EQ(0, session.exit_code);
  EXPECT_EQ("a module writing to standard output\n", session.err);
  ASSERT_EQ(12u, session.messages.size());
  const std::string echo = process_request(nullptr, kEcho, sizeof kEcho - 1, nullptr);
  EXPECT_EQ("{\"seq\":1,\"reply\":" + nm::Quote(echo) + "}", session.messages[0]);
  EXPECT_EQ(R"({"seq":2,"reply":null})", session.messages[1]);
  EXPECT_EQ(R"({"seq":3,"reply":""})", session.messages[2]);
  EXPECT_EQ(0u, session.messages[3].find(R"({"error":"malformed message: not a JSON object)"));
  EXPECT_EQ(0u, session.messages[4].find(R"({"error":"malformed message: \"seq\" must be)"));
  EXPECT_EQ(0u, session.messages[5].find(R"({"seq":4,"error":"malformed message: \"request\")"));
  EXPECT_EQ(R"({"seq":5,"error":"the request contains a NUL character"})",
            session.messages[6]);
  EXPECT_EQ(R"({"seq":6,"reply":"\"version: 1.0.0.1\""})", session.messages[7]);
  EXPECT_EQ(Envelope("1", odd), Text(session.messages[8], "reply"));
  EXPECT_EQ(Envelope("2", "\"a\xef\xbf\xbd" "b\xef\xbf\xbd(c\""),
            Text(session.messages[9], "reply"));
  // A sequence broken after its second byte is replaced byte by byte too.
  EXPECT_EQ("\"\\ufffd\\ufffd(\"", nm::Quote("\xe2\x82("));
  EXPECT_EQ(Envelope("3", "{}"), Text(session.messages[10], "reply"));
  EXPECT_NE(std::string::npos,
            Text(session.messages[11], "reply").find(R"("reply":{"module":"echo","registered":false})"));
}

TEST(NmHostTest, KeepsEveryMessageWithinTheProtocolsLimits) {
  Sandbox sandbox;
  const auto letters = [](std::size_t n) {
    return ModuleRequest("1", ",\"bytes\":" + std::to_string(n));
  };
  const std::size_t overhead = nm::ReplyMessage(1, Envelope("1", "\"\"").c_str()).size();
  const Session session = RunAdapter(
      {"--library", kLibrary},
      // A reply that fits, one byte of message more does not.
      Request(1, letters(kMiB - overhead)) +
          Request(1, letters(kMiB - overhead + 1)) +
          // A callback too large is dropped; the next one still arrives.
          Request(2, ModuleRequest("2", ",\"callbackBytes\":" + std::to_string(kMiB))) +
          // A message over the input limit is read away and answered,
          // under its "seq" when its first bytes carry one.
          Frame(std::string(nm::kMaxIncoming + 1, ' ')) +
          Request(9, std::string(nm::kMaxIncoming, '[')) +
          Request(3, R"({"init":"x"})") +
          // Input that ends inside a message ends the adapter cleanly.
          Request(4, "{}").substr(0, 10));
  EXPECT_EQ(0, session.exit_code);
  ASSERT_EQ(7u, session.messages.size()) << [&] {
    std::string all;
    for (const std::string& m : session.messages) all += m.substr(0, 100) + "\n";
    return all + session.err;
  }();
  EXPECT_EQ(kMiB, session.messages[0].size());
  EXPECT_EQ(R"({"seq":1,"error":"reply too large"})", session.messages[1]);
  EXPECT_EQ(Envelope("2", "{}"), Text(session.messages[2], "reply"));
  EXPECT_EQ(0u, Text(session.messages[3], "callback")
                    .find(R"({"response":{"id":"setcallback", "tabid":"t1", "callback":"after")"));
  EXPECT_EQ(R"x({"error":"request too large (4194305 bytes, at most 4194304)"})x",
            session.messages[4]);
  EXPECT_EQ(0u, session.messages[5].find(R"({"seq":9,"error":"request too large (4194)"));
  EXPECT_EQ(R"({"seq":3,"reply":""})", session.messages[6]);
  EXPECT_NE(std::string::npos, session.err.find("dropped: too large")) << session.err;
  EXPECT_NE(std::string::npos, session.err.find("input ended inside a message"))
      << session.err;
}

// Through the reference host: a module's callback arrives while no request
// comes, and the host is stopped at the end. (In-process callbacks: above.)
TEST(NmHostTest, CarriesCallbacksThroughTheHost) {
  Sandbox sandbox;
  LinkHost(sandbox.install.install_dir(), TESSMAR_TEST_REFERENCE_HOST);
  const Session session = RunAdapter(
      {"--library", kLibrary, "--host"},
      Request(1, ModuleRequest("1", R"(,"say":"{\"via\":\"host\"}")")) + Request(2, "") +
          Request(3, R"({"cmd":"setcallback","id":"9","tabid":"t","callback":"cb","module":"echo"})"),
      /*linger=*/true);
  EXPECT_EQ(0, session.exit_code);
  EXPECT_EQ("", session.err);
  ASSERT_EQ(4u, session.messages.size());
  EXPECT_EQ(Envelope("1", R"({"via":"host"})"), Text(session.messages[0], "reply"));
  // An empty request would be the host's stop message.
  EXPECT_EQ(R"({"seq":2,"error":"an empty request is not sent to the host"})",
            session.messages[1]);
  EXPECT_EQ(0u, Text(session.messages[2], "reply").find(R"({"response": {"id": "9")"));
  EXPECT_EQ(R"({"response":{"id":"setcallback", "tabid":"t", "callback":"cb", "reply":{"module":"echo","event":"ping","id":"9"}}})",
            Text(session.messages[3], "callback"));
  EXPECT_EQ("absent", Node(RequestFifo())) << "tsmx_End removed the FIFOs";
}

// Nothing a page sends makes the adapter big: an oversized message is read
// away in chunks, and input waits in the browser's pipe while a request is
// served, however much of it comes.
TEST(NmHostTest, StaysSmallWhateverPagesSend) {
  Sandbox sandbox;
  LiveAdapter adapter({"--library", kLibrary});
  ASSERT_EQ(kInProcess, adapter.Read());
  // Empty arrays are what costs the parser most per byte of text.
  const auto arrays = [](std::size_t bytes) {
    std::string request = ModuleRequest("1", ",\"pad\":[");
    while (request.size() + 3 + 4 < bytes) request += "[],";
    return request + "[]]}";
  };
  const std::string largest = Request(1, arrays(nm::kMaxIncoming - 64));
  ASSERT_LE(largest.size() - 4, nm::kMaxIncoming);
  std::string input = Request(1, ModuleRequest("1", R"(,"sleepMs":200)")) +
                      Request(2, arrays(63 * kMiB));
  for (int i = 0; i < 8; ++i) input += largest;
  std::thread writer = adapter.WriteInBackground(std::move(input));
  EXPECT_EQ(Envelope("1", "{}"), Text(adapter.Read(), "reply"));
  EXPECT_EQ(0u, adapter.Read().find("{\"seq\":2,\"error\":\"request too large ("));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(0u, adapter.Read().find("{\"seq\":1,\"reply\":"));
  writer.join();
  const long peak_kib = adapter.CloseAndWait();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(peak_kib, 128 * 1024) << "KiB at the peak";  // sanitizers need more
#endif
  (void)peak_kib;
}

// A module's output goes to stderr, or nowhere, even when the browser
// starts the adapter with its error stream closed.
TEST(NmHostTest, KeepsModuleOutputOffTheProtocolStream) {
  Sandbox sandbox;
  const ProgramResult result =
      RunProgram({"sh", "-c", "exec \"$0\" \"$@\" 2>&-", kNmHost, "--library", kLibrary},
                 Request(1, ModuleRequest("3", R"(,"print":true)")));
  EXPECT_EQ(Frame(kInProcess) + Frame(nm::ReplyMessage(1, Envelope("3", "{}").c_str())),
            result.out);
}

// The adapter sleeps in poll() while nothing happens, and a callback queued
// by a module's own thread wakes it at once.
TEST(NmHostTest, SleepsWhileIdleAndWakesForCallbacks) {
  Sandbox sandbox;
  LiveAdapter adapter({"--library", kLibrary});
  ASSERT_EQ(kInProcess, adapter.Read());
  adapter.Write(Request(1, R"({"cmd":"setcallback","id":"9","tabid":"t","callback":"cb","module":"echo"})"));
  EXPECT_EQ(0u, Text(adapter.Read(), "reply").find(R"({"response": {"id": "9")"));
  EXPECT_EQ(0u, Text(adapter.Read(), "callback").find(R"({"response":{"id":"setcallback")"));
  std::this_thread::sleep_for(milliseconds(100));  // to its waiting point
  const long before = adapter.ContextSwitches();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(0, adapter.ContextSwitches() - before) << "wake-ups in a second of idleness";
  EXPECT_EQ(0, [&] { adapter.CloseAndWait(); return 0; }());
}

// Loading and host checks are shared with tessmar-drive and tested there.
TEST(NmHostTest, FindsTheLibraryOfTheInstallation) {
  TempHome home;
  // config.json's "Tessmar" directory when none lies beside the program.
  MakeDirectories(home.path() + "/inst");
  ASSERT_EQ(0, symlink(kLibrary, (home.path() + "/inst/libTessmarFirefox.so").c_str()));
  home.WriteConfig("config.json", "{\"Tessmar\":\"" + home.path() + "/inst\"}");
  const ProgramResult result =
      RunProgram({kNmHost}, Request(1, R"({"init":"get_version"})"));
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(Frame(kInProcess) + Frame(R"({"seq":1,"reply":"\"version: \""})"),
            result.out);
}

TEST(NmHostTest, InstallsManifestsForTheBrowsers) {
  TempHome home;
  ProgramResult result = RunProgram({kNmHost, "--install-manifests", "firefox"});
  const std::string firefox =
      home.path() + "/.mozilla/native-messaging-hosts/zz.qx.pelmora.morrowhost.json";
  EXPECT_EQ(firefox + "\n", result.out) << result.err;
  const std::string manifest = ReadFile(firefox);
  EXPECT_EQ("zz.qx.pelmora.morrowhost", Text(manifest, "name"));
  EXPECT_EQ(kNmHost, Text(manifest, "path"));
  EXPECT_EQ("stdio", Text(manifest, "type"));
  EXPECT_NE(std::string::npos,
            manifest.find(R"("allowed_extensions": ["morrowhost@tessmar.example"])"));

  const std::string id(32, 'k');
  result = RunProgram({kNmHost, "--install-manifests", "chromium",
                       "--extension-id", id, "--dir", home.path() + "/udd/NMH"});
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_NE(std::string::npos,
            ReadFile(home.path() + "/udd/NMH/zz.qx.pelmora.morrowhost.json")
                .find("\"allowed_origins\": [\"chrome-extension://" + id + "/\"]"));

  for (const std::vector<std::string>& argv : std::vector<std::vector<std::string>>{
           {kNmHost, "--install-manifests", "opera"},
           {kNmHost, "--install-manifests", "chromium", "--extension-id", "abc"},
           {kNmHost, "--extension-id", id},
           {kNmHost, "--install-manifests", "firefox", "--host"},
           {kNmHost, "--library"}}) {
    result = RunProgram(argv);
    EXPECT_TRUE(result.exit_code == 2 && result.out.empty() && !result.err.empty())
        << argv.back();
  }
}

}  // namespace
}  // namespace tessmar::testing
