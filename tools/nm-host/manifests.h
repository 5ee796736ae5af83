// The native-messaging manifests through which a browser finds this
// program: written for one browser and user with --install-manifests,
// removed with --uninstall-manifests.
#ifndef TESSMAR_TOOLS_NM_HOST_MANIFESTS_H
#define TESSMAR_TOOLS_NM_HOST_MANIFESTS_H

#include "options.h"

namespace tessmar::nm {

// Writes the manifest that options.install_manifests names, prints its path
// and returns the exit status.
int InstallManifest(const Options& options);

// Removes the manifest that options.uninstall_manifests names when it is a
// regular file (one --install-manifests wrote), prints its path and returns
// the exit status; a symbolic link or another kind of file stays.
int UninstallManifest(const Options& options);

}  // namespace tessmar::nm

#endif  // TESSMAR_TOOLS_NM_HOST_MANIFESTS_H
