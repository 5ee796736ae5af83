# Compiler and linker hardening for every binary the project builds: the
# library, the tools, the example module and the tests alike.
#
# - stack protector on functions with arrays or address-taken locals, and
#   stack-clash probing for large frames;
# - CET landing pads (endbr64) and return-address checks;
# - glibc's checked string and memory functions in optimised builds (not
#   under the sanitizers, which intercept the same functions);
# - relocations resolved at load and made read-only (full RELRO), and a
#   stack that is never executable;
# - executables built as position-independent executables.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong -fstack-clash-protection
                    -fcf-protection=full)
if(NOT TESSMAR_SANITIZE)
  add_compile_options(
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>")
endif()
add_link_options(-Wl,-z,relro,-z,now -Wl,-z,noexecstack)
