// The functions of callbacks.h, for each way of compiling them: CALLBACKS says which.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>

#include "tests/crash/callbacks.h"

namespace morvik::crashing {
namespace {

int* volatile nothing = nullptr;

[[gnu::noinline]] void fault() {
  *nothing = 1;
  asm volatile("");  // so that this call is not a jump
}

}  // namespace
}  // namespace morvik::crashing

namespace shop {
namespace {

int* volatile nothing = nullptr;
volatile size_t size = 64;

}  // namespace

Callbacks CALLBACKS() {
  Callbacks all;
  all.faults = [] { *nothing = 1; };
  all.faults_in_the_library = [] { std::memset(nothing, 0, size); };
  all.faults_in_the_kit = [] {
    morvik::crashing::fault();
    asm volatile("");
  };
  const std::shared_ptr<int> kept(nullptr, [](const int*) { *nothing = 1; });
  all.faults_when_destroyed = [kept] { static_cast<void>(kept); };
  return all;
}

}  // namespace shop
