// An app that links everything: starts the kit on a folder, records, stops.
//
// Usage: consumer FOLDER

#include <morvik/morvik.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2)
    return 2;
  morvik::StartOptions options;
  options.store_folder = argv[1];
  options.app_key = "consumer";
  options.hash_key = "0123456789abcdef";
  options.tracking_key = "fedcba9876543210";
  // Nothing listens there: what is sent stays on this machine and is kept.
  options.service_url = "https://127.0.0.1:1/";
  morvik::StartResult started = morvik::MorvikCore::start(options);
  if (!started) {
    std::cerr << started.error << '\n';
    return 1;
  }
  started.core->applicationDidBecomeActive();
  started.core->addActivity("shop", "purchase", "sku-42");
  started.core.reset();
  std::cout << "the host works\n";
  return 0;
}
