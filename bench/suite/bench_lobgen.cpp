// bench_lobgen: puts a CLOB value on a queue as a big-endian EBCDIC (37) sender sends it: a
// subscription schema with one CLOB column tagged with code page 37, then the value's bytes,
// taken from a file as they stand, in LOB messages of at most PART bytes each.
//
//   bench_lobgen QMGR QUEUE FILE [PART]
//
// Output: "bench_lobgen: put N messages (B bytes)".
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "kx/kxc.h"
#include "tools/gen/encode_data.h"

namespace {

constexpr int32_t kCcsid = 37;
constexpr ByteOrder kOrder = ByteOrder::Big;

bool check(const char* what, KXLONG cc, KXLONG rc) {
  if (cc == KXCC_OK) return true;
  std::fprintf(stderr, "bench_lobgen: %s failed, cc=%d reason=%d\n", what, int(cc), int(rc));
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr, "usage: bench_lobgen QMGR QUEUE FILE [PART]\n");
    return 1;
  }
  size_t part = argc == 5 ? std::strtoull(argv[4], nullptr, 10) : size_t{1} << 20;
  if (part == 0) part = size_t{1} << 20;
  std::ifstream in(argv[3], std::ios::binary);
  Bytes value((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in.eof() && in.fail()) {
    std::fprintf(stderr, "bench_lobgen: cannot read %s\n", argv[3]);
    return 1;
  }

  SchemaMsgDef schema;
  schema.subname = "LOBBENCH";
  schema.subId = 7;
  schema.nColsInKey = 1;
  schema.columns = {{"DOC_ID", 496, 4, 0}, {"BODY", 409, 1u << 30, kCcsid}};

  char name[KX_Q_MGR_NAME_LENGTH];
  kxSetName(name, sizeof name, argv[1]);
  KXHCONN h = 0;
  KXLONG cc = 0, rc = 0;
  KXCONN(name, &h, &cc, &rc);
  if (!check("KXCONN", cc, rc)) return 2;
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, argv[2]);
  KXHOBJ o = 0;
  KXOPEN(h, &od, KXOO_OUTPUT, &o, &cc, &rc);
  if (!check("KXOPEN", cc, rc)) return 2;

  uint64_t messages = 0, bytes = 0;
  auto put = [&](const Bytes& msg) {
    KXMD md = KXMD_DEFAULT;
    std::memcpy(md.Format, KXFMT_COMPACT, KX_FORMAT_LENGTH);
    md.Encoding = descriptorEncoding(kOrder);
    md.CodedCharSetId = kCcsid;
    KXPMO pmo = KXPMO_DEFAULT;
    pmo.Options = KXPMO_SYNCPOINT;
    KXPUT(h, o, &md, &pmo, KXLONG(msg.size()), const_cast<uint8_t*>(msg.data()), &cc, &rc);
    ++messages;
    bytes += msg.size();
    return check("KXPUT", cc, rc);
  };

  if (!put(encodeSchemaMsg(schema, kOrder, kCcsid))) return 2;
  for (size_t at = 0; at < value.size(); at += part) {
    size_t n = value.size() - at < part ? value.size() - at : part;
    LobMsgDef l;
    l.subId = schema.subId;
    l.rowNum = 2;
    l.colNum = 1;
    l.flag = at + n == value.size() ? 1 : 0;
    l.totalLen = static_cast<uint32_t>(value.size());
    l.data.assign(value.begin() + static_cast<ptrdiff_t>(at), value.begin() + static_cast<ptrdiff_t>(at + n));
    if (!put(encodeLobMsg(l, kOrder, kCcsid))) return 2;
  }
  KXCMIT(h, &cc, &rc);
  if (!check("KXCMIT", cc, rc)) return 2;
  KXCLOSE(h, &o, KXCO_NONE, &cc, &rc);
  KXDISC(&h, &cc, &rc);
  std::printf("bench_lobgen: put %" PRIu64 " messages (%" PRIu64 " bytes)\n", messages, bytes);
  return 0;
}
