#include "host/system_inputs.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <variant>

#include "tests/support/environment_variable.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

std::string placesErrorOf(const StartOptions& options) {
  const auto error = SystemInputs().checkPlaces(options);
  return error ? error->message : "";
}

TEST(SystemInputs, ReadASmallFileWhole) {
  const test::ScratchFolder folder;
  const std::string path = folder / "keys";
  EXPECT_EQ(SystemInputs().readFile(path, 8), std::nullopt);
  std::ofstream(path, std::ios::binary) << std::string("a\0b\r\nc", 6);
  EXPECT_EQ(SystemInputs().readFile(path, 6), std::string("a\0b\r\nc", 6));
  EXPECT_EQ(SystemInputs().readFile(path, 5), std::nullopt);
}

TEST(SystemInputs, TellAVariableThatIsEmptyFromOneThatIsNotThere) {
  EXPECT_EQ(SystemInputs().variable("MORVIK_TEST_INPUT"), std::nullopt);
  test::EnvironmentVariable variable("MORVIK_TEST_INPUT");
  variable.set("");
  EXPECT_EQ(SystemInputs().variable("MORVIK_TEST_INPUT"), "");
}

TEST(SystemInputs, LetHttpLeadToThisMachineAlone) {
  const SystemInputs inputs;
  const auto here = inputs.checkUrl("http://127.0.0.1:8080/");
  ASSERT_TRUE(std::holds_alternative<runtime::UrlFacts>(here));
  EXPECT_TRUE(std::get<runtime::UrlFacts>(here).is_loopback);
  const auto elsewhere = inputs.checkUrl("https://service.example/");
  ASSERT_TRUE(std::holds_alternative<runtime::UrlFacts>(elsewhere));
  EXPECT_FALSE(std::get<runtime::UrlFacts>(elsewhere).is_loopback);
  const auto plain = inputs.checkUrl("http://service.example/");
  ASSERT_TRUE(std::holds_alternative<kit::Error>(plain));
  EXPECT_EQ(std::get<kit::Error>(plain).message, "plain HTTP stays on this machine; use https");
}

TEST(SystemInputs, RefuseAStoreFolderThatIsAFile) {
  const test::ScratchFolder folder;
  StartOptions options;
  options.store_folder = folder / "store";
  EXPECT_FALSE(SystemInputs().checkPlaces(options));
  std::ofstream(options.store_folder) << "a file";
  EXPECT_EQ(placesErrorOf(options), "StartOptions::store_folder: " + options.store_folder +
                                        " is a file; name a folder, it is made when missing.");
  options.store_folder = folder / "";
  EXPECT_FALSE(SystemInputs().checkPlaces(options));
}

TEST(SystemInputs, RefuseAStoreFolderBelowAFile) {
  const test::ScratchFolder folder;
  StartOptions options;
  const std::string file = folder / "file";
  std::ofstream(file) << "a file";
  for (const char* below : {"/store", "/kits/store", "/"}) {
    options.store_folder = file + below;
    EXPECT_EQ(placesErrorOf(options), "StartOptions::store_folder: " + options.store_folder + " lies below " + file +
                                          ", which is a file; name a folder, it is made when missing.");
  }
}

TEST(SystemInputs, RefuseAStoreFolderWhosePathIsTooLong) {
  const test::ScratchFolder folder;
  StartOptions options;
  const std::string end = " bytes; name a folder whose absolute path has at most 491, and 255 in each of its parts.";
  const auto isRefused = [&](const std::string& store_folder) {
    options.store_folder = store_folder;
    return placesErrorOf(options) ==
           "StartOptions::store_folder: its path is too long, with " + std::to_string(store_folder.size()) + end;
  };
  EXPECT_TRUE(isRefused(folder / ("missing/" + std::string(256, 'x'))));
  EXPECT_TRUE(isRefused("/" + std::string(240, 'x') + "/" + std::string(250, 'x')));
  EXPECT_TRUE(isRefused(folder / std::string(5000, 'x')));
  options.store_folder = folder / ("missing/" + std::string(255, 'x'));
  EXPECT_FALSE(SystemInputs().checkPlaces(options));
}

TEST(SystemInputs, RefuseAFileOfCertificatesThatIsNotThere) {
  const test::ScratchFolder folder;
  StartOptions options;
  options.store_folder = folder / "store";
  options.ca_file = folder / "ca.pem";
  const std::string file = "StartOptions::ca_file: the file " + options.ca_file;
  EXPECT_EQ(placesErrorOf(options),
            file + " cannot be read (No such file or directory); fix its path or its permissions.");
  std::ofstream(options.ca_file) << "certificates";
  EXPECT_FALSE(SystemInputs().checkPlaces(options));
  options.ca_file = folder / "";
  EXPECT_EQ(placesErrorOf(options), "StartOptions::ca_file: the file " + options.ca_file +
                                        " is a folder; name the file of certificates (PEM) in it.");
}

TEST(SystemInputs, TellWhereARelativePathLeads) {
  const SystemInputs inputs;
  EXPECT_EQ(inputs.absolutePath("/a/./b"), "/a/./b");
  EXPECT_EQ(inputs.absolutePath("store"), std::filesystem::current_path() / "store");
}

}  // namespace
}  // namespace morvik::host
