// Runs one fuzzer over the files of its corpus, without a fuzzing engine, so that earlier crashes are tried again in
// every test run and with every compiler.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

// The fuzzer's only function; a finding ends the process. Name and signature come from the engine.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const std::filesystem::path& file) {
  // Printed before the run: after a crash the last line shows the input.
  std::cout << file.string() << std::endl;
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !std::filesystem::is_directory(argv[1])) {
    std::cerr << "Usage: replay_NAME FOLDER, where FOLDER holds the inputs to run.\n";
    return 2;
  }
  const auto files = filesIn(argv[1]);
  for (const auto& file : files) {
    replay(file);
  }
  if (files.empty()) {
    std::cerr << argv[1] << " holds no input, so nothing was tried.\n";
    return 1;
  }
  return 0;
}
