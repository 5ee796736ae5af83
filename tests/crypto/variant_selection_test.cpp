// The hardware variants handed out are exactly those the CPU has, as the
// kernel lists its flags, each under its own name; the one in use is the
// fastest of them.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "crypto/aes_variant.h"
#include "crypto/digest_variant.h"

namespace {

using namespace tessmar::crypto;

std::set<std::string> CpuFlags() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::set<std::string> flags;
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("flags", 0) != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    for (std::string flag; words >> flag;) flags.insert(flag);
    break;
  }
  return flags;
}

TEST(VariantSelection, FollowsTheCpuFlags) {
  const std::set<std::string> flags = CpuFlags();
  ASSERT_FALSE(flags.empty());
  const auto has = [&](const char* flag) { return flags.count(flag) != 0; };
  const bool sse = has("ssse3") && has("sse4_1");
  const bool aesni = has("aes") && sse;
  // The kernel lists avx only when it saves the YMM registers.
  const bool vaes = aesni && has("avx") && has("avx2") && has("vaes");
  const bool shani = has("sha_ni") && sse;
  const bool avx2 = has("avx") && has("avx2") && has("bmi1") && has("bmi2");
  // Likewise avx512* only when it saves the opmask and ZMM registers.
  const bool avx512 =
      avx2 && has("avx512f") && has("avx512vl") && has("avx512bw");

  EXPECT_EQ(AesVariantNamed("aesni") != nullptr, aesni);
  EXPECT_EQ(AesVariantNamed("vaes") != nullptr, vaes);
  EXPECT_EQ(DigestVariantNamed("shani") != nullptr, shani);
  EXPECT_EQ(Sha512VariantNamed("avx2") != nullptr, avx2);
  EXPECT_EQ(Sha512VariantNamed("avx512") != nullptr, avx512);
  for (const char* name : {"portable", "aesni", "vaes"}) {
    const AesVariant* v = AesVariantNamed(name);
    EXPECT_STREQ(v ? v->name : name, name);
  }
  for (const char* name : {"portable", "shani"}) {
    const DigestVariant* v = DigestVariantNamed(name);
    EXPECT_STREQ(v ? v->name : name, name);
  }
  for (const char* name : {"portable", "avx2", "avx512"}) {
    const Sha512Variant* v = Sha512VariantNamed(name);
    EXPECT_STREQ(v ? v->name : name, name);
  }
  EXPECT_EQ(AesVariantNamed("AESNI"), nullptr);
  EXPECT_EQ(DigestVariantNamed(nullptr), nullptr);
  EXPECT_STREQ(ActiveAes().name, vaes ? "vaes" : aesni ? "aesni" : "portable");
  EXPECT_STREQ(ActiveDigests().name, shani ? "shani" : "portable");
  EXPECT_STREQ(ActiveSha512().name,
               avx512 ? "avx512" : avx2 ? "avx2" : "portable");
}

}  // namespace
