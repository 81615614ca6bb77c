#include "apps/service/expect/expect_program.h"

#include <utility>

#include "apps/service/base/printable.h"
#include "apps/service/base/refusal.h"
#include "apps/service/expect/expect_options.h"
#include "apps/service/expect/inspection_client.h"
#include "apps/service/expect/items.h"
#include "apps/service/expect/waiter.h"

namespace morvik_service {
namespace {

// Why something misses quotes a part of the expression next to the values found.
constexpr std::size_t kMaxWhyBytes = kMaxExpressionBytes + kMaxPrintedBytes;

std::chrono::milliseconds steadyNow() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

std::string spanText(std::chrono::milliseconds time) {
  const std::int64_t count = time.count();
  return count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms";
}

void tellMet(const ExpectOptions& options, const Outcome& outcome, std::ostream& output) {
  if (options.none) {
    output << "met: nothing matched within " << spanText(options.within) << " (" << outcome.looked_at
           << " looked at)\n";
    return;
  }
  output << "met: " << outcome.matched << " matched\n";
  for (const std::string& match : outcome.matches)
    output << "  " << printable(match) << "\n";
}

void tellNotMet(const ExpectOptions& options, const Outcome& outcome, std::ostream& errors) {
  if (options.none) {
    errors << "not met: this matched, and nothing should have\n  " << printable(outcome.matches.front()) << "\n";
    return;
  }
  errors << "not met within " << spanText(options.within) << ": " << outcome.matched << " of " << options.count
         << " matched, " << outcome.looked_at << " looked at\n";
  for (const NearMiss& miss : outcome.closest) {
    errors << "  close: " << printable(miss.item) << "\n";
    for (const std::string& why : miss.verdict.why)
      errors << "    " << printable(why, kMaxWhyBytes) << "\n";
  }
}

int expect(const ExpectOptions& options, std::ostream& output, std::ostream& errors) {
  Expectation expectation{Expression::parse(options.expression, allFields()), options.count, options.none,
                          options.after, options.within};
  InspectionClient client(options.url, options.authority_file);
  if (options.from_now)
    expectation.after = client.newestRequest();
  const auto source = [&](std::int64_t after, std::chrono::milliseconds patience) {
    return client.requestsAfter(after, patience);
  };
  const Outcome outcome = waitFor(expectation, source, steadyNow);
  if (outcome.met)
    tellMet(options, outcome, output);
  else
    tellNotMet(options, outcome, errors);
  return outcome.met ? kExitMet : kExitNotMet;
}

// The expression with a mark below the place.
void tellWhere(const std::string& expression, const ExpressionError& error, std::ostream& errors) {
  errors << "morvik-service expect: column " << error.column() << ": " << error.what() << "\n";
  if (expression.size() <= kMaxExpressionBytes && expression.find('\n') == std::string::npos)
    errors << "  " << expression << "\n  " << std::string(error.column() - 1, ' ') << "^\n";
}

}  // namespace

int runExpect(std::vector<std::string> arguments, std::ostream& output, std::ostream& errors) {
  const ExpectCommandLine command_line = readExpectCommandLine(std::move(arguments));
  if (!command_line.options) {
    (command_line.exit_status == 0 ? output : errors) << command_line.text;
    return command_line.exit_status;
  }
  try {
    return expect(*command_line.options, output, errors);
  } catch (const ExpressionError& error) {
    tellWhere(command_line.options->expression, error, errors);
  } catch (const SetupError& error) {
    errors << "morvik-service expect: " << error.what() << "\n";
  } catch (const Json::exception&) {
    // Every member that is read of an answer is there when this program's own service gave it.
    errors << "morvik-service expect: what answers at " << command_line.options->url
           << " is no morvik-service of this version; name the one that is meant with --url\n";
  }
  return kExitUsage;
}

}  // namespace morvik_service
