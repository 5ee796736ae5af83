// The adapter's one thread: it waits in poll(2) on the browser's input and
// on the library's callback descriptor, serves one request at a time and
// passes every queued callback on as soon as it is queued.
#ifndef TESSMAR_TOOLS_NM_HOST_SERVER_H
#define TESSMAR_TOOLS_NM_HOST_SERVER_H

#include "bridge_loader.h"

namespace tessmar::nm {

// Serves the messages read from `in` until it ends, writing to `out`; then
// stops the modules (tsmx_End in host mode, unloading them otherwise) and
// returns the exit status.
int Serve(const tools::Bridge& bridge, int in, int out, bool host);

}  // namespace tessmar::nm

#endif  // TESSMAR_TOOLS_NM_HOST_SERVER_H
