#include "host/posix/report_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

#include "host/posix/open_file.h"
#include "host/posix/system_message.h"
#include "host/posix/write_all.h"

namespace morvik::host {
namespace {

constexpr mode_t kOwnerOnly = 0600;

/// An open file; closed with the object.
class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : descriptor_(openFile(path.c_str(), flags, kOwnerOnly)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (isOpen())
      close(descriptor_);
  }
  bool isOpen() const { return descriptor_ >= 0; }
  /// -1 if unknown.
  off_t size() const {
    struct stat facts {};
    return fstat(descriptor_, &facts) == 0 ? facts.st_size : -1;
  }
  bool write(std::string_view bytes) const { return writeAll(descriptor_, bytes); }
  /// Reads all of it; false after an error.
  bool readAll(std::string& text) const {
    char block[65536];
    for (;;) {
      const ssize_t count = read(descriptor_, block, sizeof block);
      if (count < 0 && errno == EINTR)
        continue;
      if (count <= 0)
        return count == 0;
      text.append(block, static_cast<size_t>(count));
    }
  }

 private:
  const int descriptor_;
};

}  // namespace

std::string reportFilePath(const std::string& store_folder) {
  return store_folder + "/crash-reports";
}

std::string unreadableReportFilePath(const std::string& store_folder) {
  return reportFilePath(store_folder) + ".unreadable";
}

ReportFile::ReportFile(const std::string& folder, const kit::JsonCodec& json, kit::LogSink& log)
    : path_(reportFilePath(folder)), unreadable_path_(unreadableReportFilePath(folder)), json_(json), log_(log) {}

std::optional<kit::Error> ReportFile::append(const kit::Value& report) {
  const auto text = json_.write(report);
  if (const auto* error = std::get_if<kit::Error>(&text))
    return *error;
  const Descriptor file(path_, O_WRONLY | O_APPEND | O_CREAT);
  if (!file.isOpen())
    return kit::Error{"The file of crash reports \"" + path_ + "\" cannot be opened (" + systemMessage() + ")."};
  // An unfinished line of an earlier write must not swallow this one.
  const std::string line = '\n' + std::get<std::string>(text) + '\n';
  const off_t size = file.size();
  if (size < 0 || static_cast<size_t>(size) + line.size() > kMaxReportFileBytes)
    return kit::Error{"The file of crash reports \"" + path_ + "\" is full (" + std::to_string(size) + " bytes)."};
  if (!file.write(line))
    return kit::Error{"The file of crash reports \"" + path_ + "\" cannot be written (" + systemMessage() + ")."};
  return std::nullopt;
}

kit::Array ReportFile::reports() {
  found_ = Found::kNothingReadable;
  const Descriptor file(path_, O_RDONLY);
  if (!file.isOpen()) {
    if (errno != ENOENT)
      tell("cannot be opened (" + systemMessage() + ") and stays where it is", "make it readable for the app");
    return {};
  }
  std::string text;
  if (!file.readAll(text)) {
    tell("cannot be read (" + systemMessage() + ") and stays where it is", "check the disk");
    return {};
  }
  kit::MutableArray reports;
  size_t unreadable = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    if (line.empty())
      continue;
    const auto read = json_.read(line);
    const auto* report = std::get_if<kit::Value>(&read);
    if (report != nullptr && report->isDictionary())
      reports.append(*report);
    else
      ++unreadable;
  }
  found_ = unreadable > 0 ? Found::kSomeUnreadable : Found::kReports;
  if (unreadable > 0) {
    tell("holds " + std::to_string(unreadable) + " reports that cannot be read",
         "the file is kept as \"" + unreadable_path_ + "\", delete it if it does not matter");
  }
  return kit::Value(std::move(reports)).array();
}

void ReportFile::clear() {
  const Found found = std::exchange(found_, Found::kReports);
  // It may contain reports that nobody has seen.
  if (found == Found::kNothingReadable)
    return;
  const int failed =
      found == Found::kSomeUnreadable ? std::rename(path_.c_str(), unreadable_path_.c_str()) : unlink(path_.c_str());
  if (failed != 0 && errno != ENOENT)
    tell("cannot be removed (" + systemMessage() + "), and its reports are sent again", "delete it");
}

void ReportFile::tell(const std::string& what, const std::string& advice) const {
  log_.line("Morvik host: the file of crash reports \"" + path_ + "\" " + what + ": " + advice + ".");
}

}  // namespace morvik::host
