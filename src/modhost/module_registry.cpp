// Loading client modules and keeping them in the registry.
#include "modhost/module_registry.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "bytes/regular_file.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"
#include "tessmar/signature.h"

namespace tessmar {
namespace {

int IgnoreCallback(const char*, const void*, const char*, const char*) {
  return 0;
}

// Room for eight entry points; left uncleared for Initialize to fill.
constexpr std::size_t kClientTableSize = 8 * sizeof(void*);
static_assert(kClientTableSize == sizeof(QxClientFuncs));

// Registry keys are private copies with 10 spare bytes past the name.
char* CopyName(const char* name) {
  const std::size_t length = std::strlen(name);
  char* copy = static_cast<char*>(std::malloc(length + 10));
  std::memcpy(copy, name, length + 1);
  return copy;
}

}  // namespace

std::map<char*, QxClientList*> g_mapClient;

QXHostFuncs g_defaultHostFuncs = MakeHostFuncs(IgnoreCallback);

}  // namespace tessmar

using tessmar::g_mapClient;

int LoadQxClient(const char* name, QXHostFuncs* host) {
  if (name == nullptr) name = "";
  // The module file is checked before the already-loaded test, so a loaded
  // module whose file has since been tampered with is refused too.
  const std::string path = GetClientInstallPathModule(name, true);
  if (path == "BLOCK:CLIENT") return QX_LOAD_CLIENT_BLOCKED;
  if (GetInvoke(name) != nullptr) return QX_LOAD_OK;
  if (!CheckModuleSignature()) return QX_LOAD_INSTALLATION_BLOCKED;

  // A module without a usable file has no path. dlopen("") would hand back
  // the main program's handle and let dlsym find any "Initialize" in the
  // browser's own symbols, so an empty path counts as a library that cannot
  // be opened.
  if (path.empty()) return QX_LOAD_OPEN_FAILED;
  // dlopen would block on a FIFO and map whatever a device gives.
  if (!tessmar::IsReadableRegularFile(path)) return QX_LOAD_OPEN_FAILED;
  void* handle = dlopen(path.c_str(), RTLD_LAZY);
  if (handle == nullptr) return QX_LOAD_OPEN_FAILED;

  // A module without a working Initialize keeps its handle (and table) for
  // the life of the process and is not registered; the caller sees that
  // only as a missing entry, and a later request tries again.
  auto initialize =
      reinterpret_cast<QxInitializeFunc>(dlsym(handle, "Initialize"));
  if (initialize == nullptr) return QX_LOAD_OK;
  auto* funcs = static_cast<QxClientFuncs*>(std::malloc(tessmar::kClientTableSize));
  if (initialize(funcs) != 0) return QX_LOAD_OK;

  auto* record =
      static_cast<tessmar::QxClientList*>(std::malloc(sizeof(tessmar::QxClientList)));
  record->handle = handle;
  record->funcs = funcs;
  g_mapClient.emplace(tessmar::CopyName(name), record);

  if (funcs->SetHostFuncs != nullptr) {
    funcs->SetHostFuncs(host != nullptr ? host : &tessmar::g_defaultHostFuncs);
  }
  return QX_LOAD_OK;
}

QxClientFuncs* GetInvoke(const char* name) {
  if (name == nullptr) return nullptr;
  for (const auto& [key, record] : g_mapClient) {
    if (std::strcmp(key, name) == 0) return record->funcs;
  }
  return nullptr;
}

std::string GetLoadedClientList() {
  std::string names;
  for (const auto& entry : g_mapClient) {
    if (!names.empty()) names += ",";
    names += entry.first;
  }
  return names;
}

void UnloadQxClient() {
  for (const auto& [key, record] : g_mapClient) {
    if (record->funcs->Terminate != nullptr) record->funcs->Terminate();
    std::free(record->funcs);
    dlclose(record->handle);
    std::free(record);
    std::free(key);
  }
  g_mapClient.clear();
}
