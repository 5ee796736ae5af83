// Integrity signatures over installed files, and the byte-string helpers
// they are built on.
//
// Byte strings are std::string values that may hold any byte, NUL included.
// Digests are raw bytes (32 for SHA-256, 16 for MD5); stored signatures are
// their Base64 text (44 characters). Every function reports failure only by
// its result: the empty string, false, or an empty list.
//
// Three schemes:
//   - installation: SHA-256 over four covered files, salted with the product
//     and maker words; stored as "Sig" in config.json (or in DIR/Tessmar.sig);
//   - client module: a ten-round strengthened SHA-256 of the module file,
//     salted the same way; stored as "Sig" in the module's own file;
//   - local server: the strengthened digest of the program alone; stored in
//     the program's path followed by ".sig".
#ifndef TESSMAR_SIGNATURE_H
#define TESSMAR_SIGNATURE_H

#include <string>
#include <vector>

#include "tessmar/export.h"

// --- Byte-string helpers -------------------------------------------------

// The 32 raw bytes of SHA-256(data). The empty string for empty data: the
// digest's update call rejects zero lengths and this wrapper does not guard.
TSMX_API std::string MakeDigestSHA256(std::string data);
// The 16 raw bytes of MD5(data); the empty string for empty data.
TSMX_API std::string MakeDigestMD5(std::string data);

// Single-line Base64 of data with "=" padding; "" for empty data.
TSMX_API std::string MakeBase64Encode(std::string data);
// The decoded bytes; "" when the text is rejected or decodes to nothing.
// Line feeds and CR LF pairs are skipped, so a trailing line break is fine.
TSMX_API std::string MakeBase64Decode(std::string text);

// The whole file; "" when it is missing, unreadable or empty.
TSMX_API std::string ReadFileData(std::string path);
// Creates or truncates the file and writes data; true when all was written.
TSMX_API bool WriteFileData(std::string path, std::string data);

// Every non-overlapping occurrence of `from` replaced by `to`, left to
// right; inserted text is not searched again. An empty `from` changes nothing.
TSMX_API std::string ReplaceString(std::string text, std::string from,
                                   std::string to);
// The non-empty pieces of data between occurrences of separator, in order.
// (The name is spelled this way in the ABI.) An empty separator gives the
// whole data as one piece, or nothing for empty data.
TSMX_API std::vector<std::string> SpilteFileData(std::string data,
                                                 std::string separator);

// --- Installation signature ----------------------------------------------

// Where the installation signature is stored and which files it covers:
//   header "_SS_" path "_PS_" name "_FS_" ... (four entries)
// With `dir` non-empty: header dir/Tessmar.sig, all four files in dir.
// With `dir` empty: header _GetConfigPath(), files in the installation path
// and the browser manifest in /etc/opt/chrome/native-messaging-hosts.
TSMX_API std::string GetTessmarSigFileList(std::string dir);

// The 32-byte installation digest for `dir` (see above), salted with product
// and maker; sets sigPath to the list's header. "" (sigPath untouched) when
// the list is malformed, e.g. when no config.json exists for an empty dir.
TSMX_API std::string makeSig(std::string product, std::string maker,
                             std::string dir, std::string& sigPath);

// True when the installed files match the stored installation signature.
TSMX_API bool CheckSig(std::string product, std::string maker);
// CheckSig("morrowhost", "pelmora"): run before any client module is loaded.
TSMX_API bool CheckModuleSignature();

// --- Client module signature ---------------------------------------------

// The 32-byte signature of the module file at path; "" for an empty path or
// a missing, unreadable or empty file.
TSMX_API std::string makeClientSig(std::string product, std::string maker,
                                   std::string path);
// True when the file's signature equals the Base64 text sigText.
TSMX_API bool CheckClientSig(std::string product, std::string maker,
                             std::string path, std::string sigText);
// CheckClientSig("morrowhost", "pelmora", path, sigText).
TSMX_API bool CheckQXClientModuleSignature(const char* path,
                                           const char* sigText);
// CheckClientSig with the caller's own product and maker words.
TSMX_API bool CheckQXClientModuleSignature2(const char* product,
                                            const char* maker,
                                            const char* path,
                                            const char* sigText);

// --- Local server signature ----------------------------------------------

// The 32-byte unsalted signature of the program at path, or "".
TSMX_API std::string makeLocalServerSig(std::string path);
// True when the program matches the Base64 text stored in path + ".sig".
TSMX_API bool CheckLocalServerSig(std::string path);
TSMX_API bool CheckLocalServerSignature(const char* path);

#endif  // TESSMAR_SIGNATURE_H
