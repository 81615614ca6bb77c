// The file next to the store that keeps the wish to be forgotten.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "host/store/store_files.h"
#include "runtime/machine/machine.h"

namespace morvik::host {

/// Reads in a row before the file counts as unreadable at present.
inline constexpr int kWishReadAttempts = 3;

class WishFile final : public runtime::MachineWishFile {
 public:
  /// Next to the store at that place.
  explicit WishFile(const StorePlace& place);

  std::string path() const override { return path_; }
  Reading read() override;
  void goOnFrom(const Reading& reading) override { sequence_ = reading.sequence; }
  Turn takeTurn(std::chrono::milliseconds longest) override;
  std::optional<kit::Error> write(bool is_forgotten, Word word, const Turn& turn) override;
  bool isThere() const override;
  std::optional<kit::Error> sync() override;
  std::optional<kit::Error> prepare(bool is_forgotten) override;
  std::optional<kit::Error> adopt() override;
  void discard() override { static_cast<void>(files_.remove(new_path_)); }

  static std::string pathFor(const StorePlace& place) { return place.path() + ".wish"; }
  /// The name under which the file is created. An existing one was left by a process that died meanwhile.
  static std::string newPathFor(const StorePlace& place) { return pathFor(place) + ".new"; }

 private:
  bool mayBeGoneOnWith(uint64_t steps) const;

  StoreFiles& files_;
  const std::string folder_;
  const std::string path_;
  const std::string new_path_;
  uint64_t sequence_ = 0;  ///< of the valid sector; 0: there is no whole file to continue
  std::atomic<bool> is_name_synced_{false};
};

}  // namespace morvik::host
