/* The contract between the module host and a client module.
 *
 * A client module is a shared library that exports
 *
 *     int Initialize(QxClientFuncs* funcs);
 *
 * The host allocates `funcs` (64 bytes, not cleared) and calls Initialize
 * once when the module is first needed; the module fills the slots it
 * implements and returns 0. Right after registering the module the host calls
 * SetHostFuncs with its table of services, which stays valid while the module
 * is loaded. The host calls Terminate once when it unloads every module.
 *
 * Strings returned by Invoke and SetCallback belong to the module; the host
 * copies them into its reply envelope and hands each non-null one back
 * through FreeString at once. They must be JSON values (an object, usually):
 * they are inserted into the envelope as they stand.
 *
 * Threads. Invoke and SetCallback are called on the host's request thread,
 * one request at a time; FreeString follows on the same thread. The host's
 * SendCallback may be called from any thread of the module, from
 * SetHostFuncs until Terminate returns, and never afterwards.
 *
 * Unloading. Terminate is called once when the host unloads its modules (the
 * browser adapter, the reference host and tessmar-drive do so before they
 * exit); the library is dlclose()d right afterwards, so every thread the
 * module started must have ended when Terminate returns.
 *
 * Exit. A host may also never unload: the process then simply exits and
 * Terminate is never called. The module's static destructors (or a function
 * marked __attribute__((destructor))) run instead and must stop and join
 * its threads; a std::thread still joinable when it is destroyed aborts the
 * process.
 *
 * The callback name. SetCallback receives the page's tab but not the name
 * of its callback function: that is the "callback" string member of the
 * request text, which the module reads itself (the top-level member, first
 * match, as the host reads it) and passes to SendCallback.
 *
 * Exceptions must not leave any entry point: the host is C.
 *
 * In C++, include/tessmar/module.hpp does all of this for a class with
 * `invoke` and `set_callback`; examples/echo_module_c is a module written
 * against this header alone.
 *
 * Both tables are shared with modules already built: slots are never moved
 * or reused; new members may only be appended.
 */
#ifndef TESSMAR_MODULE_H
#define TESSMAR_MODULE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Services the host offers a module. Six 64-bit slots, 48 bytes. */
typedef struct QXHostFuncs {
  uint64_t version;  /* always 1 */
  uint64_t size;     /* size of this table in bytes: 48 */
  uint64_t revision; /* always 2 */
  /* Memory for the module; the host's tables use malloc and free. */
  void* (*Alloc)(size_t size);
  void (*Free)(void* block);
  /* Hands an unsolicited reply for the page's tab to the host, which queues
   * it for the page; callable from any thread of the module. `reserved` is
   * ignored by this host. Nothing happens when tabid or callback is null.
   * `reply` must be a JSON value; null or "" sends {}. Returns 0. */
  int (*SendCallback)(const char* tabid, const void* reserved,
                      const char* callback, const char* reply);
} QXHostFuncs;

/* Entry points a module fills in Initialize. Eight pointer slots, 64 bytes.
 * Slots 0, 1 and 4 belong to the module; the host never calls them. */
typedef struct QxClientFuncs {
  void (*reserved0)(void);
  void (*reserved1)(void);
  /* Slot 2: receives the host's services once, after registration. */
  void (*SetHostFuncs)(QXHostFuncs* host);
  /* Slot 3: called when the module is unloaded; stop threads here. */
  void (*Terminate)(void);
  void (*reserved4)(void);
  /* Slot 5: releases a string returned by Invoke or SetCallback. */
  void (*FreeString)(char* text);
  /* Slot 6: serves an ordinary ("native") request; `request` is the whole
   * request text. Returns a JSON text, or null for "no answer". Required. */
  char* (*Invoke)(const char* origin, const char* id, const char* request);
  /* Slot 7: serves a "setcallback" request; the host passes flag 1. May be
   * null, in which case the host answers with an empty reply. */
  char* (*SetCallback)(const char* origin, const char* id, const char* request,
                       const char* tabid, int flag);
} QxClientFuncs;

/* The module's one exported entry point, looked up as "Initialize". */
typedef int (*QxInitializeFunc)(QxClientFuncs* funcs);

#ifdef __cplusplus
}  /* extern "C" */

static_assert(sizeof(QXHostFuncs) == 48, "QXHostFuncs is six 64-bit slots");
static_assert(offsetof(QXHostFuncs, Alloc) == 24, "slot order is fixed");
static_assert(offsetof(QXHostFuncs, SendCallback) == 40, "slot order is fixed");
static_assert(sizeof(QxClientFuncs) == 64, "QxClientFuncs is eight slots");
static_assert(offsetof(QxClientFuncs, SetHostFuncs) == 2 * 8, "slot 2");
static_assert(offsetof(QxClientFuncs, Terminate) == 3 * 8, "slot 3");
static_assert(offsetof(QxClientFuncs, FreeString) == 5 * 8, "slot 5");
static_assert(offsetof(QxClientFuncs, Invoke) == 6 * 8, "slot 6");
static_assert(offsetof(QxClientFuncs, SetCallback) == 7 * 8, "slot 7");
#endif

#endif /* TESSMAR_MODULE_H */
