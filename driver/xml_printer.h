// XML message output: a document body is parsed and written back pretty-printed in the output
// encoding. Parse and serializer errors go to standard error; none of them ends the run.
#pragma once

#include <cstdint>
#include <cstdio>

// Room of the output encoding name ("-oenc"), terminating zero included.
inline constexpr size_t kEncodingNameRoom = 101;

// Parses `length` bytes (a zero byte follows them) and prints the banner, the size line
// (unless noSizeLine) and the document. An empty `encodingName` becomes "UTF-8" for the rest of
// the run. The counter advances only for a document that parsed.
void printXmlMsg(const char* doc, uint32_t length, const char* queueName, FILE* out,
                 char* encodingName, int32_t* msgCounter, int32_t noSizeLine);

// Releases the XML library at the end of the run.
void xmlShutdown();
