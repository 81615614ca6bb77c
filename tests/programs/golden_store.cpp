// Writes the store of a device that died with much to send into a folder, for a test that keeps it for later versions
// to open. golden_store FOLDER
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "proofs/scripts/upgrade_run.h"

namespace {

constexpr int kWrongOption = 2;

bool write(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
  out.close();
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("Usage: golden_store FOLDER\n", stderr);
    return kWrongOption;
  }
  std::error_code ignored;
  std::filesystem::create_directories(argv[1], ignored);
  for (const auto& [name, bytes] : morvik::proofs::storeOfADeviceThatDied()) {
    const std::filesystem::path path = std::filesystem::path(argv[1]) / name;
    if (!write(path, bytes)) {
      std::fprintf(stderr, "golden_store: %s cannot be written; check the folder.\n", path.c_str());
      return 1;
    }
    std::printf("%s: %zu bytes\n", path.c_str(), bytes.size());
  }
  return 0;
}
