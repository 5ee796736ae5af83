/* The browser bridge: the plain C interface the browser extension calls.
 *
 * Boundary rules, for every function here:
 *   - texts are NUL-terminated 8-bit strings;
 *   - every text returned (by tsmx_Invoke and tsmx_Pop) is a malloc buffer
 *     that the caller owns and releases with tsmx_Free;
 *   - failures carry no message: NULL from tsmx_Invoke, 1 from tsmx_Startup.
 *
 * The extension calls tsmx_Startup once, then tsmx_Invoke one request at a
 * time from one thread, takes asynchronous callbacks with tsmx_Pop (waiting
 * for them on tsmx_CallbackDescriptor rather than polling), and calls
 * tsmx_End once. Without tsmx_Startup requests are answered in-process.
 */
#ifndef TESSMAR_BRIDGE_H
#define TESSMAR_BRIDGE_H

#include "tessmar/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates the three FIFOs in $HOME/.config/Pelmora/Tessmar/morrowhost,
 * starts the host executable "TessmarFirefox" of the installation, opens
 * the pipes and starts the callback reader. Returns 0, or 1 on failure.
 * Blocks until the host has opened its ends of all three pipes. */
TSMX_API int tsmx_Startup(void);

/* Sends the stop message, closes the pipes, joins the reader, reaps the
 * host and removes the FIFOs. Does nothing before a successful start. The
 * bridge stays in host mode afterwards: later requests get NULL. */
TSMX_API void tsmx_End(void);

/* Answers one JSON request. In host mode it is forwarded unchanged to the
 * host. Otherwise "init":"get_version" and "init":"get_versions" are answered
 * from the configuration, any other non-empty "init" gives "", and every
 * other request goes to the in-process module host. Returns a text for
 * tsmx_Free, or NULL when there is no answer (or `request` is NULL). */
TSMX_API char* tsmx_Invoke(const char* request);

/* The oldest queued callback message, or "" when none is queued; never
 * NULL. Release it with tsmx_Free. */
TSMX_API char* tsmx_Pop(void);

/* A descriptor that is readable exactly while tsmx_Pop has a callback to
 * give, for poll(2), select(2) or epoll beside the extension's own input; -1
 * when none could be made. The same descriptor on every call, owned by the
 * library: never read, write or close it. Waiting on it instead of polling
 * tsmx_Pop costs no wake-ups while nothing is queued. */
TSMX_API int tsmx_CallbackDescriptor(void);

/* Releases a text returned by tsmx_Invoke or tsmx_Pop; NULL is ignored. */
TSMX_API void tsmx_Free(char* text);

/* Stores `callback`; callbacks are delivered through tsmx_Pop only. */
TSMX_API void tsmx_SetResponseCallback(void* callback);

#ifdef __cplusplus
}
#endif

#endif /* TESSMAR_BRIDGE_H */
