// The fixture of the in-process tests: each test in a working directory of
// its own with the text layer's channels closed after it, and a child that
// must end the process (a stop or a read failure).
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::string dir_, saved_;
};

// Runs `body` in a child with the console sent to console.txt and returns
// what the child wrote there. The child must end with status 0 (a stop) when
// `stop`, with a non-zero status (a failure of the text layer) otherwise.
std::string console_of_child(bool stop, const std::function<void()>& body);
