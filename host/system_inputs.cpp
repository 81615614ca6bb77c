#include "host/system_inputs.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "host/net/request_target.h"
#include "host/posix/system_message.h"
#include "host/store/store_files.h"

namespace morvik::host {
namespace {

/// What exists but is no folder: the folder itself, or one of its parents.
std::optional<std::filesystem::path> fileOnTheWayTo(const std::filesystem::path& folder) {
  std::filesystem::path way;
  std::error_code ignored;
  for (const std::filesystem::path& part : folder) {
    way /= part;
    if (std::filesystem::exists(way, ignored) && !std::filesystem::is_directory(way, ignored))
      return way;
  }
  return std::nullopt;
}

/// Too long for the system, or for the store's own file system, which takes less.
bool isTooLong(const std::filesystem::path& folder) {
  std::error_code unknown;
  if (std::filesystem::absolute(folder, unknown).lexically_normal().native().size() > maxFolderBytes({}))
    return true;
  return std::any_of(folder.begin(), folder.end(), [](const auto& part) { return part.native().size() > NAME_MAX; });
}

std::optional<kit::Error> checkStoreFolder(const std::string& store_folder) {
  const std::string option = "StartOptions::store_folder: ";
  const std::filesystem::path folder(store_folder);
  if (isTooLong(folder)) {
    return kit::Error{option + "its path is too long, with " + std::to_string(store_folder.size()) +
                      " bytes; name a folder whose absolute path has at most " + std::to_string(maxFolderBytes({})) +
                      ", and " + std::to_string(NAME_MAX) + " in each of its parts."};
  }
  const auto file = fileOnTheWayTo(folder);
  if (!file)
    return std::nullopt;
  if (*file == folder)
    return kit::Error{option + store_folder + " is a file; name a folder, it is made when missing."};
  return kit::Error{option + store_folder + " lies below " + file->native() +
                    ", which is a file; name a folder, it is made when missing."};
}

}  // namespace

std::optional<std::string> SystemInputs::readFile(const std::string& path, size_t max_bytes) const {
  std::ifstream file(path, std::ios::binary);
  std::string text(max_bytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file.eof() || file.gcount() < 0)
    return std::nullopt;
  text.resize(static_cast<size_t>(file.gcount()));
  return text;
}

std::optional<std::string> SystemInputs::variable(const std::string& name) const {
  const char* value = std::getenv(name.c_str());
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::variant<runtime::UrlFacts, kit::Error> SystemInputs::checkUrl(const std::string& url) const {
  const auto target = RequestTarget::parse(url);
  if (const auto* error = std::get_if<kit::Error>(&target))
    return *error;
  return runtime::UrlFacts{.is_loopback = std::get<RequestTarget>(target).isLoopback()};
}

std::optional<kit::Error> SystemInputs::checkPlaces(const StartOptions& options) const {
  if (auto failure = checkStoreFolder(options.store_folder))
    return failure;
  if (options.ca_file.empty())
    return std::nullopt;
  const std::string what = "StartOptions::ca_file: the file " + options.ca_file;
  // Not opened: a pipe would be consumed before the first upload reads it.
  if (access(options.ca_file.c_str(), R_OK) != 0) {
    return kit::Error{what + " cannot be read (" + systemMessage() + "); fix its path or its permissions."};
  }
  std::error_code ignored;
  if (std::filesystem::is_directory(options.ca_file, ignored))
    return kit::Error{what + " is a folder; name the file of certificates (PEM) in it."};
  return std::nullopt;
}

std::string SystemInputs::absolutePath(const std::string& path) const {
  std::error_code unknown;
  const std::filesystem::path absolute = std::filesystem::absolute(path, unknown);
  return unknown ? path : absolute.native();
}

}  // namespace morvik::host
