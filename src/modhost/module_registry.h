// The process-wide registry of loaded client modules.
#ifndef TESSMAR_SRC_MODHOST_MODULE_REGISTRY_H
#define TESSMAR_SRC_MODHOST_MODULE_REGISTRY_H

#include <map>

#include "tessmar/module.h"

namespace tessmar {

// One loaded module, allocated with malloc.
struct QxClientList {
  void* handle;           // from dlopen
  QxClientFuncs* funcs;   // the table its Initialize filled
};

// Keyed by malloc'ed copies of the module names and therefore ordered by the
// copies' addresses, not by text: lookups by name scan linearly.
extern std::map<char*, QxClientList*> g_mapClient;

// Version 1, size 48, revision 2, malloc, free and a SendCallback that does
// nothing; handed to modules whenever a caller passes no table.
extern QXHostFuncs g_defaultHostFuncs;

}  // namespace tessmar

#endif  // TESSMAR_SRC_MODHOST_MODULE_REGISTRY_H
