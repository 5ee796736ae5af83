// The hardware variants handed out are exactly those the CPU has, as the
// kernel lists its flags, each under its own name.
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

template <typename Variant>
const char* NameOf(const Variant* v) { return v != nullptr ? v->name : "none"; }

TEST(VariantSelection, FollowsTheCpuFlags) {
  const std::set<std::string> flags = CpuFlags();
  ASSERT_FALSE(flags.empty());
  const auto has = [&](const char* flag) { return flags.count(flag) != 0; };
  const bool sse = has("ssse3") && has("sse4_1");
  const bool aesni = has("aes") && sse;
  // The kernel lists avx only when it saves the YMM registers, and avx512*
  // only when it saves the opmask and ZMM registers.
  const bool vaes = aesni && has("avx") && has("avx2") && has("vaes");
  const bool shani = has("sha_ni") && sse;
  const bool avx2 = has("avx") && has("avx2") && has("bmi1") && has("bmi2");
  const bool avx512 = avx2 && has("avx512f") && has("avx512vl") && has("avx512bw");

  // Each name, expected when the CPU has it. (That the fastest is the one in
  // use, the AES and digest tests assert as they pick each variant.)
  const struct { const char* got; const char* name; bool expected; } cases[] = {
      {NameOf(AesVariantNamed("portable")), "portable", true},
      {NameOf(AesVariantNamed("aesni")), "aesni", aesni},
      {NameOf(AesVariantNamed("vaes")), "vaes", vaes},
      {NameOf(DigestVariantNamed("portable")), "portable", true},
      {NameOf(DigestVariantNamed("shani")), "shani", shani},
      {NameOf(Sha512VariantNamed("portable")), "portable", true},
      {NameOf(Sha512VariantNamed("avx2")), "avx2", avx2},
      {NameOf(Sha512VariantNamed("avx512")), "avx512", avx512},
      {NameOf(AesVariantNamed("AESNI")), "AESNI", false},
      {NameOf(DigestVariantNamed(nullptr)), "null", false}};
  for (const auto& c : cases) EXPECT_STREQ(c.got, c.expected ? c.name : "none") << c.name;
}

}  // namespace
