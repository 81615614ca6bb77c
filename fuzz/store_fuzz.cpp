// Any bytes as the store's file: the first byte says whether they are the whole file, or changes to a good one. The
// store must open anyway, and keep what is written then.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "fuzz/checks.h"
#include "host/store/sqlite_store.h"
#include "kit/value.h"

namespace {

using morvik::fuzz::require;
using morvik::host::SqliteStore;
using morvik::kit::Value;
using morvik::runtime::StoreOpening;

class NoLog final : public morvik::kit::LogSink {
 public:
  void line(std::string_view) override {}
  bool tryLine(std::string_view) override { return true; }
};

/// One for the process, emptied for each input; in memory if the system offers that.
class Folder {
 public:
  Folder() {
    const std::filesystem::path memory = "/dev/shm";
    const auto base = std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
    std::string pattern = (base / "morvik-store-fuzz-XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "no folder can be made");
    path_ = pattern;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }

  void empty() const {
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      std::filesystem::remove(entry.path());
  }
  std::string path() const { return path_.string(); }
  std::filesystem::path file() const { return path_ / morvik::host::StorePlace{}.name; }

 private:
  std::filesystem::path path_;
};

NoLog no_log;

void fill(SqliteStore& store) {
  morvik::kit::MutableArray list;
  for (int i = 0; i < 40; ++i)
    list.append(morvik::kit::Dictionary{{"activityName", "event " + std::to_string(i)}, {"number", i}});
  store.set("fendoActivityInfos", Value(std::move(list)));
  store.set("fendoUserInfo_fendoUserNo", 1001);
  store.synchronize();
}

std::string goodFile(const Folder& folder) {
  folder.empty();
  {
    SqliteStore store({.place = {.folder = folder.path()}}, no_log);
    fill(store);
  }
  std::ifstream stream(folder.file(), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// Three bytes per change: where, and which bits are flipped.
std::string changed(std::string file, std::string_view changes) {
  for (; changes.size() >= 3; changes.remove_prefix(3)) {
    const size_t place = static_cast<size_t>(static_cast<uint8_t>(changes[0])) << 8U | static_cast<uint8_t>(changes[1]);
    char& byte = file[place % file.size()];
    byte = static_cast<char>(byte ^ changes[2]);
  }
  return file;
}

void openAndWrite(const Folder& folder) {
  bool keeps = false;
  {
    SqliteStore store({.place = {.folder = folder.path()}}, no_log);
    keeps = store.opening() != StoreOpening::kNewerVersion && store.opening() != StoreOpening::kUnavailable;
    fill(store);
    require(store.get("fendoUserInfo_fendoUserNo") == Value(1001), "a store that forgets while it is open");
  }
  SqliteStore store({.place = {.folder = folder.path()}}, no_log);
  if (!keeps || store.opening() == StoreOpening::kSetAside)
    return;  // only a second look may find what was changed
  require(store.get("fendoUserInfo_fendoUserNo") == Value(1001), "a number that was kept and is not there");
  require(store.get("fendoActivityInfos").size() == 40, "a list that was kept and is not there");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Folder folder;
  static const std::string good = goodFile(folder);
  if (size == 0)
    return 0;
  const std::string rest(data + 1, data + size);
  folder.empty();
  std::ofstream(folder.file(), std::ios::binary) << (data[0] % 2 == 0 ? rest : changed(good, rest));
  openAndWrite(folder);
  return 0;
}
