// Base64 codec, standard alphabet of RFC 4648 with "=" padding.
//
// Both calls allocate their result with malloc and store its address through
// `output`; the caller releases it with free. Every result is followed by one
// extra 0 byte that the returned length does not count.
#ifndef TESSMAR_BASE64_H
#define TESSMAR_BASE64_H

#include <stdint.h>

#include "tessmar/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Encodes `length` bytes. With `line_breaks` equal to 1 a line feed follows
// every 64 characters except at the very end; any other value gives a single
// line. Returns the number of characters written (line feeds included), or 0:
// null input or output (output untouched), or a failed length check (output
// set to null). Encoding 0 bytes in one line returns 0 with an allocated "".
TSMX_API int encode_Base64(const unsigned char* input, uint32_t length,
                           char** output, int line_breaks);

// Decodes `length` characters. Line feeds and CR LF pairs are skipped;
// characters outside the alphabet are not rejected but corrupt the bytes.
// Returns the number of bytes decoded, or 0 for:
//   - null input or output: output untouched;
//   - a lone CR, a third "=", or a symbol after "=": output left as it was;
//   - a text that does not end on a group of four symbols: output set to null;
//   - an empty text: an allocated empty result is stored and must be freed.
TSMX_API int decode_Base64(const char* input, int32_t length,
                           unsigned char** output);

#ifdef __cplusplus
}
#endif

#endif  // TESSMAR_BASE64_H
