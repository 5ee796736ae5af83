// tessmar-sign as a child process in a temporary HOME: signatures the
// library's checks accept, exit statuses 0/1/2 with their one-line reasons,
// rewrites that keep what is not the tool's.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/run_program.h"
#include "support/signed_installation.h"

namespace tessmar::testing {
namespace {

using Args = std::vector<std::string>;

// The client signature of the four bytes "code".
constexpr char kCodeSig[] = "/JVvAbgndv02XdmO3ALSPaUC9olUwH07nVQqx9l7kKU=";

void Tamper(const std::string& path) { WriteFile(path, ReadFile(path) + "x"); }

ProgramResult RunTool(const Args& args, const std::string& cwd = ".") {
  Args argv = {"env", "-C", cwd, TESSMAR_SIGN_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
}

// Runs the tool and checks its exit status and, if given, the reason: a
// failure is reported as exactly one line naming the tool.
ProgramResult ExpectExit(const Args& args, int status, const std::string& words = "",
                         const std::string& cwd = ".") {
  SCOPED_TRACE(::testing::PrintToString(args));
  const ProgramResult result = RunTool(args, cwd);
  EXPECT_EQ(result.exit_code, status) << result.err;
  if (words.empty()) return result;
  EXPECT_EQ(result.err.rfind("tessmar-sign: ", 0), 0u) << result.err;
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
  return result;
}

class SignToolTest : public ::testing::Test {
 protected:
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
  const std::string file = home_.WriteHomeFile("m.so", "code");
  const ProgramResult no_home = RunProgram({"env", "HOME=", TESSMAR_SIGN_TOOL, "module", "demo", file});
  EXPECT_EQ(no_home.exit_code, 2);
  EXPECT_EQ(no_home.err, "tessmar-sign: HOME is not set; give the directory with --config-dir DIR\n");
}

TEST_F(SignToolTest, ClientAndServerSignaturesPassTheLibraryChecksUntilTampered) {
  const std::string file = home_.WriteHomeFile("bin/program", "code");
  EXPECT_EQ(RunTool({"client", file}).out, std::string(kCodeSig) + "\n");
  ExpectExit({"server", file}, 0);
  ExpectExit({"verify-client", file, kCodeSig}, 0);
  ExpectExit({"verify-server", file}, 0);
  Tamper(file);
  ExpectExit({"verify-client", file, kCodeSig}, 1, "does not match");
  // A well-formed stored signature that does not match is told apart from
  // one that is not a signature text.
  ExpectExit({"verify-server", file}, 1, "signature in " + file + ".sig does not match");
}

// The module file is rewritten with every other member kept, in its order
// (escapes, a second "Sig" of which only the first is ours, a non-string
// "Version", an integer beyond a double's precision) and its mode.
TEST_F(SignToolTest, ModuleFileIsUpdatedInPlaceForTheLibrary) {
  const std::string config = home_.WriteConfig(
      "demo.json",
      R"({"Comment": "q \" \\ \t \u0000 \u00e9\ud83d\ude00 \/", "Sig": 17,)"
      R"( "Nested": [{"d": 1e-300}, true, null], "Version": 3,)"
      R"( "Sig": "second stays", "Big": 9007199254740993})");
  ASSERT_EQ(chmod(config.c_str(), 0640), 0);
  home_.WriteHomeFile("mod/libdemo.so", "code");
  // A relative FILE is stored as the absolute path the library will load.
  ExpectExit({"module", "demo", "mod/libdemo.so", "--version", "2.0.0.0"}, 0, "", home_.path());
  const std::string file = home_.path() + "/mod/libdemo.so";
  EXPECT_EQ(ReadFile(config), std::string(R"({
  "Comment": "q \" \\ \t \u0000 )" "\xc3\xa9\xf0\x9f\x98\x80" R"( /",
  "Sig": ")") + kCodeSig + R"(",
  "Nested": [
    {
      "d": 1e-300
    },
    true,
    null
  ],
  "Version": "2.0.0.0",
  "Sig": "second stays",
  "Big": 9007199254740993,
  "Name": "demo",
  "Path": ")" + file + "\"\n}\n");
  struct stat info {};
  ASSERT_EQ(stat(config.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);

  // --config-dir writes there alone.
  ExpectExit({"module", "other", file, "--config-dir", home_.path() + "/staging"}, 0);
  EXPECT_NE(ReadFile(home_.path() + "/staging/other.json").find(kCodeSig), std::string::npos);
  ASSERT_EQ(unlink(config.c_str()), 0);
  EXPECT_EQ(rmdir(home_.ConfigDir().c_str()), 0) << "a temporary file was left";
}

// An absent covered file is signed quietly and listed on verify; a changed
// one is named.
TEST_F(SignToolTest, InstallationSignatureGoesIntoConfigJsonOrTheDirectory) {
  const SignedInstallation install(home_);
  const std::string dir = install.install_dir();
  const std::string plugin = dir + "/libnpTessmarPlugin.so";
  ASSERT_EQ(unlink(plugin.c_str()), 0);
  const ProgramResult signing = RunTool({"install"});
  EXPECT_TRUE(signing.exit_code == 0 && signing.err.empty()) << signing.err;
  const ProgramResult verifying = RunTool({"verify-install"});
  EXPECT_EQ(verifying.exit_code, 0) << verifying.err;
  // The browser manifest, outside HOME, is listed absent too.
  for (const std::string& line : {"absent: " + plugin, "installation " + dir + ": signature valid"}) {
    EXPECT_NE(verifying.out.find(line + "\n"), std::string::npos) << verifying.out;
  }
  Tamper(dir + "/TessmarChrome");
  ExpectExit({"verify-install"}, 1, "changed since signing: " + dir + "/TessmarChrome\n");

  ExpectExit({"install", "--dir", dir}, 0);
  ExpectExit({"verify-install", "--dir", dir}, 0);
  const std::string header = dir + "/Tessmar.sig";
  ASSERT_EQ(unlink(header.c_str()), 0);
  ExpectExit({"verify-install", "--dir", dir}, 1, "no signature file " + header);
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
  ExpectExit({"client", missing}, 2, missing);
  ExpectExit({"server", empty}, 2, empty);
  ExpectExit({"module", "demo", fifo}, 2, "not a regular file");
  EXPECT_EQ(access((empty + ".sig").c_str(), F_OK), -1);
  EXPECT_EQ(access((home_.ConfigDir() + "/demo.json").c_str(), F_OK), -1);
  // No config.json to store into; a module name escaping the directory.
  ExpectExit({"install"}, 2, "no config.json in ");
  const std::string module = home_.WriteHomeFile("mod/libdemo.so", "code");
  ExpectExit({"module", "../escape", module}, 2, "not a plain file name");

  const std::string start = "{\"Tessmar\": \"" + home_.path() + "\"";
  const std::tuple<std::string, std::string, Args, const char*> broken[] = {
      {"config.json", start + ",", {"install"}, "invalid JSON: 1:0: Unexpected end of text"},
      {"config.json", start + "}" + std::string(1 << 20, ' '), {"install"}, "too large"},
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
  // A module file planted as a link is not followed, and its target is kept.
  const std::string target = home_.WriteHomeFile("elsewhere.json", "{}");
  const std::string demo = home_.ConfigDir() + "/demo.json";
  ASSERT_EQ(unlink(demo.c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), demo.c_str()), 0);
  ExpectExit({"module", "demo", module}, 2, "symbolic link");
  EXPECT_EQ(ReadFile(target), "{}");
}

// verify-module makes the loader's checks in the loader's order and names
// the first that fails, ending with the status word pages get.
TEST_F(SignToolTest, VerifyModuleNamesTheLoadersFirstRefusal) {
  const SignedInstallation install(home_);
  const auto refused = [](int status, const std::string& words, const std::string& answer) {
    const std::string err = ExpectExit({"verify-module", "demo"}, status, words).err;
    EXPECT_NE(err.find("; pages get " + answer + "\n"), std::string::npos) << err;
  };
  refused(2, "module 'demo': no demo.json in ", "FALSE");
  const std::string copy = install.AddModuleCopy("demo", FIXTURE_RECORDING_A_PATH);
  const ProgramResult working = ExpectExit({"verify-module", "demo"}, 0);
  EXPECT_NE(working.out.find("; loads and initializes\n"), std::string::npos) << working.out;
  Tamper(copy);
  refused(1, "module 'demo': signature does not match " + copy, "BLOCK:CLIENT");
  install.AddModule("demo", home_.WriteHomeFile("libdemo.so", "#!/bin/sh\n"));
  refused(1, "libdemo.so: cannot be loaded: ", "FALSE");
  install.AddModule("demo", FIXTURE_NO_INITIALIZE_PATH);
  refused(1, "exports no Initialize", "FALSE");
  install.AddModule("demo", FIXTURE_FAILING_INITIALIZE_PATH);
  refused(1, "Initialize returned 3", "FALSE");
  // The installation is checked once the module's signature holds.
  install.Tamper();
  refused(1, "module 'demo': installation signature in \"Sig\" of ", "BLOCK:QX");
}

}  // namespace
}  // namespace tessmar::testing
