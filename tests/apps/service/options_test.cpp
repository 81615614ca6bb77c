#include "apps/service/options.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "morvik/version.h"

namespace morvik_service {
namespace {

std::string complaintAbout(const std::vector<std::string>& arguments) {
  const CommandLine line = readCommandLine(arguments);
  EXPECT_FALSE(line.options.has_value());
  EXPECT_EQ(kExitUsage, line.exit_status);
  return line.text;
}

TEST(Options, LeastThatIsNeeded) {
  const CommandLine line = readCommandLine({"--store", "s", "--make-cert", "tls"});
  ASSERT_TRUE(line.options.has_value()) << line.text;
  EXPECT_EQ("s", line.options->store_folder);
  EXPECT_EQ("tls", line.options->make_certificates_in);
  EXPECT_EQ("127.0.0.1", line.options->bind_address);
  EXPECT_EQ(0, line.options->port);
  EXPECT_FALSE(line.options->allow_remote);
  EXPECT_FALSE(line.options->quiet);
  EXPECT_EQ("no", line.options->premium_postback);
  EXPECT_EQ(1024, line.options->keep_mib);
}

TEST(Options, WhatTheStoreKeepsIsAtLeastOneMib) {
  const std::vector<std::string> rest = {"--store", "s", "--make-cert", "tls"};
  const auto with = [&](const std::string& value) {
    std::vector<std::string> arguments = rest;
    arguments.insert(arguments.end(), {"--keep-mib", value});
    return arguments;
  };
  EXPECT_EQ(1, readCommandLine(with("1")).options->keep_mib);
  EXPECT_EQ(kMaxKeepMib, readCommandLine(with(std::to_string(kMaxKeepMib))).options->keep_mib);
  for (const std::string wrong : {"0", "-1", "1048577", "much", ""})
    EXPECT_NE(std::string::npos, complaintAbout(with(wrong)).find("--keep-mib")) << wrong;
}

TEST(Options, EverythingIsRead) {
  const CommandLine line = readCommandLine({"--store",
                                            "s",
                                            "--cert",
                                            "c",
                                            "--key",
                                            "k",
                                            "--port",
                                            "8443",
                                            "--bind",
                                            "0.0.0.0",
                                            "--allow-remote",
                                            "--keys",
                                            "f",
                                            "--app-key",
                                            "a",
                                            "--hash-key",
                                            "h",
                                            "--tracking-key",
                                            "t",
                                            "--port-file",
                                            "p",
                                            "--log",
                                            "l",
                                            "--schedule",
                                            "plan",
                                            "--premium-postback",
                                            "yes",
                                            "--attribution",
                                            "{\"deeplink\":\"x\"}"});
  ASSERT_TRUE(line.options.has_value()) << line.text;
  EXPECT_EQ("c", line.options->certificate_file);
  EXPECT_EQ("k", line.options->key_file);
  EXPECT_EQ(8443, line.options->port);
  EXPECT_EQ("0.0.0.0", line.options->bind_address);
  EXPECT_TRUE(line.options->allow_remote);
  EXPECT_EQ("f", line.options->keys_file);
  EXPECT_EQ("a", line.options->app_key);
  EXPECT_EQ("h", line.options->hash_key);
  EXPECT_EQ("t", line.options->tracking_key);
  EXPECT_EQ("p", line.options->port_file);
  EXPECT_EQ("plan", line.options->schedule_file);
  EXPECT_EQ("yes", line.options->premium_postback);
  EXPECT_EQ("l", line.options->log_file);
  EXPECT_EQ("{\"deeplink\":\"x\"}", line.options->attribution);
}

TEST(Options, HelpNamesEveryOption) {
  const CommandLine line = readCommandLine({"--help"});
  EXPECT_EQ(0, line.exit_status);
  for (const char* option : {"--port", "--bind", "--allow-remote", "--cert", "--key", "--make-cert", "--store",
                             "--app-key", "--hash-key", "--tracking-key", "--keys", "--port-file", "--log", "--quiet",
                             "--attribution", "--premium-postback", "--schedule"}) {
    EXPECT_NE(std::string::npos, line.text.find(option)) << option;
  }
}

TEST(Options, TheVersionIsAllThatIsPrinted) {
  const CommandLine line = readCommandLine({"--version"});
  EXPECT_FALSE(line.options);
  EXPECT_EQ("morvik-service " + std::string(morvik::kVersion) + "\n", line.text);
  EXPECT_EQ(0, line.exit_status);
}

TEST(Options, ABadCommandLineIsAnsweredInOneLine) {
  EXPECT_EQ("--store is required; see morvik-service --help\n", complaintAbout({"--make-cert", "tls"}));
  EXPECT_EQ(
      "TLS needs a certificate: give --make-cert FOLDER, or --cert FILE and --key FILE; see morvik-service "
      "--help\n",
      complaintAbout({"--store", "s"}));
  EXPECT_EQ("--cert requires --key; see morvik-service --help\n", complaintAbout({"--store", "s", "--cert", "c"}));
  for (const std::vector<std::string>& extra : {std::vector<std::string>{"--port", "65536"},
                                                {"--port", "x"},
                                                {"--plain-http"},
                                                {"--premium-postback", "maybe"},
                                                {"--quiet", "--log", "l"},
                                                {"--cert", "c", "--key", "k"}}) {
    std::vector<std::string> arguments = {"--store", "s", "--make-cert", "tls"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const std::string complaint = complaintAbout(arguments);
    EXPECT_EQ(1, std::count(complaint.begin(), complaint.end(), '\n')) << complaint;
    EXPECT_NE(std::string::npos, complaint.find("see morvik-service --help"));
  }
}

TEST(Options, NamesUnderWhichOthersMayInspectAreCollected) {
  const CommandLine line = readCommandLine(
      {"--store", "s", "--make-cert", "t", "--inspect-host", "a.example", "--inspect-host", "192.0.2.7"});
  ASSERT_TRUE(line.options) << line.text;
  EXPECT_EQ((std::vector<std::string>{"a.example", "192.0.2.7"}), line.options->inspect_hosts);
}

TEST(Options, AnInspectHostThatNoRequestCouldNameIsRefused) {
  for (const char* host : {"a.example:8443", "https://a.example", "a.example/", "[2001:db8::1]", ""}) {
    const CommandLine line =
        readCommandLine({"--store", "s", "--make-cert", "t", "--inspect-host=" + std::string(host)});
    EXPECT_FALSE(line.options) << host;
    EXPECT_EQ(kExitUsage, line.exit_status);
  }
  const CommandLine line = readCommandLine({"--store", "s", "--make-cert", "t", "--inspect-host", "a.example:8443"});
  EXPECT_EQ(
      "--inspect-host a.example:8443 is no name or address alone; give it without scheme, brackets and port, such as "
      "build.example or 192.0.2.7; see morvik-service --help\n",
      line.text);
  EXPECT_TRUE(readCommandLine({"--store", "s", "--make-cert", "t", "--inspect-host", "2001:db8::1"}).options);
}

}  // namespace
}  // namespace morvik_service
