// rplqmfmt end to end: command line, reading loop, printers and output errors, through the
// real local queue manager.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kx/kxm_admin.h"
#include "tests/driver/harness.h"

namespace {

const char* const kUsage =
    "Usage: rplqmfmt <qname> <qmgr name> [-o <output file name>|-oenc <output encoding name>|"
    "-l <number>|-help|-hex|-kxmd|-delmsg|-msghdr]\n"
    "-o  :    Redirect output to a file.\n"
    "-l  :    Limit output messages as specified.\n"
    "-hex:    See hex dump of the messages.\n"
    "-kxmd:   Display KX descriptor.\n"
    "-oenc:   Output encoding name.\n"
    "-delmsg: Delete messages after formatting.\n"
    "-msghdr: Display message header only.\n"
    "-help:   Display this help.\n";

// Standard error without the notice that the middleware library was loaded (message 585,
// issued on every run).
std::string reports(const std::string& err) {
  std::string kept;
  size_t at = 0;
  while (at < err.size()) {
    size_t end = err.find('\n', at);
    end = end == std::string::npos ? err.size() : end + 1;
    std::string line = err.substr(at, end - at);
    if (line.find("RPL0585I") == std::string::npos) kept += line;
    at = end;
  }
  return kept;
}

std::string textMsg(int n, const std::string& text) {
  return "\n\n**** Message number: " + std::to_string(n) + "\n**** Message size:   " +
         std::to_string(text.size() + 364) + "\n\n" + text + "\n";
}

// A KXHRF2 header of `strucLength` bytes: the fixed 36 bytes, then the folders given.
std::string rfh2(uint32_t strucLength, const std::string& folders) {
  std::string h(36, '\0');
  std::memcpy(h.data(), "RFH ", 4);
  uint32_t version = 2;
  std::memcpy(h.data() + 4, &version, 4);
  std::memcpy(h.data() + 8, &strucLength, 4);
  std::memcpy(h.data() + 28, "KXSTR   ", 8);
  return h + folders;
}

std::string folder(uint32_t length, const std::string& text) {
  std::string f(4, '\0');
  std::memcpy(f.data(), &length, 4);
  return f + text;
}

using CommandLineTest = QueueTest;

TEST_F(CommandLineTest, UsageAndHelpExitZeroWithoutConnecting) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{}, {"-help"}, {"Q", "NOQM", "-help"}, {"Q", "NOQM", "-hex", "-help", "-bad"}}) {
    RunResult r = run(words);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kUsage);  // no connection message: NOQM does not exist
    EXPECT_EQ(reports(r.err), "");
  }
}

TEST_F(CommandLineTest, ErrorsReportTheirTextPrintTheUsageAndExitMinusOne) {
  struct Case { std::vector<std::string> words; const char* text; };
  const Case cases[] = {
      {{"Q1"}, "One or all of these required parameters are missing: queue name and queue manager name."},
      {{"Q1", "QM1", "-l", "5x"}, "Limit 5x specified is not valid."},
      {{"Q1", "QM1", "-s", "x"}, "SkipNum x specified is not valid."},
      {{"Q1", "QM1", "-o", "-x"}, "Unknown option -o."},
      {{"Q1", "QM1", "-o", "-hex"}, "Option -o must be followed by a file name."},
      {{"Q1", "QM1", "-o"}, "Option -o must be followed by a file name."},
      {{"Q1", "QM1", "-oenc", "-l"}, "Option -oenc must be followed by an encoding name."},
      {{"Q1", "QM1", "-oenc", "-utf8"}, "Unknown option -oenc."},
      {{"Q1", "QM1", "-hex", "bogus"}, "Unknown option bogus."},
  };
  put("never read");
  for (const Case& c : cases) {
    RunResult r = run(c.words);
    EXPECT_EQ(r.status, 255) << c.text;
    EXPECT_EQ(r.out, kUsage) << c.text;
    EXPECT_NE(r.err.find(c.text), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("RPL0589E"), std::string::npos) << r.err;
  }
  EXPECT_EQ(depth(), 1);
}

TEST_F(CommandLineTest, ConnectionFailureIsPrintedOnStandardOutputAndReported) {
  RunResult r = run({"Q1", "NOQM"});
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out, "Connection to the queue manager NOQM failed, Velora KX cc=2, rc=2058.\n");
  EXPECT_NE(r.err.find("Connection to the queue manager NOQM failed"), std::string::npos);
  EXPECT_NE(r.err.find("\"KXCONN\""), std::string::npos);
}

TEST_F(CommandLineTest, LimitWithoutValueIsOneAndKeepsTheNextOption) {
  put("first");
  put("second");
  RunResult r = run({"Q1", "QM1", "-l", "-hex"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(occurrences(r.out, "**** Message number:"), 1);
  EXPECT_NE(r.out.find("**** Message Descriptor: \n"), std::string::npos);
  EXPECT_NE(r.out.find("**** Message Content: size:   5\n"), std::string::npos);
}

TEST_F(CommandLineTest, LongQueueNameIsCutTo48Characters) {
  const std::string name48(48, 'L');
  char msg[256];
  ASSERT_EQ(kxmCreateQueue(kQmgr, name48.c_str(), -1, msg, sizeof msg), 0) << msg;
  RunResult r = run({name48 + "EXTRA-IGNORED", "QM1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(reports(r.err), "");
}

TEST_F(CommandLineTest, UnknownQueueIsAnOpenFailure) {
  RunResult r = run({"NOQ", "QM1"});
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.err.find("Open queue NOQ failed, Velora cc=2, rc=2085."), std::string::npos) << r.err;
}

TEST_F(CommandLineTest, OutputFileAndUnopenableFile) {
  put("into a file");
  const std::string file = dir_ + "/out.txt";
  RunResult r = run({"Q1", "QM1", "-o", file});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(readFile(file), textMsg(1, "into a file"));
  r = run({"Q1", "QM1", "-o", dir_ + "/no/such/dir/out.txt"});
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.err.find("Output file " + dir_ + "/no/such/dir/out.txt cannot be opened."), std::string::npos);
}

using ReadLoopTest = QueueTest;

TEST_F(ReadLoopTest, EmptyQueuePrintsNothing) {
  RunResult r = run({"Q1", "QM1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(reports(r.err), "");
}

TEST_F(ReadLoopTest, LimitAndSkipCountTogether) {
  for (int i = 1; i <= 7; ++i) put("m" + std::to_string(i));
  RunResult r = run({"Q1", "QM1", "-l", "2", "-s", "3"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, textMsg(4, "m4") + textMsg(5, "m5"));
  r = run({"Q1", "QM1", "-l", "0"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  r = run({"Q1", "QM1"});
  EXPECT_EQ(occurrences(r.out, "**** Message number:"), 7);
  EXPECT_EQ(depth(), 7);  // browsing leaves the queue whole
}

TEST_F(ReadLoopTest, BufferGrowsOnlyForMessagesThatDoNotFit) {
  put(std::string(4096, 'a'));
  put(std::string(10000, 'b'));
  put(std::string(4096, 'c'));
  const std::string log = dir_ + "/gets.log";
  RunResult r = run({"Q1", "QM1", "-l", "0"}, {"LD_LIBRARY_PATH=" KXSHIM_DIR, "KXSHIM_LOG=" + log});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(readFile(log), "");  // a limit of 0 reads nothing
  r = run({"Q1", "QM1"}, {"LD_LIBRARY_PATH=" KXSHIM_DIR, "KXSHIM_LOG=" + log});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile(log),
            "KXGET 4096 0 0 4096\n"       // fits exactly: one get
            "KXGET 4096 2 2080 10000\n"   // too long: the message stays
            "KXGET 10000 0 0 10000\n"     // and is read again into a buffer of its size
            "KXGET 10000 0 0 4096\n"
            "KXGET 10000 2 2033 0\n");
  EXPECT_EQ(r.out, textMsg(1, std::string(4096, 'a')) + textMsg(2, std::string(10000, 'b')) +
                       textMsg(3, std::string(4096, 'c')));
}

// A message far beyond the first buffer (one the loop takes into huge pages), between small
// ones, browsed and then drained: printed whole each time, taken with two gets.
TEST_F(ReadLoopTest, ABigMessageIsPrintedWholeBetweenSmallOnes) {
  std::string big;
  for (int i = 0; big.size() < (9u << 20); ++i)
    big += "line " + std::to_string(i) + " of a big text\n";
  put("before");
  put(big);
  put("after");
  const std::string want = textMsg(1, "before") + textMsg(2, big) + textMsg(3, "after");
  const std::string log = dir_ + "/gets.log";
  const std::string n = std::to_string(big.size());
  RunResult r = run({"Q1", "QM1"}, {"LD_LIBRARY_PATH=" KXSHIM_DIR, "KXSHIM_LOG=" + log});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile(log), "KXGET 4096 0 0 6\n"
                           "KXGET 4096 2 2080 " + n + "\n"
                           "KXGET " + n + " 0 0 " + n + "\n"
                           "KXGET " + n + " 0 0 5\n"
                           "KXGET " + n + " 2 2033 0\n");
  EXPECT_TRUE(r.out == want) << "browse output differs";
  r = run({"Q1", "QM1", "-delmsg"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.out == want) << "drain output differs";
  EXPECT_EQ(depth(), 0);
}

TEST_F(ReadLoopTest, ZeroLengthUnknownFormatAndText) {
  put("", KXFMT_COMPACT);
  put("", "WHATEVER");
  put("skipped", "WHATEVER");
  put("abc");
  RunResult r = run({"Q1", "QM1", "-l", "3"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "\n\n**** Message number: 1\n**** Message size:   0\n\n"
                   "\n\n**** Message number: 2\n**** Message size:   0\n\n" + textMsg(3, "abc"));
  EXPECT_NE(r.out.find("**** Message size:   367\n"), std::string::npos);
  EXPECT_EQ(occurrences(r.err, "Unknown message format. Message won't be displayed."), 1);
}

TEST_F(ReadLoopTest, DeleteEmptiesTheQueue) {
  for (int i = 1; i <= 3; ++i) put("d" + std::to_string(i));
  RunResult r = run({"Q1", "QM1", "-delmsg", "-l", "2"});
  EXPECT_EQ(r.out, textMsg(1, "d1") + textMsg(2, "d2"));
  EXPECT_EQ(depth(), 1);
  r = run({"Q1", "QM1", "-delmsg"});
  EXPECT_EQ(r.out, textMsg(1, "d3"));
  EXPECT_EQ(depth(), 0);
}

using PrinterTest = QueueTest;

TEST_F(PrinterTest, DescriptorFullAndHeaderOnly) {
  KXMD md = KXMD_DEFAULT;
  std::memcpy(md.Format, KXFMT_STRING, 8);
  md.CodedCharSetId = 1208;
  md.Priority = 4;
  md.Persistence = 1;
  md.Report = 7;
  md.Feedback = 3;
  for (int i = 0; i < 24; ++i) {
    md.MsgId[i] = static_cast<KXBYTE>(i + 1);
    md.CorrelId[i] = static_cast<KXBYTE>(0xA0 + i);
  }
  putMd(md, "x");
  const std::string ids =
      "    MsgId           0102030405060708090a0b0c0d0e0f101112131415161718\n"
      "    CorrelId        a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7\n";
  RunResult r = run({"Q1", "QM1", "-kxmd"});
  EXPECT_EQ(r.out,
            "\n\n**** Descriptor for message number: 1\n"
            "    StrucId         MD   \n" + ids + "\n"
            "    Version         2 \n"
            "    Report          7 \n"
            "    MsgType         8 \n"
            "    Expiry          -1 \n"
            "    Feedback        3 \n"
            "    Encoding        546 \n"
            "    CodedCharSetId  1208 \n"
            "    Format          KXSTR    \n"
            "    Priority        4 \n"
            "    Persistence     1 \n"
            "\n" + textMsg(1, "x"));
  r = run({"Q1", "QM1", "-msghdr"});
  EXPECT_EQ(r.out, "\n\n**** Descriptor for message number: 1\n" + ids + textMsg(1, "x"));
}

TEST_F(PrinterTest, HexRowsLineUp) {
  put("ABCDEFGHIJKLMNOPQRSTUVWXY", "ODDFMT  ");
  RunResult r = run({"Q1", "QM1", "-hex"});
  EXPECT_EQ(r.status, 0);
  const std::string content =
      "**** Message Content: size:   25\n\n"
      " 00000000 41424344 45464748 494A4B4C 4D4E4F50 51525354  ABCDEFGHIJKLMNOPQRST\n"
      " 00000014 55565758 59                                   UVWXY\n";
  ASSERT_GE(r.out.size(), content.size());
  EXPECT_EQ(r.out.substr(r.out.size() - content.size()), content);
  EXPECT_NE(r.out.find("**** Message Descriptor: \n 00000000 4D442020 02000000"), std::string::npos);
  EXPECT_NE(r.out.find(" 00000168 "), std::string::npos);  // last descriptor row at byte 360
  EXPECT_EQ(reports(r.err), "");  // an unknown format is dumped, not refused
}

TEST_F(PrinterTest, HeaderFolders) {
  const std::string mcd = "<mcd><Msd>jms</Msd></mcd>       ";  // 32 bytes
  std::string cut = "<usr><a>1</a></usr>";
  cut += std::string(13, '\0');
  put(rfh2(36, "") + "<a/>", KXFMT_RFH2);
  put(rfh2(36 + 36 + 36, folder(32, mcd) + folder(0x8020, cut)) + "<b>t</b>", KXFMT_RFH2);
  RunResult r = run({"Q1", "QM1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(reports(r.err), "");
  const std::string first = "\nRFH2 Header\n\n\n**** Message number: 1\n**** Message size:   368\n\n";
  ASSERT_EQ(r.out.substr(0, first.size()), first);
  const std::string second =
      "\nRFH2 Header\n"
      "    mcd Folder : <mcd><Msd>jms</Msd></mcd>       \n"
      "    usr Folder : <usr><a>1</a></usr>\n"
      "\n\n**** Message number: 2\n**** Message size:   372\n\n";
  EXPECT_NE(r.out.find(second), std::string::npos) << r.out;
}

TEST_F(PrinterTest, FoldersInAnotherCodePageAndByteOrder) {
  // "<mcd></mcd>" in EBCDIC (CCSID 37), integers big-endian (Encoding 273).
  const std::string ebcdic = "\x4C\x94\x83\x84\x6E\x4C\x61\x94\x83\x84\x6E\x40";
  std::string header = rfh2(0, "") + std::string("\x00\x00\x00\x0C", 4) + ebcdic;
  const uint32_t strucLength = __builtin_bswap32(static_cast<uint32_t>(header.size()));
  std::memcpy(header.data() + 8, &strucLength, 4);
  put(header + "<a/>", PutOptions{KXFMT_RFH2, 37, KXENC_BIG_ENDIAN});
  RunResult r = run({"Q1", "QM1", "-oenc", "UTF-8"});
  EXPECT_EQ(reports(r.err), "");
  EXPECT_EQ(r.out.rfind("\nRFH2 Header\n    mcd Folder : <mcd></mcd> \n\n\n**** Message number: 1\n", 0), 0u)
      << r.out;
}

TEST_F(PrinterTest, FolderPassingTheEndStopsTheRun) {
  put(rfh2(36 + 4 + 8, folder(200, "<mcd></mcd>")), KXFMT_RFH2);
  put("not reached");
  RunResult r = run({"Q1", "QM1"});
  EXPECT_EQ(r.status, 801 & 0xFF);
  EXPECT_NE(r.err.find("RPL0543"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("Cannot decode RFH2 header"), std::string::npos) << r.err;
  EXPECT_EQ(r.out.find("not reached"), std::string::npos);
}

TEST_F(PrinterTest, XmlDocumentsAndParseErrors) {
  put("<a/>");
  put("<broken>");
  put("<doc><v>\xC3\xA9</v></doc>");
  RunResult r = run({"Q1", "QM1"}, {"LANG=C", "LC_ALL=C"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.substr(0, 60).find("\n\n**** Message number: 1\n**** Message size:   368\n\n"), 0u)
      << r.out;
  EXPECT_NE(r.out.find("<a/>"), std::string::npos);
  EXPECT_NE(r.out.find("**** Message number: 2\n"), std::string::npos);  // the broken one takes no number
  EXPECT_EQ(r.out.find("**** Message number: 3\n"), std::string::npos);
  EXPECT_NE(r.out.find("encoding=\"UTF-8\""), std::string::npos);
  EXPECT_NE(r.out.find("<v>\xC3\xA9</v>"), std::string::npos);  // written in UTF-8
  EXPECT_EQ(r.out.find("broken"), std::string::npos);
  EXPECT_NE(r.err.find("Message:"), std::string::npos) << r.err;

  r = run({"Q1", "QM1", "-oenc", "ISO-8859-1"});
  EXPECT_NE(r.out.find("<v>\xE9</v>"), std::string::npos);
}

TEST_F(PrinterTest, AmplifyingXmlIsAParseErrorAndTheRunGoesOn) {
  std::string bomb = "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\">";
  for (char c = 'b'; c <= 'f'; ++c) {
    bomb += std::string("<!ENTITY ") + c + " \"";
    for (int i = 0; i < 10; ++i) bomb += std::string("&") + static_cast<char>(c - 1) + ";";
    bomb += "\">";
  }
  bomb += "]><r>&f;</r>";
  for (int i = 0; i < 3; ++i) put(bomb);
  put("<a/>");
  RunResult r = run({"Q1", "QM1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(occurrences(r.err, "entity expansions in the document"), 3) << r.err;
  EXPECT_EQ(occurrences(r.out, "**** Message number:"), 1) << r.out;
  EXPECT_NE(r.out.find("**** Message number: 1\n"), std::string::npos);
  EXPECT_NE(r.out.find("<a/>"), std::string::npos);
}

using OutputTest = QueueTest;

TEST_F(OutputTest, FullDiskStopsTheRun) {
  for (int i = 0; i < 3; ++i) put("message " + std::to_string(i));
  RunResult r = run({"Q1", "QM1"}, {}, "/dev/full");
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("The output cannot be written"), std::string::npos) << r.err;
  EXPECT_EQ(depth(), 3);
  r = run({"Q1", "QM1", "-o", "/dev/full", "-delmsg"});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("No space left on device"), std::string::npos) << r.err;
  EXPECT_EQ(depth(), 2);  // only the message whose report failed was removed
}

TEST_F(OutputTest, ClosedPipeStopsTheRun) {
  for (int i = 0; i < 3; ++i) put("message " + std::to_string(i));
  RunResult r = run({"Q1", "QM1", "-delmsg"}, {}, nullptr, true);
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("Broken pipe"), std::string::npos) << r.err;
  EXPECT_EQ(depth(), 2);
}

}  // namespace

namespace {

using MiddlewareTest = QueueTest;

TEST_F(MiddlewareTest, LibraryThatCannotBeLoadedGivesTheConnectionMessageWith2195) {
  // An unusable libkxm.so first on the library path hides the bundled one.
  RunResult r = run({"Q1", "QM1"}, {"LD_LIBRARY_PATH=" BROKEN_LIBRARY_DIR});
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out, "Connection to the queue manager QM1 failed, Velora KX cc=2, rc=2195.\n");
  EXPECT_NE(r.err.find("RPL0584E"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("KX library/dll is not found (or) KX function address is NULL"), std::string::npos);
}

TEST_F(MiddlewareTest, FaultInTheMiddlewareEndsTheRunThroughTheRecoveryPoint) {
  RunResult r = run({"Q1", "QM1"}, {"LD_LIBRARY_PATH=" FAKEKXM_DIR});
  EXPECT_EQ(r.status, 0) << r.err;  // the stand-in queue is empty
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer takes the fault itself";
#endif
  r = run({"Q1", "QM1"}, {"LD_LIBRARY_PATH=" FAKEKXM_DIR, "FAKEKX_GET_FAULT=1"});
  EXPECT_EQ(r.status, 2009 & 0xFF);
  EXPECT_EQ(occurrences(r.err, "\"setRecoveryPoint\""), 1) << r.err;
  EXPECT_NE(r.err.find("\"2009\""), std::string::npos) << r.err;
}

}  // namespace

namespace {

// The read loop: how many gets a run makes, what is printed and reported, and how a run ends.

// Ten text messages, the 2nd and the 6th of a Format the loop does not print (they do not
// count toward the limit).
void putTenWithTwoUnknown(QueueTest& t, void (QueueTest::*put)(const std::string&, const char*)) {
  for (int i = 1; i <= 10; ++i)
    (t.*put)("m" + std::to_string(i), i == 2 || i == 6 ? "WHATEVER" : KXFMT_STRING);
}

int lines(const std::string& s) { return occurrences(s, "\n"); }

TEST_F(ReadLoopTest, ALimitGetsNoMoreMessagesThanItCounts) {
  putTenWithTwoUnknown(*this, &QueueTest::put);
  struct Row {
    std::vector<std::string> options;
    int gets;     // including the get that finds the queue at its end
    int printed;  // message banners
  };
  const Row rows[] = {
      {{}, 11, 8},
      {{"-l", "0"}, 0, 0},
      {{"-l", "1"}, 1, 1},
      {{"-l", "2"}, 3, 2},             // the 2nd message does not count: the 3rd is got
      {{"-l", "2", "-s", "1"}, 4, 2},  // skipped messages count
      {{"-l", "5"}, 7, 5},
      {{"-l", "8"}, 10, 8},            // the last message reaches the limit: no end get
      {{"-l", "9"}, 11, 8},
  };
  const std::string log = dir_ + "/gets.log";
  for (const Row& row : rows) {
    std::remove(log.c_str());
    std::vector<std::string> words = {"Q1", "QM1"};
    words.insert(words.end(), row.options.begin(), row.options.end());
    RunResult r = run(words, {"LD_LIBRARY_PATH=" KXSHIM_DIR, "KXSHIM_LOG=" + log});
    const std::string what = ::testing::PrintToString(row.options);
    EXPECT_EQ(r.status, 0) << what << r.err;
    EXPECT_EQ(lines(readFile(log)), row.gets) << what;
    EXPECT_EQ(occurrences(r.out, "**** Message number:"), row.printed) << what;
  }
}

// A get that fails, or faults in the middleware, in the middle of the queue: every message
// before it is printed whole, then the failure is reported and the run ends with its code.
TEST_F(ReadLoopTest, AGetThatFailsMidQueueEndsTheRunAfterTheMessagesBeforeIt) {
  std::string before;
  for (int i = 1; i <= 60; ++i) {
    put("message " + std::to_string(i));
    if (i < 25) before += textMsg(i, "message " + std::to_string(i));
  }
  struct Row {
    const char* setting;
    bool drain;
    int status;
    const char* report;
    int64_t depthAfter;
  };
  const Row rows[] = {
      {"KXSHIM_FAIL_AT=25", false, 1, "KXGET on queue Q1 failed, Velora cc=2, rc=2195.", 60},
      {"KXSHIM_FAULT_AT=25", false, 2009 & 0xFF, "\"setRecoveryPoint\"", 60},
      {"KXSHIM_FAIL_AT=25", true, 1, "KXGET on queue Q1 failed, Velora cc=2, rc=2195.", 36},
  };
  for (const Row& row : rows) {
#if defined(__SANITIZE_ADDRESS__)
    if (row.status != 1) continue;  // the address sanitizer takes the fault itself
#endif
    std::vector<std::string> words = {"Q1", "QM1"};
    if (row.drain) words.push_back("-delmsg");
    RunResult r = run(words, {"LD_LIBRARY_PATH=" KXSHIM_DIR, row.setting});
    EXPECT_EQ(r.status, row.status) << row.setting << r.err;
    EXPECT_TRUE(r.out == before) << row.setting << ": " << occurrences(r.out, "**** Message number:");
    EXPECT_EQ(occurrences(r.err, row.report), 1) << row.setting << r.err;
    EXPECT_EQ(depth(), row.depthAfter) << row.setting;
  }
}

// Output that cannot be written stops a browse that has many messages still to read: the
// run ends with one report, and the queue stays whole.
TEST_F(ReadLoopTest, AClosedPipeStopsABrowseWithMessagesStillToRead) {
  const std::string text(1000, 'x');
  for (int i = 0; i < 3000; ++i) put(text);
  for (const char* limit : {"-1", "2500"}) {
    RunResult r = run({"Q1", "QM1", "-l", limit}, {}, nullptr, true);
    EXPECT_NE(r.status, 0) << limit;
    EXPECT_EQ(occurrences(r.err, "Broken pipe"), 1) << limit << r.err;
    EXPECT_EQ(depth(), 3000) << limit;
  }
}

}  // namespace

namespace {

using TrafficTest = QueueTest;

// The generator's demo traffic reads back whole: every message decoded, nothing reported.
TEST_F(TrafficTest, GeneratedDemoTrafficFormatsWithoutReports) {
#ifndef RPLQMGEN_PATH
  GTEST_SKIP() << "rplqmgen is not built";
#else
  std::string cmd = std::string(RPLQMGEN_PATH) + " " + kQmgr + " " + kQueue + " --scenario demo >/dev/null";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  const int64_t messages = depth();
  ASSERT_GT(messages, 0);
  RunResult r = run({"Q1", "QM1", "-oenc", "UTF-8"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(reports(r.err), "");
  EXPECT_GT(occurrences(r.out, "**** Message number:"), 0);
  r = run({"Q1", "QM1", "-delmsg", "-o", dir_ + "/drained.txt"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(depth(), 0);
#endif
}

}  // namespace
