# Building client modules: the interface target Tessmar::Module and the
# function tessmar_add_module. Used by this project for its example modules
# and installed with the CMake package for module authors.
#
# tessmar_add_module(<target> SOURCES <files>... [MODULE_NAME <name>]
#                    [VERSION <a.b.c.d>])
#   Builds lib<target>.so, a MODULE library for the module host:
#   - compiled against Tessmar::Module (include/tessmar/module.h and
#     module.hpp, json-parser, RapidJSON, threads), not against the bridge
#     library, which a module never links;
#   - hidden visibility, and a version script that exports Initialize alone,
#     so no inline or template instance of the module is shared with
#     anything else in the process;
#   - the project's hardening flags (stack protector, stack-clash probing,
#     CET, _FORTIFY_SOURCE in optimised builds, full RELRO, no executable
#     stack), and unresolved symbols refused at link time rather than at
#     load time;
#   - installed into the installation's modules/ directory
#     (TESSMAR_MODULE_INSTALL_DIR);
#   - a target <target>-sign that signs the built library as client module
#     <name> (default: <target>) into the user's configuration directory,
#     with "Version" <a.b.c.d> when given: for development, not for
#     installing. An installed module is signed with
#     `tessmar-sign --system module <name> <installed file>`.
#
# Expects TESSMAR_MODULE_INSTALL_DIR and TESSMAR_SIGN_COMMAND to be set
# (TessmarConfig.cmake sets both).
include_guard(GLOBAL)

function(tessmar_add_module target)
  cmake_parse_arguments(PARSE_ARGV 1 M "" "MODULE_NAME;VERSION" "SOURCES")
  if(M_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR
      "tessmar_add_module(${target}): unexpected arguments ${M_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT M_SOURCES)
    message(FATAL_ERROR "tessmar_add_module(${target}): no SOURCES given")
  endif()
  if(NOT M_MODULE_NAME)
    set(M_MODULE_NAME ${target})
  endif()
  if(M_VERSION AND NOT M_VERSION MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+$")
    message(FATAL_ERROR "tessmar_add_module(${target}): VERSION must have "
      "four numbers, as config.json's versions do, not '${M_VERSION}'")
  endif()

  add_library(${target} MODULE ${M_SOURCES})
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  file(CONFIGURE OUTPUT ${map}
    CONTENT "/* The module host looks up exactly one symbol. */\n{\n  global:\n    Initialize;\n  local:\n    *;\n};\n")
  set_target_properties(${target} PROPERTIES
    PREFIX "lib"
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON
    LINK_DEPENDS ${map})
  target_link_libraries(${target} PRIVATE Tessmar::Module)
  target_compile_options(${target} PRIVATE
    -fstack-protector-strong -fstack-clash-protection -fcf-protection=full)
  # The sanitizers intercept the checked functions themselves.
  if(NOT TESSMAR_SANITIZE)
    target_compile_options(${target} PRIVATE
      "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>")
  endif()
  target_link_options(${target} PRIVATE
    -Wl,--version-script=${map} -Wl,--no-undefined
    -Wl,-z,relro,-z,now -Wl,-z,noexecstack)

  install(TARGETS ${target} LIBRARY DESTINATION ${TESSMAR_MODULE_INSTALL_DIR})

  set(version_args)
  if(M_VERSION)
    set(version_args --version ${M_VERSION})
  endif()
  add_custom_target(${target}-sign
    COMMAND ${TESSMAR_SIGN_COMMAND} module ${M_MODULE_NAME}
            $<TARGET_FILE:${target}> ${version_args}
    DEPENDS ${target}
    COMMENT "Signing $<TARGET_FILE_NAME:${target}> as module '${M_MODULE_NAME}' for this user"
    VERBATIM)
endfunction()
