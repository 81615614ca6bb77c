// Erasing the files of a store folder, whatever comes in between.
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
  /// Removes what does not lie in the folder. May be empty.
  std::function<void()> remove_more = {};
};

/// A file beside the store says that all is to go. As long as it says "begun" the store is whole, and knows the latest
/// wish; once it says "decided" it holds the wish itself, and the store is never opened again. The wish goes into a
/// fresh store before the file goes, so it is always in one of the two.
class FileEraser final : public runtime::MachineEraser {
 public:
  explicit FileEraser(FileEraserParts parts);

  std::optional<kit::Error> resume() override;
  bool isDue() const override;
  std::optional<kit::Error> begin(runtime::KeptWish wish) override;
  std::optional<kit::Error> finish(runtime::KeptWish wish) override;

  /// Names in a store folder that are the kit's and go; the lock's, which holds nothing, stays, and so does the file
  /// that keeps the wish. Of those in `names`.
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
