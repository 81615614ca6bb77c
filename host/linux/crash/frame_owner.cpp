#include "host/linux/crash/frame_owner.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <string>

#include "services/type_names.h"

namespace morvik::host {
namespace {

constexpr std::string_view kAnonymous = "(anonymous namespace)";

template <size_t size>
bool isAmong(std::string_view text, const std::array<std::string_view, size>& all) {
  return std::find(all.begin(), all.end(), text) != all.end();
}

/// What is between "_Z" and the function's own name: its scopes and its name.
std::string_view scopeOf(std::string_view mangled) {
  constexpr std::string_view kNestings = "ZNKVrL";
  return mangled.substr(std::min(mangled.find_first_not_of(kNestings, 1), mangled.size()));
}

/// Takes "5thing" from the front; "" if there is something else.
std::string_view takeName(std::string_view& mangled) {
  size_t length = 0;
  const auto [end, error] = std::from_chars(mangled.data(), mangled.data() + mangled.size(), length);
  const auto digits = static_cast<size_t>(end - mangled.data());
  if (error != std::errc() || length > mangled.size() - digits)
    return {};
  const std::string_view name = mangled.substr(digits, length);
  mangled.remove_prefix(digits + length);
  return name;
}

/// Functions of std that call, copy or destroy an object whose type only they know, in libstdc++ and libc++.
bool hidesTypes(std::string_view scope) {
  constexpr std::array<std::string_view, 24> kHiding = {"_Function_handler",
                                                        "_Base_manager",
                                                        "_Bind",
                                                        "_Bind_front",
                                                        "_Bind_result",
                                                        "_Invoker",
                                                        "_State_impl",
                                                        "_Task_setter",
                                                        "_Deferred_state",
                                                        "_Async_state_impl",
                                                        "_Task_state",
                                                        "_Sp_counted_deleter",
                                                        "_Sp_counted_ptr",
                                                        "_Sp_counted_ptr_inplace",
                                                        "__invoke",
                                                        "__invoke_impl",
                                                        "__invoke_r",
                                                        "__func",
                                                        "__alloc_func",
                                                        "__policy_invoker",
                                                        "__invoke_void_return_wrapper",
                                                        "__shared_ptr_emplace",
                                                        "__shared_ptr_pointer",
                                                        "__thread_proxy"};
  constexpr std::string_view kStd = "St";
  if (!scope.starts_with(kStd))
    return false;
  scope.remove_prefix(kStd.size());
  for (std::string_view name = takeName(scope); !name.empty(); name = takeName(scope)) {
    if (isAmong(name, kHiding))
      return true;
  }
  return false;
}

/// "std::_Function_handler<void (int), shop::go(int)::{lambda()#1}>" without "(int)" and "()": a function's parameters
/// are not part of what it is.
std::string withoutParameters(std::string text) {
  for (size_t at = text.find(kAnonymous); at != std::string::npos; at = text.find(kAnonymous, at))
    text.replace(at, kAnonymous.size(), "{anonymous}");
  std::string rest;
  size_t depth = 0;
  for (const char c : text) {
    const bool opens = c == '(' || c == '[';
    const bool closes = c == ')' || c == ']';
    depth += opens ? 1 : 0;
    if (depth == 0)
      rest += c;
    depth -= closes && depth > 0 ? 1 : 0;
  }
  return rest;
}

/// Calls `take` with the first part of each qualified name in a demangled text: "shop" for "shop::Cart".
template <class Take>
void eachOutermostName(std::string_view text, Take take) {
  size_t braces = 0;
  const auto belongs = [&braces](char c) {
    braces += c == '{' ? 1 : 0;
    const bool is_within = braces > 0;
    braces -= c == '}' && braces > 0 ? 1 : 0;
    return is_within || std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '$' || c == '~';
  };
  for (size_t at = 0; at < text.size();) {
    const size_t begin = at;
    while (at < text.size() && belongs(text[at]))
      ++at;
    const bool is_outermost = begin < 2 || text.substr(begin - 2, 2) != "::";
    if (at > begin && is_outermost)
      take(text.substr(begin, at - begin));
    at = std::max(at, begin + 1);
  }
}

bool isBuiltIn(std::string_view name) {
  constexpr std::array<std::string_view, 21> kWords = {
      "void",   "bool",     "char",     "short",   "int",      "long",     "float",
      "double", "signed",   "unsigned", "wchar_t", "char8_t",  "char16_t", "char32_t",
      "const",  "volatile", "noexcept", "auto",    "decltype", "true",     "false"};
  return std::isdigit(static_cast<unsigned char>(name.front())) != 0 || isAmong(name, kWords);
}

/// std, and names reserved to the implementation.
bool isOfTheRuntime(std::string_view name) {
  return name == "std" || name.starts_with("__") ||
         (name.size() > 1 && name[0] == '_' && std::isupper(static_cast<unsigned char>(name[1])) != 0);
}

/// For a function that the library made for the types in its name. Many an app function's signature names the kit.
FrameOwner ownerByTypes(const std::string& demangled) {
  FrameOwner owner = FrameOwner::kSystem;
  eachOutermostName(withoutParameters(demangled), [&owner](std::string_view name) {
    if (name == "morvik")
      owner = owner == FrameOwner::kApp ? owner : FrameOwner::kKit;
    else if (!isBuiltIn(name) && !isOfTheRuntime(name))
      owner = FrameOwner::kApp;
  });
  return owner;
}

}  // namespace

FrameOwner ownerByName(std::string_view mangled) {
  constexpr std::string_view kOurNamespace = "6morvik";
  // "S" and a letter: std, and abbreviated names in it.
  constexpr std::array<std::string_view, 3> kOfTheRuntime = {"S", "9__gnu_cxx", "10__cxxabiv1"};
  if (!isMangled(mangled))  // C names that begin so are reserved to the implementation
    return mangled.starts_with("__") ? FrameOwner::kSystem : FrameOwner::kApp;
  const std::string_view scope = scopeOf(mangled);
  if (scope.starts_with(kOurNamespace))
    return FrameOwner::kKit;
  if (hidesTypes(scope))
    return ownerByTypes(services::demangled(std::string(mangled).c_str()));
  const bool is_of_the_runtime = std::any_of(kOfTheRuntime.begin(), kOfTheRuntime.end(),
                                             [&](std::string_view each) { return scope.starts_with(each); });
  return is_of_the_runtime ? FrameOwner::kSystem : FrameOwner::kApp;
}

bool isCallOfTheApp(std::string_view mangled) {
  return mangled.starts_with("_ZN6morvik7runtime7callAppI");
}

}  // namespace morvik::host
