// Plays random runs until the time is up; tools/soak builds and runs it, and has the help.
#include "proofs/scripts/soak.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

using namespace morvik::proofs;
using namespace morvik::simulation;

using Clock = std::chrono::steady_clock;

constexpr double kUsualMinutes = 1;
constexpr uint64_t kMostRuns = 10'000'000;
constexpr uint64_t kProgressEvery = 100;
constexpr int kWrongOption = 2;

struct Options {
  double minutes = kUsualMinutes;
  uint64_t runs = 0;  ///< 0: as many as the time allows
  bool has_seed = false;
  uint64_t seed = 0;
  double days = 2;
  unsigned workers = std::max(1U, std::thread::hardware_concurrency());
  bool trace = false;
};

template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return number;
}

// --lives is the old name of --runs.
bool namesRuns(std::string_view name) {
  return name == "--runs" || name == "--lives";
}

/// Returns an error message; empty if the option was accepted.
std::string take(std::string_view name, const char* value, Options& options) {
  if (value == nullptr)
    return std::string(name) + " needs a value";
  const auto whole = numberIn<uint64_t>(value);
  const auto number = numberIn<double>(value);
  const bool is_positive = number && *number > 0;
  options.has_seed = options.has_seed || name == "--seed";
  if (name == "--seed" && whole)
    options.seed = *whole;
  else if (name == "--minutes" && is_positive)
    options.minutes = *number;
  else if (name == "--days" && is_positive)
    options.days = *number;
  else if (namesRuns(name) && whole && is_positive)
    options.runs = *whole;
  else if (name == "--workers" && whole && is_positive)
    options.workers = static_cast<unsigned>(*whole);
  else if (name == "--seed" || name == "--minutes" || name == "--days" || namesRuns(name) || name == "--workers")
    return std::string(name) + " needs a number" + (name == "--seed" ? "" : " above 0") + "; \"" + value + "\" is none";
  else
    return "there is no option " + std::string(name);
  return "";
}

void printReplay(uint64_t seed, double days) {
  std::printf("Replay with: tools/soak --seed %llu --days %g --trace\n", static_cast<unsigned long long>(seed), days);
}

/// A broken invariant ends the program, on the thread of the run that broke it.
thread_local uint64_t living_seed = 0;
double living_days = 0;

// A signal handler; the process may be in any state, so nothing is allocated here.
void nameTheSeed(int signal) {
  const auto say = [](std::string_view text) {
    [[maybe_unused]] const auto written = write(STDERR_FILENO, text.data(), text.size());
  };
  const auto sayNumber = [&say](auto number) {
    char digits[32];
    say({digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, number).ptr - digits)});
  };
  say("\nThe run with this seed broke an invariant: tools/soak --trace --seed ");
  sayNumber(living_seed);
  say(" --days ");
  sayNumber(living_days);
  say("\n");
  std::signal(signal, SIG_DFL);
}

int playOne(const Options& options) {
  living_seed = options.seed;
  RandomRunOptions run{.seed = options.seed, .days = options.days};
  if (options.trace)
    run.trace = [](std::string_view line) { std::printf("%.*s\n", static_cast<int>(line.size()), line.data()); };
  const RandomRunResult played = playRandomRun(run);
  for (const std::string& complaint : played.complaints)
    std::printf("  ! %s\n", complaint.c_str());
  std::printf("seed %llu: %s; hash %016llx\n", static_cast<unsigned long long>(options.seed),
              played.complaints.empty() ? "no complaint" : "complaints", static_cast<unsigned long long>(played.hash));
  if (played.complaints.empty())
    return 0;
  printReplay(options.seed, options.days);
  return 1;
}

int playMany(const Options& options) {
  // Far apart, so that runs started a minute later get other seeds.
  const auto time = static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  SoakOptions many{.first_seed = options.has_seed ? options.seed : time / 1000 % 1'000'000'000'000,
                   .runs = options.runs != 0 ? options.runs : kMostRuns,
                   .days = options.days,
                   .workers = options.workers};
  many.begins = [](uint64_t seed) { living_seed = seed; };
  const auto begun = Clock::now();
  if (options.runs == 0) {
    const auto limit = std::chrono::duration<double, std::ratio<60>>(options.minutes);
    many.goes_on = [begun, limit] { return Clock::now() - begun < limit; };
  }
  const SoakResult result = soak(many, [&](uint64_t played, const SoakFailure& failure) {
    for (const std::string& complaint : failure.complaints)
      std::fprintf(stderr, "seed %llu: %s\n", static_cast<unsigned long long>(failure.seed), complaint.c_str());
    if (played % kProgressEvery == 0) {
      const auto seconds = std::chrono::duration<double>(Clock::now() - begun).count();
      std::fprintf(stderr, "%llu runs, %.0f s\n", static_cast<unsigned long long>(played), seconds);
    }
  });
  std::fputs(figuresOf(result).c_str(), stdout);
  if (result.failed == 0)
    return 0;
  printReplay(result.failures.front().seed, options.days);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view name = argv[i];
    if (name == "--trace") {
      options.trace = true;
      continue;
    }
    const char* const value = i + 1 < argc ? argv[++i] : nullptr;
    if (const std::string error = take(name, value, options); !error.empty()) {
      std::fprintf(stderr, "tools/soak: %s; --help lists what there is.\n", error.c_str());
      return kWrongOption;
    }
  }
  if (options.trace && (!options.has_seed || options.runs != 0)) {
    std::fputs("tools/soak: --trace needs --seed, and no --runs, to say which run.\n", stderr);
    return kWrongOption;
  }
  living_days = options.days;
  std::signal(SIGABRT, nameTheSeed);
  try {
    return options.has_seed && options.runs == 0 ? playOne(options) : playMany(options);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "tools/soak: %s\n", exception.what());
    return 1;
  }
}
