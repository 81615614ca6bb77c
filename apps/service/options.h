// The options of `morvik-service serve`.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "apps/command_line/command_line.h"
#include "apps/service/store/store.h"

namespace morvik_service {

struct Options {
  std::uint16_t port = 0;
  std::string bind_address = "127.0.0.1";
  bool allow_remote = false;
  std::vector<std::string> inspect_hosts;  ///< names under which other machines may inspect
  std::string certificate_file;
  std::string key_file;
  std::string make_certificates_in;  ///< a folder; the two files above are empty then
  std::string store_folder;
  std::int64_t keep_mib = kDefaultKeepMib;
  std::string keys_file;
  std::string app_key;
  std::string hash_key;
  std::string tracking_key;
  std::string port_file;
  std::string attribution;              ///< JSON, or the name of a file with JSON
  std::string schedule_file;            ///< "" for a small built-in one
  std::string premium_postback = "no";  ///< or "yes"
  std::string log_file;                 ///< "" for standard error
  bool quiet = false;
};

/// Adds the options to `app`. The result is complete once `app` was run; its callback throws UsageError for options
/// that do not fit together.
std::shared_ptr<const Options> describeServeOptions(CLI::App& app);

}  // namespace morvik_service
