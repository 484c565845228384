// Subscription schema messages: the column descriptor and the name tables shared by every
// printer that prints a column.
//
// Column descriptor (qColSchema), offsets from its start:
//   0 u16 coltype (bit 0: nullable)   2 u8 partKeyNum   3 u8 flags (bit 0 asc, bit 1 nulls last)
//   4 u32 typelen (DECIMAL: byte 4 precision, byte 5 scale)   8 u32 codepage   12 u16 + colname
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include "qmsg/msg.h"
#include "qmsg/names.h"
#include "qmsg/sink.h"

// SQL type codes, named with bit 0 (nullable) cleared.
inline constexpr ValueName kColumnTypes[] = {
    {384, "DATE"},        {388, "TIME"},         {392, "TIMESTAMP"},
    {404, "BLOB"},        {408, "CLOB"},         {412, "DBCLOB"},
    {448, "VARCHAR"},     {452, "CHAR"},         {456, "LONG VARCHAR"},
    {460, "C STRING"},    {464, "VARGRAPHIC"},   {468, "GRAPHIC"},
    {472, "LONG VARGRAPHIC"}, {480, "DOUBLE"},   {484, "DECIMAL"},
    {492, "BIGINT"},      {496, "INTEGER"},      {500, "SMALLINT"},
    {908, "VARBINARY"},   {912, "BINARY"},       {988, "xml"},
    {996, "DECFLOAT"},    {2436, "BOOLEAN"},     {2448, "TIMESTAMP WITH TIME ZONE"},
};

// The type codes the printers treat specially (bit 0 cleared).
enum : uint16_t {
  kColDate = 384, kColTime = 388, kColTimestamp = 392, kColBlob = 404, kColClob = 408,
  kColDbclob = 412, kColVarchar = 448, kColChar = 452, kColLongVarchar = 456, kColCString = 460,
  kColVargraphic = 464, kColGraphic = 468, kColLongVargraphic = 472, kColDouble = 480,
  kColDecimal = 484, kColBigint = 492, kColInteger = 496, kColSmallint = 500,
  kColDecimal504 = 504, kColVarbinary = 908, kColBinary = 912, kColXml = 988,
  kColDecfloat = 996, kColBoolean = 2436, kColTimestampTz = 2448,
};

inline const char* columnTypeName(uint32_t code) { return nameOf(kColumnTypes, code & ~1u, "Unknown"); }

// qColSchema::printMe: the column descriptor at `at` (already in machine order), with the
// three more lines of partitioning-key mode when partKey is set, through the sink `o`.
template <class O>
int32_t printColSchema(QMsg& m, O& o, size_t at, bool partKey);
// The same in text, to the message's stream.
int32_t printColSchema(QMsg& m, size_t at, bool partKey);

// The field sink that learns who a subscription schema message (type 1) names: its sub_id,
// subname and source table's owner and name, kept as the JSON rendering writes them (the texts
// converted to the run's output code page, nothing trimmed). Every other field is dropped
// unformatted, so decoding a schema into the cache costs no rendering:
//
//   SchemaNamesSink names;
//   if (learnSchemaMsg(copy, length, &enc, &cm, names) == 0 && names.hasSubId) ...
class SchemaNamesSink : public TopFieldSink<SchemaNamesSink> {
 public:
  bool hasSubId = false;
  int32_t subId = 0;      // as "sub_id" reads
  std::string subname;    // "subname"
  std::string srcOwner;   // "src_owner"
  std::string srcName;    // "src_name"

 private:
  friend TopFieldSink<SchemaNamesSink>;
  // Fields of the columns, partitioning keys and transaction context lie deeper and never come.
  template <typename T>
  void keepTop(const char* key, const T& v) {
    if constexpr (std::is_same_v<T, ConvText>) {
      std::string* to = std::strcmp(key, "subname") == 0     ? &subname
                        : std::strcmp(key, "src_owner") == 0 ? &srcOwner
                        : std::strcmp(key, "src_name") == 0  ? &srcName
                                                             : nullptr;
      if (to != nullptr) to->assign(v.data(), static_cast<size_t>(v.size()));
    } else if constexpr (std::is_same_v<T, int32_t>) {
      if (std::strcmp(key, "sub_id") == 0) {
        subId = v;
        hasSubId = true;
      }
    }
  }
};
