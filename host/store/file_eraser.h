// Erases the files of a store folder, whatever happens in between.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/store/store_files.h"
#include "runtime/machine/machine.h"

namespace morvik::host {

struct FileEraserParts {
  StorePlace place;
  /// Opens the store at that place.
  std::function<std::unique_ptr<runtime::MachineStore>()> open_store;
  /// Removes what is outside of the folder. May be empty.
  std::function<void()> remove_more = {};
};

/// A file next to the store marks the erasure. While it says "begun", the store is whole and has the latest wish; once
/// it says "decided", it contains the wish itself, and the store is never opened again. The wish is written to a new
/// store before the file is removed, so one of the two always has it.
class FileEraser final : public runtime::MachineEraser {
 public:
  explicit FileEraser(FileEraserParts parts);

  std::optional<kit::Error> resume() override;
  bool isDue() const override;
  std::optional<kit::Error> begin(runtime::KeptWish wish) override;
  std::optional<kit::Error> finish(runtime::KeptWish wish) override;

  /// The names among `names` that belong to the kit and are to be removed. The lock, which has no content, stays, and
  /// so does the file of the wish.
  static std::vector<std::string> namesOfTheKit(const StorePlace& place, const std::vector<std::string>& names);
  static std::string markerPath(const StorePlace& place) { return place.path() + ".erasing"; }

 private:
  struct Marker {
    bool is_decided = false;
    runtime::KeptWish wish;
  };

  StoreOutcome write(const Marker& marker);
  Marker read();
  std::optional<runtime::KeptWish> storedWish();
  StoreOutcome removeFiles();
  StoreOutcome keep(runtime::KeptWish wish);
  std::optional<kit::Error> finishLocked(runtime::KeptWish wish, StoreLock& lock);
  kit::Error error(const StoreProblem& problem) const;

  const FileEraserParts parts_;
  StoreFiles& files_;
  const std::string marker_path_;
};

}  // namespace morvik::host
