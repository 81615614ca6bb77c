#include "testing/faulty.h"

#include <optional>
#include <stdexcept>
#include <utility>

namespace morvik::testing {

Fault Fault::exception(std::string name, std::string reason, kit::Value info) {
  return Fault(kit::Exception{std::move(name), std::move(reason), std::move(info)});
}

Fault Fault::runtimeError(std::string message) {
  return Fault(RuntimeError{std::move(message)});
}

Fault Fault::number(int number) {
  return Fault(number);
}

Fault Fault::text(std::string text) {
  return Fault(std::move(text));
}

void Fault::raise() const {
  if (const auto* exception = std::get_if<kit::Exception>(&thrown_))
    throw *exception;
  if (const auto* error = std::get_if<RuntimeError>(&thrown_))
    throw std::runtime_error(error->message);
  if (const auto* number = std::get_if<int>(&thrown_))
    throw *number;
  throw std::get<std::string>(thrown_);
}

std::string Fault::description() const {
  if (const auto* exception = std::get_if<kit::Exception>(&thrown_))
    return "kit::Exception " + exception->name + ": " + exception->reason;
  if (const auto* error = std::get_if<RuntimeError>(&thrown_))
    return "std::runtime_error " + error->message;
  if (const auto* number = std::get_if<int>(&thrown_))
    return "int " + std::to_string(*number);
  return "std::string " + std::get<std::string>(thrown_);
}

Faults::Faults(std::string port, std::initializer_list<const char*> operations) : port_(std::move(port)) {
  for (const char* operation : operations) {
    operations_.emplace_back(operation);
    planned_.try_emplace(operation);
  }
}

const Faults::Operation& Faults::find(std::string_view operation) const {
  const auto found = planned_.find(operation);
  if (found != planned_.end())
    return found->second;
  std::string known;
  for (const std::string& name : operations_)
    known += (known.empty() ? "" : ", ") + name;
  throw std::invalid_argument(port_ + " has no operation \"" + std::string(operation) + "\"; it has: " + known);
}

Faults::Operation& Faults::find(std::string_view operation) {
  return const_cast<Operation&>(std::as_const(*this).find(operation));
}

void Faults::throwAt(std::string_view operation, size_t nth, Fault fault) {
  if (nth == 0)
    throw std::invalid_argument(port_ + "." + std::string(operation) + ": calls are counted from 1");
  const std::lock_guard lock(mutex_);
  Operation& planned = find(operation);
  planned.at_call.insert_or_assign(planned.calls + nth, std::move(fault));
}

void Faults::throwAlways(std::string_view operation, Fault fault) {
  const std::lock_guard lock(mutex_);
  find(operation).always = std::make_unique<Fault>(std::move(fault));
}

void Faults::throwAlwaysEverywhere(const Fault& fault) {
  for (const std::string& operation : operations_)
    throwAlways(operation, fault);
}

void Faults::clear() {
  const std::lock_guard lock(mutex_);
  for (auto& [name, operation] : planned_) {
    operation.at_call.clear();
    operation.always.reset();
  }
}

size_t Faults::calls(std::string_view operation) const {
  const std::lock_guard lock(mutex_);
  return find(operation).calls;
}

std::string Faults::describe(std::string_view operation, const std::string& when, const Fault& fault) const {
  return port_ + "." + std::string(operation) + ", " + when + ": " + fault.description();
}

std::vector<std::string> Faults::planned() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> texts;
  for (const std::string& name : operations_) {
    const Operation& operation = find(name);
    for (const auto& [call, fault] : operation.at_call)
      texts.push_back(describe(name, "call " + std::to_string(call), fault));
    if (operation.always)
      texts.push_back(describe(name, "every call", *operation.always));
  }
  return texts;
}

void Faults::pass(std::string_view operation) {
  std::optional<Fault> due;
  {
    const std::lock_guard lock(mutex_);
    Operation& planned = find(operation);
    const size_t call = ++planned.calls;
    if (const auto at_call = planned.at_call.find(call); at_call != planned.at_call.end()) {
      due = std::move(at_call->second);
      planned.at_call.erase(at_call);
    } else if (planned.always) {
      due = *planned.always;
    }
    if (!due)
      return;
    thrown_.add(describe(operation, "call " + std::to_string(call), *due));
  }
  due->raise();
}

}  // namespace morvik::testing
