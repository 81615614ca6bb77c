#include "testing/fake_siblings.h"
#include "tests/support/report_shelf_contract.h"

namespace morvik::test {
namespace {

class MemoryShelfHarness {
 public:
  kit::ReportShelf& shelf() { return shelf_; }
  void killAndRestart() {}

 private:
  testing::MemoryShelf shelf_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(MemoryShelf, ReportShelfContract, MemoryShelfHarness);

}  // namespace
}  // namespace morvik::test
