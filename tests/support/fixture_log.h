// Test support: the log that the fixture modules append to. Its path is
// handed to them in the environment variable TESSMAR_FIXTURE_LOG; each line
// is one call, fields separated by tabs (see the fixture sources).
#ifndef TESSMAR_TESTS_SUPPORT_FIXTURE_LOG_H
#define TESSMAR_TESTS_SUPPORT_FIXTURE_LOG_H

#include <cstdlib>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_home.h"

namespace tessmar::testing {

class FixtureLog {
 public:
  explicit FixtureLog(const TempHome& home)
      : path_(home.path() + "/fixture.log") {
    setenv("TESSMAR_FIXTURE_LOG", path_.c_str(), 1);
  }
  ~FixtureLog() { unsetenv("TESSMAR_FIXTURE_LOG"); }
  FixtureLog(const FixtureLog&) = delete;
  FixtureLog& operator=(const FixtureLog&) = delete;

  // Every line written so far, without line feeds.
  std::vector<std::string> Lines() const {
    std::istringstream in(ReadFile(path_));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

 private:
  std::string path_;
};

// Joins fields with tabs, the way the fixtures write their lines.
inline std::string LogLine(std::initializer_list<std::string> fields) {
  std::string line;
  bool first = true;
  for (const std::string& field : fields) {
    if (!first) line += '\t';
    line += field;
    first = false;
  }
  return line;
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_FIXTURE_LOG_H
