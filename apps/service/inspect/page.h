// The page that shows what arrives: its files are inside the program.
#pragma once

#include <span>
#include <string_view>

#include "apps/service/http/http_message.h"

namespace morvik_service {

struct PageFile {
  std::string_view name;  ///< "index.html", ...
  std::string_view content;
};

/// The files of apps/service/page, put into the program when it was built.
std::span<const PageFile> pageFiles();

/// True for "/" and everything below "/page/".
bool isPage(const HttpRequest& request);

/// The file that is asked for; "/" is index.html. Throws Refusal 404 or 405.
HttpReply page(const HttpRequest& request);

}  // namespace morvik_service
