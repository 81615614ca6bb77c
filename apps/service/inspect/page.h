// The page that shows what arrives. Its files are embedded in the program.
#pragma once

#include <span>
#include <string_view>

#include "apps/service/http/http_message.h"

namespace morvik_service {

struct PageFile {
  std::string_view name;  ///< "index.html", ...
  std::string_view content;
};

/// The files of apps/service/page, embedded at build time.
std::span<const PageFile> pageFiles();

/// True for "/" and everything below "/page/".
bool isPage(const HttpRequest& request);

/// The requested file; "/" is index.html. Throws Refusal 404 or 405.
HttpReply page(const HttpRequest& request);

}  // namespace morvik_service
