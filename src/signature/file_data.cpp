// Whole-file reads and writes of byte strings.
#include <cstdint>
#include <cstdio>
#include <string>

#include "tessmar/signature.h"

std::string ReadFileData(std::string path) {
  std::string data;
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return data;
  // The size is taken as a signed 32-bit value; files of 2 GiB and more are
  // outside what this reader supports and come back empty.
  if (std::fseek(file, 0, SEEK_END) == 0) {
    const long end = std::ftell(file);
    if (end > 0 && end <= INT32_MAX && std::fseek(file, 0, SEEK_SET) == 0) {
      std::string buffer(static_cast<std::size_t>(end), '\0');
      if (std::fread(&buffer[0], 1, buffer.size(), file) == buffer.size()) {
        data.swap(buffer);
      }
    }
  }
  std::fclose(file);
  return data;
}

bool WriteFileData(std::string path, std::string data) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  const bool written =
      std::fwrite(data.data(), 1, data.size(), file) == data.size();
  // A failed flush on close means the bytes did not all reach the file.
  const bool closed = std::fclose(file) == 0;
  return written && closed;
}
