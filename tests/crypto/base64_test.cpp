// Base64 codec: the whole alphabet, and the codec's own rules for line
// breaks, failures and characters outside the alphabet. Padding and round
// trips of other lengths are the Base64 fuzz target's (against OpenSSL).
#include "tessmar/base64.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A sentinel the codec must leave alone when it reports "output untouched".
unsigned char g_sentinel_storage;
unsigned char* const kSentinel = &g_sentinel_storage;
char* const kTextSentinel = reinterpret_cast<char*>(kSentinel);

// Encodes from an exact-size heap copy (so ASan sees reads past the input);
// "<null>" stands for a null result.
std::string Encode(const Bytes& data, int line_breaks) {
  std::unique_ptr<unsigned char[]> copy(new unsigned char[data.size()]);
  if (!data.empty()) std::memcpy(copy.get(), data.data(), data.size());
  char* out = kTextSentinel;
  const int n = encode_Base64(copy.get(), static_cast<uint32_t>(data.size()), &out, line_breaks);
  EXPECT_NE(out, kTextSentinel);
  if (out == nullptr) return "<null>";
  EXPECT_EQ(std::strlen(out), static_cast<size_t>(n)) << "terminator";
  std::string text(out);
  std::free(out);
  return text;
}

// Decodes from an exact-size heap copy; "<null>" and "<untouched>" stand for
// the output pointer set to null or left as it was (both with result 0).
std::string Decode(const std::string& text) {
  std::unique_ptr<char[]> copy(new char[text.size()]);
  if (!text.empty()) std::memcpy(copy.get(), text.data(), text.size());
  unsigned char* out = kSentinel;
  const int n = decode_Base64(copy.get(), static_cast<int32_t>(text.size()), &out);
  if (out == kSentinel || out == nullptr) {
    EXPECT_EQ(n, 0);
    return out ? "<untouched>" : "<null>";
  }
  EXPECT_EQ(out[n], 0) << "terminator";
  std::string bytes(reinterpret_cast<char*>(out), static_cast<size_t>(n));
  std::free(out);
  return bytes;
}

// Every symbol of the alphabet once, in order: exactly one line.
const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const std::string kAlphabetBytes(
    "\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f\x41\x14\x93\x51"
    "\x55\x97\x61\x96\x9b\x71\xd7\x9f\x82\x18\xa3\x92\x59\xa7\xa2\x9a"
    "\xab\xb2\xdb\xaf\xc3\x1c\xb3\xd3\x5d\xb7\xe3\x9e\xbb\xf3\xdf\xbf", 48);

// Flag 1 breaks lines after every 64 symbols with a LF, never at the end (the
// fuzz target's corpus holds 48 bytes, one line exactly); any other flag gives
// one line. Lines end in LF or CR LF for the decoder.
TEST(Base64, LineBreaks) {
  const std::string plain = kAlphabetBytes + kAlphabetBytes + "f", a = kAlphabet;
  const Bytes data(plain.begin(), plain.end());
  EXPECT_EQ(Encode(data, 1), a + "\n" + a + "\nZg==");
  for (int flag : {0, 2, -1}) EXPECT_EQ(Encode(data, flag), a + a + "Zg==") << flag;
  EXPECT_EQ(Decode(a + "\n" + a + "\nZg=="), plain);
  EXPECT_EQ(Decode(a + "\r\n" + a + "\r\nZg=="), plain);
}

TEST(Base64, EncoderFailures) {
  const unsigned char byte = 0x41;
  char* out = kTextSentinel;
  EXPECT_EQ(encode_Base64(nullptr, 1, &out, 0), 0);
  EXPECT_EQ(out, kTextSentinel);
  // Nothing to encode: one line gives an allocated "", line breaks give null.
  EXPECT_EQ(Encode({}, 0), "");
  EXPECT_EQ(Encode({}, 1), "<null>");

  // Lengths at which the signed 32-bit sizes or the remainder wrap fail
  // before an input byte is read (the input is one byte long). At 0x21A91F38
  // the sizes agree, and only the refusal to read past the input fails it.
  for (uint32_t length : {0x10000001u, 0x21A91F38u, 0x80000000u, 0xFFFFFFFFu}) {
    for (int flag : {0, 1}) {
      SCOPED_TRACE(testing::Message() << length << " flag " << flag);
      out = kTextSentinel;
      EXPECT_EQ(encode_Base64(&byte, length, &out, flag), 0);
      EXPECT_EQ(out, nullptr);
    }
  }
}

TEST(Base64, DecoderOutcomes) {
  const std::pair<std::string, std::string> cases[] = {
      // Line breaks anywhere between groups.
      {"\nZm9v\n\nYmFy\n", "foobar"}, {"\r\nZm\r\n9v\r\n", "foo"}, {"\r\n\n", ""}, {"", ""},
      // A pad not closing the text, or a lone CR: output left as it was.
      {"Zg=v", "<untouched>"}, {"Z===", "<untouched>"}, {"Zg==Zm9v", "<untouched>"},
      {"Zm9v\rYmFy", "<untouched>"}, {"Zm9v\r", "<untouched>"},
      // Incomplete groups, including texts shorter than two characters.
      {"A", "<null>"}, {"Zg=", "<null>"}, {"AAAAAAAAA==", "<null>"},
      // Foreign characters count as 255, ORed in: they set the low two bits
      // of the previous symbol too, and bits above the group are dropped.
      {"Zm-v", "\x66\x7F\xEF"}, {" m9v", "\xFE\x6F\x6F"}, {"Z -=", "\x6F\xFF"}};
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Decode(text), expected);
  }

  unsigned char* out = kSentinel;  // a negative length: an allocated empty result, as for ""
  EXPECT_EQ(decode_Base64("Z", -1, &out), 0);
  ASSERT_NE(out, nullptr);
  ASSERT_NE(out, kSentinel);
  EXPECT_EQ(out[0], 0);
  std::free(out);
  out = kSentinel;
  EXPECT_EQ(decode_Base64(nullptr, 4, &out), 0);
  EXPECT_EQ(out, kSentinel);
}

}  // namespace
