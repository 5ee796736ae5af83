// Symbol visibility for libTessmarFirefox.so.
//
// The library is compiled with hidden visibility by default; exactly the
// declarations marked TSMX_API are exported. Consumers include this header
// indirectly through the other tessmar headers and see an empty TSMX_API
// beyond the attribute, which is harmless on their side.
#ifndef TESSMAR_EXPORT_H
#define TESSMAR_EXPORT_H

#define TSMX_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define TSMX_EXTERN_C extern "C"
#else
#define TSMX_EXTERN_C
#endif

#endif  // TESSMAR_EXPORT_H
