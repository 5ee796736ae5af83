#include "fallback_library.h"

namespace tessmar::nm {

const char kFallbackLibrary[] = TESSMAR_NM_HOST_FALLBACK_LIBRARY;

}  // namespace tessmar::nm
