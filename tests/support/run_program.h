// Test support: a program run to its end, its output collected.
#ifndef TESSMAR_TESTS_SUPPORT_RUN_PROGRAM_H
#define TESSMAR_TESTS_SUPPORT_RUN_PROGRAM_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/temp_home.h"

namespace tessmar::testing {

inline constexpr int kDeadlineSeconds = 20;

struct ProgramResult {
  int exit_code;  // 128 + N when killed by signal N (SIGKILL at the deadline)
  std::string out;
  std::string err;
};

// Runs `argv` with `input` as stdin under timeout(1), which kills its group;
// the streams pass through files in HOME.
inline ProgramResult RunProgram(const std::vector<std::string>& argv,
                                const std::string& input = "") {
  const auto quote = [](const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return quoted + "'";
  };
  const std::string base = std::string(std::getenv("HOME")) + "/.run-";
  WriteFile(base + "in", input);
  std::string command = "timeout -s KILL " + std::to_string(kDeadlineSeconds);
  for (const std::string& arg : argv) command += " " + quote(arg);
  command += " <" + quote(base + "in") + " >" + quote(base + "out") + " 2>" +
             quote(base + "err");
  const int status = std::system(command.c_str());
  ProgramResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                       ReadFile(base + "out"), ReadFile(base + "err")};
  for (const char* name : {"in", "out", "err"}) unlink((base + name).c_str());
  return result;
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_RUN_PROGRAM_H
