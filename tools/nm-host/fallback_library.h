// The library this program loads when none is beside it and config.json
// names no installation holding one. fallback_library.cpp is compiled into
// each executable with its own TESSMAR_NM_HOST_FALLBACK_LIBRARY: the
// installed program's names the installation directory, the build tree's
// the library built beside it.
#ifndef TESSMAR_TOOLS_NM_HOST_FALLBACK_LIBRARY_H
#define TESSMAR_TOOLS_NM_HOST_FALLBACK_LIBRARY_H

namespace tessmar::nm {

extern const char kFallbackLibrary[];

}  // namespace tessmar::nm

#endif  // TESSMAR_TOOLS_NM_HOST_FALLBACK_LIBRARY_H
