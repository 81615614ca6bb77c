// A stream of the C library whose text can be read back.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace morvik::test {

class CapturedFile {
 public:
  std::FILE* file() { return file_.get(); }
  /// Everything written so far.
  std::string text() {
    std::string text;
    std::rewind(file_.get());
    for (int c = std::fgetc(file_.get()); c != EOF; c = std::fgetc(file_.get()))
      text.push_back(static_cast<char>(c));
    return text;
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> file_{std::tmpfile()};
};

}  // namespace morvik::test
