// main of the bridge host tests: the executable doubles as the scripted host
// when the library starts it under the host's name.
#include <gtest/gtest.h>

#include "bridge_host/scripted_host.h"

int main(int argc, char** argv) {
  if (argc > 0 && tessmar::testing::IsScriptedHostRole(argv[0])) {
    return tessmar::testing::RunScriptedHost(argc, argv);
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
