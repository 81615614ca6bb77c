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

// The reasons quote a part of the expression next to the values found.
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
  errors << "morvik-service: column " << error.column() << ": " << error.what() << "\n";
  if (expression.size() <= kMaxExpressionBytes && expression.find('\n') == std::string::npos)
    errors << "  " << expression << "\n  " << std::string(error.column() - 1, ' ') << "^\n";
}

int runExpect(const ExpectOptions& options, std::ostream& output, std::ostream& errors) {
  try {
    return expect(options, output, errors);
  } catch (const ExpressionError& error) {
    tellWhere(options.expression, error, errors);
  } catch (const SetupError& error) {
    errors << "morvik-service: " << error.what() << "\n";
  } catch (const Json::exception&) {
    // A member is missing that this version's service always sends.
    errors << "morvik-service: what answers at " << options.url
           << " is not a morvik-service of this version; name the right one with --url\n";
  }
  return kExitUsage;
}

}  // namespace

morvik_command_line::Subcommand expectCommand(std::ostream& output, std::ostream& errors) {
  return {"expect", "Waits until what arrived at a running service is as expected.", [&output, &errors](CLI::App& app) {
            return [options = describeExpectOptions(app), &output, &errors] {
              return runExpect(*options, output, errors);
            };
          }};
}

}  // namespace morvik_service
