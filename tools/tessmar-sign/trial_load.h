// Loading a client module the way the module host does, in a child process
// so that whatever the module's code does cannot harm the tool.
#ifndef TESSMAR_TOOLS_SIGN_TRIAL_LOAD_H
#define TESSMAR_TOOLS_SIGN_TRIAL_LOAD_H

#include <string>

namespace tessmar::sign {

// dlopen()s `path` as the loader does (RTLD_LAZY), looks up Initialize and
// calls it with an uncleared 64-byte table. "" when Initialize returned 0;
// otherwise why
// the loader would not register the module: "cannot be loaded: <dlerror>",
// "exports no Initialize", "Initialize returned N", or that the trial
// crashed or did not finish within `timeout_ms`.
std::string TrialLoadProblem(const std::string& path, int timeout_ms);

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_TRIAL_LOAD_H
