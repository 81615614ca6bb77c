#include "apps/service/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <variant>

namespace morvik_service {
namespace {

std::variant<Options, std::string> read(const std::vector<std::string>& arguments) {
  CLI::App app;
  const auto options = describeServeOptions(app);
  if (auto mistake = morvik_command_line::tryParse(app, arguments))
    return *std::move(mistake);
  return *options;
}

Options optionsOf(const std::vector<std::string>& arguments) {
  const auto result = read(arguments);
  if (const auto* mistake = std::get_if<std::string>(&result)) {
    ADD_FAILURE() << *mistake;
    return {};
  }
  return std::get<Options>(result);
}

std::string complaintAbout(const std::vector<std::string>& arguments) {
  const auto result = read(arguments);
  const auto* mistake = std::get_if<std::string>(&result);
  EXPECT_NE(nullptr, mistake);
  return mistake == nullptr ? "" : *mistake;
}

TEST(Options, LeastThatIsNeeded) {
  const Options options = optionsOf({"--store", "s", "--make-cert", "tls"});
  EXPECT_EQ("s", options.store_folder);
  EXPECT_EQ("tls", options.make_certificates_in);
  EXPECT_EQ("127.0.0.1", options.bind_address);
  EXPECT_EQ(0, options.port);
  EXPECT_FALSE(options.allow_remote);
  EXPECT_FALSE(options.quiet);
  EXPECT_EQ("no", options.premium_postback);
  EXPECT_EQ(1024, options.keep_mib);
}

TEST(Options, WhatTheStoreKeepsIsAtLeastOneMib) {
  const std::vector<std::string> rest = {"--store", "s", "--make-cert", "tls"};
  const auto with = [&](const std::string& value) {
    std::vector<std::string> arguments = rest;
    arguments.insert(arguments.end(), {"--keep-mib", value});
    return arguments;
  };
  EXPECT_EQ(1, optionsOf(with("1")).keep_mib);
  EXPECT_EQ(kMaxKeepMib, optionsOf(with(std::to_string(kMaxKeepMib))).keep_mib);
  for (const std::string wrong : {"0", "-1", "1048577", "much", ""})
    EXPECT_NE(std::string::npos, complaintAbout(with(wrong)).find("--keep-mib")) << wrong;
}

TEST(Options, EverythingIsRead) {
  const Options options = optionsOf({"--store",
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
  EXPECT_EQ("c", options.certificate_file);
  EXPECT_EQ("k", options.key_file);
  EXPECT_EQ(8443, options.port);
  EXPECT_EQ("0.0.0.0", options.bind_address);
  EXPECT_TRUE(options.allow_remote);
  EXPECT_EQ("f", options.keys_file);
  EXPECT_EQ("a", options.app_key);
  EXPECT_EQ("h", options.hash_key);
  EXPECT_EQ("t", options.tracking_key);
  EXPECT_EQ("p", options.port_file);
  EXPECT_EQ("plan", options.schedule_file);
  EXPECT_EQ("yes", options.premium_postback);
  EXPECT_EQ("l", options.log_file);
  EXPECT_EQ("{\"deeplink\":\"x\"}", options.attribution);
}

TEST(Options, ABadCommandLineIsAnsweredInOneLine) {
  EXPECT_EQ("--store is required", complaintAbout({"--make-cert", "tls"}));
  EXPECT_EQ("TLS needs a certificate: give --make-cert FOLDER, or --cert FILE and --key FILE",
            complaintAbout({"--store", "s"}));
  EXPECT_EQ("--cert requires --key", complaintAbout({"--store", "s", "--cert", "c"}));
  for (const std::vector<std::string>& extra : {std::vector<std::string>{"--port", "65536"},
                                                {"--port", "x"},
                                                {"--plain-http"},
                                                {"--premium-postback", "maybe"},
                                                {"--quiet", "--log", "l"},
                                                {"--cert", "c", "--key", "k"}}) {
    std::vector<std::string> arguments = {"--store", "s", "--make-cert", "tls"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const std::string complaint = complaintAbout(arguments);
    EXPECT_EQ(0, std::count(complaint.begin(), complaint.end(), '\n')) << complaint;
    EXPECT_NE("", complaint);
  }
}

TEST(Options, NamesUnderWhichOthersMayInspectAreCollected) {
  const Options options =
      optionsOf({"--store", "s", "--make-cert", "t", "--inspect-host", "a.example", "--inspect-host", "192.0.2.7"});
  EXPECT_EQ((std::vector<std::string>{"a.example", "192.0.2.7"}), options.inspect_hosts);
}

TEST(Options, AnInspectHostThatNoRequestCouldNameIsRefused) {
  const auto with = [](const std::string& host) {
    return std::vector<std::string>{"--store", "s", "--make-cert", "t", "--inspect-host=" + host};
  };
  for (const char* host : {"https://a.example", "a.example/", "[2001:db8::1]", ""})
    EXPECT_EQ(0U, complaintAbout(with(host)).find("--inspect-host " + std::string(host) + " is not a plain name"));
  EXPECT_EQ(
      "--inspect-host a.example:8443 is not a plain name or address; give it without scheme, brackets and port, such as "
      "build.example or 192.0.2.7",
      complaintAbout(with("a.example:8443")));
  EXPECT_EQ("2001:db8::1", optionsOf(with("2001:db8::1")).inspect_hosts.front());
}

}  // namespace
}  // namespace morvik_service
