// Test support: a private temporary HOME for one test, with helpers to lay
// out configuration files in it; the real HOME is never touched.
#ifndef TESSMAR_TESTS_SUPPORT_TEMP_HOME_H
#define TESSMAR_TESTS_SUPPORT_TEMP_HOME_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>

namespace tessmar::testing {

inline void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void MakeDirectories(const std::string& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path, ignored);
}

// Points HOME at a fresh directory under TMPDIR; restores HOME and removes
// the tree on destruction.
class TempHome {
 public:
  TempHome() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp ? tmp : "/tmp") + "/tessmar-test-XXXXXX";
    root_ = mkdtemp(&pattern[0]) != nullptr ? pattern : std::string();
    if (const char* old = std::getenv("HOME")) old_home_ = old;
    setenv("HOME", root_.c_str(), 1);
  }
  ~TempHome() {
    old_home_ ? setenv("HOME", old_home_->c_str(), 1) : unsetenv("HOME");
    std::error_code ignored;
    if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& path() const { return root_; }

  // $HOME/.config/Pelmora/Tessmar/morrowhost, created on first use.
  std::string ConfigDir() const {
    std::string dir = root_ + "/.config/Pelmora/Tessmar/morrowhost";
    MakeDirectories(dir);
    return dir;
  }

  // Writes a file into the user configuration directory; returns its path.
  std::string WriteConfig(const std::string& name, const std::string& text) const {
    return WriteHomeFile(".config/Pelmora/Tessmar/morrowhost/" + name, text);
  }

  // Writes a file anywhere below HOME (directories created); returns its path.
  std::string WriteHomeFile(const std::string& relative, const std::string& data) const {
    std::string path = root_ + "/" + relative;
    MakeDirectories(path.substr(0, path.rfind('/')));
    WriteFile(path, data);
    return path;
  }

 private:
  std::string root_;
  std::optional<std::string> old_home_;
};

// Bytes 0..255 repeated (times 7): NULs, high bytes, and more than one block.
inline std::string BinaryData(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7);
  return data;
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_TEMP_HOME_H
