#include "services/type_names.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <typeinfo>

#include "kit/error.h"

namespace morvik::services {
namespace {

TEST(Demangled, IsThePlainFormOfAName) {
  EXPECT_EQ(demangled("_ZN6morvik8services9demangledEPKc"), "morvik::services::demangled(char const*)");
  EXPECT_EQ(demangled("i"), "int") << "of a type";
}

TEST(Demangled, LeavesWhatIsNoMangledName) {
  EXPECT_EQ(demangled("main"), "main");
  EXPECT_EQ(demangled("_Z"), "_Z");
  EXPECT_EQ(demangled(""), "");
}

template <class Thrown>
std::string nameOf(const Thrown& thrown) {
  try {
    throw thrown;
  } catch (...) {
    return caughtTypeName();
  }
}

TEST(CaughtTypeName, IsThatOfWhateverWasThrown) {
  EXPECT_EQ(nameOf(7), "int");
  EXPECT_EQ(nameOf(std::runtime_error("x")), "std::runtime_error");
  EXPECT_EQ(nameOf(kit::Exception{}), "morvik::kit::Exception");
}

TEST(TypeName, IsThePlainOne) {
  EXPECT_EQ(typeName(&typeid(kit::Exception)), "morvik::kit::Exception");
}

TEST(TypeName, OfWhatHasNoTypeInCppSaysSo) {
  EXPECT_EQ(typeName(nullptr), "foreign exception");
}

}  // namespace
}  // namespace morvik::services
