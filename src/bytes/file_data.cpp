// Whole-file reads and writes of byte strings.
#include <cstdint>
#include <cstdio>
#include <string>

#include "bytes/regular_file.h"
#include "tessmar/signature.h"

std::string ReadFileData(std::string path) {
  // Files of 2 GiB and more are outside what this reader supports and come
  // back empty, as do files that are not regular files.
  std::string data;
  if (!tessmar::ReadRegularFile(path, INT32_MAX, &data)) data.clear();
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
