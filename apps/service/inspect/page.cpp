#include "apps/service/inspect/page.h"

#include <algorithm>
#include <array>
#include <string>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::string_view kFolder = "/page/";
// Everything comes from this service, nothing is inserted as markup, and no other page may frame it.
constexpr const char* kContentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'";

struct Type {
  std::string_view ending;
  const char* name;
};

constexpr std::array<Type, 4> kTypes = {{{".html", "text/html; charset=utf-8"},
                                         {".css", "text/css; charset=utf-8"},
                                         {".js", "text/javascript; charset=utf-8"},
                                         {".svg", "image/svg+xml; charset=utf-8"}}};

const char* typeOf(std::string_view name) {
  const auto type = std::find_if(kTypes.begin(), kTypes.end(), [&](const Type& each) {
    return name.size() > each.ending.size() && name.substr(name.size() - each.ending.size()) == each.ending;
  });
  return type == kTypes.end() ? "application/octet-stream" : type->name;
}

}  // namespace

bool isPage(const HttpRequest& request) {
  return request.path == "/" || request.path.rfind(kFolder, 0) == 0;
}

HttpReply page(const HttpRequest& request) {
  if (request.method != "GET")
    throw Refusal(405, "this method is not known here", "the method", "use GET");
  const std::string name = request.path == "/" ? "index.html" : request.path.substr(kFolder.size());
  const auto files = pageFiles();
  const auto file = std::find_if(files.begin(), files.end(), [&](const PageFile& each) { return each.name == name; });
  if (file == files.end())
    throw Refusal(404, "there is nothing at this path", "the path", "the page is at /");
  HttpReply reply;
  reply.body = file->content;
  reply.content_type = typeOf(name);
  reply.headers = {{"Content-Security-Policy", kContentPolicy}};
  return reply;
}

}  // namespace morvik_service
