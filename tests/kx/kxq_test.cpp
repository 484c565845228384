// kxq_test.cpp - the queue admin tool run as a program: dump and load round trip byte for byte,
// through files and through a pipe; raw message files that are never overwritten; damaged
// dumps that load nothing; damaged queue manager files named with their cause; failures that
// must end with a non-zero exit.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "version.h"

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

struct Shell {
  int status;
  std::string out, err;
};

// Runs a shell command line in which "KXQ" stands for the program, capturing both streams.
Shell runShell(const std::string& line, const std::string& dir) {
  std::string cmd = line;
  for (size_t at; (at = cmd.find("KXQ")) != std::string::npos;) cmd.replace(at, 3, KXQ_PATH);
  std::string full = "(" + cmd + ") >" + dir + "/sh.out 2>" + dir + "/sh.err";
  int status = std::system(full.c_str());
  std::ifstream o(dir + "/sh.out", std::ios::binary), e(dir + "/sh.err", std::ios::binary);
  std::stringstream so, se;
  so << o.rdbuf();
  se << e.rdbuf();
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, so.str(), se.str()};
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

namespace {

// kxq's exit status and what it wrote to standard output and standard error together.
std::pair<int, std::string> runKxqOutput(const std::string& args, const std::string& dir) {
  std::string out = dir + "/kxq.out";
  std::string cmd = std::string(KXQ_PATH) + " " + args + " >" + out + " 2>&1";
  int status = std::system(cmd.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out)};
}

// The message files of a directory, by name.
std::vector<std::string> messageFiles(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string fileName(int n) {
  char name[16];
  snprintf(name, sizeof name, "%04d.msg", n);
  return name;
}

}  // namespace

// A damaged queue manager file: every command says "object damaged", names the file and gives
// SQLite's words for the cause, and exits 1 at once (no retry mends it).
TEST_F(KxTest, KxqNamesADamagedFileAndItsCause) {
  struct Row {
    const char* name;
    const char* command;
    void (*damage)(const std::string& file);
    const char* cause;
  };
  const Row rows[] = {
      {"cut short", "browse QM1 Q1 --to ",
       [](const std::string& f) { ASSERT_EQ(truncate(f.c_str(), 8192), 0); },
       "database disk image is malformed"},
      {"not a database", "put QM1 Q1 /dev/null",
       [](const std::string& f) { std::ofstream(f, std::ios::binary) << "plain text"; },
       "file is not a database"},
      {"a directory", "list QM1",
       [](const std::string& f) {
         ASSERT_EQ(unlink(f.c_str()), 0);
         ASSERT_EQ(mkdir(f.c_str(), 0700), 0);
       },
       "is a directory"},
  };
  char path[512];
  ASSERT_EQ(kxmDataPath(path, sizeof path), 0);
  const std::string file = std::string(path) + "/QM1.kxdb";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    kxmDeleteQmgr("QM1", nullptr, 0);
    std::string rmdir = "rm -rf '" + file + "'";
    ASSERT_EQ(std::system(rmdir.c_str()), 0);
    ASSERT_EQ(runKxq("create-qmgr QM1"), 0);
    ASSERT_EQ(runKxq("create-queue QM1 Q1"), 0);
    ASSERT_EQ(runKxq("put QM1 Q1 " + std::string(KXQ_PATH)), 0);
    row.damage(file);
    std::string command = row.command;
    if (command.back() == ' ') command += dir_ + "/out";
    auto [status, text] = runKxqOutput(command, dir_);
    EXPECT_EQ(status, 1) << text;
    EXPECT_NE(text.find(file), std::string::npos) << text;
    EXPECT_NE(text.find(row.cause), std::string::npos) << text;
    if (std::string(row.command) != "list QM1") {
      EXPECT_NE(text.find("object damaged (cc=2, reason=2101)"), std::string::npos) << text;
    }
  }
  std::string rmdir = "rm -rf '" + file + "'";
  ASSERT_EQ(std::system(rmdir.c_str()), 0);
}

// create-qmgr makes the dead-letter queue; list shows each queue's back-out threshold.
TEST_F(KxTest, KxqListsTheDeadLetterQueueAndBackoutThresholds) {
  kxmDeleteQmgr("QM1", nullptr, 0);
  auto [status, text] = runKxqOutput("create-qmgr QM1", dir_);
  ASSERT_EQ(status, 0) << text;
  EXPECT_EQ(text, "queue manager QM1 created, with dead-letter queue KX.DEAD.LETTER\n");
  ASSERT_EQ(runKxq("create-queue QM1 Q1"), 0);
  auto [listed, table] = runKxqOutput("list QM1", dir_);
  ASSERT_EQ(listed, 0) << table;
  std::istringstream lines(table);
  std::string line, name;
  std::map<std::string, std::string> threshold;
  std::getline(lines, line);
  EXPECT_NE(line.find("BOTHRESH"), std::string::npos) << line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string depth, maxLength, bothresh;
    fields >> name >> depth >> maxLength >> bothresh;
    threshold[name] = bothresh;
  }
  EXPECT_EQ(threshold, (std::map<std::string, std::string>{{"KX.DEAD.LETTER", "0"}, {"Q1", "5"}}));
}

TEST_F(KxTest, GetAndBrowseRunsIntoOneDirectoryNumberOnAndOverwriteNothing) {
  fillQ1();
  std::vector<Message> sent = browseAll("Q1");
  ASSERT_EQ(sent.size(), 40u);
  std::string dir = dir_ + "/got";
  std::filesystem::create_directory(dir);
  // A file of the user's, and one numbered like ours but past the first runs.
  std::ofstream(dir + "/notes.txt") << "mine";
  struct Step {
    const char* args;
    int firstFile, files;  // the files this step adds
  };
  const Step steps[] = {
      {"get QM1 Q1 --count 2", 1, 2},
      {"get QM1 Q1 --count 3", 3, 3},
      {"browse QM1 Q1", 6, 35},  // the 35 left, still on the queue
      {"get QM1 Q1 --count 5", 41, 5},
  };
  for (const Step& step : steps) {
    Shell r = runShell(std::string("KXQ ") + step.args + " --to " + dir, dir_);
    ASSERT_EQ(r.status, 0) << step.args << ": " << r.err;
    EXPECT_EQ(r.out, "") << "summaries go to standard error";
    EXPECT_NE(r.err.find(std::to_string(step.files) + " messages written to " + dir), std::string::npos)
        << r.err;
  }
  EXPECT_EQ(slurp(dir + "/notes.txt"), "mine");
  std::vector<std::string> names = messageFiles(dir);
  ASSERT_EQ(names.size(), 45u + 1);  // 45 message files, no part file left, and the notes
  // Every file holds the message its number says: gets take from the front, the browse saw
  // what was left, and the last get took the first five of those again.
  auto sentAt = [](int file) { return file <= 40 ? file - 1 : file - 41 + 5; };
  for (int file = 1; file <= 45; ++file) {
    std::string raw = slurp(dir + "/" + fileName(file));
    const Message& m = sent[size_t(sentAt(file))];
    ASSERT_EQ(raw.size(), sizeof(KXMD) + m.data.size()) << file;
    EXPECT_EQ(memcmp(raw.data(), &m.md, sizeof(KXMD)), 0) << file;
    EXPECT_EQ(raw.substr(sizeof(KXMD)), m.data) << file;
  }
  EXPECT_EQ(browseAll("Q1").size(), 30u);

  // A run goes on after the highest number, whatever the gaps below it.
  std::ofstream(dir + "/0100.msg") << "not a message of ours";
  ASSERT_EQ(runShell("KXQ get QM1 Q1 --count 1 --to " + dir, dir_).status, 0);
  EXPECT_EQ(slurp(dir + "/0100.msg"), "not a message of ours");
  EXPECT_EQ(slurp(dir + "/0101.msg").substr(sizeof(KXMD)), sent[10].data);
}

TEST_F(KxTest, DumpToStandardOutputLoadsFromStandardInputByteForByte) {
  fillQ1();
  Shell r = runShell("KXQ dump QM1 Q1 - | KXQ load QM1 Q2 -", dir_);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("40 messages dumped from Q1 to standard output"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("40 messages loaded from standard input to Q2"), std::string::npos) << r.err;
  std::vector<Message> a = browseAll("Q1"), b = browseAll("Q2");
  ASSERT_EQ(b.size(), 40u);
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(memcmp(&a[i].md, &b[i].md, sizeof(KXMD)), 0) << i;
    EXPECT_EQ(a[i].data, b[i].data) << i;
  }
  // Standard output carries the dump alone: the same bytes as a file, but for the count in the
  // header, which a pipe cannot be rewound to fill in.
  ASSERT_EQ(runShell("KXQ dump QM1 Q1 - >" + dir_ + "/piped.dump", dir_).status, 0);
  ASSERT_EQ(runShell("KXQ dump QM1 Q1 - | cat >" + dir_ + "/cat.dump", dir_).status, 0);
  ASSERT_EQ(runShell("KXQ dump QM1 Q1 " + dir_ + "/file.dump", dir_).status, 0);
  std::string file = slurp(dir_ + "/file.dump"), piped = slurp(dir_ + "/cat.dump");
  EXPECT_EQ(slurp(dir_ + "/piped.dump"), file);
  ASSERT_EQ(piped.size(), file.size());
  EXPECT_EQ(piped.substr(0, 16) + piped.substr(24), file.substr(0, 16) + file.substr(24));
  EXPECT_EQ(piped.substr(16, 8), std::string(8, '\0'));

  // A reader that goes away is a failure in words, not a silent death.
  Shell bash = runShell("bash -c 'KXQ dump QM1 Q1 - | head -c 10 >/dev/null; exit ${PIPESTATUS[0]}'", dir_);
  EXPECT_EQ(bash.status, 1);
  EXPECT_NE(bash.err.find("cannot write standard output"), std::string::npos) << bash.err;
}

TEST_F(KxTest, DamagedDumpsLoadNothing) {
  fillQ1();
  std::string good = dir_ + "/good.dump";
  ASSERT_EQ(runKxq("dump QM1 Q1 " + good), 0);
  std::string bytes = slurp(good);
  struct Case {
    const char* name;
    std::string content;
    const char* why;
  };
  const Case cases[] = {
      {"one byte after the end", bytes + "x", "bytes follow the end marker"},
      {"a summary line after the end", bytes + "40 messages dumped\n", "bytes follow the end marker"},
      {"two dumps back to back", bytes + bytes, "bytes follow the end marker"},
      {"cut in the middle", bytes.substr(0, bytes.size() / 2), "cut short"},
      {"cut before the end marker", bytes.substr(0, bytes.size() - 12), "ends before its end marker"},
      {"not a dump", "hello", "not a kxq dump file"},
  };
  for (const Case& c : cases) {
    std::string path = dir_ + "/bad.dump";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << c.content;
    for (const std::string& how : {"KXQ load QM1 Q2 " + path, "KXQ load QM1 Q2 - <" + path}) {
      Shell r = runShell(how, dir_);
      EXPECT_EQ(r.status, 1) << c.name;
      EXPECT_NE(r.err.find(c.why), std::string::npos) << c.name << ": " << r.err;
      EXPECT_EQ(browseAll("Q2").size(), 0u) << c.name << ": the queue is left as it was";
    }
  }
}

TEST_F(KxTest, DumpNeverOverwritesAFile) {
  fillQ1();
  std::string path = dir_ + "/kept.dump";
  std::ofstream(path) << "precious";
  Shell r = runShell("KXQ dump QM1 Q1 " + path, dir_);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("already exists"), std::string::npos) << r.err;
  EXPECT_EQ(slurp(path), "precious");
  // Devices are written to as they are.
  EXPECT_EQ(runKxq("dump QM1 Q1 /dev/null"), 0);
}

TEST_F(KxTest, VersionNamesTheProgramAndTheProjectVersion) {
  Shell r = runShell("KXQ --version", dir_);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("kxq ") + RPL_VERSION + "\n");
}
