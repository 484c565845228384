// Writes the seed corpora of the fuzz targets from the traffic generator's encoders:
//   make_corpus <dir>   fills <dir>/compact, <dir>/rfh2, <dir>/xml and <dir>/cmdline
// Compact seeds cover every message family at every layout version, from a little-endian
// UTF-8, a big-endian UTF-8 and a big-endian EBCDIC sender; rows and LOBs follow the schema
// message of their subscription in the same seed (fuzz_common.h describes the input layout).
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "tools/gen/encode_data.h"
#include "tools/gen/encode_file_transfer.h"
#include "tools/gen/encode_lifecycle.h"
#include "tools/gen/encode_queue_control.h"
#include "tools/gen/encode_restart.h"
#include "tools/gen/encode_schema_change.h"

namespace {

struct Sender {
  ByteOrder order;
  int32_t ccsid;
  const char* tag;
};
constexpr Sender kSenders[] = {{ByteOrder::Little, 1208, "le"},
                               {ByteOrder::Big, 1208, "be"},
                               {ByteOrder::Big, 37, "ebcdic"}};

std::string g_dir;
int g_files = 0;

void writeFile(const std::string& sub, const std::string& name, const std::vector<uint8_t>& bytes) {
  std::string dir = g_dir + "/" + sub;
  mkdir(dir.c_str(), 0755);
  std::string path = dir + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fclose(f) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  ++g_files;
}

// A compact seed: the mode byte of the sender, then the messages separated by the marker.
void compact(const std::string& name, const Sender& s, std::initializer_list<Bytes> msgs) {
  Bytes seed{seedMode(s.order == ByteOrder::Big, s.ccsid)};
  bool first = true;
  for (const Bytes& m : msgs) {
    if (!first) seed.insert(seed.end(), kFuzzSplit, kFuzzSplit + 4);
    first = false;
    seed.insert(seed.end(), m.begin(), m.end());
  }
  writeFile("compact", name + "-" + s.tag, seed);
}

SchemaMsgDef schema(uint16_t version, int32_t ccsid) {
  SchemaMsgDef d;
  d.version = version;
  d.subId = 700;
  d.searchCond = "WHERE :ID > 0";
  d.activeNodes = {1, 2};
  if (version >= 8) d.ext = GenericTransInfoDef{};
  d.columns = {
      {"ID", 496, 4, 0},          {"SMALL", 501, 2, 0},      {"BIG", 493, 8, 0},
      {"DBL", 481, 8, 0},         {"REAL", 481, 4, 0},       {"PRICE", 485, 0, 0, 7, 2},
      {"DF16", 997, 8, 0},        {"DF34", 997, 16, 0},      {"CODE", 453, 10, ccsid},
      {"NAME", 449, 20, ccsid},   {"STAMP", 393, 26, ccsid}, {"GR", 469, 5, 1200},
      {"VGR", 465, 10, 1200},     {"NOTE", 409, 1000, ccsid}, {"PIC", 405, 1000, 0},
      {"DNOTE", 413, 1000, 1200}, {"BIN", 913, 2, 0},        {"VBIN", 909, 4, 0},
  };
  if (version >= 9) {
    d.partKeys = {{"ID", 496, 4, 0, 0, 0, 1, 1}};
    PartRangeDef r;
    r.fromStrs = {"0"};
    r.toStrs = {"1000"};
    d.ranges = {r};
  }
  return d;
}

std::vector<ColValue> values(const Sender& s) {
  ByteOrder o = s.order;
  return {valSmallint(-2, o),
          valBigint(9000000000LL, o),
          valDouble(123.4567890123, o),
          valFloat(1.5f, o),
          valDecimal("-12.50", 7, 2),
          valDecfloat("15", -1, false, 8, o),
          valDecfloat("12345678901234567890123456789012", -30, false, 16, o),
          valText("ABC       ", s.ccsid),
          valVarchar("hello", s.ccsid, o),
          valText("2026-11-21-22.48.57.123456", s.ccsid),
          valGraphic("Grüße", o),
          valVargraphic("日本", o),
          valLobRef(1, 13, 9, o, valText("clob text", s.ccsid).data),
          valLobRef(2, 14, 5000, o),
          valLobRef(1, 15, 4, o, utf16("ＡＢ", o)),
          marker(kMarkerNull),
          valVarchar("\xca\xfe", 0, o)};
}

RowDef row(const Sender& s, uint8_t op, bool batched) {
  RowDef r;
  r.subId = 700;
  r.operation = op;
  if (op != 32) {  // not a delete: after image
    r.keyAfter = std::vector<ColValue>{valInteger(7, s.order)};
    r.colsAfter = values(s);
  }
  if (op != 16) {  // not an insert: before image
    r.keyBefore = std::vector<ColValue>{valInteger(6, s.order)};
    r.colsBefore = std::vector<ColValue>{marker(kMarkerSuppressed), marker(kMarkerOversized)};
  }
  if (batched) r.batched = BatchedTransHeaderDef{};
  return r;
}

void dataFamilies(const Sender& s) {
  for (uint16_t v = 1; v <= 16; ++v)
    compact("schema-v" + std::to_string(v), s, {encodeSchemaMsg(schema(v, s.ccsid), s.order, s.ccsid)});
  const Bytes sch = encodeSchemaMsg(schema(11, s.ccsid), s.order, s.ccsid);
  for (uint16_t v = 1; v <= 9; ++v) {
    TransMsgDef t;
    t.version = v;
    t.rows = {row(s, 16, v >= 8), row(s, 64, false), row(s, 32, false)};
    compact("trans-v" + std::to_string(v), s, {sch, encodeTransMsg(t, s.order, s.ccsid)});
    compact("spill-v" + std::to_string(v), s, {sch, encodeSpilledRowMsg(v, row(s, 16, false), s.order, s.ccsid)});
  }
  // A row whose subscription has no cached schema.
  {
    TransMsgDef t;
    t.rows = {row(s, 16, false)};
    compact("trans-noschema", s, {encodeTransMsg(t, s.order, s.ccsid)});
  }
  for (uint16_t v = 6; v <= 9; ++v) {
    StreamedTransMsgDef t;
    t.version = v;
    RowDef chunk;
    chunk.subId = 700;
    StmtChunkDef c;
    c.operation = 64;
    c.format = 3;
    c.cols = {{9, 1, 453, 10}, {2, 2, 497, 4}};
    chunk.chunk = c;
    chunk.operation = 160;
    t.rows = {row(s, 16, false), chunk};
    compact("streamed-v" + std::to_string(v), s, {sch, encodeStreamedTransMsg(t, s.order, s.ccsid)});
  }
  for (uint16_t v = 6; v <= 7; ++v) {
    for (uint16_t col : {13, 14, 15}) {
      LobMsgDef l;
      l.version = v;
      l.subId = 700;
      l.colNum = col;
      l.doubleByte = col == 15;
      if (col == 15) {
        l.data = utf16("ＡＢＣ", s.order);
      } else {
        std::string t = col == 13 ? MsgWriter::encodeText("lob part text", s.ccsid) : std::string("\x01\x02\xff", 3);
        l.data = Bytes(t.begin(), t.end());
      }
      compact("lob-v" + std::to_string(v) + "-c" + std::to_string(col), s, {sch, encodeLobMsg(l, s.order, s.ccsid)});
    }
  }
}

void controlFamilies(const Sender& s) {
  auto put = [&](const std::string& name, const MsgWriter& w) { compact(name, s, {w.bytes()}); };
  for (uint16_t v = 1; v <= 3; ++v) {
    RestartMsgFields f;
    f.version = v;
    f.partitions = {sampleLogPosition(1, 1), sampleLogPosition(2, 2)};
    RestartSendqEntry e;
    e.lastCommitLsn = sampleLogPosition(3);
    e.restartPoints = {sampleLogPosition(4), sampleLogPosition(5)};
    f.sendqs = {e, e};
    put("restart-v" + std::to_string(v), encodeRestartMsg(f, s.order, s.ccsid));
    f.behindQueue = "KXRP.BEHIND.Q";
    put("restart-behind-v" + std::to_string(v), encodeRestartMsg(f, s.order, s.ccsid));
  }
  for (uint16_t v : {1, 7, 8, 9}) {
    LoadDoneFields f;
    f.version = v;
    f.trans.uow = {1, 2, 3, 4, 5, 6};
    put("loaddone-v" + std::to_string(v), encodeLoadDoneMsg(f, s.order, s.ccsid));
    HeartbeatFields h;
    h.version = v;
    h.lastLogCmtLsn = sampleLogPosition(9);
    put("heartbeat-v" + std::to_string(v), encodeHeartbeatMsg(h, s.order, s.ccsid));
  }
  put("subdeact", encodeSubDeactivatedMsg({}, s.order, s.ccsid));
  put("createsub", encodeCreateSubMsg({}, s.order, s.ccsid));
  put("dropsub", encodeDropSubMsg({}, s.order, s.ccsid));
  for (uint16_t v = 1; v <= 2; ++v) {
    P2pJoinUsFields j;
    j.version = v;
    put("p2pjoinus-v" + std::to_string(v), encodeP2pJoinUsMsg(j, s.order, s.ccsid));
  }
  P2pFields p;
  put("p2pspooling", encodeP2pSpoolingMsg(p, s.order, s.ccsid));
  put("p2ploaddone", encodeP2pLoadDoneMsg(p, s.order, s.ccsid));
  put("p2pcapstop", encodeP2pCapStopMsg(p, s.order, s.ccsid));
  put("p2psubstopping", encodeP2pSubStoppingMsg(p, s.order, s.ccsid));
  put("p2preadytostop", encodeP2pReadyToStopMsg(p, s.order, s.ccsid));
  put("p2psubdeact", encodeP2pSubDeactivatedMsg(p, s.order, s.ccsid));
  for (uint16_t v : {1, 8, 9, 13, 14, 15}) {
    AddColumnFields a;
    a.version = v;
    a.hasDefault = 1;
    a.defaultVal = "'none'";
    a.beforeColName = "OLD";
    a.targetColName = "NEW";
    put("addcol-v" + std::to_string(v), encodeAddColumnMsg(a, s.order, s.ccsid));
    DropColumnFields d;
    d.version = v;
    put("dropcol-v" + std::to_string(v), encodeDropColumnMsg(d, s.order, s.ccsid));
    d.ddlCode = 1;
    put("altercol-v" + std::to_string(v), encodeDropColumnMsg(d, s.order, s.ccsid));
    d.ddlCode = 16;
    put("genericddl-v" + std::to_string(v), encodeDropColumnMsg(d, s.order, s.ccsid));
  }
  put("ddl-unknown", encodeDdlMsg(0, 1, {1, 2, 3, 4}, s.order, s.ccsid));
  put("addreplkey", encodeAddReplKeyColMsg({}, s.order, s.ccsid));
  put("truncate", encodeTruncateTableMsg(7, 1, s.order, s.ccsid));
  put("redefinekey", encodeRedefineReplKeyMsg({}, s.order, s.ccsid));
  SyncRequestFields sr;
  sr.lastCommitSeq = sampleLogPosition(7);
  put("syncrequest", encodeSyncRequestMsg(sr, s.order, s.ccsid));
  put("syncresponse", encodeSyncResponseMsg({}, s.order, s.ccsid));
  put("seqtimereset", encodeSeqTimeResetMsg({}, s.order, s.ccsid));
  for (uint16_t v = 1; v <= 2; ++v) {
    FuncLevelFields fl;
    fl.version = v;
    fl.lastCommitLsn = sampleLogPosition(1);
    fl.restartLsn = sampleLogPosition(2);
    put("funclevel-v" + std::to_string(v), encodeFuncLevelMsg(fl, s.order, s.ccsid));
    AdminQFields aq;
    aq.version = v;
    put("adminq-v" + std::to_string(v), encodeAdminQMsg(aq, s.order, s.ccsid));
  }
  put("sendqstart", encodeSendqStartMsg(1, s.order, s.ccsid));
  for (uint16_t v : {10, 11, 12}) {
    XfChunkFields c;
    c.controlMsgId = sampleXfMsgId(1);
    c.data = {'a', 'b', 'c', '\n'};
    put("xfpayload-v" + std::to_string(v), encodeXfPayloadMsg({c, c}, v, s.order, s.ccsid));
    XfResponseFields r;
    r.fileInfo = c;
    put("xfadmin-v" + std::to_string(v), encodeXfAdminMsg({r, r}, v, s.order, s.ccsid));
    XfHeartBeatFields h;
    h.version = v;
    put("xfheartbeat-v" + std::to_string(v), encodeXfHeartBeatMsg(h, s.order, s.ccsid));
  }
}

// A KXHRF2 header with the given folders and an XML body after it, in the sender's order and
// code page; the mode byte first.
void rfh2(const std::string& name, const Sender& s, std::initializer_list<std::string> folders,
          const std::string& body) {
  MsgWriter w(s.order, s.ccsid);
  w.raw(0, "RFH ");
  w.u32(4, 2);
  size_t at = 36;
  for (const std::string& f : folders) {
    std::string text = w.encodeText(f);
    while (text.size() % 4 != 0) text += w.encodeText(" ");
    w.u32(at, static_cast<uint32_t>(text.size()));
    w.raw(at + 4, text);
    at += 4 + text.size();
  }
  w.u32(8, static_cast<uint32_t>(at));
  w.raw(at, body);
  Bytes seed{static_cast<uint8_t>(seedMode(s.order == ByteOrder::Big, s.ccsid) | 0x20)};
  seed.insert(seed.end(), w.bytes().begin(), w.bytes().end());
  writeFile("rfh2", name + "-" + s.tag, seed);
}

const char* const kXmlDocs[] = {
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><order id=\"7\"><line no=\"1\">Widget</line><!-- c --></order>",
    "<a xmlns=\"urn:x\" xmlns:b=\"urn:b\"><b:c>text &amp; more</b:c><![CDATA[raw <data>]]><d/></a>",
    "<?xml version=\"1.0\"?><!DOCTYPE r [<!ELEMENT r (#PCDATA)><!ENTITY e \"ent\">]><r>&e;</r>",
    "<r><?pi data?><x a='1' b=\"2\">Grüße 日本</x></r>",
    "<unclosed><x></unclosed>",
    // Once made the printer wait on standard input, and expand for minutes.
    "<!DOCTYPE a SYSTEM \"/dev/stdin\"><a/>",
    "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c "
    "\"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\"><!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e "
    "\"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\"><!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\">]><r>&f;</r>",
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus <dir>\n");
    return 2;
  }
  g_dir = argv[1];
  mkdir(g_dir.c_str(), 0755);
  for (const Sender& s : kSenders) {
    dataFamilies(s);
    controlFamilies(s);
    rfh2("mcd-usr", s, {"<mcd><Msd>xml</Msd></mcd>", "<usr><k>v</k></usr>"}, "<doc><x>1</x></doc>");
    rfh2("nofolders", s, {}, "<doc/>");
  }
  int i = 0;
  for (const char* d : kXmlDocs) {
    std::string doc(d);
    Bytes seed{static_cast<uint8_t>(i % 8)};
    seed.insert(seed.end(), doc.begin(), doc.end());
    writeFile("xml", "doc" + std::to_string(i++), seed);
  }
  const std::vector<std::string> lines[] = {
      {"RECVQ", "QM1"},
      {"RECVQ", "QM1", "-o", "/tmp/out.txt", "-oenc", "UTF-8", "-l", "5", "-s", "2"},
      {"RECVQ", "QM1", "-hex", "-kxmd", "-msghdr", "-delmsg"},
      {"RECVQ", "QM1", "-l"},
      {"RECVQ", "QM1", "-l", "x"},
      {"-help"},
      {"RECVQ"},
      {"RECVQ", "QM1", "-o", "-hex"},
      {"RECVQ", "QM1", "-bogus"},
  };
  i = 0;
  for (const auto& words : lines) {
    Bytes seed;
    for (size_t k = 0; k < words.size(); ++k) {
      if (k > 0) seed.push_back(0);
      seed.insert(seed.end(), words[k].begin(), words[k].end());
    }
    writeFile("cmdline", "args" + std::to_string(i++), seed);
  }
  std::printf("%d seeds written to %s\n", g_files, g_dir.c_str());
  return 0;
}
