#include "apps/service/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

std::string errorText() {
  return std::system_category().message(errno);
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (descriptor_ >= 0)
      ::close(descriptor_);
  }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

bool writeWhole(int descriptor, const std::string& content) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t written = ::write(descriptor, content.data() + done, content.size() - done);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return false;
    done += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

std::string readSmallFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    throw SetupError("cannot open " + path + ": " + errorText());
  std::string content(kMaxInputFileBytes + 1, '\0');
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (file.bad())
    throw SetupError("cannot read " + path + ": " + errorText());
  if (!file.eof()) {
    throw SetupError(path + " is larger than " + std::to_string(kMaxInputFileBytes) + " bytes; is it the right file?");
  }
  content.resize(static_cast<std::size_t>(file.gcount()));
  return content;
}

void replaceFile(const std::string& path, const std::string& content, mode_t mode) {
  const std::string draft = path + ".new." + std::to_string(::getpid());
  {
    // O_EXCL: never writes through a file or link that somebody else put there.
    const FileDescriptor file(::open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (file.get() < 0)
      throw SetupError("cannot write " + draft + ": " + errorText());
    if (!writeWhole(file.get(), content)) {
      const std::string reason = errorText();
      ::unlink(draft.c_str());
      throw SetupError("cannot write " + draft + ": " + reason);
    }
  }
  if (::rename(draft.c_str(), path.c_str()) != 0) {
    const std::string reason = errorText();
    ::unlink(draft.c_str());
    throw SetupError("cannot write " + path + ": " + reason);
  }
}

void makeFolder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error)
    throw SetupError("cannot make the folder " + path + ": " + error.message());
}

void makePrivateFolder(const std::string& path) {
  std::filesystem::path folder(path);
  if (!folder.has_filename())
    folder = folder.parent_path();  // of a name that ends with a slash
  if (folder.has_parent_path())
    makeFolder(folder.parent_path());
  if (::mkdir(folder.c_str(), kPrivateFolderMode) != 0)
    makeFolder(path);  // it is there, or cannot be
}

}  // namespace morvik_service
