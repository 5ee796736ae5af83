#include "config/build_identity.h"

#include <cstring>

#ifndef TESSMAR_MAKER
#error "TESSMAR_MAKER must be set by the build"
#endif
#ifndef TESSMAR_PRODUCT
#error "TESSMAR_PRODUCT must be set by the build"
#endif
#ifndef TESSMAR_IDENTITY_SYSTEM_DIR
#error "TESSMAR_IDENTITY_SYSTEM_DIR must be set by the build"
#endif

namespace tessmar {
namespace {

// Sibling builds that trust their client modules without reading them.
constexpr BuildIdentity kUncheckedIdentities[] = {
    {"dunwell", "copperlanternx", nullptr},
    {"pelmora", "tidewinderx", nullptr},
};

bool IsUncheckedIdentity() {
  const BuildIdentity& self = ThisBuild();
  for (const BuildIdentity& row : kUncheckedIdentities) {
    if (std::strcmp(self.maker, row.maker) == 0 &&
        std::strcmp(self.product, row.product) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

const BuildIdentity& ThisBuild() {
  static constexpr BuildIdentity kIdentity = {TESSMAR_MAKER, TESSMAR_PRODUCT,
                                              TESSMAR_IDENTITY_SYSTEM_DIR};
  return kIdentity;
}

// The same two sibling builds also check that a module's file exists before
// reporting its version. The rules are kept separate because they are
// separate contracts that happen to name the same builds today.
bool BuildRequiresClientFile() { return IsUncheckedIdentity(); }

bool BuildSkipsClientSignatureCheck() { return IsUncheckedIdentity(); }

}  // namespace tessmar
