// End-to-end harness: a private queue manager per test, messages put through the KX API of
// the local queue manager, and rplqmfmt run as a child process with its outputs captured.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kx/kxc.h"

struct RunResult {
  int status = -1;  // exit status (0-255), or -1 when the program did not exit normally
  std::string out;
  std::string err;
};

struct PutOptions {
  const char* format = KXFMT_STRING;
  int32_t ccsid = 1208;
  int32_t encoding = KXENC_LITTLE_ENDIAN;
};

class QueueTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Puts one message on QUEUE.
  void put(const std::string& data, PutOptions o = {});
  void put(const std::string& data, const char* format) { put(data, PutOptions{format}); }
  void putMd(KXMD md, const std::string& data);
  // Messages on the queue now.
  int64_t depth(const char* queue = kQueue);

  // Runs rplqmfmt with the words given (the queue manager's data path in the environment).
  // `env` adds "NAME=value" entries; `stdoutPath` sends standard output to a file instead of
  // capturing it; `closedPipe` gives it a pipe that nobody reads.
  RunResult run(const std::vector<std::string>& words, const std::vector<std::string>& env = {},
                const char* stdoutPath = nullptr, bool closedPipe = false);

  static constexpr const char* kQmgr = "QM1";
  static constexpr const char* kQueue = "Q1";
  std::string dir_;

 private:
  KXHCONN hconn_ = 0;
};

// Number of times `what` occurs in `s`.
int occurrences(const std::string& s, const std::string& what);
std::string readFile(const std::string& path);
