#include "host/linux/crash/bare_frames.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "host/linux/crash/frame_names.h"
#include "host/linux/crash/module_files.h"

namespace morvik::host {
namespace {

constexpr std::string_view kIdBegin = " [";
constexpr std::string_view kIdEnd = "]";
constexpr std::string_view kColumn = "  ";
constexpr std::string_view kOffsetBegin = "  + 0x";

struct BareFrame {
  std::string_view without_id;  ///< "2  my-app  0x000055d0c0a81234  + 0x1234"
  std::string_view beginning;   ///< "2  my-app  0x000055d0c0a81234  "
  std::string_view build_id;
  size_t index = 0;
  uint64_t offset = 0;
};

template <typename Number>
bool readWhole(std::string_view text, Number& number, int base) {
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

bool isHexadecimal(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// Nothing if it is not a bare frame.
std::optional<BareFrame> bareFrameIn(std::string_view frame) {
  BareFrame found;
  const size_t id = frame.rfind(kIdBegin);
  if (id == std::string_view::npos || frame.substr(frame.size() - 1) != kIdEnd)
    return std::nullopt;
  found.without_id = frame.substr(0, id);
  found.build_id = frame.substr(id + kIdBegin.size(), frame.size() - id - kIdBegin.size() - kIdEnd.size());
  const size_t offset = found.without_id.rfind(kOffsetBegin);
  if (offset == std::string_view::npos)
    return std::nullopt;
  found.beginning = found.without_id.substr(0, offset + kColumn.size());
  if (!isHexadecimal(found.build_id) ||
      !readWhole(found.without_id.substr(offset + kOffsetBegin.size()), found.offset, 16) ||
      !readWhole(frame.substr(0, frame.find(kColumn)), found.index, 10))
    return std::nullopt;
  return found;
}

/// Rewrites each bare frame of the trace with `written`; the rest stays as it is.
std::string rewritten(std::string_view trace, const std::function<std::string(const BareFrame&)>& written) {
  std::string all;
  while (!trace.empty()) {
    const size_t end = std::min(trace.find(kFrameEnd), trace.size());
    const std::string_view frame = trace.substr(0, end);
    const auto bare = bareFrameIn(frame);
    all += bare ? written(*bare) : std::string(frame);
    trace.remove_prefix(end);
    if (!trace.empty()) {
      all += kFrameEnd;
      trace.remove_prefix(kFrameEnd.size());
    }
  }
  return all;
}

std::string withoutId(const BareFrame& frame) {
  return std::string(frame.without_id);
}

}  // namespace

std::vector<std::string> bareFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames) {
  std::vector<std::string> all;
  all.reserve(frames.size());
  for (const uint64_t address : frames) {
    const LoadedModule* const module = moduleAt(modules, address);
    std::string text = frameBeginning(all.size(), module, address);
    if (module != nullptr) {
      text += offsetText(*module, address);
      if (!module->build_id.empty())
        text.append(kIdBegin).append(module->build_id).append(kIdEnd);
    }
    all.push_back(std::move(text));
  }
  return all;
}

bool holdsBareFrames(std::string_view trace) {
  bool holds = false;
  static_cast<void>(rewritten(trace, [&](const BareFrame& frame) {
    holds = true;
    return withoutId(frame);
  }));
  return holds;
}

std::string namedTrace(std::string_view trace, const std::vector<LoadedModule>& modules) {
  ModuleFiles files;
  return rewritten(trace, [&](const BareFrame& frame) {
    const auto module = std::find_if(modules.begin(), modules.end(), [&](const LoadedModule& candidate) {
      return candidate.build_id == frame.build_id;
    });
    if (module == modules.end())
      return withoutId(frame);
    const std::string function = functionAt(files, *module, frame.index, module->bias + frame.offset).text;
    return function.empty() ? withoutId(frame) : std::string(frame.beginning) + function;
  });
}

std::string unnamedTrace(std::string_view trace) {
  return rewritten(trace, withoutId);
}

}  // namespace morvik::host
