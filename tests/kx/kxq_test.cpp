// kxq_test.cpp - the queue admin tool run as a program: dump and load round trip byte for byte,
// raw message files, and failures that must end with a non-zero exit.
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "tests/kx/kx_fixture.h"
#include "tools/kxq/dumpfile.h"

using namespace kxtest;

namespace {

int runKxq(const std::string& args) {
  std::string cmd = std::string(KXQ_PATH) + " " + args + " >/dev/null 2>&1";
  int status = std::system(cmd.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Message {
  KXMD md;
  std::string data;
};

std::vector<Message> browseAll(const char* queue) {
  std::vector<Message> out;
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, queue, KXOO_BROWSE);
  for (;;) {
    Got g = get(h, o, KXGMO_BROWSE_NEXT, 1 << 20);
    if (g.r.cc != KXCC_OK) break;
    out.push_back({g.md, g.data});
  }
  disconnect(h);
  return out;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Messages of every kind the tool meets: formats, both byte orders, empty, long, binary.
void fillQ1() {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
  const char* formats[] = {KXFMT_STRING, KXFMT_RFH2, KXFMT_COMPACT, KXFMT_NONE};
  for (int i = 0; i < 40; ++i) {
    KXMD md = KXMD_DEFAULT;
    memcpy(md.Format, formats[i % 4], 8);
    md.Encoding = i % 2 ? KXENC_BIG_ENDIAN : KXENC_LITTLE_ENDIAN;
    md.CodedCharSetId = i % 3 ? 1208 : 500;
    md.CorrelId[0] = uint8_t(i);
    md.Fields2[i] = 0xee;
    std::string data;
    if (i == 7)
      data.clear();
    else if (i == 9)
      data.assign(300000, 'L');
    else
      for (int b = 0; b < 50 + i; ++b) data.push_back(char((b * 37 + i) & 0xff));
    ASSERT_EQ(put(h, o, data, 0, &md).cc, KXCC_OK);
  }
  disconnect(h);
}

}  // namespace

TEST_F(KxTest, DumpLoadsBackIntoAnotherQueueByteForByte) {
  fillQ1();
  std::string file = dir_ + "/q1.kxqdump";
  ASSERT_EQ(runKxq("dump QM1 Q1 " + file), 0);
  ASSERT_EQ(runKxq("load QM1 Q2 " + file), 0);
  std::vector<Message> a = browseAll("Q1"), b = browseAll("Q2");
  ASSERT_EQ(a.size(), 40u);
  ASSERT_EQ(b.size(), a.size());
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(memcmp(&a[i].md, &b[i].md, sizeof(KXMD)), 0) << "descriptor " << i;
    EXPECT_EQ(a[i].data, b[i].data) << "data " << i;
  }

  // The file is as documented: header, records, end marker with the count.
  std::string bytes = slurp(file);
  ASSERT_GT(bytes.size(), kxq::kDumpHeaderLength);
  EXPECT_EQ(bytes.substr(0, 8), "KXQDUMP1");
  EXPECT_EQ(uint8_t(bytes[16]), 40);
  EXPECT_EQ(bytes.substr(bytes.size() - 12, 4), std::string(4, '\xff'));
  EXPECT_EQ(uint8_t(bytes[bytes.size() - 8]), 40);

  // A cut file loads nothing; a file that is not a dump is refused.
  std::ofstream(dir_ + "/cut", std::ios::binary) << bytes.substr(0, bytes.size() / 2);
  EXPECT_EQ(runKxq("load QM1 Q2 " + dir_ + "/cut"), 1);
  EXPECT_EQ(runKxq("load QM1 Q2 " + dir_ + "/q1.kxqdump.nosuch"), 1);
  EXPECT_EQ(browseAll("Q2").size(), 40u);
}

TEST_F(KxTest, RawFilesOfBrowseAndGetPutBackTheSameMessages) {
  fillQ1();
  std::string dir = dir_ + "/msgs";
  ASSERT_EQ(runKxq("browse QM1 Q1 --to " + dir), 0);
  std::vector<Message> a = browseAll("Q1");
  ASSERT_EQ(a.size(), 40u);
  std::string raw = slurp(dir + "/0001.msg");
  EXPECT_EQ(raw.size(), sizeof(KXMD) + a[0].data.size());
  EXPECT_EQ(memcmp(raw.data(), &a[0].md, sizeof(KXMD)), 0);

  std::string files;
  for (int i = 1; i <= 40; ++i) {
    char name[16];
    snprintf(name, sizeof name, "/%04d.msg", i);
    files += " " + dir + name;
  }
  ASSERT_EQ(runKxq("put QM1 Q2 --raw" + files), 0);
  std::vector<Message> b = browseAll("Q2");
  ASSERT_EQ(b.size(), 40u);
  for (size_t i = 0; i < 40; ++i) {
    // Everything but the put date and time is kept; the MsgIds were not zero.
    KXMD x = a[i].md, y = b[i].md;
    memset(x.PutDate, 0, 16);
    memset(y.PutDate, 0, 16);
    EXPECT_EQ(memcmp(&x, &y, sizeof x), 0) << i;
    EXPECT_EQ(a[i].data, b[i].data) << i;
  }

  ASSERT_EQ(runKxq("get QM1 Q1 --to " + dir_ + "/got --count 15"), 0);
  EXPECT_EQ(browseAll("Q1").size(), 25u);
  EXPECT_EQ(slurp(dir_ + "/got/0015.msg"), slurp(dir + "/0015.msg"));
}

TEST_F(KxTest, KxqCommandsFailWithANonZeroExit) {
  EXPECT_EQ(runKxq("create-qmgr QM1"), 1);
  EXPECT_EQ(runKxq("create-queue QM1 Q1"), 1);
  EXPECT_EQ(runKxq("create-queue QM1 Q3 --max-length 5"), 0);
  EXPECT_EQ(runKxq("put QM1 Q3 " + std::string(KXQ_PATH)), 1) << "longer than the maximum";
  EXPECT_EQ(runKxq("put QM1 NOSUCH /dev/null"), 1);
  EXPECT_EQ(runKxq("put NOSUCH Q1 /dev/null"), 1);
  EXPECT_EQ(runKxq("put QM1 Q1 --raw /dev/null"), 1);
  EXPECT_EQ(runKxq("put QM1 Q1 --priority x"), 2);
  EXPECT_EQ(runKxq("browse QM1 Q1"), 2);
  EXPECT_EQ(runKxq("frobnicate"), 2);
  EXPECT_EQ(runKxq("--help"), 0);

  EXPECT_EQ(runKxq("put QM1 Q1 --format KXSTR --ccsid 819 --msgid 0a0b --correlid ff /dev/null"),
            0);
  std::vector<Message> m = browseAll("Q1");
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(memcmp(m[0].md.Format, "KXSTR   ", 8), 0);
  EXPECT_EQ(m[0].md.CodedCharSetId, 819);
  EXPECT_EQ(m[0].md.MsgId[0], 0x0a);
  EXPECT_EQ(m[0].md.MsgId[1], 0x0b);
  EXPECT_EQ(m[0].md.MsgId[2], 0);
  EXPECT_EQ(m[0].md.CorrelId[0], 0xff);
  EXPECT_EQ(runKxq("clear QM1 Q1"), 0);
  EXPECT_EQ(browseAll("Q1").size(), 0u);
  EXPECT_EQ(runKxq("delete-queue QM1 Q1"), 0);
  EXPECT_EQ(runKxq("delete-queue QM1 Q1"), 1);
  EXPECT_EQ(runKxq("delete-qmgr QM1"), 0);
  EXPECT_EQ(runKxq("list QM1"), 1);
}
