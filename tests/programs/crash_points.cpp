// Tests the crash points of a scripted run; tools/crashpoints builds and runs it, and has the help.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "proofs/scripts/crash_points.h"

namespace {

using namespace morvik::proofs;
using namespace morvik::simulation;

constexpr uint64_t kUsualStride = 10;
constexpr uint64_t kProgressEvery = 500;
constexpr int kWrongOption = 2;

struct Options {
  CrashPointOptions points;
  std::optional<PointMode> mode;
  std::optional<uint64_t> point;
};

std::optional<uint64_t> numberIn(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return number;
}

/// Returns an error message; empty if the option was accepted.
std::string take(std::string_view name, const char* value, Options& options) {
  if (value == nullptr)
    return std::string(name) + " needs a value";
  if (name == "--mode") {
    options.mode = pointModeNamed(value);
    return options.mode ? "" : "no mode is called \"" + std::string(value) + "\"";
  }
  const std::optional<uint64_t> number = numberIn(value);
  if (!number || (*number == 0 && name != "--seed"))
    return std::string(name) + " needs a number from " + (name == "--seed" ? "0" : "1") + " on; \"" + value +
           "\" is none";
  if (name == "--stride")
    options.points.stride = *number;
  else if (name == "--point")
    options.point = number;
  else if (name == "--seed")
    options.points.seed = *number;
  else if (name == "--workers")
    options.points.workers = static_cast<unsigned>(*number);
  else
    return "there is no option " + std::string(name);
  return "";
}

int tryOne(const Options& options) {
  const ScriptedRunResult played = playScriptedRun(runAtPoint(*options.mode, *options.point, options.points.seed));
  for (const std::string& text : played.texts)
    std::printf("  ! %s\n", text.c_str());
  std::printf("%s %llu: %s\n", nameOf(*options.mode), static_cast<unsigned long long>(*options.point),
              played.isFine() ? "nothing was lost" : "something was lost");
  return played.isFine() ? 0 : 1;
}

int tryThem(const CrashPointOptions& options) {
  const CrashPointResult result = tryCrashPoints(options, [](uint64_t played, uint64_t of) {
    if (played % kProgressEvery == 0)
      std::fprintf(stderr, "%llu of %llu points\n", static_cast<unsigned long long>(played),
                   static_cast<unsigned long long>(of));
  });
  std::fputs(figuresOf(result).c_str(), stdout);
  if (result.texts.empty())
    return 0;
  std::printf("Replay one with: tools/crashpoints --mode MODE --point N --seed %llu\n",
              static_cast<unsigned long long>(options.seed));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.points.stride = kUsualStride;
  options.points.workers = std::max(1U, std::thread::hardware_concurrency());
  for (int i = 1; i < argc; ++i) {
    const std::string_view name = argv[i];
    if (name == "--all") {
      options.points.stride = 1;
      continue;
    }
    const char* const value = i + 1 < argc ? argv[++i] : nullptr;
    if (const std::string error = take(name, value, options); !error.empty()) {
      std::fprintf(stderr, "tools/crashpoints: %s; --help lists what there is.\n", error.c_str());
      return kWrongOption;
    }
  }
  if (options.mode)
    options.points.modes = {*options.mode};
  if (!options.point)
    return tryThem(options.points);
  if (options.mode)
    return tryOne(options);
  std::fputs("tools/crashpoints: --point needs --mode, to say what happens there.\n", stderr);
  return kWrongOption;
}
