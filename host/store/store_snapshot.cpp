#include "host/store/store_snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "host/posix/open_file.h"
#include "host/posix/system_message.h"

namespace morvik::host {
namespace {

constexpr size_t kLogHeaderBytes = 32;
constexpr size_t kFrameHeaderBytes = 24;
constexpr uint32_t kLogMagic = 0x377f0682;  // the lowest bit is the byte order of the check sums
constexpr uint32_t kLogVersion = 3007000;
constexpr uint32_t kLeastPageBytes = 512;
constexpr uint32_t kMostPageBytes = 65536;
// Offsets in the file's header that say whether the file has a log.
constexpr size_t kWriteVersion = 18;
constexpr size_t kReadVersion = 19;
constexpr char kWithoutLog = 1;
constexpr size_t kFileHeaderBytes = 100;

uint32_t bigEndian(std::string_view bytes, size_t place) {
  uint32_t number = 0;
  for (const char byte : bytes.substr(place, 4))
    number = number << 8U | static_cast<unsigned char>(byte);
  return number;
}

uint32_t littleEndian(std::string_view bytes, size_t place) {
  const uint32_t number = bigEndian(bytes, place);
  return number >> 24U | (number >> 8U & 0xFF00U) | (number << 8U & 0xFF0000U) | number << 24U;
}

/// The running check sum of a log.
struct CheckSum {
  uint32_t (*read)(std::string_view bytes, size_t place);
  uint32_t first = 0;
  uint32_t second = 0;

  void add(std::string_view bytes) {
    for (size_t place = 0; place + 8 <= bytes.size(); place += 8) {
      first += read(bytes, place) + second;
      second += read(bytes, place + 4) + first;
    }
  }
  bool isAt(std::string_view bytes, size_t place) const {
    return bigEndian(bytes, place) == first && bigEndian(bytes, place + 4) == second;
  }
};

struct Frame {
  uint32_t page = 0;
  uint32_t pages_after_commit = 0;  ///< 0: the commit continues
  std::string_view content;
};

class LogReader {
 public:
  /// Nothing if `log` does not begin like a log.
  static std::optional<LogReader> open(std::string_view log) {
    if (log.size() < kLogHeaderBytes)
      return std::nullopt;
    const uint32_t magic = bigEndian(log, 0);
    const uint32_t page_bytes = bigEndian(log, 8);
    const bool is_power_of_two = (page_bytes & (page_bytes - 1)) == 0;
    if ((magic & ~1U) != kLogMagic || bigEndian(log, 4) != kLogVersion || page_bytes < kLeastPageBytes ||
        page_bytes > kMostPageBytes || !is_power_of_two)
      return std::nullopt;
    CheckSum sum{(magic & 1U) != 0 ? bigEndian : littleEndian};
    sum.add(log.substr(0, 24));
    if (!sum.isAt(log, 24))
      return std::nullopt;
    return LogReader(log, page_bytes, sum);
  }

  /// The next frame; nothing at the end of this log's frames.
  std::optional<Frame> next() {
    const std::string_view frame = rest_.substr(0, kFrameHeaderBytes + page_bytes_);
    if (frame.size() < kFrameHeaderBytes + page_bytes_ || frame.substr(8, 8) != salts_)
      return std::nullopt;
    sum_.add(frame.substr(0, 8));
    sum_.add(frame.substr(kFrameHeaderBytes));
    if (!sum_.isAt(frame, 16))
      return std::nullopt;
    rest_.remove_prefix(frame.size());
    return Frame{bigEndian(frame, 0), bigEndian(frame, 4), frame.substr(kFrameHeaderBytes)};
  }

  size_t pageBytes() const { return page_bytes_; }

 private:
  LogReader(std::string_view log, size_t page_bytes, CheckSum sum)
      : rest_(log.substr(kLogHeaderBytes)), salts_(log.substr(16, 8)), page_bytes_(page_bytes), sum_(sum) {}

  std::string_view rest_;
  std::string_view salts_;
  size_t page_bytes_;
  CheckSum sum_;
};

void putPages(const std::vector<Frame>& frames, size_t page_bytes, std::string& image) {
  for (const Frame& frame : frames) {
    const size_t place = (frame.page - size_t{1}) * page_bytes;
    if (frame.page != 0 && place < image.size())
      image.replace(place, page_bytes, frame.content);
  }
}

/// One of the store's files, open for reading.
class StoreFile {
 public:
  // A pipe of that name must not make us wait for its writer.
  explicit StoreFile(std::string path)
      : path_(std::move(path)), descriptor_(openFile(path_.c_str(), O_RDONLY | O_NONBLOCK)) {
    if (descriptor_ < 0)
      error_ = errno;
  }
  StoreFile(const StoreFile&) = delete;
  StoreFile& operator=(const StoreFile&) = delete;
  ~StoreFile() {
    if (descriptor_ >= 0)
      ::close(descriptor_);
  }

  bool isMissing() const { return error_ == ENOENT; }

  StoreOutcome readAll(std::string& out) const {
    if (StoreOutcome failed = opened())
      return failed;
    struct stat facts {};
    if (::fstat(descriptor_, &facts) != 0)
      return StoreProblem::unavailable(systemMessage());
    if (!S_ISREG(facts.st_mode))
      return StoreProblem::unavailable("it is not a file");
    if (static_cast<uint64_t>(facts.st_size) > kMaxSnapshotBytes)
      return StoreProblem::unavailable("it has " + std::to_string(facts.st_size) + " bytes, more than " +
                                       std::to_string(kMaxSnapshotBytes) + " are not read");
    out.resize(static_cast<size_t>(facts.st_size));
    return readUpTo(out);
  }
  /// The log's header; shorter, or empty, if there is less.
  StoreOutcome readLogHeader(std::string& out) const {
    out.clear();
    if (isMissing())
      return std::nullopt;
    if (StoreOutcome failed = opened())
      return failed;
    out.resize(kLogHeaderBytes);
    return readUpTo(out);
  }
  /// Whether the path still leads to the opened file, or still to none.
  bool isStillThere() const {
    struct stat opened {};
    struct stat named {};
    const bool is_named = ::stat(path_.c_str(), &named) == 0;
    if (isMissing() || !is_named)
      return isMissing() && !is_named;
    return ::fstat(descriptor_, &opened) == 0 && opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
  }

 private:
  StoreOutcome opened() const {
    if (descriptor_ >= 0)
      return std::nullopt;
    return StoreProblem::unavailable(std::system_category().message(error_));
  }
  /// Shortens `out` if the file ends.
  StoreOutcome readUpTo(std::string& out) const {
    size_t place = 0;
    while (place < out.size()) {
      const ssize_t count = ::pread(descriptor_, out.data() + place, out.size() - place, static_cast<off_t>(place));
      if (count < 0 && errno == EINTR)
        continue;
      if (count < 0)
        return StoreProblem::unavailable(systemMessage());
      if (count == 0)
        break;
      place += static_cast<size_t>(count);
    }
    out.resize(place);
    return std::nullopt;
  }

  const std::string path_;
  const int descriptor_;
  int error_ = 0;
};

// What the owner writes back into the file while it is being read was in its log before, and stays there until the log
// is restarted with a new header. So if the header is the same before reading the file and after reading the log, that
// log repairs all of the file's pages, even half-written ones.
StoreOutcome readOnce(const StorePlace& place, std::string& out, bool& is_whole) {
  const StoreFile file(place.path());
  const StoreFile log(place.path() + "-wal");
  std::string header_before;
  std::string header_after;
  std::string log_bytes;
  if (StoreOutcome failed = log.readLogHeader(header_before))
    return failed;
  if (StoreOutcome failed = file.readAll(out))
    return failed;
  if (!log.isMissing()) {
    if (StoreOutcome failed = log.readAll(log_bytes))
      return failed;
  }
  if (StoreOutcome failed = log.readLogHeader(header_after))
    return failed;
  is_whole = header_before == header_after && file.isStillThere() && log.isStillThere();
  if (is_whole && !playLog(log_bytes, out))
    return StoreProblem::unavailable("its log names more pages than are read");
  return std::nullopt;
}

}  // namespace

bool playLog(std::string_view log, std::string& image) {
  auto reader = LogReader::open(log);
  if (!reader)
    return true;
  std::vector<Frame> frames;
  while (const auto frame = reader->next()) {
    frames.push_back(*frame);
    if (frame->pages_after_commit == 0)
      continue;
    const uint64_t bytes = uint64_t{frame->pages_after_commit} * reader->pageBytes();
    if (bytes > kMaxSnapshotBytes)
      return false;
    image.resize(static_cast<size_t>(bytes));
    putPages(frames, reader->pageBytes(), image);
    frames.clear();
  }
  return true;
}

StoreOutcome readStoreSnapshot(const StorePlace& place, std::string& out) {
  bool is_whole = false;
  for (int attempt = 0; attempt < kSnapshotAttempts && !is_whole; ++attempt) {
    if (StoreOutcome failed = readOnce(place, out, is_whole))
      return failed;
  }
  if (!is_whole)
    return StoreProblem::unavailable("its owner changes it faster than it can be read; try again");
  if (out.size() >= kFileHeaderBytes)
    out[kWriteVersion] = out[kReadVersion] = kWithoutLog;
  return std::nullopt;
}

}  // namespace morvik::host
