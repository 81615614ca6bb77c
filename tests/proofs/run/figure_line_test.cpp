#include "proofs/run/figure_line.h"

#include <gtest/gtest.h>

namespace morvik::proofs {
namespace {

TEST(FigureLine, HasItsNumberInAColumnOrBehindALongText) {
  std::string text;
  addFigureLine(text, "runs", 12);
  addFigureLine(text, std::string(50, 'x'), 3);
  EXPECT_EQ(text, "  runs" + std::string(38, ' ') + "12\n  " + std::string(50, 'x') + " 3\n");
}

}  // namespace
}  // namespace morvik::proofs
