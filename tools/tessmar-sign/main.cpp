// tessmar-sign: produces and checks the signatures that libTessmarFirefox.so
// verifies (client modules, the installation, the local server program).
// All signing and checking is done by the library's exported functions, so
// there is exactly one implementation of each scheme.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "commands.h"
#include "config_directory.h"
#include "outcome.h"

namespace tessmar::sign {

using tools::kSystemConfigDirectory;
namespace {

// The usage text; the %s are the user configuration subdirectory (twice)
// and the system configuration directory.
constexpr char kUsage[] =
    "Usage: tessmar-sign [--system] COMMAND [ARGUMENTS]\n"
    "       tessmar-sign --help | --version\n"
    "\n"
    "Signing:\n"
    "  client FILE           print the client module signature text of FILE\n"
    "  module NAME FILE [--version V] [--config-dir DIR]\n"
    "                        sign FILE as client module NAME: write or update\n"
    "                        NAME.json (\"Name\", \"Path\", \"Sig\", "
    "\"Version\";\n"
    "                        other members are kept) in DIR, by default\n"
    "                        $HOME%s\n"
    "  install [--dir DIR]   sign the installation: store \"Sig\" in the\n"
    "                        config.json the library reads, or, with --dir,\n"
    "                        sign the files in DIR into DIR/Tessmar.sig\n"
    "  server FILE           sign the local server program FILE into FILE.sig\n"
    "\n"
    "Verifying (as the library does):\n"
    "  verify-client FILE SIG   check FILE against the signature text SIG\n"
    "  verify-module NAME       make the loader's checks on module NAME in its\n"
    "                           order (signatures, NAME.json, a trial load)\n"
    "                           and name the first that fails\n"
    "  verify-install [--dir DIR]\n"
    "                           check the installation, or DIR/Tessmar.sig\n"
    "  verify-server FILE       check FILE against FILE.sig\n"
    "\n"
    "Configuration files are looked up in $HOME%s first, then in\n"
    "%s.\n"
    "\n"
    "Options:\n"
    "  --system    use the system configuration directory alone, as the\n"
    "              library does without HOME: for installing as root (module,\n"
    "              install, verify-module, verify-install; not with\n"
    "              --config-dir or --dir)\n"
    "  -h, --help  show this text\n"
    "  --version   show the program's version; after \"module\" it gives the\n"
    "              module's version instead\n"
    "  --          end the options; what follows are operands\n"
    "\n"
    "Exit status: 0 signed or valid, 1 signature invalid or module refused,\n"
    "2 usage or I/O error.\n";

void PrintUsage(FILE* stream) {
  std::fprintf(stream, kUsage, kUserConfigSubdirectory, kUserConfigSubdirectory,
               kSystemConfigDirectory);
}

// Prints to stdout what --help or --version asked for.
int PrintInformation(bool version) {
  if (version) {
    std::printf("tessmar-sign %s\n", TESSMAR_TOOL_VERSION);
  } else {
    PrintUsage(stdout);
  }
  return std::fflush(stdout) == 0 ? kExitOk : kExitError;
}

struct CommandSpec {
  const char* name;
  std::vector<const char*> operands;  // as named in the usage text
  std::vector<const char*> options;   // each takes one value
  bool system = false;                // accepts --system
};

const std::vector<CommandSpec>& Commands() {
  static const std::vector<CommandSpec> kCommands = {
      {"client", {"FILE"}, {}},
      {"module", {"NAME", "FILE"}, {"--version", "--config-dir"}, true},
      {"install", {}, {"--dir"}, true},
      {"server", {"FILE"}, {}},
      {"verify-client", {"FILE", "SIG"}, {}},
      {"verify-module", {"NAME"}, {}, true},
      {"verify-install", {}, {"--dir"}, true},
      {"verify-server", {"FILE"}, {}},
  };
  return kCommands;
}

struct Arguments {
  std::vector<std::string> operands;
  std::map<std::string, std::string> options;
  bool help = false;
  bool system = false;

  std::string Option(const char* name) const {
    const auto found = options.find(name);
    return found == options.end() ? std::string() : found->second;
  }
};

bool Accepts(const CommandSpec& syntax, const std::string& option) {
  for (const char* name : syntax.options) {
    if (option == name) return true;
  }
  return false;
}

// Options may come before, between or after the operands; "--" ends them,
// so operands that begin with "-" can be given. `args` arrives with what the
// options before the command set.
bool ParseArguments(const CommandSpec& syntax, int argc, char** argv, int first,
                    Arguments* args, std::string* error) {
  bool options_ended = false;
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_ended || arg.size() < 2 || arg[0] != '-') {
      args->operands.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      args->help = true;
      continue;
    }
    if (arg == "--system") {
      args->system = true;
      continue;
    }
    std::string name = arg;
    std::string value;
    const std::size_t equals = arg.find('=');
    const bool inline_value =
        arg.compare(0, 2, "--") == 0 && equals != std::string::npos;
    if (inline_value) {
      name = arg.substr(0, equals);
      value = arg.substr(equals + 1);
    }
    if (!Accepts(syntax, name)) {
      *error = "unknown option '" + name + "'";
      return false;
    }
    if (!inline_value) {
      if (i + 1 >= argc) {
        *error = "option '" + name + "' needs a value";
        return false;
      }
      value = argv[++i];
    }
    if (value.empty()) {
      *error = "option '" + name + "' needs a non-empty value";
      return false;
    }
    if (!args->options.emplace(name, value).second) {
      *error = "option '" + name + "' given twice";
      return false;
    }
  }
  if (args->system && !syntax.system) {
    *error = "--system applies only to module, install, verify-module and "
             "verify-install";
    return false;
  }
  for (const char* local : {"--config-dir", "--dir"}) {
    if (args->system && args->options.count(local) != 0) {
      *error = std::string("--system and ") + local + " exclude each other";
      return false;
    }
  }
  if (!args->help && args->operands.size() != syntax.operands.size()) {
    *error = "expected";
    for (const char* operand : syntax.operands)
      *error += std::string(" ") + operand;
    if (syntax.operands.empty()) *error += " no operands";
    return false;
  }
  return true;
}

Outcome Run(const std::string& command, const Arguments& args) {
  const std::vector<std::string>& operand = args.operands;
  if (command == "client") return SignClient(operand[0]);
  if (command == "module") {
    return SignModule(ModuleRequest{
        operand[0], operand[1], args.Option("--version"),
        args.system ? kSystemConfigDirectory : args.Option("--config-dir")});
  }
  if (command == "install") return SignInstallation(args.Option("--dir"));
  if (command == "server") return SignServer(operand[0]);
  if (command == "verify-client") return VerifyClient(operand[0], operand[1]);
  if (command == "verify-module") return VerifyModule(operand[0]);
  if (command == "verify-install")
    return VerifyInstallation(args.Option("--dir"));
  return VerifyServer(operand[0]);
}

int Main(int argc, char** argv) {
  // Options before the command: --help and --version answer at once,
  // whatever follows; --system is kept for the command.
  Arguments args;
  int first = 1;
  for (; first < argc && argv[first][0] == '-'; ++first) {
    const std::string option = argv[first];
    if (option == "-h" || option == "--help") return PrintInformation(false);
    if (option == "--version") return PrintInformation(true);
    if (option != "--system") {
      std::fprintf(stderr,
                   "tessmar-sign: unknown option '%s' (see tessmar-sign "
                   "--help)\n",
                   option.c_str());
      return kExitError;
    }
    args.system = true;
  }
  if (first == argc) {
    PrintUsage(stderr);
    return kExitError;
  }
  const std::string command = argv[first];
  if (command == "help") return PrintInformation(false);
  const CommandSpec* syntax = nullptr;
  for (const CommandSpec& candidate : Commands()) {
    if (command == candidate.name) syntax = &candidate;
  }
  if (syntax == nullptr) {
    std::fprintf(
        stderr,
        "tessmar-sign: unknown command '%s' (see tessmar-sign --help)\n",
        command.c_str());
    return kExitError;
  }
  std::string error;
  if (!ParseArguments(*syntax, argc, argv, first + 1, &args, &error)) {
    std::fprintf(stderr, "tessmar-sign: %s: %s (see tessmar-sign --help)\n",
                 syntax->name, error.c_str());
    return kExitError;
  }
  if (args.help) return PrintInformation(false);
  // The library looks in HOME's configuration directory before the system
  // one and reads no other variable, so without HOME it sees the system
  // installation alone, which is what the commands then sign or check.
  if (args.system && unsetenv("HOME") != 0) {
    std::fprintf(stderr, "tessmar-sign: unsetenv: %s\n", std::strerror(errno));
    return kExitError;
  }

  Outcome outcome = Run(command, args);
  // A result that could not be printed (a full disk behind a redirection)
  // must not pass for success.
  if (std::fflush(stdout) != 0 && outcome.status == kExitOk) {
    outcome = Failure(std::string("standard output: ") + std::strerror(errno));
  }
  if (outcome.status != kExitOk) {
    std::fprintf(stderr, "tessmar-sign: %s\n", outcome.reason.c_str());
  }
  return outcome.status;
}

}  // namespace
}  // namespace tessmar::sign

int main(int argc, char** argv) { return tessmar::sign::Main(argc, argv); }
