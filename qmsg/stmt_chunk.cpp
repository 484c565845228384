// Statement chunks (qStmtChunk): the file of rows written for one large statement, carried by a
// row of operation 160, with the list of its data columns (qStmtChunkDataCol).
#include <cinttypes>

#include "qmsg/names.h"
#include "qmsg/row.h"
#include "qmsg/sink.h"
#include "qmsg/schema.h"
#include "runtime/trace.h"

// qStmtChunk, offsets from the chunk start:
//
//   0         4           5        6       8            16        24             26
//   +---------+-----------+--------+-------+------------+---------+--------------+----------------+
//   | length  | operation | format | nCols | fileSize   | nRows   | data columns | fileName offset|
//   +---------+-----------+--------+-------+------------+---------+--------------+----------------+
//
// qStmtChunkDataCol, 12 bytes each, packed from the data-column offset:
//   0 u16 colMask   2 u16 colPosition (as stored)   4 u16 colType   6 u16 reserved   8 u32 typeLen

namespace {

inline constexpr ValueName kChunkOperations[] = {{16, "INSERT"}, {64, "DELETE"}};
inline constexpr ValueName kChunkFormats[] = {{0, "TEXT"}, {3, "BINARY"}};
inline constexpr ValueName kDataColMasks[] = {
    {1, "RPLKX_DATACOL_KEY"},
    {2, "RPLKX_DATACOL_NONKEY"},
    {4, "RPLKX_DATACOL_UNSUBSCRIBED"},
    {9, "RPLKX_DATACOL_KEY WITH FOR BIT DATA COL"},
    {10, "RPLKX_DATACOL_NONKEY WITH FOR BIT DATA COL"},
    {12, "RPLKX_DATACOL_UNSUBSCRIBED WITH FOR BIT DATA COL"},
};
inline constexpr size_t kDataColSize = 12;

// qStmtChunkDataCol::printMe: swaps the entry (colPosition stays as stored) and prints it.
template <class O>
int32_t printDataCol(QMsg& m, O& o, size_t at) {
  Cursor c(m.r);
  const uint16_t mask = c.fix16(at, "qStmtChunkDataCol.colMask");
  const uint16_t position = c.machine<uint16_t>(at + 2, "qStmtChunkDataCol.colPosition");
  const uint16_t type = c.fix16(at + 4, "qStmtChunkDataCol.colType");
  const uint32_t typeLen = c.fix32(at + 8, "qStmtChunkDataCol.typeLen");
  if (!c) return c.rc();
  o.field("colMask", nameOf(kDataColMasks, mask, "Unknown"), "      qStmtChunkDataCol.colMask:         %s\n");
  o.field("colPosition", position, "      qStmtChunkDataCol.colPosition:     %hu\n");
  o.field("colType", columnTypeName(type), "      qStmtChunkDataCol.colType:         %s\n");
  o.field("typeLen", typeLen, "      qStmtChunkDataCol.typeLen:         %u\n");
  return 0;
}

}  // namespace

template <class O>
int32_t printStmtChunk(QMsg& m, O& o, size_t at) {
  RPL_TRACE(kCompPrinters, 26);
  Cursor c(m.r);
  c.fix32(at, "qStmtChunk.length");
  const uint8_t operation = c.u8(at + 4, "qStmtChunk.operation");
  const uint8_t format = c.u8(at + 5, "qStmtChunk.format");
  const uint16_t nCols = c.fix16(at + 6, "qStmtChunk.nCols");
  const uint64_t fileSize = c.fix64(at + 8, "qStmtChunk.fileSize");
  const uint64_t nRows = c.fix64(at + 16, "qStmtChunk.nRows");
  const uint16_t colsAt = c.fix16(at + 24, "qStmtChunk data column offset");
  const uint16_t nameAt = c.fix16(at + 26, "qStmtChunk fileName offset");
  ConvText name;
  const size_t nameField = at + nameAt;
  const size_t room = m.r.size() > nameField ? m.r.size() - nameField : 0;
  if (c)
    c.take(readName(m, nameField, room, name, "qStmtChunk.fileName", "qStmtChunk::printMe", "ConvMgr::cpcvc",
                    "file name"));
  if (!c) return rplTrace_.ret(c.rc());

  o.beginGroup("stmt_chunk");
  o.field("operation", nameOf(kChunkOperations, operation, "Unknown"), "    qStmtChunk.operation:         %s\n");
  o.field("format", nameOf(kChunkFormats, format, "Unknown"), "    qStmtChunk.format:            %s\n");
  o.field("fileSize", fileSize, "    qStmtChunk.fileSize:          %" PRIu64 "\n");
  o.field("nRows", nRows, "    qStmtChunk.nRows:             %" PRIu64 "\n");
  o.field("nCols", nCols, "    qStmtChunk.nCols:             %hu\n");
  o.field("fileName", name, "    qStmtChunk.fileName:          %.*s\n");
  o.text("    ****  qStmtChunkDataCol ****  \n");
  o.beginList("dataCols");
  for (size_t i = 0; i < nCols; ++i) {
    o.text("    * %d *\n", static_cast<int>(i));
    o.beginItem();
    if (!c.take(printDataCol(m, o, at + colsAt + kDataColSize * i))) return rplTrace_.ret(c.rc());
    o.endItem();
  }
  o.endList();
  o.endGroup();
  return rplTrace_.ret(0);
}

#define RPL_STMT_CHUNK_PRINTER(O) template int32_t printStmtChunk(QMsg&, O&, size_t);
RPL_FOR_EACH_SINK(RPL_STMT_CHUNK_PRINTER)
