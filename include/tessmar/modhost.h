// The module host: loading client modules, the registry of loaded modules,
// request processing and the reply envelope. The bridge uses it for requests
// answered in-process; the framework's native side and the reference host
// call it directly.
//
// None of these functions takes a lock: loading, lookup, listing, unloading
// and request processing must run on one thread at a time.
#ifndef TESSMAR_MODHOST_H
#define TESSMAR_MODHOST_H

#include <cstdlib>
#include <string>

#include "tessmar/export.h"
#include "tessmar/module.h"

namespace tessmar {

// The host-function table of a host that gives modules malloc and free:
// version 1, 48 bytes, revision 2, and `send_callback` as SendCallback.
// Modules keep a pointer to the table while they are loaded.
inline QXHostFuncs MakeHostFuncs(int (*send_callback)(const char* tabid,
                                                      const void* reserved,
                                                      const char* callback,
                                                      const char* reply)) {
  return QXHostFuncs{1, sizeof(QXHostFuncs), 2, std::malloc, std::free,
                     send_callback};
}

}  // namespace tessmar

// Results of LoadQxClient.
enum QxLoadResult {
  QX_LOAD_OK = 0,                  // loaded, already loaded, or nothing to do
  QX_LOAD_OPEN_FAILED = -1,        // dlopen failed
  QX_LOAD_INSTALLATION_BLOCKED = -100,  // installation signature check failed
  QX_LOAD_CLIENT_BLOCKED = -200,   // module file failed its signature check
};

// Status codes of the reply envelope and their words.
enum ReplyStatus {
  REPLY_TRUE = 0,          // "TRUE"
  REPLY_FALSE = 1,         // "FALSE" (also every code not listed here)
  REPLY_CANCEL = 2,        // "CANCEL"
  REPLY_BLOCK_QX = 4,      // "BLOCK:QX"
  REPLY_BLOCK_CLIENT = 5,  // "BLOCK:CLIENT"
};

// Loads the module `name` unless it is loaded already: verifies its file
// (before the already-loaded test, so a tampered loaded module is refused),
// verifies the installation, dlopens its "Path", calls Initialize, registers
// it and hands it `host` (null: a default table whose SendCallback does
// nothing). A module without Initialize, or whose Initialize fails, gives 0
// but is not registered. Returns a QxLoadResult.
TSMX_API int LoadQxClient(const char* name, QXHostFuncs* host);

// The entry table of the loaded module `name`, or null.
TSMX_API QxClientFuncs* GetInvoke(const char* name);

// Names of the loaded modules joined by ",", in registry order; "" for none.
TSMX_API std::string GetLoadedClientList();

// Terminates, releases and dlcloses every loaded module.
TSMX_API void UnloadQxClient();

// Answers one JSON request of `length` bytes: "cmd" must be "native" or
// "setcallback"; "echo": true answers without a module; "module" names the
// target ("" the default "morrowhost", "_all_" every loaded module). Returns
// the reply envelope, or "" for a refused request. `context` is ignored;
// `host` is handed to modules loaded on the request's behalf.
TSMX_API std::string process_request(void* context, const char* text,
                                     int length, QXHostFuncs* host);

// {"response": {"id": "ID", "tabid":"TAB", "status":"WORD", "reply":REPLY,
// "callback": "CB"}} with these exact blanks and no escaping; REPLY is
// inserted as raw JSON ({} when null or empty). "" when id is null.
TSMX_API std::string BuildReplyEnvelope(const char* id, const char* tabid,
                                        int status, const char* reply,
                                        const char* callback);

// Splits an origin "scheme://host[:port]" into its parts. Without a port the
// port is "80" for http, "443" for https (any case), else "0". Nothing after
// the authority is removed. Origins of 3 characters or fewer give "" thrice.
TSMX_API void ParseOrigin(std::string origin, std::string& scheme,
                          std::string& host, std::string& port);

// host + ":" + port of the origin.
TSMX_API std::string GetCSID(std::string origin);

#endif  // TESSMAR_MODHOST_H
