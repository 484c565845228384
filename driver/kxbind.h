// The Velora KX binding: the middleware library is loaded by name on the first call of any
// messaging operation, its thirteen entries are resolved into a table, and every operation is
// called through a wrapper that turns a missing library or entry into completion code 2,
// reason 2195.
#pragma once

#include <cstdint>

#define KX_NO_PROTOTYPES
#include "kx/kxc.h"

namespace rplkx {

// The server-binding library and the client library, loaded by bare name so that a directory
// in LD_LIBRARY_PATH comes before the bundled one. RPLUSEKXCLIENT=TRUE (any case) selects the
// client library.
inline constexpr const char* kServerLibrary = "libkxm.so";
inline constexpr const char* kClientLibrary = "libkxic.so";
inline constexpr const char* kClientVariable = "RPLUSEKXCLIENT";

// Calls made to a queue manager that stays unavailable, and the pause between them.
inline constexpr int kConnectAttempts = 10;
inline constexpr int kConnectRetryDelayMs = 1001;

// Sets up the binding's lock; the program entry calls it once before the first connect.
int32_t init();
// Suppresses the binding's own log messages (584 to 587) and its failure reports.
void setQuiet(bool quiet);
bool quiet();
// 1 once the library is loaded and every entry resolved.
bool loaded();
// Forgets the entry table and releases the library (after a fault, and in tests).
void cleanup();

// Test hooks: the library names tried, and the pause between connect retries.
void setLibraryNames(const char* server, const char* client);
void setRetryDelayMs(int ms);

// The wrappers, with the arguments of the KX API.
void KXCONN(KXCHAR* qmgrName, KXHCONN* hconn, KXLONG* compCode, KXLONG* reason);
void KXCONNX(KXCHAR* qmgrName, KXCNO* opts, KXHCONN* hconn, KXLONG* compCode, KXLONG* reason);
void KXDISC(KXHCONN* hconn, KXLONG* compCode, KXLONG* reason);
void KXOPEN(KXHCONN hconn, KXOD* od, KXLONG options, KXHOBJ* hobj, KXLONG* compCode,
            KXLONG* reason);
void KXCLOSE(KXHCONN hconn, KXHOBJ* hobj, KXLONG options, KXLONG* compCode, KXLONG* reason);
void KXGET(KXHCONN hconn, KXHOBJ hobj, KXMD* md, KXGMO* gmo, KXLONG bufferLength, void* buffer,
           KXLONG* dataLength, KXLONG* compCode, KXLONG* reason);
void KXPUT(KXHCONN hconn, KXHOBJ hobj, KXMD* md, KXPMO* pmo, KXLONG bufferLength, void* buffer,
           KXLONG* compCode, KXLONG* reason);
void KXPUT1(KXHCONN hconn, KXOD* od, KXMD* md, KXPMO* pmo, KXLONG bufferLength, void* buffer,
            KXLONG* compCode, KXLONG* reason);
void KXINQ(KXHCONN hconn, KXHOBJ hobj, KXLONG selectorCount, KXLONG* selectors,
           KXLONG intAttrCount, KXLONG* intAttrs, KXLONG charAttrLength, KXCHAR* charAttrs,
           KXLONG* compCode, KXLONG* reason);
void KXSET(KXHCONN hconn, KXHOBJ hobj, KXLONG selectorCount, KXLONG* selectors,
           KXLONG intAttrCount, KXLONG* intAttrs, KXLONG charAttrLength, KXCHAR* charAttrs,
           KXLONG* compCode, KXLONG* reason);
void KXBEGIN(KXHCONN hconn, KXBO* opts, KXLONG* compCode, KXLONG* reason);
void KXCMIT(KXHCONN hconn, KXLONG* compCode, KXLONG* reason);
void KXBACK(KXHCONN hconn, KXLONG* compCode, KXLONG* reason);

}  // namespace rplkx
