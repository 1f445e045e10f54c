// SPDX-License-Identifier: Apache-2.0

// Runs a fuzz target over every file of a folder: how the tests replay a corpus, with any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool ReplayFile(const std::filesystem::path& path) {
  std::printf("%s\n", path.filename().c_str());
  std::fflush(stdout);  // the last name is that of the input that ended the process
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
  if (!file.is_open() || file.bad()) {
    std::fprintf(stderr, "%s cannot be read\n", path.c_str());
    return false;
  }
  // A block of exactly this size, so that the address sanitizer sees the first byte read past it.
  const std::vector<uint8_t> bytes(content.begin(), content.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  std::error_code error;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1], error)) {
    files.push_back(entry.path());
  }
  if (files.empty()) {
    std::fprintf(stderr, "%s holds no input: %s\n", argv[1], error.message().c_str());
    return 1;
  }
  std::sort(files.begin(), files.end());
  const bool is_good = std::all_of(files.begin(), files.end(), ReplayFile);
  std::printf("%zu inputs\n", files.size());
  return is_good ? 0 : 1;
}
