// The in-process request path: any text given to tsmx_Invoke with no host
// running, and to process_request with its exact length. A private HOME holds
// a configuration with a few module files, none of which can be loaded.
#include <cstring>
#include <string>

#include "fuzz_input.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using tessmar::fuzz::WriteFile;
  const std::string dir = tessmar::fuzz::MakeFuzzHome();
  WriteFile(dir + "/config.json",
            R"({"Tessmar":"/nonexistent/tessmar","Version":"1.2.3.4","Sig":"x"})");
  WriteFile(dir + "/morrowhost.json",
            R"({"Name":"morrowhost","Path":"/nonexistent/m.so","Sig":"AAAA","Version":"3.1.0.7"})");
  WriteFile(dir + "/echo.json",
            R"({"Name":"echo","Path":"/nonexistent/e.so","Version":"1.0.0.1"})");
  WriteFile(dir + "/broken.json", R"({"Name":"broken",)");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // As the extension passes it: a C string, ending at the first NUL.
  tsmx_Free(tsmx_Invoke(text.c_str()));
  process_request(nullptr, text.data(), static_cast<int>(text.size()), nullptr);
  // Nothing here queues callbacks, but drain in case a path ever does.
  for (;;) {
    char* queued = tsmx_Pop();
    const bool empty = queued == nullptr || *queued == '\0';
    tsmx_Free(queued);
    if (empty) break;
  }
  return 0;
}
