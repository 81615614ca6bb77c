#include "simulation/workers.h"

#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace morvik::simulation {

void runOnThreads(unsigned count, const std::function<void()>& work) {
  std::mutex mutex;
  std::exception_ptr thrown;
  const auto guarded = [&] {
    try {
      work();
    } catch (...) {
      const std::scoped_lock hold(mutex);
      if (!thrown)
        thrown = std::current_exception();
    }
  };
  std::vector<std::thread> others;
  for (unsigned other = 1; other < count; ++other)
    others.emplace_back(guarded);
  guarded();
  for (std::thread& other : others)
    other.join();
  if (thrown)
    std::rethrow_exception(thrown);
}

void callFor(const std::string& whose, const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& exception) {
    throw std::runtime_error(whose + " threw: " + exception.what());
  } catch (...) {
    throw std::runtime_error(whose + " threw something that is not a std::exception");
  }
}

}  // namespace morvik::simulation
