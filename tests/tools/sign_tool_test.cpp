// tessmar-sign as a child process in a temporary HOME: each command's round
// trip through the library's checks, exit statuses 0/1/2, and rewrites that
// keep foreign members and leave broken files alone.
#include <dirent.h>
#include <gtest/gtest.h>
#include <json.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "config/config_location.h"
#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::ReadFile;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;
using Args = std::vector<std::string>;

struct Result {
  int status;  // exit status; -1 when the tool did not exit normally
  std::string out, err;
};

std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

using Json = std::unique_ptr<json_value, decltype(&json_value_free)>;
Json ParseFile(const std::string& path) {
  const std::string text = ReadFile(path);
  return Json(json_parse(text.data(), text.size()), &json_value_free);
}
std::string Str(const json_value& value) {
  return value.type == json_string ? std::string(value.u.string.ptr, value.u.string.length)
                                   : "<not a string>";
}

std::vector<std::string> DirectoryEntries(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
  }
  return names;
}

void TamperOneByte(const std::string& path) {
  std::string data = ReadFile(path);
  ASSERT_FALSE(data.empty());
  data[data.size() / 2] = static_cast<char>(~data[data.size() / 2]);
  WriteFile(path, data);
}

// A failure is reported as exactly one line naming the tool.
void ExpectOneLineReason(const Result& result, const std::string& words) {
  EXPECT_EQ(result.err.rfind("tessmar-sign: ", 0), 0u) << result.err;
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
}

class SignToolTest : public ::testing::Test {
 protected:
  // Runs the tool in `cwd`; one that hangs is killed after a minute.
  Result RunTool(const Args& args, const std::string& cwd = ".") {
    const std::string out = scratch_.path() + "/out", err = scratch_.path() + "/err";
    std::string command = "cd " + Quote(cwd) + " && exec timeout -s KILL 60 " +
                          Quote(TESSMAR_SIGN_TOOL);
    for (const std::string& arg : args) command += " " + Quote(arg);
    const int status = std::system((command + " >" + Quote(out) + " 2>" + Quote(err)).c_str());
    Result result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
    EXPECT_NE(result.status, 128 + SIGKILL)
        << "tessmar-sign did not finish: " << testing::PrintToString(args);
    return result;
  }

  // The three covered framework files (the browser manifest stays absent).
  std::string MakeInstallation(const std::string& relative) {
    home_.WriteHomeFile(relative + "/libnpTessmarPlugin.so", "plugin bytes");
    home_.WriteHomeFile(relative + "/libTessmarFirefox.so", std::string("bridge\0bytes", 12));
    home_.WriteHomeFile(relative + "/TessmarChrome", "host executable");
    return home_.path() + "/" + relative;
  }

  TempHome scratch_;  // holds the tool's output; HOME is then replaced
  TempHome home_;
};

TEST_F(SignToolTest, UsageErrorsHelpAndVersion) {
  for (const Args& args : {Args{"--help"}, Args{"module", "--help"}}) {
    const Result help = RunTool(args);
    EXPECT_EQ(help.status, 0) << args[0];
    EXPECT_NE(help.out.find("verify-install"), std::string::npos) << args[0];
  }
  // Before a command --version is the tool's; after "module" it is the module's.
  EXPECT_EQ(RunTool({"--version"}).out, "tessmar-sign " TESSMAR_TEST_VERSION "\n");
  EXPECT_EQ(RunTool({}).status, 2);
  const std::pair<Args, const char*> usage_errors[] = {
      {{"module", "demo"}, "NAME FILE"},
      {{"sign-everything"}, "sign-everything"},
      {{"--sign-everything", "install"}, "unknown option '--sign-everything'"},
      {{"install", "--dir"}, "--dir"},
      {{"server", "file", "--system"}, "--system applies only to"},
      {{"--system", "install", "--dir", "x"}, "--system and --dir"}};
  for (const auto& [args, words] : usage_errors) {
    SCOPED_TRACE(testing::PrintToString(args));
    const Result result = RunTool(args);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    ExpectOneLineReason(result, words);
  }
}

// --system shows what the library sees without HOME: the system directory
// alone, however complete the user's own files are.
TEST_F(SignToolTest, SystemOptionIgnoresTheUserDirectory) {
  const std::string system_dir = tessmar::kSystemConfigDirectory;
  const std::string file = home_.WriteHomeFile("mod/libdemo.so", "code");
  const std::string name = "sign-tool-test-" + std::to_string(getpid());  // in no system dir
  ASSERT_EQ(RunTool({"module", name, file}).status, 0);
  ASSERT_EQ(RunTool({"verify-module", name}).status, 0);
  const Result result = RunTool({"verify-module", "--system", name});
  EXPECT_EQ(result.status, 2);
  ExpectOneLineReason(result, "no " + name + ".json in " + system_dir + "\n");
  if (access((system_dir + "/config.json").c_str(), F_OK) != 0) {
    home_.WriteConfig("config.json", "{\"Tessmar\": \"" + MakeInstallation("opt/t") + "\"}");
    ASSERT_EQ(RunTool({"install"}).status, 0);
    const Result install = RunTool({"--system", "verify-install"});
    EXPECT_EQ(install.status, 2);
    ExpectOneLineReason(install, "no config.json in " + system_dir);
  }
}

TEST_F(SignToolTest, ClientSignatureTextPassesTheLibraryCheck) {
  const std::string file = home_.WriteHomeFile("mod/libdemo.so", "module code");
  const Result signed_text = RunTool({"client", file});
  ASSERT_EQ(signed_text.status, 0) << signed_text.err;
  ASSERT_EQ(signed_text.out.size(), 45u);
  const std::string text = signed_text.out.substr(0, 44);
  EXPECT_TRUE(CheckQXClientModuleSignature(file.c_str(), text.c_str()));
  EXPECT_EQ(RunTool({"verify-client", file, text}).status, 0);
  TamperOneByte(file);
  const Result tampered = RunTool({"verify-client", file, text});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "does not match");
}

TEST_F(SignToolTest, SignedModuleIsLoadableUntilTampered) {
  home_.WriteHomeFile("mod/libdemo.so", std::string("\x7f" "ELF\0\1 code", 11));
  // A relative FILE is stored as the absolute path the library will load.
  const Result signing =
      RunTool({"module", "demo", "mod/libdemo.so", "--version", "1.0.0.2"}, home_.path());
  ASSERT_EQ(signing.status, 0) << signing.err;
  const std::string file = home_.path() + "/mod/libdemo.so";
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
  EXPECT_EQ(GetClientVersion("demo"), "1.0.0.2");
  EXPECT_EQ(RunTool({"verify-module", "demo"}).status, 0);

  TamperOneByte(file);
  const Result tampered = RunTool({"verify-module", "demo"});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "module 'demo': signature does not match " + file);

  // --config-dir leaves HOME's file alone.
  const std::string before = ReadFile(home_.ConfigDir() + "/demo.json");
  const std::string staging = home_.path() + "/staging/conf";
  ASSERT_EQ(RunTool({"module", "other", file, "--config-dir", staging}).status, 0);
  const Json staged = ParseFile(staging + "/other.json");
  ASSERT_NE(staged, nullptr);
  EXPECT_TRUE(CheckQXClientModuleSignature(file.c_str(), Str((*staged)["Sig"]).c_str()));
  EXPECT_EQ(ReadFile(home_.ConfigDir() + "/demo.json"), before);
}

TEST_F(SignToolTest, UpdatingModuleFileKeepsOtherMembersAndMode) {
  const std::string file = home_.WriteHomeFile("mod/libdemo.so", "code");
  // Foreign members needing escapes, a second "Sig" (only the first is
  // ours), a non-string "Version" and an integer beyond a double's precision.
  const std::string config = home_.WriteConfig(
      "demo.json",
      "{\"Comment\": \"q \\\" b \\\\ t \\t nul \\u0000 \\u00e9\\ud83d\\ude00 \\/\",\n"
      " \"Sig\": 17, \"Nested\": {\"list\": [1, -2.5, 1e-300, true, null, [], {}]},\n"
      " \"Version\": 3, \"Sig\": \"second stays\", \"Big\": 9007199254740993}");
  ASSERT_EQ(chmod(config.c_str(), 0640), 0);
  const Result signing = RunTool({"module", "demo", file, "--version", "2.0.0.0"});
  ASSERT_EQ(signing.status, 0) << signing.err;
  struct stat info {};
  ASSERT_EQ(stat(config.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  EXPECT_EQ(DirectoryEntries(home_.ConfigDir()), Args{"demo.json"});  // no temporary left

  const Json after = ParseFile(config);
  ASSERT_NE(after, nullptr);
  Args names;
  for (unsigned i = 0; i < after->u.object.length; ++i) {
    names.emplace_back(after->u.object.values[i].name, after->u.object.values[i].name_length);
  }
  EXPECT_EQ(names, (Args{"Comment", "Sig", "Nested", "Version", "Sig", "Big", "Name", "Path"}));
  EXPECT_EQ(Str((*after)["Comment"]),
            std::string("q \" b \\ t \t nul \0 \xc3\xa9\xf0\x9f\x98\x80 /", 26));
  const json_value& list = (*after)["Nested"]["list"];
  ASSERT_EQ(list.type, json_array);
  EXPECT_EQ(list.u.array.length, 7u);
  EXPECT_EQ(list[2].u.dbl, 1e-300);
  EXPECT_EQ(Str(*after->u.object.values[4].value), "second stays");
  EXPECT_EQ((*after)["Big"].u.integer, 9007199254740993);
  EXPECT_EQ(Str((*after)["Version"]), "2.0.0.0");
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
}

TEST_F(SignToolTest, InstallationSignatureGoesIntoConfigJson) {
  const std::string install = MakeInstallation("opt/tessmar");
  const std::string config = home_.WriteConfig(
      "config.json", "{\"Tessmar\": \"" + install + "\", \"Extra\": {\"keep\": [1, \"two\"]}}");
  ASSERT_EQ(RunTool({"install"}).status, 0);
  EXPECT_TRUE(CheckModuleSignature());
  const Json json = ParseFile(config);
  ASSERT_NE(json, nullptr);
  EXPECT_EQ(Str((*json)["Extra"]["keep"][1]), "two");
  EXPECT_EQ(RunTool({"verify-install"}).status, 0);

  TamperOneByte(install + "/libTessmarFirefox.so");
  const Result tampered = RunTool({"verify-install"});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "does not match");
  ASSERT_EQ(RunTool({"install"}).status, 0);  // replaces the old "Sig"
  EXPECT_TRUE(CheckModuleSignature());
}

TEST_F(SignToolTest, InstallationSignatureFileInDirectory) {
  const std::string dir = MakeInstallation("stage");
  ASSERT_EQ(RunTool({"install", "--dir", dir}).status, 0);
  std::string header;
  const std::string digest = makeSig("morrowhost", "pelmora", dir, header);
  EXPECT_EQ(ReadFile(header), MakeBase64Encode(digest));
  EXPECT_EQ(RunTool({"verify-install", "--dir", dir}).status, 0);
  ASSERT_EQ(unlink(header.c_str()), 0);
  const Result unsigned_dir = RunTool({"verify-install", "--dir", dir});
  EXPECT_EQ(unsigned_dir.status, 1);
  ExpectOneLineReason(unsigned_dir, "Tessmar.sig");

  // A directory without covered files is refused, not signed.
  const std::string empty = home_.path() + "/empty";
  ASSERT_EQ(mkdir(empty.c_str(), 0755), 0);
  EXPECT_EQ(RunTool({"install", "--dir", empty}).status, 2);
  EXPECT_EQ(DirectoryEntries(empty), Args{});
}

TEST_F(SignToolTest, ServerSignatureFileRoundTrip) {
  const std::string server = home_.WriteHomeFile("bin/server", "server code");
  ASSERT_EQ(RunTool({"server", server}).status, 0);
  EXPECT_TRUE(CheckLocalServerSig(server));
  EXPECT_EQ(RunTool({"verify-server", server}).status, 0);
  TamperOneByte(server);
  const Result tampered = RunTool({"verify-server", server});
  EXPECT_EQ(tampered.status, 1);
  ExpectOneLineReason(tampered, "does not match");
}

TEST_F(SignToolTest, BadInputFailsWithoutTouchingFiles) {
  const std::string missing = home_.path() + "/no-such.so";
  const std::string empty = home_.WriteHomeFile("empty.so", "");
  for (const std::string& file : {missing, empty}) {
    for (const Args& args : {Args{"client", file}, Args{"module", "demo", file},
                             Args{"server", file}, Args{"verify-server", file}}) {
      SCOPED_TRACE(args[0] + " " + file);
      const Result result = RunTool(args);
      EXPECT_EQ(result.status, 2);
      ExpectOneLineReason(result, file);
    }
  }
  EXPECT_EQ(ReadFile(empty + ".sig"), "");
  EXPECT_EQ(DirectoryEntries(home_.ConfigDir()), Args{});

  // No config.json to store into; a module name escaping the directory.
  for (const Args& args : {Args{"install"}, Args{"verify-module", "demo"},
                           Args{"module", "../escape", home_.WriteHomeFile("m.so", "x")}}) {
    EXPECT_EQ(RunTool(args).status, 2) << testing::PrintToString(args);
  }

  // Broken configuration files are reported and left byte for byte.
  const std::string install = MakeInstallation("opt/tessmar");
  const std::string module = home_.WriteHomeFile("mod/libdemo.so", "code");
  for (const auto& [text, reason] : {std::pair<std::string, std::string>{
                                         "{\"Tessmar\": \"" + install + "\",", "invalid JSON"},
                                     {"[\"Tessmar\"]", "not a JSON object"}}) {
    for (const auto& [name, args] : {std::pair<std::string, Args>{"config.json", {"install"}},
                                     {"demo.json", {"module", "demo", module}}}) {
      SCOPED_TRACE(name + ": " + text);
      const std::string config = home_.WriteConfig(name, text);
      const Result result = RunTool(args);
      EXPECT_EQ(result.status, 2);
      ExpectOneLineReason(result, reason);
      EXPECT_EQ(ReadFile(config), text);
    }
  }
}

}  // namespace
