// Pins the dynamic symbol table of the built library: an accidental export
// or a lost one fails here. Also checks that the library loads on its own
// and carries no link to OpenSSL, which is only a test oracle.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

std::vector<std::string> RunLines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return lines;
  char buffer[4096];
  while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
    std::string line(buffer);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
      line.pop_back();
    lines.push_back(line);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return lines;
}

// Symbols the linker defines in every shared object; not part of our ABI.
bool IsLinkerSymbol(const std::string& name) {
  static const std::set<std::string> kLinker = {"_init", "_fini", "_edata",
                                                "_end", "__bss_start"};
  return kLinker.count(name) != 0;
}

// Demangled names spell std::string out in full; the pinned list uses the
// short form so it stays readable.
std::string ShortenStdString(std::string name) {
  static const std::string kLong =
      "std::__cxx11::basic_string<char, std::char_traits<char>, "
      "std::allocator<char> >";
  for (std::size_t pos; (pos = name.find(kLong)) != std::string::npos;) {
    name.replace(pos, kLong.size(), "std::string");
  }
  return name;
}

std::set<std::string> ExportedSymbols() {
  std::set<std::string> names;
  for (const std::string& name :
       RunLines(std::string("nm -D --defined-only -C -j '") +
                TESSMAR_LIBRARY_PATH + "'")) {
    if (!IsLinkerSymbol(name)) names.insert(ShortenStdString(name));
  }
  return names;
}

std::set<std::string> ExpectedSymbols() {
  std::set<std::string> names;
  std::ifstream in(TESSMAR_EXPECTED_SYMBOLS);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] != '#') names.insert(line);
  }
  return names;
}

std::vector<std::string> Minus(const std::set<std::string>& a,
                               const std::set<std::string>& b) {
  std::vector<std::string> out;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(),
                      std::back_inserter(out));
  return out;
}

std::string Join(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& n : names) out += "\n  " + n;
  return out;
}

}  // namespace

TEST(ExportedSymbols, MatchThePinnedList) {
  const std::set<std::string> expected = ExpectedSymbols();
  ASSERT_FALSE(expected.empty());
  const std::set<std::string> actual = ExportedSymbols();
  EXPECT_TRUE(Minus(actual, expected).empty())
      << "exported but not pinned:" << Join(Minus(actual, expected));
  EXPECT_TRUE(Minus(expected, actual).empty())
      << "pinned but not exported:" << Join(Minus(expected, actual));
}

TEST(ExportedSymbols, PlainCNamesResolveThroughDlsym) {
  void* handle = dlopen(TESSMAR_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  for (const std::string& name : ExpectedSymbols()) {
    if (name.find('(') != std::string::npos) continue;  // C++ signature
    EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
  }
  dlclose(handle);
}

TEST(ExportedSymbols, LibraryDoesNotLinkOpenSSL) {
  for (const std::string& line : RunLines(std::string("readelf -d '") +
                                          TESSMAR_LIBRARY_PATH + "'")) {
    EXPECT_EQ(line.find("libcrypto"), std::string::npos) << line;
    EXPECT_EQ(line.find("libssl"), std::string::npos) << line;
  }
}
