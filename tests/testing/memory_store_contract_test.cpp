#include "testing/memory_store.h"
#include "tests/support/key_value_store_contract.h"

namespace morvik::test {
namespace {

class MemoryStoreHarness {
 public:
  kit::KeyValueStore& store() { return store_; }
  void killAndRestart() { store_.kill(); }

 private:
  testing::MemoryStore store_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(MemoryStore, KeyValueStoreContract, MemoryStoreHarness);

}  // namespace
}  // namespace morvik::test
