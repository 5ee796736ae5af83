// The build identity: the maker and product words fixed when the framework
// is built. They name the configuration directories and the browser manifest
// and salt the signatures. The shipped library is "pelmora"/"morrowhost";
// sibling builds of the framework use other words and differ in two rules
// (client versions and client signature checks), decided here.
#ifndef TESSMAR_SRC_CONFIG_BUILD_IDENTITY_H
#define TESSMAR_SRC_CONFIG_BUILD_IDENTITY_H

namespace tessmar {

struct BuildIdentity {
  const char* maker;    // e.g. "pelmora"
  const char* product;  // e.g. "morrowhost"
  // The system configuration directory, "/usr/share/Pelmora/Tessmar/
  // morrowhost" unless the build chose another.
  const char* system_config_directory;
};

// Defined in build_identity.cpp, the one translation unit compiled with the
// build's settings, so tests can link the library against another identity.
const BuildIdentity& ThisBuild();

// True for the builds that report a client version only while the module's
// library file exists: "dunwell"/"copperlanternx" and "pelmora"/"tidewinderx".
bool BuildRequiresClientFile();

// True for the builds whose client signature checks always pass, the same
// two identities as above, checked in that order.
bool BuildSkipsClientSignatureCheck();

}  // namespace tessmar

#endif  // TESSMAR_SRC_CONFIG_BUILD_IDENTITY_H
