// The header-folder walk on every cut of a message: a report and a code, never a read past the end.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "driver/printers.h"
#include "runtime/catalog.h"

namespace {

std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// 36-byte header, a 32-byte folder, a folder measured to its zero byte, then a body.
std::string sampleRfh2() {
  std::string folders = le32(32) + "<mcd><Msd>jms</Msd></mcd>       " + le32(0x8010) +
                        std::string("<usr>1</usr>\0\0\0\0", 16);
  std::string h = "RFH " + le32(2) + le32(static_cast<uint32_t>(36 + folders.size())) +
                  std::string(24, '\0');
  return h + folders + "<body/>";
}

class FolderWalkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_ = msgLogger::create(13, 0);
    logger_->loadCatalog(kRplCatalog);
    log_ = std::tmpfile();
    logger_->setOutput(log_);
    setRplLogger(logger_);
    out_ = std::tmpfile();
    enc_.setup(1208);
    enc_.outCcsid = 1208;
    enc_.flags = kEncMachineOrder;
  }
  void TearDown() override {
    setRplLogger(nullptr);
    std::fclose(log_);
    std::fclose(out_);
    delete logger_;
  }
  std::string output() {
    std::fflush(out_);
    std::rewind(out_);
    char buf[1024];
    size_t n = std::fread(buf, 1, sizeof buf, out_);
    return std::string(buf, n);
  }

  msgLogger* logger_ = nullptr;
  FILE* log_ = nullptr;
  FILE* out_ = nullptr;
  encodingInfo enc_;
  ConvMgr cm_{6, "rplqmfmt:processQueue"};
};

TEST_F(FolderWalkTest, WholeMessagePrintsBothFoldersAndFindsTheBody) {
  const std::string m = sampleRfh2();
  size_t body = 0;
  ASSERT_EQ(processRFH2(reinterpret_cast<const uint8_t*>(m.data()), m.size(), enc_, cm_, out_, &body), 0);
  EXPECT_EQ(m.substr(body), "<body/>");
  EXPECT_EQ(output(),
            "    mcd Folder : <mcd><Msd>jms</Msd></mcd>       \n"
            "    usr Folder : <usr>1</usr>\n");
}

TEST_F(FolderWalkTest, EveryCutIsReportedAndNeverReadPast) {
  const std::string m = sampleRfh2();
  const size_t header = m.size() - 7;
  for (size_t len = 0; len < header; ++len) {
    // An exact-size copy, so that the address sanitizer sees any byte read beyond it.
    std::unique_ptr<uint8_t[]> cut(new uint8_t[len]);
    std::memcpy(cut.get(), m.data(), len);
    size_t body = 0;
    EXPECT_EQ(processRFH2(cut.get(), len, enc_, cm_, out_, &body), kRcShortRead) << len;
  }
  std::fflush(log_);
  EXPECT_GT(std::ftell(log_), 0);  // each cut was reported
}

TEST_F(FolderWalkTest, FolderLongerThanTheDataIsReported) {
  std::string m = "RFH " + le32(2) + le32(36 + 4 + 5) + std::string(24, '\0') + le32(0x7FFF) + "<abc>";
  size_t body = 0;
  EXPECT_EQ(processRFH2(reinterpret_cast<const uint8_t*>(m.data()), m.size(), enc_, cm_, out_, &body),
            kRcShortRead);
  EXPECT_EQ(output(), "");
}

}  // namespace
