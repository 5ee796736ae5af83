// The result of one tessmar-sign command: its exit status and, when it did
// not succeed, the one-line reason printed on stderr.
#ifndef TESSMAR_TOOLS_SIGN_OUTCOME_H
#define TESSMAR_TOOLS_SIGN_OUTCOME_H

#include <string>
#include <utility>

namespace tessmar::sign {

// Exit statuses, part of the tool's interface for installer scripts.
inline constexpr int kExitOk = 0;
inline constexpr int kExitInvalid = 1;  // a signature was checked and failed
inline constexpr int kExitError = 2;    // usage, missing input or I/O error

struct Outcome {
  int status = kExitOk;
  std::string reason;  // without the "tessmar-sign: " prefix or a newline
};

inline Outcome Success() { return Outcome{}; }
inline Outcome Invalid(std::string reason) {
  return Outcome{kExitInvalid, std::move(reason)};
}
inline Outcome Failure(std::string reason) {
  return Outcome{kExitError, std::move(reason)};
}

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_OUTCOME_H
