#include "apps/device/program.h"

#include <fstream>
#include <memory>
#include <optional>
#include <utility>

#include "apps/device/fleet_program.h"
#include "apps/device/inspect_program.h"
#include "apps/device/ledger_reporter.h"
#include "apps/device/line_source.h"
#include "apps/device/options.h"
#include "apps/device/output.h"
#include "apps/device/phone.h"
#include "apps/device/runner.h"
#include "apps/device/scenario/simulate.h"
#include "apps/device/terminal_source.h"
#include "apps/device/verbs_program.h"
#include "host/net/curl_transport.h"
#include "morvik/version.h"
#include "runtime/machine/turn_gate.h"
#include "runtime/sending/exchange_queue.h"

namespace morvik_device {
namespace {

int refuse(const std::string& line, const Surroundings& surroundings) {
  surroundings.errors << "morvik-device: " << line << std::endl;
  return kExitUsage;
}

// The whole script is checked before anything happens, so that half of it never runs.
std::variant<CommandSource, std::string> chooseSource(const Options& options, const Surroundings& surroundings) {
  if (options.script.empty() && surroundings.input_is_terminal)
    return commandsTyped(surroundings.input, surroundings.errors, surroundings.errors_are_terminal);
  if (options.script.empty())
    return commandsOf(surroundings.input, "standard input");
  std::ifstream file(options.script, std::ios::binary);
  if (!file)
    return "cannot read " + options.script + "; fix its permissions or name another file with --script";
  auto commands = readAll(commandsOf(file, options.script));
  if (auto* mistake = std::get_if<std::string>(&commands))
    return std::move(*mistake);
  return commandsOf(std::move(std::get<std::deque<Command>>(commands)));
}

std::string withSlash(const std::string& url) {
  return url.ends_with('/') ? url : url + '/';
}

/// Has its own connection, so that it does not affect those of the kit.
class Reporting {
 public:
  Reporting(const Options& options, Phone& phone, std::ostream& errors)
      : phone_(phone),
        transport_(std::make_unique<morvik::host::CurlTransport>(
                       morvik::host::CurlTransportOptions{.ca_file = options.start.ca_file}),
                   {.ca_file = "",
                    .main_queue = phone.instance().mainQueue(),
                    .gate = gate_,
                    .is_forgotten = [&phone] { return phone.instance().isGdprForgetMe(); }}),
        reporter_(transport_, withSlash(options.start.service_url), phone.installId(),
                  [&errors](const std::string& line) { errors << "morvik-device: " << line << std::endl; }) {}

  /// Reports only while the kit itself may send.
  void tell() {
    const morvik::Status status = phone_.instance().status();
    if (!status.is_forgotten && status.is_sending_enabled)
      reporter_.tell(phone_.instance().ledger());
  }

 private:
  Phone& phone_;
  morvik::runtime::TurnGate gate_;
  morvik::runtime::ExchangeQueue transport_;
  LedgerReporter reporter_;
};

// As the verb that ended the program says; without one, the input ended.
Outcome endInstance(morvik::runtime::Instance& instance, const std::optional<Command>& last) {
  Outcome outcome;
  if (last && last->verb->name == "erase") {
    if (!instance.eraseLocalData())
      outcome.refusal = "not all was erased; the log says why, and the next start goes on";
  } else if (last && last->arguments.seconds) {
    instance.stop(millisecondsOf(*last->arguments.seconds));
  } else {
    instance.stop();
  }
  return outcome;
}

int runDevice(const Options& options, const Surroundings& surroundings) {
  auto source = chooseSource(options, surroundings);
  if (const auto* mistake = std::get_if<std::string>(&source))
    return refuse(*mistake, surroundings);
  Output output(surroundings.output);
  auto started = Phone::start(options, output);
  if (const auto* problem = std::get_if<std::string>(&started))
    return refuse(*problem, surroundings);
  const auto& phone = std::get<std::unique_ptr<Phone>>(started);
  std::optional<Command> last_command;
  std::unique_ptr<Reporting> reporting;
  if (options.report_ledger)
    reporting = std::make_unique<Reporting>(options, *phone, surroundings.errors);
  const auto mistake = runCommands(std::get<CommandSource>(source), *phone, output, last_command, [&reporting] {
    if (reporting)
      reporting->tell();
  });
  reporting.reset();
  const Outcome last = endInstance(phone->instance(), last_command);
  if (last_command)
    output.verbDone(last_command->verb->name, last);
  if (mistake)
    return refuse(*mistake, surroundings);
  return output.failed() ? tellUnwritable(surroundings) : 0;
}

morvik_command_line::Subcommand runCommand(const Surroundings& surroundings) {
  return {"run", "Runs a device with an app on it that does what it is told, verb by verb.",
          [&surroundings](CLI::App& app) {
            return [options = describeRunOptions(app), &surroundings] { return runDevice(*options, surroundings); };
          }};
}

}  // namespace

int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings) {
  const morvik_command_line::CommandLine command_line(
      "morvik-device", std::string(morvik::kVersion), "A device with an app on it, real or simulated.",
      {runCommand(surroundings), scenario::simulateCommand(surroundings), fleetCommand(surroundings),
       inspectCommand(surroundings), verbsCommand(surroundings)});
  const auto read = command_line.read(std::move(arguments));
  if (const auto* job = std::get_if<morvik_command_line::Job>(&read))
    return (*job)();
  const auto& printed = std::get<morvik_command_line::Printed>(read);
  if (printed.exit_status == 0) {
    return print(printed.text, surroundings) ? 0 : tellUnwritable(surroundings);
  }
  surroundings.errors << printed.text << std::flush;
  return printed.exit_status;
}

}  // namespace morvik_device
