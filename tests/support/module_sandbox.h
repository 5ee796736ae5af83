// Test support: everything a module-loading scenario needs, in one object:
// a temporary HOME, a signed installation in it, and the fixtures' log.
//
// Create it in the test's own process, before RunIsolated, and let the
// scenario capture it by reference: the child works in the directory, and the
// parent removes it afterwards even when the child crashed or was killed.
#ifndef TESSMAR_TESTS_SUPPORT_MODULE_SANDBOX_H
#define TESSMAR_TESTS_SUPPORT_MODULE_SANDBOX_H

#include "support/fixture_log.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"

namespace tessmar::testing {

struct ModuleSandbox {
  TempHome home;
  SignedInstallation install{home};
  FixtureLog log{home};
};

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_MODULE_SANDBOX_H
