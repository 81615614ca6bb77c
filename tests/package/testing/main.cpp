// An app's test that links the fakes and the core, without host/.

#include <iostream>

#include "testing/memory_store.h"

int main() {
  morvik::testing::MemoryStore store;
  store.set("kept", 1);
  store.synchronize();
  store.set("lost", 2);
  store.kill();
  if (!(store.get("kept") == morvik::kit::Value(1)) || !store.get("lost").isAbsent())
    return 1;
  std::cout << "the fakes work\n";
  return 0;
}
