// Loading client modules: result codes, the order of the checks, the
// registry, and unloading. Each scenario runs in a child process of its own
// because the registry lives for the whole process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "modhost/module_registry.h"
#include "support/fixture_log.h"
#include "support/isolated_process.h"
#include "support/module_sandbox.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"
#include "tessmar/signature.h"

namespace {

using tessmar::g_defaultHostFuncs;
using tessmar::g_mapClient;
using tessmar::testing::LogLine;
using tessmar::testing::ModuleSandbox;
using tessmar::testing::ReadFile;
using tessmar::testing::ReplaceFile;
using tessmar::testing::RunIsolated;
using tessmar::testing::SignedInstallation;
using Lines = std::vector<std::string>;

// The text the fixtures print for a pointer.
std::string Pointer(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", pointer);
  return text;
}

std::string SetHostFuncsLine(const char* tag, const void* host) {
  return LogLine({tag, "SetHostFuncs", "1", "48", "2", Pointer(host)});
}

TEST(ModuleLoader, LoadsOnceAndHandsOverTheHostTableOnce) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    ASSERT_TRUE(CheckModuleSignature());
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    QXHostFuncs host = g_defaultHostFuncs;  // a table of the caller's own

    char name[] = "a";
    EXPECT_EQ(LoadQxClient(name, &host), QX_LOAD_OK);
    name[0] = 'x';  // the registry keeps a copy of the name
    QxClientFuncs* funcs = GetInvoke("a");
    ASSERT_NE(funcs, nullptr);
    EXPECT_EQ(LoadQxClient("a", &host), QX_LOAD_OK);

    EXPECT_EQ(s.log.Lines(),
              (Lines{"a\tInitialize", SetHostFuncsLine("a", &host)}));
    EXPECT_EQ(GetInvoke("a"), funcs);
    EXPECT_EQ(GetInvoke("x"), nullptr);
    EXPECT_EQ(GetInvoke("a "), nullptr);
    EXPECT_EQ(GetLoadedClientList(), "a");
    EXPECT_EQ(g_mapClient.size(), 1u);
  }));
}

TEST(ModuleLoader, NullHostTableSelectsTheDefaultTableWhoseCallbacksGoNowhere) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    EXPECT_EQ(
        s.log.Lines(),
        (Lines{"a\tInitialize", SetHostFuncsLine("a", &g_defaultHostFuncs)}));
    EXPECT_EQ(g_defaultHostFuncs.Alloc, &std::malloc);
    EXPECT_EQ(g_defaultHostFuncs.Free, &std::free);

    // The module calls SendCallback of the table it was given: nothing is
    // queued for the page.
    const std::string request =
        "{\"cmd\":\"native\",\"id\":\"1\",\"module\":\"a\",\"sendCallback\":1}";
    EXPECT_NE(process_request(nullptr, request.c_str(),
                              static_cast<int>(request.size()), nullptr),
              "");
    EXPECT_EQ(s.log.Lines().at(3), "a\tSendCallback\t0");
    char* queued = tsmx_Pop();
    EXPECT_STREQ(queued, "");
    tsmx_Free(queued);
  }));
}

TEST(ModuleLoader, ModuleCheckComesFirstSoATamperedLoadedModuleIsRefused) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    const std::string copy =
        s.install.AddModuleCopy("a", FIXTURE_RECORDING_A_PATH);
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    QxClientFuncs* funcs = GetInvoke("a");
    ASSERT_NE(funcs, nullptr);

    ASSERT_TRUE(ReplaceFile(copy, ReadFile(copy) + "x"));
    EXPECT_EQ(LoadQxClient("a", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(GetInvoke("a"), funcs);  // refused, yet still registered

    // Signature text of another file, and none at all: refused before the
    // installation is looked at, even though that check would fail too.
    s.install.WriteModuleFile(
        "b", FIXTURE_RECORDING_B_PATH,
        SignedInstallation::ModuleSignature(FIXTURE_RECORDING_A_PATH));
    s.install.WriteModuleFile("c", FIXTURE_RECORDING_B_PATH, "");
    s.install.Tamper();
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(LoadQxClient("c", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(GetLoadedClientList(), "a");
    EXPECT_EQ(s.log.Lines().size(), 2u);  // a's Initialize and SetHostFuncs
  }));
}

TEST(ModuleLoader, InstallationCheckComesAfterTheAlreadyLoadedTest) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);

    s.install.Tamper();
    ASSERT_FALSE(CheckModuleSignature());
    EXPECT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_INSTALLATION_BLOCKED);
    EXPECT_EQ(GetInvoke("b"), nullptr);

    s.install.Sign();  // vouched for again: b loads now
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);
    EXPECT_NE(GetInvoke("b"), nullptr);
  }));
}

TEST(ModuleLoader, SignedFileThatIsNoLibraryCannotBeOpened) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    const std::string text =
        s.home.WriteHomeFile("modules/libtext.so", "not a shared object\n");
    s.install.AddModule("text", text);
    EXPECT_EQ(LoadQxClient("text", nullptr), QX_LOAD_OPEN_FAILED);
    EXPECT_EQ(GetInvoke("text"), nullptr);
    EXPECT_EQ(GetLoadedClientList(), "");
  }));
}

TEST(ModuleLoader, LibrariesThatDoNotInitializeGiveZeroAndStayUnregistered) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("bare", FIXTURE_NO_INITIALIZE_PATH);
    s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
    for (const char* name : {"bare", "failing", "bare", "failing"}) {
      SCOPED_TRACE(name);
      EXPECT_EQ(LoadQxClient(name, nullptr), QX_LOAD_OK);
      EXPECT_EQ(GetInvoke(name), nullptr);
    }
    // Every attempt goes through all steps again; the failing module's
    // entries abort if any of them is called.
    EXPECT_EQ(s.log.Lines(),
              (Lines{"failing Initialize", "failing Initialize"}));

    // No module file at all: the empty path is opened as it stands, which
    // gives the program itself, and it has no Initialize either.
    EXPECT_EQ(LoadQxClient("absent", nullptr), QX_LOAD_OK);
    EXPECT_EQ(GetInvoke("absent"), nullptr);
    EXPECT_EQ(GetLoadedClientList(), "");
  }));
}

TEST(ModuleLoader, ListJoinsTheNamesInRegistryOrder) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    EXPECT_EQ(GetLoadedClientList(), "");
    for (const char* name : {"zeta", "alpha", "mid"}) {
      s.install.AddModule(name, FIXTURE_RECORDING_A_PATH);
      ASSERT_EQ(LoadQxClient(name, nullptr), QX_LOAD_OK);
    }
    // The registry is ordered by the addresses of its key copies, not by
    // text; the list follows it.
    std::string in_registry_order;
    for (const auto& entry : g_mapClient) {
      if (!in_registry_order.empty()) in_registry_order += ",";
      in_registry_order += entry.first;
    }
    const std::string list = GetLoadedClientList();
    EXPECT_EQ(list, in_registry_order);

    std::vector<std::string> names;
    for (std::size_t start = 0;;) {
      const std::size_t comma = list.find(',', start);
      names.push_back(list.substr(start, comma - start));
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Lines{"alpha", "mid", "zeta"}));
  }));
}

TEST(ModuleLoader, UnloadTerminatesEveryModuleAndALaterLoadStartsAfresh) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    ASSERT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);
    ASSERT_EQ(s.log.Lines().size(), 4u);

    UnloadQxClient();
    const Lines after_unload = s.log.Lines();
    Lines terminated(after_unload.begin() + 4, after_unload.end());
    std::sort(terminated.begin(), terminated.end());
    EXPECT_EQ(terminated, (Lines{"a\tTerminate", "b\tTerminate"}));
    EXPECT_EQ(GetInvoke("a"), nullptr);
    EXPECT_EQ(GetInvoke("b"), nullptr);
    EXPECT_EQ(GetLoadedClientList(), "");
    EXPECT_TRUE(g_mapClient.empty());

    UnloadQxClient();  // nothing loaded: nothing happens
    EXPECT_EQ(s.log.Lines().size(), 6u);

    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    EXPECT_NE(GetInvoke("a"), nullptr);
    const Lines lines = s.log.Lines();
    EXPECT_EQ(
        Lines(lines.begin() + 6, lines.end()),
        (Lines{"a\tInitialize", SetHostFuncsLine("a", &g_defaultHostFuncs)}));
  }));
}

}  // namespace
