// A part of a document that is generated from the code, between two markers.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/paths.h"

namespace morvik::test {

/// `document` is relative to the root folder; the markers are the lines "<!-- NAME: begin -->" and "<!-- NAME: end
/// -->". Prints the expected block if the document has another one.
inline void expectDocumentBlock(const std::string& document, const std::string& name, const std::string& wanted) {
  const std::string begin_marker = "<!-- " + name + ": begin -->\n";
  const std::string end_marker = "<!-- " + name + ": end -->\n";
  std::ifstream file(sourceDir() + "/" + document, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const size_t begin = text.find(begin_marker);
  const size_t end = text.find(end_marker);
  ASSERT_NE(begin, std::string::npos) << document << " has no " << begin_marker;
  ASSERT_NE(end, std::string::npos) << document << " has no " << end_marker;
  const size_t first = begin + begin_marker.size();
  ASSERT_LE(first, end);
  EXPECT_TRUE(text.substr(first, end - first) == wanted)
      << "The code does not match " << document << ". If that is intended, put this between its two markers:\n"
      << begin_marker << wanted << end_marker;
}

}  // namespace morvik::test
