// The native-messaging manifests through which a browser finds this
// program: written for one browser and user with --install-manifests.
#ifndef TESSMAR_TOOLS_NM_HOST_MANIFESTS_H
#define TESSMAR_TOOLS_NM_HOST_MANIFESTS_H

#include "options.h"

namespace tessmar::nm {

// Writes the manifest that options.install_manifests names, prints its path
// and returns the exit status.
int InstallManifest(const Options& options);

}  // namespace tessmar::nm

#endif  // TESSMAR_TOOLS_NM_HOST_MANIFESTS_H
