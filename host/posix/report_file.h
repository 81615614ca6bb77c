// The shelf of crash reports: a file next to the store.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "kit/crash.h"
#include "kit/json_codec.h"
#include "kit/log.h"

namespace morvik::host {

/// A file of this size takes no further report: a thousand large ones.
inline constexpr size_t kMaxReportFileBytes = size_t{16} << 20;

/// The file's path, next to the store in that folder, and the path it gets when something in it cannot be read.
std::string reportFilePath(const std::string& store_folder);
std::string unreadableReportFilePath(const std::string& store_folder);

/// One report per line, as JSON. append() opens the file, writes the line with one write, and closes it: a dying thread
/// holds nothing.
class ReportFile final : public kit::ReportShelf {
 public:
  /// `folder` is the store's. `json` and `log` outlive the shelf; the first report creates the file.
  ReportFile(const std::string& folder, const kit::JsonCodec& json, kit::LogSink& log);

  std::optional<kit::Error> append(const kit::Value& report) override;
  kit::Array reports() override;
  void clear() override;

  const std::string& path() const { return path_; }
  /// Where a file with unreadable content goes; it replaces an earlier one.
  const std::string& unreadablePath() const { return unreadable_path_; }

 private:
  void tell(const std::string& what, const std::string& advice) const;

  const std::string path_;
  const std::string unreadable_path_;
  const kit::JsonCodec& json_;
  kit::LogSink& log_;
  /// What the latest reports() found in the file; decides what clear() does with it.
  enum class Found { kReports, kSomeUnreadable, kNothingReadable };
  Found found_ = Found::kReports;
};

}  // namespace morvik::host
