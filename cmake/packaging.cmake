# `cpack -G DEB` in a build configured with -DCMAKE_INSTALL_PREFIX=/usr makes
# the Debian package (scripts/package.sh does both). Its maintainer scripts
# write and sign the system config.json on install and remove it on purge.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessmar)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The Tessmar developers")
set(CPACK_PACKAGE_CONTACT "Tessmar developers <tessmar-developers@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "browser bridge of the Tessmar web-to-native extension framework")
set(CPACK_PACKAGE_DESCRIPTION
  "libTessmarFirefox.so lets the framework's browser extension call native
client modules: it forwards JSON requests to the native host TessmarFirefox
over named pipes, or answers them in-process through its own module host,
which verifies signed client modules before loading them.
.
This package holds the library and the host in /usr/lib/<triplet>/tessmar,
the signing tool tessmar-sign, the driver tessmar-drive, the headers and
the C++ module SDK, a CMake package and a pkg-config file, and example
client modules with a guide to writing one.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Building a module with the SDK (Tessmar::Module) needs these.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS
  "cmake, g++, pkg-config, libjsonparser-dev, rapidjson-dev")
# tessmar-sign links the library from the package's own private directory.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}/src")
set(CPACK_STRIP_FILES ON)

set(TESSMAR_PACKAGE_INSTALL_DIR "${CMAKE_INSTALL_PREFIX}/${TESSMAR_INSTALL_DIR}")
foreach(script postinst postrm)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/${script}.in
    ${CMAKE_BINARY_DIR}/packaging/${script} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
                     GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
# The native-messaging manifests under /etc are configuration files.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles
  "/etc/opt/chrome/native-messaging-hosts/zz.qx.${TESSMAR_MAKER}.${TESSMAR_PRODUCT}.json\n"
  "/etc/chromium/native-messaging-hosts/zz.qx.${TESSMAR_MAKER}.${TESSMAR_PRODUCT}.json\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_BINARY_DIR}/packaging/postinst ${CMAKE_BINARY_DIR}/packaging/postrm
  ${CMAKE_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
