// tessmar-sign as a child process in a temporary HOME: signatures its verify
// commands (the library's checks) accept, exit statuses 0/1/2, safe rewrites.
#include <gtest/gtest.h>
#include <json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "config/config_location.h"
#include "support/run_program.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::ProgramResult;
using tessmar::testing::ReadFile;
using tessmar::testing::RunProgram;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;
using Args = std::vector<std::string>;

using Json = std::unique_ptr<json_value, decltype(&json_value_free)>;
Json ParseFile(const std::string& path) {
  const std::string text = ReadFile(path);
  return Json(json_parse(text.data(), text.size()), &json_value_free);
}
std::string Str(const json_value& value) {
  return value.type == json_string ? std::string(value.u.string.ptr, value.u.string.length)
                                   : "<not a string>";
}

void Tamper(const std::string& path) { WriteFile(path, ReadFile(path) + "x"); }

class SignToolTest : public ::testing::Test {
 protected:
  // Runs the tool in `cwd`.
  static ProgramResult RunTool(const Args& args, const std::string& cwd = ".") {
    Args argv = {"env", "-C", cwd, TESSMAR_SIGN_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv);
  }

  // Runs the tool and checks its exit status and, if given, the reason: a
  // failure is reported as exactly one line naming the tool.
  void ExpectExit(const Args& args, int status, const std::string& words = "",
                  const std::string& cwd = ".") {
    SCOPED_TRACE(testing::PrintToString(args));
    const ProgramResult result = RunTool(args, cwd);
    EXPECT_EQ(result.exit_code, status) << result.err;
    if (words.empty()) return;
    EXPECT_EQ(result.err.rfind("tessmar-sign: ", 0), 0u) << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
    EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
  }

  // The three covered framework files (the browser manifest stays absent).
  std::string MakeInstallation(const std::string& relative) {
    home_.WriteHomeFile(relative + "/libnpTessmarPlugin.so", "plugin bytes");
    home_.WriteHomeFile(relative + "/libTessmarFirefox.so", std::string("bridge\0bytes", 12));
    home_.WriteHomeFile(relative + "/TessmarChrome", "host executable");
    return home_.path() + "/" + relative;
  }

  TempHome home_;
};

TEST_F(SignToolTest, UsageErrorsHelpAndVersion) {
  const ProgramResult help = RunTool({"module", "--help"});
  EXPECT_TRUE(help.exit_code == 0 && help.out.find("verify-install") != std::string::npos) << help.out;
  // Before a command --version is the tool's; after "module" it is the module's.
  EXPECT_EQ(RunTool({"--version"}).out, "tessmar-sign " TESSMAR_TEST_VERSION "\n");
  EXPECT_EQ(RunTool({}).exit_code, 2);
  const std::pair<Args, const char*> usage_errors[] = {
      {{"module", "demo"}, "NAME FILE"}, {{"install", "--dir"}, "--dir"},
      {{"--sign-everything", "install"}, "unknown option '--sign-everything'"},
      {{"server", "file", "--system"}, "--system applies only to"},
      {{"--system", "install", "--dir", "x"}, "--system and --dir"}};
  for (const auto& [args, words] : usage_errors) ExpectExit(args, 2, words);
}

TEST_F(SignToolTest, ClientAndServerSignaturesPassTheLibraryChecksUntilTampered) {
  const std::string file = home_.WriteHomeFile("bin/program", "program code");
  const ProgramResult client = RunTool({"client", file});
  ASSERT_EQ(client.exit_code, 0) << client.err;
  ASSERT_EQ(client.out.size(), 45u);
  const std::string text = client.out.substr(0, 44);
  ExpectExit({"server", file}, 0);
  ExpectExit({"verify-client", file, text}, 0);
  ExpectExit({"verify-server", file}, 0);
  Tamper(file);
  ExpectExit({"verify-client", file, text}, 1, "does not match");
  ExpectExit({"verify-server", file}, 1, "does not match");
}

TEST_F(SignToolTest, SignedModuleIsLoadableUntilTampered) {
  home_.WriteHomeFile("mod/libdemo.so", std::string("\x7f" "ELF\0\1 code", 11));
  // A relative FILE is stored as the absolute path the library will load.
  ExpectExit({"module", "demo", "mod/libdemo.so", "--version", "1.0.0.2"}, 0, "", home_.path());
  const std::string file = home_.path() + "/mod/libdemo.so";
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
  EXPECT_EQ(GetClientVersion("demo"), "1.0.0.2");
  Tamper(file);
  ExpectExit({"verify-module", "demo"}, 1, "module 'demo': signature does not match " + file);

  // --config-dir leaves HOME's file alone.
  const std::string before = ReadFile(home_.ConfigDir() + "/demo.json");
  ExpectExit({"module", "other", file, "--config-dir", home_.path() + "/staging/conf"}, 0);
  const Json staged = ParseFile(home_.path() + "/staging/conf/other.json");
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
  ExpectExit({"module", "demo", file, "--version", "2.0.0.0"}, 0);
  struct stat info {};
  ASSERT_EQ(stat(config.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);

  const Json after = ParseFile(config);
  ASSERT_NE(after, nullptr);
  Args names;
  for (const auto& member : after->u.object) names.emplace_back(member.name, member.name_length);
  EXPECT_EQ(names, (Args{"Comment", "Sig", "Nested", "Version", "Sig", "Big", "Name", "Path"}));
  EXPECT_EQ(Str((*after)["Comment"]),
            std::string("q \" b \\ t \t nul \0 \xc3\xa9\xf0\x9f\x98\x80 /", 26));
  EXPECT_EQ((*after)["Nested"]["list"][2].u.dbl, 1e-300);
  EXPECT_EQ(Str(*after->u.object.values[4].value), "second stays");
  EXPECT_EQ((*after)["Big"].u.integer, 9007199254740993);
  EXPECT_EQ(Str((*after)["Version"]), "2.0.0.0");
  EXPECT_EQ(GetClientInstallPathModule("demo", true), file);
  ASSERT_EQ(unlink(config.c_str()), 0);
  EXPECT_EQ(rmdir(home_.ConfigDir().c_str()), 0) << "a temporary file was left";
}

// An absent covered file is signed quietly and listed on verify; a changed
// one is named.
TEST_F(SignToolTest, InstallationSignatureGoesIntoConfigJsonOrTheDirectory) {
  const std::string install = MakeInstallation("opt/tessmar");
  const std::string config = home_.WriteConfig(
      "config.json", "{\"Tessmar\": \"" + install + "\", \"Extra\": {\"keep\": [1, \"two\"]}}");
  const std::string plugin = install + "/libnpTessmarPlugin.so";
  ASSERT_EQ(unlink(plugin.c_str()), 0);
  const ProgramResult signing = RunTool({"install"});
  EXPECT_TRUE(signing.exit_code == 0 && signing.err.empty()) << signing.err;
  const Json json = ParseFile(config);
  ASSERT_NE(json, nullptr);
  EXPECT_EQ(Str((*json)["Extra"]["keep"][1]), "two");
  const ProgramResult verifying = RunTool({"verify-install"});
  EXPECT_EQ(verifying.exit_code, 0) << verifying.err;
  EXPECT_NE(verifying.out.find("absent: " + plugin + "\n"), std::string::npos) << verifying.out;
  Tamper(install + "/TessmarChrome");
  ExpectExit({"verify-install"}, 1, "changed since signing: " + install + "/TessmarChrome\n");

  const std::string dir = MakeInstallation("stage");
  ExpectExit({"install", "--dir", dir}, 0);
  std::string header;
  EXPECT_EQ(ReadFile(dir + "/Tessmar.sig"),
            MakeBase64Encode(makeSig("morrowhost", "pelmora", dir, header)));
  ExpectExit({"verify-install", "--dir", dir}, 0);
  ASSERT_EQ(unlink(header.c_str()), 0);
  ExpectExit({"verify-install", "--dir", dir}, 1, "Tessmar.sig");
  // A directory without covered files is refused, not signed.
  const std::string empty = home_.path() + "/empty";
  ASSERT_EQ(mkdir(empty.c_str(), 0755), 0);
  ExpectExit({"install", "--dir", empty}, 2);
  EXPECT_EQ(rmdir(empty.c_str()), 0) << "something was written";
}

// Missing, empty, broken or unusual files (a FIFO, an oversized file, a
// planted link) where the tool reads or writes: it fails at once with its
// reason and touches nothing.
TEST_F(SignToolTest, BadFilesFailWithTheirReasonAndAreLeftAlone) {
  const std::string missing = home_.path() + "/no-such.so";
  const std::string empty = home_.WriteHomeFile("empty.so", "");
  const std::string fifo = home_.path() + "/libfifo.so";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& file : {missing, empty, fifo}) {
    for (const Args& args : {Args{"client", file}, Args{"module", "demo", file},
                             Args{"server", file}, Args{"verify-server", file}}) {
      ExpectExit(args, 2, file == fifo ? "not a regular file" : file);
    }
  }
  EXPECT_EQ(access((empty + ".sig").c_str(), F_OK), -1);
  EXPECT_EQ(access((home_.ConfigDir() + "/demo.json").c_str(), F_OK), -1);
  // No config.json to store into; a module name escaping the directory.
  ExpectExit({"install"}, 2);
  ExpectExit({"verify-module", "demo"}, 2);
  ExpectExit({"module", "../escape", home_.WriteHomeFile("m.so", "x")}, 2);

  const std::string install = MakeInstallation("opt/tessmar");
  const std::string module = home_.WriteHomeFile("mod/libdemo.so", "code");
  const std::tuple<std::string, std::string, Args, const char*> broken[] = {
      {"config.json", "{\"Tessmar\": \"" + install + "\",", {"install"}, "invalid JSON"},
      {"config.json", "{\"Tessmar\": \"" + install + "\"}" + std::string(1 << 20, ' '),
       {"install"}, "too large"},
      {"demo.json", "[\"Name\"]", {"module", "demo", module}, "not a JSON object"}};
  for (const auto& [name, text, args, words] : broken) {
    const std::string config = home_.WriteConfig(name, text);
    ExpectExit(args, 2, words);
    EXPECT_EQ(ReadFile(config), text);
  }
  const std::string config = home_.ConfigDir() + "/config.json";
  ASSERT_EQ(unlink(config.c_str()), 0);
  ASSERT_EQ(mkfifo(config.c_str(), 0600), 0);
  ExpectExit({"install"}, 2, "not a regular file");
  ExpectExit({"verify-install"}, 2, "not a regular file");
  // A module file planted as a link is not followed, and its target is kept.
  const std::string target = home_.WriteHomeFile("elsewhere.json", "{}");
  const std::string demo = home_.ConfigDir() + "/demo.json";
  ASSERT_EQ(unlink(demo.c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), demo.c_str()), 0);
  ExpectExit({"module", "demo", module}, 2, "symbolic link");
  EXPECT_EQ(ReadFile(target), "{}");
}

// verify-module makes the loader's checks in the loader's order and names
// the first that fails, with the answer pages get.
TEST_F(SignToolTest, VerifyModuleNamesTheLoadersFirstRefusal) {
  using tessmar::testing::SignedInstallation;
  struct Case {
    const char* what;
    std::function<void(const SignedInstallation&, TempHome&)> arrange;
    int status;
    std::vector<std::string> words;
  };
  const std::string not_a_library = "#!/bin/sh\necho not a library\n";
  const Case cases[] = {
      {"a working module", [](auto& install, auto&) {
         install.AddModule("demo", FIXTURE_RECORDING_A_PATH); },
       0, {}},
      {"no module file", [](auto&, auto&) {}, 2, {"no demo.json in ", "pages get FALSE"}},
      {"no \"Path\"", [](auto&, auto& home) {
         home.WriteConfig("demo.json", R"({"Name":"demo","Sig":"x"})"); },
       2, {"has no \"Path\" string", "pages get FALSE"}},
      {"no \"Sig\"", [](auto& install, auto&) {
         install.WriteModuleFile("demo", FIXTURE_RECORDING_A_PATH, ""); },
       1, {"holds no \"Sig\"", "pages get BLOCK:CLIENT"}},
      {"a changed module", [](auto& install, auto&) {
         Tamper(install.AddModuleCopy("demo", FIXTURE_RECORDING_A_PATH)); },
       1, {"signature does not match", "pages get BLOCK:CLIENT"}},
      {"a missing module library", [](auto& install, auto& home) {
         install.WriteModuleFile("demo", home.path() + "/gone.so", "QUJD"); },
       1, {"gone.so", "pages get BLOCK:CLIENT"}},
      // The client signature is checked before the installation's.
      {"a changed installation", [](auto& install, auto&) {
         install.AddModule("demo", FIXTURE_RECORDING_A_PATH);
         install.Tamper(); },
       1, {"installation signature", "does not match", "pages get BLOCK:QX"}},
      {"not a library", [&not_a_library](auto& install, auto& home) {
         install.AddModule("demo", home.WriteHomeFile("libdemo.so", not_a_library)); },
       1, {"libdemo.so: cannot be loaded: ", "pages get FALSE"}},
      {"no Initialize", [](auto& install, auto&) {
         install.AddModule("demo", FIXTURE_NO_INITIALIZE_PATH); },
       1, {"exports no Initialize", "pages get FALSE"}},
      {"Initialize fails", [](auto& install, auto&) {
         install.AddModule("demo", FIXTURE_FAILING_INITIALIZE_PATH); },
       1, {"Initialize returned 3", "pages get FALSE"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempHome home;
    const SignedInstallation install(home);
    c.arrange(install, home);
    const ProgramResult result = RunTool({"verify-module", "demo"});
    const std::string output = result.out + result.err;
    EXPECT_EQ(result.exit_code, c.status) << output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
    if (c.status != 0) {
      EXPECT_EQ(output.rfind("tessmar-sign: module 'demo': ", 0), 0u) << output;
    }
    for (const std::string& words : c.words) {
      EXPECT_NE(output.find(words), std::string::npos) << words << " in " << output;
    }
  }
}

}  // namespace
