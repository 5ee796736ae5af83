// Small helpers shared by the fuzz targets: reading typed values off the
// front of the input, and splitting it.
#ifndef TESSMAR_FUZZ_FUZZ_INPUT_H
#define TESSMAR_FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace tessmar::fuzz {

// Consumes the input from the front; reads past the end give zeros.
class Input {
 public:
  Input(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  uint8_t Byte() { return size_ > 0 ? (--size_, *data_++) : 0; }
  // Up to `count` bytes (fewer at the end of the input).
  std::string Bytes(std::size_t count) {
    if (count > size_) count = size_;
    std::string bytes(reinterpret_cast<const char*>(data_), count);
    data_ += count;
    size_ -= count;
    return bytes;
  }
  std::string Rest() { return Bytes(size_); }

 private:
  const uint8_t* data_;
  std::size_t size_;
};

// Splits `text` at the first `separator`: before, after ("" when absent).
inline std::pair<std::string, std::string> SplitAt(const std::string& text,
                                                   char separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string::npos) return {text, std::string()};
  return {text.substr(0, at), text.substr(at + 1)};
}

}  // namespace tessmar::fuzz

#endif  // TESSMAR_FUZZ_FUZZ_INPUT_H
