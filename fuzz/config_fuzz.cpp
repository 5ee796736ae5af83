// The configuration readers on arbitrary file contents: the input, split at
// its first NUL, becomes config.json and the module file "fuzz.json" (and,
// for the native client, "morrowhost.json").
#include <string>

#include "fuzz_input.h"
#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

static std::string g_dir;  // the TempHome's config directory

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static const tessmar::testing::TempHome home;  // for the whole run
  g_dir = home.ConfigDir();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using tessmar::testing::WriteFile;
  const auto [config, module] = tessmar::fuzz::SplitAt(
      std::string(reinterpret_cast<const char*>(data), size), '\0');
  WriteFile(g_dir + "/config.json", config);
  WriteFile(g_dir + "/fuzz.json", module);
  WriteFile(g_dir + "/morrowhost.json", module);

  GetTessmarInstallPath();
  GetCurrentVersion(nullptr);
  GetClientVersion("fuzz");
  GetClientInstallPathModule("fuzz", false);
  GetClientInstallPathModule("fuzz", true);
  GetClientInstallPath();
  std::string list = "fuzz,,morrowhost,absent";
  GetClientVersions(&list[0]);
  CheckModuleSignature();
  return 0;
}
