// Base64 codec: see tessmar/base64.h for the contract.
//
// Sizes and counts follow the signed 32-bit arithmetic that the codec has
// always used, wrap-around included; the helpers below compute such values in
// a wider type and narrow them as two's complement, so no step is undefined.
#include "tessmar/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPad = '=';
constexpr unsigned char kPadValue = 64;
constexpr unsigned char kNotInAlphabet = 255;
constexpr int32_t kLineLength = 64;

constexpr std::array<unsigned char, 256> MakeDecodeTable() {
  std::array<unsigned char, 256> table{};
  for (auto& entry : table) entry = kNotInAlphabet;
  for (unsigned char value = 0; value < 64; ++value) {
    table[static_cast<unsigned char>(kAlphabet[value])] = value;
  }
  table[static_cast<unsigned char>(kPad)] = kPadValue;
  return table;
}

// Character -> 6-bit value; "=" -> 64; anything else -> 255.
constexpr std::array<unsigned char, 256> kDecodeTable = MakeDecodeTable();

static_assert(sizeof(kAlphabet) == 65, "64 symbols and the terminator");
static_assert(kDecodeTable['A'] == 0 && kDecodeTable['Z'] == 25 &&
                  kDecodeTable['a'] == 26 && kDecodeTable['z'] == 51 &&
                  kDecodeTable['0'] == 52 && kDecodeTable['9'] == 61 &&
                  kDecodeTable['+'] == 62 && kDecodeTable['/'] == 63,
              "alphabet positions");
static_assert(kDecodeTable['='] == 64 && kDecodeTable[' '] == 255 &&
                  kDecodeTable['-'] == 255 && kDecodeTable['\n'] == 255 &&
                  kDecodeTable[0] == 255 && kDecodeTable[0xFF] == 255,
              "pad and foreign characters");

// Narrows to signed 32 bits as two's complement (modulo 2^32).
constexpr int32_t Wrap32(int64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

}  // namespace

extern "C" {

int encode_Base64(const unsigned char* input, uint32_t length, char** output,
                  int line_breaks) {
  if (input == nullptr || output == nullptr) return 0;

  const bool breaking = line_breaks == 1;
  const int32_t signed_length = Wrap32(length);
  const int32_t base_length =
      Wrap32(int64_t{Wrap32(int64_t{signed_length} + 2) / 3} * 4);
  // No line feed ends the text, hence one break fewer when the text fills
  // its last line exactly. For 0 bytes this makes the total -1, so encoding
  // nothing with line breaks fails the length check on purpose.
  int32_t breaks_expected = 0;
  if (breaking) {
    breaks_expected =
        base_length / kLineLength - (base_length % kLineLength == 0 ? 1 : 0);
  }
  const int32_t total = Wrap32(int64_t{base_length} + breaks_expected);

  // The size of the last group is derived from (length * 8) mod 3 on the
  // wrapped signed product: 1 leaves two bytes, 2 leaves one. Beyond 2^28
  // bytes the wrapped product can disagree with the real remainder.
  const int32_t remainder = Wrap32(int64_t{signed_length} * 8) % 3;
  const uint32_t tail = remainder == 1 ? 2 : (remainder == 2 ? 1 : 0);

  // The length check compares the characters written with the total. It is
  // made before anything is written so that a mismatch (possible only for
  // lengths where the 32-bit values wrap) can never run past the buffer; the
  // caller sees the same result, 0 and a null text. A last group that would
  // take more bytes than remain fails as well instead of reading past the
  // input.
  const uint64_t groups = length / 3;
  uint64_t breaks_written = 0;
  if (breaking && breaks_expected > 0) {
    const uint64_t full_lines = groups * 4 / kLineLength;
    breaks_written = full_lines < static_cast<uint64_t>(breaks_expected)
                         ? full_lines
                         : static_cast<uint64_t>(breaks_expected);
  }
  const uint64_t written = groups * 4 + (tail != 0 ? 4 : 0) + breaks_written;
  if (tail != length % 3 || total < 0 ||
      written != static_cast<uint64_t>(total)) {
    *output = nullptr;
    return 0;
  }

  char* text = static_cast<char*>(std::malloc(static_cast<size_t>(total) + 1));
  *output = text;
  if (text == nullptr) return 0;

  size_t pos = 0;
  size_t symbols = 0;
  int32_t breaks = 0;
  const unsigned char* in = input;
  for (uint64_t group = 0; group < groups; ++group, in += 3) {
    const uint32_t bits = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    text[pos++] = kAlphabet[(bits >> 18) & 0x3F];
    text[pos++] = kAlphabet[(bits >> 12) & 0x3F];
    text[pos++] = kAlphabet[(bits >> 6) & 0x3F];
    text[pos++] = kAlphabet[bits & 0x3F];
    symbols += 4;
    if (breaking && symbols % kLineLength == 0 && breaks < breaks_expected) {
      text[pos++] = '\n';  // line feed only, never CR LF
      ++breaks;
    }
  }
  if (tail == 2) {
    const uint32_t bits = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8;
    text[pos++] = kAlphabet[(bits >> 18) & 0x3F];
    text[pos++] = kAlphabet[(bits >> 12) & 0x3F];
    text[pos++] = kAlphabet[(bits >> 6) & 0x3F];
    text[pos++] = kPad;
  } else if (tail == 1) {
    const uint32_t bits = uint32_t{in[0]} << 16;
    text[pos++] = kAlphabet[(bits >> 18) & 0x3F];
    text[pos++] = kAlphabet[(bits >> 12) & 0x3F];
    text[pos++] = kPad;
    text[pos++] = kPad;
  }
  text[pos] = '\0';
  return total;
}

int decode_Base64(const char* input, int32_t length, unsigned char** output) {
  if (input == nullptr || output == nullptr) return 0;

  // Work buffer: every emitted byte needs a complete group of four symbols
  // and every symbol is one character of the text, so (length / 4) * 3 bytes
  // always suffice. The trailing pads are deliberately not subtracted: that
  // smaller size is exact only for a single-line text whose pads close its
  // last group, and undercounts otherwise ("AAAAAAAAA==" emits 6 bytes, then
  // fails on its leftover symbols). Nothing here depends on the last
  // characters, so texts shorter than two characters are never read outside.
  const size_t capacity =
      length > 0 ? static_cast<size_t>(length / 4) * 3 + 1 : 1;
  unsigned char* work = static_cast<unsigned char*>(std::malloc(capacity));
  if (work == nullptr) return 0;

  size_t decoded = 0;
  uint32_t accumulator = 0;  // only bits 23-0 are ever emitted
  int symbols = 0;
  int pads = 0;
  // An empty or negative length skips the walk and yields an empty result.
  for (int32_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(input[i]);
    if (c == '\r') {
      // A carriage return only counts as half of a CR LF pair.
      if (i + 1 >= length || input[i + 1] != '\n') {
        std::free(work);
        return 0;  // output left as the caller had it
      }
      ++i;
      continue;
    }
    if (c == '\n') continue;

    unsigned char value = kDecodeTable[c];
    if (value == kPadValue) {
      if (++pads > 2) {
        std::free(work);
        return 0;
      }
      value = 0;
    } else if (pads != 0) {
      // The pad count is never reset, so this also rejects any symbol in a
      // group after a padded one.
      std::free(work);
      return 0;
    }
    // A character outside the alphabet is not rejected: its 255 is ORed in
    // as it is and also sets the low two bits of the previous symbol. Callers
    // get garbage bytes rather than an error; that is the codec's tolerance.
    accumulator = accumulator << 6 | value;
    if (++symbols == 4) {
      work[decoded++] = static_cast<unsigned char>(accumulator >> 16);
      if (pads < 2)
        work[decoded++] = static_cast<unsigned char>(accumulator >> 8);
      if (pads == 0) work[decoded++] = static_cast<unsigned char>(accumulator);
      accumulator = 0;
      symbols = 0;
    }
  }

  if (symbols != 0) {
    // The text did not end on a group of four: the result would be released
    // at once, so it is not made at all.
    std::free(work);
    *output = nullptr;
    return 0;
  }
  unsigned char* result = static_cast<unsigned char*>(std::malloc(decoded + 1));
  *output = result;
  if (result != nullptr) {
    if (decoded != 0) std::memcpy(result, work, decoded);
    result[decoded] = 0;
  }
  std::free(work);
  return result != nullptr ? static_cast<int>(decoded) : 0;
}

}  // extern "C"
