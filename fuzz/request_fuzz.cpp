// The in-process request path: any text given to tsmx_Invoke with no host
// running, and to process_request with its exact length. A private HOME holds
// a signed installation and a few module files: one unsigned, one with a
// wrong signature, one broken, and one correctly signed whose "library" is a
// text file, so requests get as far as dlopen, which refuses it. Nothing the
// loader can open runs code of its own.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/signed_installation.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Static: HOME stays for the whole run and is removed at exit.
  static const tessmar::testing::TempHome home;
  static const tessmar::testing::SignedInstallation install(home);
  const std::string fake = home.WriteHomeFile("modules/libfake.so", "not a shared library\n");
  install.AddModule("signed", fake);
  install.WriteModuleFile("morrowhost", "/nonexistent/m.so", "AAAA");
  home.WriteConfig("echo.json", R"({"Name":"echo","Path":"/nonexistent/e.so","Version":"1.0.0.1"})");
  home.WriteConfig("broken.json", R"({"Name":"broken",)");

  // Without these the signed module would be refused before dlopen.
  if (!CheckModuleSignature() || GetClientInstallPathModule("signed", true) != fake) {
    std::fprintf(stderr, "request_fuzz: the signed set-up is not accepted\n");
    std::abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // As the extension passes it: a C string, ending at the first NUL.
  tsmx_Free(tsmx_Invoke(text.c_str()));
  process_request(nullptr, text.data(), static_cast<int>(text.size()), nullptr);
  // No module loads, so nothing queues callbacks; drain in case a path does.
  char* queued;
  while ((queued = tsmx_Pop()) != nullptr && *queued != '\0') tsmx_Free(queued);
  tsmx_Free(queued);
  return 0;
}
