// Finding and loading client modules; each scenario that loads one runs in a
// child process.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "modhost/module_registry.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"
#include "tessmar/signature.h"

// Exported like a module's entry point; a module without a file must never reach it.
static int g_programInitializeCalls = 0;
extern "C" __attribute__((visibility("default"))) int Initialize(QxClientFuncs*) {
  ++g_programInitializeCalls;
  return 1;
}

namespace {

using tessmar::g_defaultHostFuncs;
using namespace tessmar::testing;

TEST(ModuleLoader, LoadsOnceAndFindsModulesByTheirWholeName) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("ab", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("a", FIXTURE_RECORDING_B_PATH);
    QXHostFuncs host = g_defaultHostFuncs;
    char name[] = "ab";
    EXPECT_EQ(LoadQxClient(name, &host), QX_LOAD_OK);
    name[0] = 'x';  // the registry keeps a copy of the name
    QxClientFuncs* ab = GetInvoke("ab");
    ASSERT_NE(ab, nullptr);
    for (const char* other : {"a", "abc", "xb", "ab ", "", "AB"}) {
      EXPECT_EQ(GetInvoke(other), nullptr) << other;
    }
    EXPECT_EQ(GetInvoke(nullptr), nullptr);
    EXPECT_EQ(LoadQxClient("ab", &host), QX_LOAD_OK);
    EXPECT_EQ(s.Log(), (Lines{"a\tInitialize", SetHostFuncsLine("a", &host)}));

    // A shorter name is a module of its own, and does not hide the longer.
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    EXPECT_EQ(s.Log().at(2), "b\tInitialize");
    ASSERT_NE(GetInvoke("a"), nullptr);
    EXPECT_NE(GetInvoke("a"), ab);
    EXPECT_EQ(GetInvoke("ab"), ab);
  }));
}

// Order: module signature (even when loaded), "already loaded", installation.
TEST(ModuleLoader, ChecksComeInTheirFixedOrder) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    const std::string copy = s.install.AddModuleCopy("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    s.install.WriteModuleFile("wrongsig", FIXTURE_RECORDING_B_PATH,
                              SignedInstallation::ModuleSignature(copy));
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    QxClientFuncs* funcs = GetInvoke("a");

    s.install.Tamper();
    ASSERT_FALSE(CheckModuleSignature());
    EXPECT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_INSTALLATION_BLOCKED);
    EXPECT_EQ(LoadQxClient("wrongsig", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(GetInvoke("b"), nullptr);

    ASSERT_TRUE(ReplaceFile(copy, ReadFile(copy) + "x"));
    EXPECT_EQ(LoadQxClient("a", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(GetInvoke("a"), funcs);  // refused, yet still registered

    s.install.Sign();
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);
    EXPECT_NE(GetInvoke("b"), nullptr);
  }));
}

TEST(ModuleLoader, LibrariesThatCannotBeInitializedStayUnregistered) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("text", s.home.WriteHomeFile("modules/libtext.so", "not a library\n"));
    s.install.AddModule("bare", FIXTURE_NO_INITIALIZE_PATH);
    s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
    EXPECT_EQ(LoadQxClient("text", nullptr), QX_LOAD_OPEN_FAILED);
    // No Initialize or a failing one: 0, and each attempt retries.
    for (const char* name : {"bare", "failing", "bare", "failing"}) {
      EXPECT_EQ(LoadQxClient(name, nullptr), QX_LOAD_OK) << name;
      EXPECT_EQ(GetInvoke(name), nullptr) << name;
    }
    EXPECT_EQ(s.Log(), (Lines{"failing\tInitialize", "failing\tInitialize"}));
    // No module file: nothing to open, and the program's own Initialize is never looked up.
    EXPECT_EQ(LoadQxClient("absent", nullptr), QX_LOAD_OPEN_FAILED);
    EXPECT_EQ(g_programInitializeCalls, 0);
    EXPECT_EQ(GetLoadedClientList(), "");
  }));
}

TEST(ModuleLoader, UnloadTerminatesEveryModuleAndStartsAfresh) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    ASSERT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);
    const std::string list = GetLoadedClientList();  // in registry order
    EXPECT_TRUE(list == "a,b" || list == "b,a") << list;

    UnloadQxClient();
    UnloadQxClient();  // nothing loaded: nothing happens
    Lines log = s.Log();
    ASSERT_EQ(log.size(), 6u);
    std::sort(log.begin() + 4, log.end());
    EXPECT_EQ(Lines(log.begin() + 4, log.end()), (Lines{"a\tTerminate", "b\tTerminate"}));
    EXPECT_EQ(GetInvoke("b"), nullptr);
    EXPECT_EQ(GetLoadedClientList(), "");

    // Without a host table a module gets the default one, whose callbacks go nowhere.
    const std::string request = R"({"cmd":"native","id":"1","module":"b","sendCallback":1})";
    EXPECT_NE(process_request(nullptr, request.c_str(), static_cast<int>(request.size()), nullptr),
              "");
    EXPECT_EQ(s.Log().at(7), SetHostFuncsLine("b", &g_defaultHostFuncs));
    EXPECT_EQ(s.Log().at(9), "b\tSendCallback\t0");
    char* queued = tsmx_Pop();
    EXPECT_STREQ(queued, "");
    tsmx_Free(queued);
  }));
}

// Install paths of client modules, with and without the signature check,
// and of the native client.
constexpr char kBlocked[] = "BLOCK:CLIENT";

constexpr auto ModuleSignature = SignedInstallation::ModuleSignature;

class InstallPathTest : public ::testing::Test {
 protected:
  TempHome home_;
  const std::string library_ =
      home_.WriteHomeFile("lib/libreader.so", std::string("module\0bytes", 12));
  const std::string sig_ = ModuleSignature(library_);
  const std::string other_sig_ = ModuleSignature(home_.WriteHomeFile("lib/libother.so", "other"));
};

TEST_F(InstallPathTest, VerifiedLookupBlocksUnsignedOrMismatchedModules) {
  EXPECT_EQ(GetClientInstallPathModule("reader", false), "");  // no module file
  const std::string missing = home_.path() + "/lib/missing.so";
  // label, module file, path when not verified, path when verified
  const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
      {"valid signature", ModuleJson("reader", library_, sig_), library_, library_},
      {"no Sig member", "{\"Name\":\"reader\",\"Path\":\"" + library_ + "\"}", library_, kBlocked},
      {"signature of another file", ModuleJson("reader", library_, other_sig_), library_, kBlocked},
      {"library file missing", ModuleJson("reader", missing, sig_), missing, kBlocked},
      {"empty Name", ModuleJson("", library_, sig_), "", ""},
      {"empty Path", ModuleJson("reader", "", sig_), "", ""},
  };
  for (const auto& [label, text, plain, verified] : cases) {
    SCOPED_TRACE(label);
    home_.WriteConfig("reader.json", text);
    EXPECT_EQ(GetClientInstallPathModule("reader", false), plain);
    EXPECT_EQ(GetClientInstallPathModule("reader", true), verified);
  }
}

TEST_F(InstallPathTest, ClientPathPrefersTheMorrowhostModuleBlockIncluded) {
  EXPECT_EQ(GetClientInstallPath(), "");
  home_.WriteConfig("config.json", R"({"TessmarClient":"/opt/client"})");
  const std::pair<std::string, std::string> cases[] = {
      {"", "/opt/client"},  // no morrowhost.json
      {ModuleJson("morrowhost", library_, sig_), library_},
      {ModuleJson("morrowhost", library_, other_sig_), kBlocked},
      // A module file without a usable path falls through to config.json.
      {ModuleJson("morrowhost", "", ""), "/opt/client"}};
  for (const auto& [module_file, expected] : cases) {
    SCOPED_TRACE(module_file);
    if (!module_file.empty()) home_.WriteConfig("morrowhost.json", module_file);
    EXPECT_EQ(GetClientInstallPath(), expected);
  }
}

}  // namespace
