// The installation signature: one salted SHA-256 over the framework's four
// covered files, stored as "Sig" in config.json or in DIR/Tessmar.sig.
#include <string>
#include <vector>

#include "config/build_identity.h"
#include "config/json_file.h"
#include "tessmar/config.h"
#include "tessmar/digest.h"
#include "tessmar/signature.h"

namespace {

// Separators of the signature file list. They are plain markers without
// escaping; no covered path may contain one.
constexpr char kHeaderSeparator[] = "_SS_";
constexpr char kEntrySeparator[] = "_FS_";
constexpr char kPathSeparator[] = "_PS_";

constexpr char kManifestDirectory[] = "/etc/opt/chrome/native-messaging-hosts";

std::string ManifestName() {
  const tessmar::BuildIdentity& self = tessmar::ThisBuild();
  return std::string("zz.qx.") + self.maker + "." + self.product + ".json";
}

std::string Entry(const std::string& directory, const std::string& name) {
  // The slash is inserted even after an empty directory.
  return directory + "/" + name + kPathSeparator + name;
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// The stored Base64 text named by the list's header: the whole ".sig" file,
// or the "Sig" member of a JSON configuration file.
std::string StoredSignature(const std::string& sig_path) {
  if (Contains(sig_path, ".sig")) return ReadFileData(sig_path);
  if (Contains(sig_path, ".json")) {
    const tessmar::JsonDocument config(ReadFileData(sig_path));
    return config.String("Sig");
  }
  return std::string();
}

// SHA-256(t followed by SHA-256(t)) for a non-empty t, hashing t once: the
// second digest continues from the state after t.
std::string DigestWithOwnDigest(const std::string& t) {
  sha256_state_structure after_t;
  init_SHA256(&after_t);
  update_SHA256(&after_t, reinterpret_cast<const unsigned char*>(t.data()),
                static_cast<unsigned>(t.size()));
  sha256_state_structure copy = after_t;
  unsigned char digest[SHA256_DIGEST_SIZE];
  final_SHA256(&copy, digest);
  update_SHA256(&after_t, digest, sizeof digest);
  final_SHA256(&after_t, digest);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

}  // namespace

std::string GetTessmarSigFileList(std::string dir) {
  const bool installed = dir.empty();
  const std::string header = installed ? _GetConfigPath() : dir + "/Tessmar.sig";
  const std::string base = installed ? GetTessmarInstallPath() : dir;
  const std::string manifest_dir = installed ? kManifestDirectory : dir;
  return header + kHeaderSeparator +
         Entry(base, "libnpTessmarPlugin.so") + kEntrySeparator +
         Entry(base, "libTessmarFirefox.so") + kEntrySeparator +
         Entry(base, "TessmarChrome") + kEntrySeparator +
         Entry(manifest_dir, ManifestName());
}

std::string makeSig(std::string product, std::string maker, std::string dir,
                    std::string& sigPath) {
  const std::vector<std::string> halves =
      SpilteFileData(GetTessmarSigFileList(dir), kHeaderSeparator);
  // An empty header (no config.json) is dropped by the split and ends here.
  if (halves.size() != 2) return std::string();

  std::string acc = product + maker + MakeDigestSHA256(product + maker);
  for (const std::string& entry : SpilteFileData(halves[1], kEntrySeparator)) {
    const std::vector<std::string> parts = SpilteFileData(entry, kPathSeparator);
    if (parts.size() != 2) return std::string();
    // A missing covered file contributes its name with empty data.
    acc += DigestWithOwnDigest(parts[1] + ReadFileData(parts[0]));
  }
  sigPath = halves[0];
  return MakeDigestSHA256(acc);
}

bool CheckSig(std::string product, std::string maker) {
  std::string sig_path;
  const std::string sig = makeSig(product, maker, std::string(), sig_path);
  if (sig_path.empty() || sig.empty()) return false;
  return MakeBase64Decode(StoredSignature(sig_path)) == sig;
}

bool CheckModuleSignature() {
  const tessmar::BuildIdentity& self = tessmar::ThisBuild();
  return CheckSig(self.product, self.maker);  // product first, maker second
}
