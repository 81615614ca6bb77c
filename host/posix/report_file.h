// The shelf of crash reports: a file beside the store.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "kit/crash.h"
#include "kit/json_codec.h"
#include "kit/log.h"

namespace morvik::host {

/// A file that holds so much takes no further report: a thousand large ones.
inline constexpr size_t kMaxReportFileBytes = size_t{16} << 20;

/// Where the file lies beside the store in that folder, and where it goes when something in it cannot be read.
std::string reportFilePath(const std::string& store_folder);
std::string unreadableReportFilePath(const std::string& store_folder);

/// One report a line, as JSON. append() opens the file, writes the line with one write, and closes it: there is nothing
/// that a dying thread could hold.
class ReportFile final : public kit::ReportShelf {
 public:
  /// `folder` is the store's. `json` and `log` outlive the shelf; a file is made by the first report.
  ReportFile(const std::string& folder, const kit::JsonCodec& json, kit::LogSink& log);

  std::optional<kit::Error> append(const kit::Value& report) override;
  kit::Array reports() override;
  void clear() override;

  const std::string& path() const { return path_; }
  /// Where a file goes that holds something unreadable; an earlier one of that name gives way.
  const std::string& unreadablePath() const { return unreadable_path_; }

 private:
  void tell(const std::string& what, const std::string& mend) const;

  const std::string path_;
  const std::string unreadable_path_;
  const kit::JsonCodec& json_;
  kit::LogSink& log_;
  /// What the latest reports() made of the file, and what clear() therefore does with it.
  enum class Found { kReports, kSomeUnreadable, kNothingReadable };
  Found found_ = Found::kReports;
};

}  // namespace morvik::host
