// Base64 codec: published vectors, round trips, OpenSSL as an oracle for the
// single-line form, and the codec's own rules for line breaks, failures and
// characters outside the alphabet.
#include "tessmar/base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// A sentinel the codec must leave alone when it reports "output untouched".
unsigned char g_sentinel_storage;
unsigned char* const kSentinel = &g_sentinel_storage;

struct Encoded {
  int result;
  bool is_null;
  std::string text;
};

Encoded Encode(const Bytes& data, int line_breaks) {
  // Exact-size heap copy, so any read past the input is caught by ASan.
  std::unique_ptr<unsigned char[]> copy(new unsigned char[data.size()]);
  if (!data.empty()) std::memcpy(copy.get(), data.data(), data.size());
  char* out = reinterpret_cast<char*>(kSentinel);
  const int result = encode_Base64(
      copy.get(), static_cast<uint32_t>(data.size()), &out, line_breaks);
  EXPECT_NE(out, reinterpret_cast<char*>(kSentinel));
  std::unique_ptr<char, FreeDeleter> owned(out);
  if (out == nullptr) return {result, true, {}};
  EXPECT_EQ(std::strlen(out), static_cast<size_t>(result)) << "terminator";
  return {result, false, std::string(out)};
}

enum class Outcome { kDecoded, kNull, kUntouched };

struct Decoded {
  int result;
  Outcome outcome;
  Bytes bytes;
};

Decoded Decode(const std::string& text) {
  std::unique_ptr<char[]> copy(new char[text.size()]);
  if (!text.empty()) std::memcpy(copy.get(), text.data(), text.size());
  unsigned char* out = kSentinel;
  const int result =
      decode_Base64(copy.get(), static_cast<int32_t>(text.size()), &out);
  if (out == kSentinel) return {result, Outcome::kUntouched, {}};
  if (out == nullptr) return {result, Outcome::kNull, {}};
  std::unique_ptr<unsigned char, FreeDeleter> owned(out);
  EXPECT_EQ(out[result], 0) << "terminator";
  return {result, Outcome::kDecoded, Bytes(out, out + result)};
}

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes RandomBytes(std::mt19937& rng, size_t n) {
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes data(n);
  for (auto& b : data) b = static_cast<unsigned char>(byte(rng));
  return data;
}

TEST(Base64, Rfc4648Vectors) {
  // RFC 4648, section 10.
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : vectors) {
    SCOPED_TRACE(plain);
    const Encoded e = Encode(B(plain), 0);
    ASSERT_FALSE(e.is_null);
    EXPECT_EQ(e.text, encoded);
    EXPECT_EQ(e.result, static_cast<int>(std::strlen(encoded)));
    const Decoded d = Decode(encoded);
    ASSERT_EQ(d.outcome, Outcome::kDecoded);
    EXPECT_EQ(d.bytes, B(plain));
  }
}

TEST(Base64, RoundTripsEveryLengthWithAndWithoutLineBreaks) {
  std::mt19937 rng(20240611);
  for (size_t n = 0; n <= 300; ++n) {
    SCOPED_TRACE(n);
    const Bytes data = RandomBytes(rng, n);
    for (int flag : {0, 1}) {
      const Encoded e = Encode(data, flag);
      if (n == 0 && flag == 1) {
        EXPECT_TRUE(e.is_null);
        continue;
      }
      ASSERT_FALSE(e.is_null);
      EXPECT_EQ(e.text.find('\r'), std::string::npos);
      // Lines of exactly 64 characters, the last one 1..64, no LF at the end.
      size_t start = 0;
      for (size_t lf; (lf = e.text.find('\n', start)) != std::string::npos;) {
        EXPECT_EQ(flag, 1);
        EXPECT_EQ(lf - start, 64u);
        start = lf + 1;
      }
      EXPECT_LE(e.text.size() - start, flag == 1 ? 64u : e.text.size());
      if (n != 0) {
        EXPECT_GT(e.text.size(), start);
      }

      Decoded d = Decode(e.text);
      ASSERT_EQ(d.outcome, Outcome::kDecoded);
      EXPECT_EQ(d.bytes, data);
      std::string crlf;
      for (char c : e.text)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
      d = Decode(crlf);
      ASSERT_EQ(d.outcome, Outcome::kDecoded);
      EXPECT_EQ(d.bytes, data);
    }
  }
}

TEST(Base64, MatchesOpenSslOnSingleLineText) {
  std::mt19937 rng(7);
  for (size_t n = 1; n <= 300; ++n) {
    SCOPED_TRACE(n);
    const Bytes data = RandomBytes(rng, n);
    std::string expected(4 * ((n + 2) / 3) + 1, '\0');
    const int len =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&expected[0]),
                        data.data(), static_cast<int>(n));
    expected.resize(static_cast<size_t>(len));
    EXPECT_EQ(Encode(data, 0).text, expected);
    // Any flag other than 1 means a single line too.
    EXPECT_EQ(Encode(data, 2).text, expected);
    EXPECT_EQ(Encode(data, -1).text, expected);

    // OpenSSL keeps the zero bytes that stand for the pads; drop them.
    Bytes raw(expected.size());
    int raw_len = EVP_DecodeBlock(
        raw.data(), reinterpret_cast<const unsigned char*>(expected.data()),
        static_cast<int>(expected.size()));
    ASSERT_GE(raw_len, 0);
    raw_len -=
        static_cast<int>(expected.size() - expected.find_last_not_of('=') - 1);
    raw.resize(static_cast<size_t>(raw_len));
    EXPECT_EQ(Decode(expected).bytes, raw);
  }
}

TEST(Base64, BreaksLinesAfterEverySixtyFourCharactersButNotAtTheEnd) {
  const Bytes zeros96(96, 0);
  Encoded e = Encode(Bytes(zeros96.begin(), zeros96.begin() + 48), 1);
  EXPECT_EQ(e.result, 64);
  EXPECT_EQ(e.text, std::string(64, 'A'));

  e = Encode(Bytes(zeros96.begin(), zeros96.begin() + 49), 1);
  EXPECT_EQ(e.result, 69);
  EXPECT_EQ(e.text, std::string(64, 'A') + "\nAA==");

  e = Encode(zeros96, 1);
  EXPECT_EQ(e.result, 129);
  EXPECT_EQ(e.text, std::string(64, 'A') + "\n" + std::string(64, 'A'));
}

TEST(Base64, EncoderFailures) {
  const unsigned char byte = 0x41;
  char* out = reinterpret_cast<char*>(kSentinel);
  EXPECT_EQ(encode_Base64(nullptr, 1, &out, 0), 0);
  EXPECT_EQ(out, reinterpret_cast<char*>(kSentinel));
  EXPECT_EQ(encode_Base64(&byte, 1, nullptr, 1), 0);

  // Nothing to encode: one line gives an allocated "", line breaks fail the
  // length check and give null.
  Encoded e = Encode({}, 0);
  EXPECT_EQ(e.result, 0);
  EXPECT_FALSE(e.is_null);
  EXPECT_EQ(e.text, "");
  e = Encode({}, 1);
  EXPECT_EQ(e.result, 0);
  EXPECT_TRUE(e.is_null);

  // Lengths at which the signed 32-bit sizes or the remainder wrap fail
  // before a single input byte is read (the input here is one byte long, so
  // a read would be caught by ASan or crash). At 0x21A91F38 the wrapped
  // remainder asks for two last bytes where only one remains; the sizes
  // would agree, so only the refusal to read past the input makes it fail.
  for (uint32_t length : {0x10000001u, 0x21A91F38u, 0x80000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(length);
    for (int flag : {0, 1}) {
      out = reinterpret_cast<char*>(kSentinel);
      EXPECT_EQ(encode_Base64(&byte, length, &out, flag), 0);
      EXPECT_EQ(out, nullptr);
    }
  }
}

TEST(Base64, DecodesGroupsByTheirPads) {
  EXPECT_EQ(Decode("Zg==").bytes, B("f"));
  EXPECT_EQ(Decode("Zm8=").bytes, B("fo"));
  EXPECT_EQ(Decode("Zm9v").bytes, B("foo"));
  EXPECT_EQ(Decode("Zm9v\r\nYmFy").bytes, B("foobar"));
  EXPECT_EQ(Decode("\nZm9v\n\nYmFy\n").bytes, B("foobar"));
  EXPECT_EQ(Decode("\r\nZm\r\n9v\r\n").bytes, B("foo"));
}

TEST(Base64, WalkFailuresLeaveTheOutputAsItWas) {
  for (const char* text : {"Zg=v", "Z===", "====", "Zg==Zm9v", "Zg==\nZ",
                           "Zm9v\rYmFy", "Zm9v\n\rYmFy", "Zm9v\r", "\r"}) {
    SCOPED_TRACE(text);
    const Decoded d = Decode(text);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.outcome, Outcome::kUntouched);
  }
}

TEST(Base64, IncompleteGroupsGiveNull) {
  // Includes texts shorter than two characters; Decode passes exact-size
  // heap copies, so ASan catches any look outside them.
  for (const char* text : {"=", "A", "Zm9", "Zg=", "Zm9vY", "Zm9v\nYm\r\n",
                           "AAAAAAAAA==", "AAAAA=="}) {
    SCOPED_TRACE(text);
    const Decoded d = Decode(text);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.outcome, Outcome::kNull);
  }
}

TEST(Base64, EmptyTextGivesAnAllocatedEmptyResult) {
  for (int32_t length : {0, -1, -5}) {
    SCOPED_TRACE(length);
    const char dummy = 'Z';
    unsigned char* out = kSentinel;
    EXPECT_EQ(decode_Base64(&dummy, length, &out), 0);
    ASSERT_NE(out, nullptr);
    ASSERT_NE(out, kSentinel);
    EXPECT_EQ(out[0], 0);
    std::free(out);
  }
  EXPECT_EQ(Decode("").outcome, Outcome::kDecoded);
  EXPECT_EQ(Decode("\r\n\n").outcome, Outcome::kDecoded);

  unsigned char* out = kSentinel;
  EXPECT_EQ(decode_Base64(nullptr, 4, &out), 0);
  EXPECT_EQ(out, kSentinel);
  EXPECT_EQ(decode_Base64("Zm9v", 4, nullptr), 0);
}

TEST(Base64, ForeignCharactersCorruptBytesWithoutFailing) {
  // Their value 255 is ORed in, setting the low two bits of the previous
  // symbol too; bits above the 24-bit group are dropped.
  EXPECT_EQ(Decode("Zm9 ").bytes, (Bytes{0x66, 0x6F, 0xFF}));
  EXPECT_EQ(Decode("Zm-v").bytes, (Bytes{0x66, 0x7F, 0xEF}));
  EXPECT_EQ(Decode(" m9v").bytes, (Bytes{0xFE, 0x6F, 0x6F}));
  EXPECT_EQ(Decode("Z -=").bytes, (Bytes{0x6F, 0xFF}));
}

TEST(Base64, GarbageNeverOverrunsTheResult) {
  // Random texts rich in pads, breaks and foreign characters: whatever the
  // outcome, a decoded result holds at most 3 bytes per 4 characters, and
  // ASan checks the work buffer.
  std::mt19937 rng(99);
  const std::string alphabet = "AZaz09+/====\r\n\n -";
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
  std::uniform_int_distribution<size_t> size(0, 40);
  for (int round = 0; round < 20000; ++round) {
    std::string text(size(rng), ' ');
    for (auto& c : text) c = alphabet[pick(rng)];
    SCOPED_TRACE(text);
    const Decoded d = Decode(text);
    if (d.outcome == Outcome::kDecoded) {
      EXPECT_LE(d.bytes.size(), text.size() / 4 * 3);
    } else {
      EXPECT_EQ(d.result, 0);
    }
  }
}

}  // namespace
