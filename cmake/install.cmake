# What `cmake --install` adds besides the targets' own install rules: the
# files consumers build against (a CMake package and a pkg-config file), the
# package documentation, and, for an installation into the configured
# prefix, the signed system config.json that makes the installation work.
include(CMakePackageConfigHelpers)

# find_package(Tessmar): the imported target Tessmar::TessmarFirefox.
set(TESSMAR_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Tessmar")
install(EXPORT TessmarTargets NAMESPACE Tessmar::
  DESTINATION ${TESSMAR_CMAKE_DIR})
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/TessmarConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/TessmarConfig.cmake
  INSTALL_DESTINATION ${TESSMAR_CMAKE_DIR}
  PATH_VARS TESSMAR_INSTALL_DIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/TessmarConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TessmarConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/TessmarConfigVersion.cmake
              ${CMAKE_CURRENT_LIST_DIR}/TessmarModule.cmake
  DESTINATION ${TESSMAR_CMAKE_DIR})

# pkg-config --cflags --libs tessmar. The prefix is the one installed into,
# known only at install time; everything else is filled in now.
configure_file(${CMAKE_CURRENT_LIST_DIR}/tessmar.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/tessmar.pc.in @ONLY)
install(CODE "
  file(READ \"${CMAKE_CURRENT_BINARY_DIR}/tessmar.pc.in\" pc)
  string(REPLACE \"%PREFIX%\" \"\${CMAKE_INSTALL_PREFIX}\" pc \"\${pc}\")
  file(WRITE \"${CMAKE_CURRENT_BINARY_DIR}/tessmar.pc\" \"\${pc}\")
")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tessmar.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Documentation a Debian package carries.
set(TESSMAR_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
add_custom_command(OUTPUT ${TESSMAR_CHANGELOG}
  COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog > ${TESSMAR_CHANGELOG}
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(tessmar_changelog ALL DEPENDS ${TESSMAR_CHANGELOG})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${TESSMAR_CHANGELOG}
  ${PROJECT_SOURCE_DIR}/README.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tessmar)
# docs/ beside the README, so that its links hold in the installed copy.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tessmar/docs)
# The example modules' sources and the example extension, to start from.
foreach(example echo_module echo_module_c clock_module)
  file(GLOB sources ${PROJECT_SOURCE_DIR}/examples/${example}/*.c*)
  install(FILES ${PROJECT_SOURCE_DIR}/examples/${example}/CMakeLists.txt
    ${sources}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tessmar/examples/${example})
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/extension/
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tessmar/examples/extension)

# The system installation: config.json names the installation directory and
# the version and carries the installation signature. Written only when
# installing into the configured prefix without DESTDIR; a staged install
# (a package) leaves it to its maintainer scripts.
configure_file(${CMAKE_CURRENT_LIST_DIR}/system_config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/system_config.cmake @ONLY)
install(SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/system_config.cmake)
