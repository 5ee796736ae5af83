#!/usr/bin/env bash
# Pins the dynamic symbol table of the built library: an accidental export or
# a lost one fails here. Also checks that every symbol the library needs
# resolves, and that it carries no link to OpenSSL, which is only a test oracle.
#   check_exports.sh LIBRARY PINNED_LIST
set -euo pipefail
lib=$1 list=$2
# Demangled names spell std::string out in full; the list uses the short form.
long='std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >'
actual=$(nm -D --defined-only -C -j "$lib" | sed "s|$long|std::string|g" |
  grep -vxE '_init|_fini|_edata|_end|__bss_start' | LC_ALL=C sort -u)
pinned=$(grep -vE '^(#|$)' "$list" | LC_ALL=C sort -u)
diff -u --label pinned --label exported <(echo "$pinned") <(echo "$actual")
undefined=$(LD_BIND_NOW=1 ldd -r "$lib" 2>&1 | grep -i 'undefined symbol' || true)
[ -z "$undefined" ] || { echo "unresolved: $undefined"; exit 1; }
if readelf -d "$lib" | grep -E 'libcrypto|libssl'; then
  echo "linked to OpenSSL"; exit 1
fi
echo "exports match the pinned list"
