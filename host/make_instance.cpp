#include "host/make_instance.h"

#include <openssl/crypto.h>

#include <utility>

#include "host/json/simdjson_codec.h"
#include "host/system_machine.h"
#include "morvik/morvik.h"
#include "runtime/start.h"

namespace morvik::host {
namespace {

/// Called before the kit registers its own exit handler, which then runs before those registered by the libraries, or
/// by an app's own use of them: none may clean up what the kit's threads still use.
void prepareLibrariesForExit() {
  static const bool is_prepared = [] {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    // The JSON library creates its static objects at its first use; objects created after the kit would be destroyed
    // before it.
    static_cast<void>(SimdjsonCodec().read(R"({"a":[1,1.5,"b",null]})"));
    return true;
  }();
  static_cast<void>(is_prepared);
}

}  // namespace

std::variant<std::unique_ptr<runtime::Instance>, kit::Error> makeInstance(const StartOptions& options) {
  return host::makeInstance(options, std::make_unique<SystemMachine>());
}

std::variant<std::unique_ptr<runtime::Instance>, kit::Error> makeInstance(const StartOptions& options,
                                                                          std::unique_ptr<SystemMachine> machine) {
  prepareLibrariesForExit();
  return runtime::makeInstance(options, std::move(machine));
}

}  // namespace morvik::host

namespace morvik {

StartResult MorvikCore::start(const StartOptions& options) {
  host::prepareLibrariesForExit();
  return runtime::start(options, std::make_unique<host::SystemMachine>());
}

}  // namespace morvik
