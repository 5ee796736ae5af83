// The in-process request path: any text given to tsmx_Invoke with no host
// running, and to process_request with its exact length. A private HOME holds
// a signed installation and a few module files: one unsigned, one with a
// wrong signature, one broken, and one correctly signed whose "library" is a
// text file, so requests get as far as dlopen, which refuses it. Nothing the
// loader can open runs code of its own.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz_input.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"
#include "tessmar/signature.h"

namespace {

std::string Module(const std::string& name, const std::string& path,
                   const std::string& sig, const std::string& version) {
  return R"({"Name":")" + name + R"(","Path":")" + path + R"(",)" + sig +
         R"("Version":")" + version + R"("})";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using tessmar::fuzz::WriteFile;
  const std::string dir = tessmar::fuzz::MakeFuzzHome();
  const std::string install = std::string(std::getenv("HOME")) + "/install";
  std::filesystem::create_directory(install);

  // The installation signature over the (absent) installed files; makeSig
  // reads its header from the existing config.json.
  const std::string config = R"({"Tessmar":")" + install +
                             R"(","Version":"1.2.3.4","TessmarClient":)"
                             R"("/nonexistent/client","Sig":")";
  WriteFile(dir + "/config.json", config + "\"}");
  std::string sig_path;
  WriteFile(dir + "/config.json",
            config + MakeBase64Encode(makeSig("morrowhost", "pelmora", "",
                                              sig_path)) + "\"}");

  const std::string fake = install + "/libfake.so";
  WriteFile(fake, "not a shared library\n");
  const std::string sig =
      MakeBase64Encode(makeClientSig("morrowhost", "pelmora", fake));
  WriteFile(dir + "/signed.json",
            Module("signed", fake, R"("Sig":")" + sig + "\",", "2.0.0.1"));
  WriteFile(dir + "/morrowhost.json", Module("morrowhost", "/nonexistent/m.so",
                                             R"("Sig":"AAAA",)", "3.1.0.7"));
  WriteFile(dir + "/echo.json",
            Module("echo", "/nonexistent/e.so", "", "1.0.0.1"));
  WriteFile(dir + "/broken.json", R"({"Name":"broken",)");

  // Without these the signed module would be refused before dlopen.
  if (!CheckModuleSignature() ||
      GetClientInstallPathModule("signed", true) != fake) {
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
