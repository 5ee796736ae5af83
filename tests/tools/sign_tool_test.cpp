// tessmar-sign, run as a child process in a temporary HOME: what it signs
// must pass the library's own checks, tampering must fail them, updated
// configuration files must keep their other members, and bad input must
// fail cleanly without touching any file.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::ReadFile;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;

struct Result {
  int status = -1;  // exit status; -1 when the tool did not exit normally
  std::string out;
  std::string err;
};

// Runs the tool with `args` (in `cwd` when given), collecting its output.
// A tool that hangs is killed after a deadline and the test fails.
Result RunTool(const std::vector<std::string>& args,
               const std::string& cwd = std::string()) {
  Result result;
  std::vector<std::string> words = {TESSMAR_SIGN_TOOL};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);

  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2: " << std::strerror(errno);
    return result;
  }
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2: " << std::strerror(errno);
    close(out_pipe[0]);
    close(out_pipe[1]);
    return result;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    if ((!cwd.empty() && chdir(cwd.c_str()) != 0) ||
        dup2(out_pipe[1], STDOUT_FILENO) < 0 ||
        dup2(err_pipe[1], STDERR_FILENO) < 0) {
      _exit(126);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << std::strerror(errno);
    close(out_pipe[0]);
    close(err_pipe[0]);
    return result;
  }

  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(60);
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_pipes = 2;
  bool timed_out = false;
  while (open_pipes > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timed_out = true;
      break;
    }
    const int ready = poll(fds, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_pipes;
      }
    }
  }
  for (pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
  if (timed_out) {
    kill(pid, SIGKILL);
    ADD_FAILURE() << "tessmar-sign did not finish: "
                  << testing::PrintToString(args);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!timed_out && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

// The stdout of the tool without its line break.
std::string Line(const std::string& text) {
  return text.empty() || text.back() != '\n' ? text
                                             : text.substr(0, text.size() - 1);
}

// A failure is reported as exactly one line naming the tool.
void ExpectOneLineReason(const Result& result, const char* words) {
  EXPECT_EQ(result.err.rfind("tessmar-sign: ", 0), 0u) << result.err;
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
}

class JsonFile {
 public:
  explicit JsonFile(const std::string& path) {
    const std::string text = ReadFile(path);
    root_ = json_parse(text.data(), text.size());
  }
  ~JsonFile() {
    if (root_ != nullptr) json_value_free(root_);
  }
  JsonFile(const JsonFile&) = delete;
  JsonFile& operator=(const JsonFile&) = delete;

  const json_value* root() const { return root_; }
  std::string String(const char* name) const {
    const json_value& value = (*root_)[name];
    return value.type == json_string
               ? std::string(value.u.string.ptr, value.u.string.length)
               : std::string("<not a string>");
  }

 private:
  json_value* root_ = nullptr;
};

// Deep structural equality, member order and names included.
bool SameJson(const json_value& a, const json_value& b) {
  if (a.type != b.type) return false;
  switch (a.type) {
    case json_object:
      if (a.u.object.length != b.u.object.length) return false;
      for (unsigned i = 0; i < a.u.object.length; ++i) {
        const json_object_entry& x = a.u.object.values[i];
        const json_object_entry& y = b.u.object.values[i];
        if (std::string(x.name, x.name_length) !=
                std::string(y.name, y.name_length) ||
            !SameJson(*x.value, *y.value)) {
          return false;
        }
      }
      return true;
    case json_array:
      if (a.u.array.length != b.u.array.length) return false;
      for (unsigned i = 0; i < a.u.array.length; ++i) {
        if (!SameJson(*a.u.array.values[i], *b.u.array.values[i])) return false;
      }
      return true;
    case json_integer:
      return a.u.integer == b.u.integer;
    case json_double:
      return a.u.dbl == b.u.dbl;
    case json_string:
      return std::string(a.u.string.ptr, a.u.string.length) ==
             std::string(b.u.string.ptr, b.u.string.length);
    case json_boolean:
      return a.u.boolean == b.u.boolean;
    default:
      return true;
  }
}

std::vector<std::string> DirectoryEntries(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return names;
}

mode_t Mode(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

// Flips the bits of one byte in the middle of the file.
void TamperOneByte(const std::string& path) {
  std::string data = ReadFile(path);
  ASSERT_FALSE(data.empty());
  data[data.size() / 2] = static_cast<char>(~data[data.size() / 2]);
  WriteFile(path, data);
}

class SignToolTest : public ::testing::Test {
 protected:
  // An installation directory holding the three covered files of the
  // framework itself (the browser manifest lives elsewhere and is absent).
  std::string MakeInstallation(const std::string& relative) {
    const std::string dir = home_.path() + "/" + relative;
    home_.WriteHomeFile(relative + "/libnpTessmarPlugin.so", "plugin bytes");
    home_.WriteHomeFile(relative + "/libTessmarFirefox.so",
                        std::string("bridge\0bytes", 12));
    home_.WriteHomeFile(relative + "/TessmarChrome", "host executable");
    return dir;
  }

  TempHome home_;
};

TEST_F(SignToolTest, UsageErrorsAndHelp) {
  const Result bare = RunTool({});
  EXPECT_EQ(bare.status, 2);
  for (const char* command :
       {"client", "module", "install", "server", "verify-client",
        "verify-module", "verify-install", "verify-server"}) {
    EXPECT_NE(bare.err.find(command), std::string::npos) << command;
  }
  for (const char* flag : {"--help", "-h"}) {
    const Result help = RunTool({flag});
    EXPECT_EQ(help.status, 0) << flag;
    EXPECT_NE(help.out.find("verify-install"), std::string::npos) << flag;
    EXPECT_EQ(help.err, "") << flag;
  }
  EXPECT_EQ(RunTool({"module", "--help"}).status, 0);

  const Result missing_operand = RunTool({"module", "demo"});
  EXPECT_EQ(missing_operand.status, 2);
  ExpectOneLineReason(missing_operand, "NAME FILE");
  const Result extra_operand = RunTool({"install", "extra"});
  EXPECT_EQ(extra_operand.status, 2);
  ExpectOneLineReason(extra_operand, "install");
  const Result unknown = RunTool({"sign-everything"});
  EXPECT_EQ(unknown.status, 2);
  ExpectOneLineReason(unknown, "sign-everything");
  const Result bad_option = RunTool({"server", "--dir", "x", "file"});
  EXPECT_EQ(bad_option.status, 2);
  ExpectOneLineReason(bad_option, "--dir");
  const Result no_value = RunTool({"install", "--dir"});
  EXPECT_EQ(no_value.status, 2);
  ExpectOneLineReason(no_value, "--dir");
}

TEST_F(SignToolTest, ClientSignatureTextPassesTheLibraryCheck) {
  const std::string file = home_.WriteHomeFile("mod/libdemo.so", "module code");
  const Result signed_text = RunTool({"client", file});
  ASSERT_EQ(signed_text.status, 0) << signed_text.err;
  const std::string text = Line(signed_text.out);
  EXPECT_EQ(text.size(), 44u);
  EXPECT_TRUE(CheckQXClientModuleSignature(file.c_str(), text.c_str()));
  EXPECT_EQ(RunTool({"verify-client", file, text}).status, 0);

  TamperOneByte(file);
  const Result tampered = RunTool({"verify-client", file, text});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "does not match");
  EXPECT_EQ(RunTool({"verify-client", file, "not base64!"}).status, 1);
}

TEST_F(SignToolTest, SignedModuleIsLoadableUntilTampered) {
  home_.WriteHomeFile("mod/libdemo.so", std::string("\x7f"
                                                    "ELF\0\1 code",
                                                    11));
  // A relative FILE is stored as the absolute path the library will load.
  const Result signing =
      RunTool({"module", "demo", "mod/libdemo.so", "--version", "1.0.0.2"},
              home_.path());
  ASSERT_EQ(signing.status, 0) << signing.err;
  const std::string file = home_.path() + "/mod/libdemo.so";

  const std::string config = home_.ConfigDir() + "/demo.json";
  {
    JsonFile json(config);
    ASSERT_NE(json.root(), nullptr);
    EXPECT_EQ(json.String("Name"), "demo");
    EXPECT_EQ(json.String("Path"), file);
    EXPECT_EQ(json.String("Version"), "1.0.0.2");
  }
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
  EXPECT_EQ(GetClientVersion("demo"), "1.0.0.2");
  EXPECT_EQ(RunTool({"verify-module", "demo"}).status, 0);

  TamperOneByte(file);
  EXPECT_EQ(GetClientInstallPathModule("demo", true), "BLOCK:CLIENT");
  const Result tampered = RunTool({"verify-module", "demo"});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(
      tampered, ("module 'demo': signature does not match " + file).c_str());

  // Re-signing repairs it; --config-dir writes elsewhere and leaves HOME's
  // file alone.
  ASSERT_EQ(RunTool({"module", "demo", file}).status, 0);
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
  const std::string before = ReadFile(config);
  const std::string staging = home_.path() + "/staging/conf";
  ASSERT_EQ(RunTool({"module", "other", file, "--config-dir", staging}).status,
            0);
  JsonFile staged(staging + "/other.json");
  ASSERT_NE(staged.root(), nullptr);
  EXPECT_TRUE(
      CheckQXClientModuleSignature(file.c_str(), staged.String("Sig").c_str()));
  EXPECT_EQ(ReadFile(config), before);
}

TEST_F(SignToolTest, UpdatingModuleFileKeepsOtherMembersAndMode) {
  const std::string file = home_.WriteHomeFile("mod/libdemo.so", "code");
  // Members the tool does not own, with values that need escaping, a
  // duplicate "Sig" (only the first is the library's) and a non-string
  // "Version" that must become a string.
  const std::string original =
      "{\"Comment\": \"quote \\\" backslash \\\\ tab \\t nul \\u0000 "
      "\\u00e9\\ud83d\\ude00 \\/\",\n"
      " \"Sig\": 17, \"Nested\": {\"list\": [1, -2, 2.5, 1e-300, true, false, "
      "null, [], {}], \"\": \"empty name\"},\n"
      " \"Version\": 3, \"Sig\": \"second stays\", \"Big\": 9007199254740993}";
  const std::string config = home_.WriteConfig("demo.json", original);
  ASSERT_EQ(chmod(config.c_str(), 0640), 0);

  const Result signing =
      RunTool({"module", "demo", file, "--version", "2.0.0.0"});
  ASSERT_EQ(signing.status, 0) << signing.err;
  EXPECT_EQ(Mode(config), 0640u);
  EXPECT_EQ(DirectoryEntries(home_.ConfigDir()),
            std::vector<std::string>{"demo.json"});  // no temporary left

  const std::string before_path = home_.WriteHomeFile("before.json", original);
  JsonFile before(before_path);
  JsonFile after(config);
  ASSERT_NE(before.root(), nullptr);
  ASSERT_NE(after.root(), nullptr);
  // Same members in the same order; only the tool's own values differ.
  ASSERT_EQ(after.root()->u.object.length, before.root()->u.object.length + 2);
  for (unsigned i = 0; i < before.root()->u.object.length; ++i) {
    const json_object_entry& was = before.root()->u.object.values[i];
    const json_object_entry& is = after.root()->u.object.values[i];
    const std::string name(was.name, was.name_length);
    SCOPED_TRACE(name);
    EXPECT_EQ(std::string(is.name, is.name_length), name);
    if (i == 1 || i == 3) continue;  // the first "Sig" and "Version"
    EXPECT_TRUE(SameJson(*was.value, *is.value));
  }
  EXPECT_EQ(after.String("Version"), "2.0.0.0");
  EXPECT_EQ(after.String("Name"), "demo");  // appended
  EXPECT_TRUE(
      CheckQXClientModuleSignature(file.c_str(), after.String("Sig").c_str()));
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
}

TEST_F(SignToolTest, InstallationSignatureGoesIntoConfigJson) {
  const std::string install = MakeInstallation("opt/tessmar");
  const std::string config = home_.WriteConfig(
      "config.json",
      "{\"Tessmar\": \"" + install +
          "\", \"TessmarClient\": \"/opt/client\", "
          "\"Version\": \"1.2.3.4\", \"Extra\": {\"keep\": [1, \"two\"]}}");
  EXPECT_FALSE(CheckModuleSignature());

  const Result signing = RunTool({"install"});
  ASSERT_EQ(signing.status, 0) << signing.err;
  EXPECT_TRUE(CheckModuleSignature());
  {
    JsonFile json(config);
    ASSERT_NE(json.root(), nullptr);
    EXPECT_EQ(json.String("Tessmar"), install);
    EXPECT_EQ(json.String("TessmarClient"), "/opt/client");
    EXPECT_EQ(json.String("Version"), "1.2.3.4");
    EXPECT_EQ(json.String("Sig").size(), 44u);
    const json_value& keep = (*json.root())["Extra"]["keep"];
    ASSERT_EQ(keep.type, json_array);
    EXPECT_EQ(keep[1].type, json_string);
  }
  EXPECT_EQ(RunTool({"verify-install"}).status, 0);

  TamperOneByte(install + "/libTessmarFirefox.so");
  EXPECT_FALSE(CheckModuleSignature());
  const Result tampered = RunTool({"verify-install"});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "does not match");

  // Re-signing after an update replaces the old "Sig".
  ASSERT_EQ(RunTool({"install"}).status, 0);
  EXPECT_TRUE(CheckModuleSignature());
}

TEST_F(SignToolTest, InstallationSignatureFileInDirectory) {
  const std::string dir = MakeInstallation("stage");
  const Result signing = RunTool({"install", "--dir", dir});
  ASSERT_EQ(signing.status, 0) << signing.err;
  std::string header;
  const std::string digest = makeSig("morrowhost", "pelmora", dir, header);
  EXPECT_EQ(header, dir + "/Tessmar.sig");
  EXPECT_EQ(ReadFile(header), MakeBase64Encode(digest));
  EXPECT_EQ(RunTool({"verify-install", "--dir", dir}).status, 0);

  TamperOneByte(dir + "/TessmarChrome");
  EXPECT_EQ(RunTool({"verify-install", "--dir", dir}).status, 1);
  ASSERT_EQ(unlink(header.c_str()), 0);
  const Result unsigned_dir = RunTool({"verify-install", "--dir", dir});
  EXPECT_EQ(unsigned_dir.status, 1);
  ExpectOneLineReason(unsigned_dir, "Tessmar.sig");

  // A directory without any covered file is refused rather than signed.
  const std::string empty = home_.path() + "/empty";
  ASSERT_EQ(mkdir(empty.c_str(), 0755), 0);
  EXPECT_EQ(RunTool({"install", "--dir", empty}).status, 2);
  EXPECT_EQ(DirectoryEntries(empty), std::vector<std::string>{});
}

TEST_F(SignToolTest, ServerSignatureFileRoundTrip) {
  const std::string server = home_.WriteHomeFile("bin/server", "server code");
  const Result signing = RunTool({"server", server});
  ASSERT_EQ(signing.status, 0) << signing.err;
  EXPECT_EQ(ReadFile(server + ".sig"),
            MakeBase64Encode(makeLocalServerSig(server)));
  EXPECT_TRUE(CheckLocalServerSignature(server.c_str()));
  EXPECT_EQ(RunTool({"verify-server", server}).status, 0);

  TamperOneByte(server);
  EXPECT_FALSE(CheckLocalServerSignature(server.c_str()));
  const Result tampered = RunTool({"verify-server", server});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "does not match");
}

TEST_F(SignToolTest, BadInputFailsWithoutTouchingFiles) {
  const std::string missing = home_.path() + "/no-such.so";
  const std::string empty = home_.WriteHomeFile("empty.so", "");
  for (const std::string& file : {missing, empty}) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"client", file},
          std::vector<std::string>{"module", "demo", file},
          std::vector<std::string>{"server", file},
          std::vector<std::string>{"verify-server", file}}) {
      SCOPED_TRACE(args[0] + " " + file);
      const Result result = RunTool(args);
      EXPECT_EQ(result.status, 2);
      ExpectOneLineReason(result, file.c_str());
    }
  }
  EXPECT_EQ(ReadFile(empty + ".sig"), "");
  EXPECT_EQ(access((home_.ConfigDir() + "/demo.json").c_str(), F_OK), -1);

  // No config.json at all: nothing to store the installation signature in.
  EXPECT_EQ(RunTool({"install"}).status, 2);
  EXPECT_EQ(RunTool({"verify-install"}).status, 2);
  EXPECT_EQ(RunTool({"verify-module", "demo"}).status, 2);
  EXPECT_EQ(
      RunTool({"module", "../escape", home_.WriteHomeFile("m.so", "x")}).status,
      2);

  // Broken configuration files are reported and left byte for byte.
  MakeInstallation("opt/tessmar");
  const std::string module = home_.WriteHomeFile("mod/libdemo.so", "code");
  const std::string install = home_.path() + "/opt/tessmar";
  const std::vector<std::pair<std::string, std::string>> broken = {
      {"{\"Tessmar\": \"" + install + "\",", "invalid JSON"},
      {"[\"Tessmar\", \"" + install + "\"]", "not a JSON object"},
      {"", "invalid JSON"}};
  for (const auto& [text, reason] : broken) {
    SCOPED_TRACE(text);
    const std::string config = home_.WriteConfig("config.json", text);
    const Result install_result = RunTool({"install"});
    EXPECT_EQ(install_result.status, 2);
    ExpectOneLineReason(install_result, reason.c_str());
    EXPECT_EQ(ReadFile(config), text);

    const std::string module_config = home_.WriteConfig("demo.json", text);
    const Result module_result = RunTool({"module", "demo", module});
    EXPECT_EQ(module_result.status, 2);
    ExpectOneLineReason(module_result, reason.c_str());
    EXPECT_EQ(ReadFile(module_config), text);
  }
}

}  // namespace
