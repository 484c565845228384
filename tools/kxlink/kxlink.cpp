// The KX API and the queue-manager admin functions for our command-line tools, bound at run
// time: the local queue manager (libkxm.so) or, when RPLUSEKXCLIENT is TRUE in any case, the
// client library (libkxic.so). So kxq and rplqmgen reach a remote queue manager the same way
// rplqmfmt does. A library that cannot be loaded turns every call into completion code 2 with
// reason 2195 (admin functions: an error with the loader's text).
#include <dlfcn.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace {

struct Library {
  void* handle = nullptr;
  std::string name;
  std::string error;
};

const Library& library() {
  static Library lib;
  static std::once_flag once;
  std::call_once(once, [] {
    std::string use;
    if (const char* v = std::getenv("RPLUSEKXCLIENT"))
      for (const char* p = v; *p; ++p) use += static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
    lib.name = use == "TRUE" ? "libkxic.so" : "libkxm.so";
    lib.handle = dlopen(lib.name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib.handle == nullptr) {
      const char* e = dlerror();
      lib.error = e != nullptr ? e : "unknown error";
    }
  });
  return lib;
}

template <typename Fn>
Fn entry(const char* name) {
  const Library& lib = library();
  if (lib.handle == nullptr) return nullptr;
  return reinterpret_cast<Fn>(dlsym(lib.handle, name));
}

void failed(KXLONG* cc, KXLONG* reason) {
  *cc = KXCC_FAILED;
  *reason = KXRC_UNEXPECTED_ERROR;
}

int32_t adminFailed(const char* name, char* msg, size_t msgLen) {
  const Library& lib = library();
  if (msg != nullptr && msgLen > 0)
    std::snprintf(msg, msgLen, "%s: %s", lib.name.c_str(),
                  lib.handle == nullptr ? lib.error.c_str() : (std::string(name) + " is missing").c_str());
  return -1;
}

}  // namespace

#define KX_FORWARD(NAME, PTYPE, PARAMS, ARGS)                   \
  extern "C" void NAME PARAMS {                                  \
    static PTYPE fn = entry<PTYPE>(#NAME);                       \
    if (fn == nullptr) return failed(CompCode, Reason);          \
    fn ARGS;                                                     \
  }

KX_FORWARD(KXCONN, PKXCONN, (KXCHAR* QMgrName, KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason),
           (QMgrName, Hconn, CompCode, Reason))
KX_FORWARD(KXCONNX, PKXCONNX,
           (KXCHAR* QMgrName, KXCNO* ConnectOpts, KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason),
           (QMgrName, ConnectOpts, Hconn, CompCode, Reason))
KX_FORWARD(KXDISC, PKXDISC, (KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason), (Hconn, CompCode, Reason))
KX_FORWARD(KXOPEN, PKXOPEN,
           (KXHCONN Hconn, KXOD* ObjDesc, KXLONG Options, KXHOBJ* Hobj, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, ObjDesc, Options, Hobj, CompCode, Reason))
KX_FORWARD(KXCLOSE, PKXCLOSE, (KXHCONN Hconn, KXHOBJ* Hobj, KXLONG Options, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, Hobj, Options, CompCode, Reason))
KX_FORWARD(KXGET, PKXGET,
           (KXHCONN Hconn, KXHOBJ Hobj, KXMD* MsgDesc, KXGMO* GetMsgOpts, KXLONG BufferLength,
            void* Buffer, KXLONG* DataLength, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, Hobj, MsgDesc, GetMsgOpts, BufferLength, Buffer, DataLength, CompCode, Reason))
KX_FORWARD(KXPUT, PKXPUT,
           (KXHCONN Hconn, KXHOBJ Hobj, KXMD* MsgDesc, KXPMO* PutMsgOpts, KXLONG BufferLength,
            void* Buffer, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, Hobj, MsgDesc, PutMsgOpts, BufferLength, Buffer, CompCode, Reason))
KX_FORWARD(KXPUT1, PKXPUT1,
           (KXHCONN Hconn, KXOD* ObjDesc, KXMD* MsgDesc, KXPMO* PutMsgOpts, KXLONG BufferLength,
            void* Buffer, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, ObjDesc, MsgDesc, PutMsgOpts, BufferLength, Buffer, CompCode, Reason))
KX_FORWARD(KXINQ, PKXINQ,
           (KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG* Selectors, KXLONG IntAttrCount,
            KXLONG* IntAttrs, KXLONG CharAttrLength, KXCHAR* CharAttrs, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, Hobj, SelectorCount, Selectors, IntAttrCount, IntAttrs, CharAttrLength, CharAttrs,
            CompCode, Reason))
KX_FORWARD(KXSET, PKXSET,
           (KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG* Selectors, KXLONG IntAttrCount,
            KXLONG* IntAttrs, KXLONG CharAttrLength, KXCHAR* CharAttrs, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, Hobj, SelectorCount, Selectors, IntAttrCount, IntAttrs, CharAttrLength, CharAttrs,
            CompCode, Reason))
KX_FORWARD(KXBEGIN, PKXBEGIN, (KXHCONN Hconn, KXBO* BeginOpts, KXLONG* CompCode, KXLONG* Reason),
           (Hconn, BeginOpts, CompCode, Reason))
KX_FORWARD(KXCMIT, PKXCMIT, (KXHCONN Hconn, KXLONG* CompCode, KXLONG* Reason), (Hconn, CompCode, Reason))
KX_FORWARD(KXBACK, PKXBACK, (KXHCONN Hconn, KXLONG* CompCode, KXLONG* Reason), (Hconn, CompCode, Reason))

// Admin functions of the queue manager (same names in both libraries).
extern "C" int32_t kxmDataPath(char* buf, size_t bufLen) {
  using Fn = int32_t (*)(char*, size_t);
  static Fn fn = entry<Fn>("kxmDataPath");
  if (fn == nullptr) return adminFailed("kxmDataPath", buf, bufLen);
  return fn(buf, bufLen);
}

// Why the last call failed; a library without the entry knows no more than the reason.
extern "C" int32_t kxmLastFailure(char* msg, size_t msgLen) {
  using Fn = int32_t (*)(char*, size_t);
  static Fn fn = entry<Fn>("kxmLastFailure");
  if (fn == nullptr) {
    if (msg != nullptr && msgLen > 0) msg[0] = '\0';
    return -1;
  }
  return fn(msg, msgLen);
}

extern "C" int32_t kxmCreateQmgr(const char* qmgr, char* msg, size_t msgLen) {
  using Fn = int32_t (*)(const char*, char*, size_t);
  static Fn fn = entry<Fn>("kxmCreateQmgr");
  if (fn == nullptr) return adminFailed("kxmCreateQmgr", msg, msgLen);
  return fn(qmgr, msg, msgLen);
}

extern "C" int32_t kxmDeleteQmgr(const char* qmgr, char* msg, size_t msgLen) {
  using Fn = int32_t (*)(const char*, char*, size_t);
  static Fn fn = entry<Fn>("kxmDeleteQmgr");
  if (fn == nullptr) return adminFailed("kxmDeleteQmgr", msg, msgLen);
  return fn(qmgr, msg, msgLen);
}

extern "C" int32_t kxmCreateQueue(const char* qmgr, const char* queue, int64_t maxMsgLength, char* msg,
                                  size_t msgLen) {
  using Fn = int32_t (*)(const char*, const char*, int64_t, char*, size_t);
  static Fn fn = entry<Fn>("kxmCreateQueue");
  if (fn == nullptr) return adminFailed("kxmCreateQueue", msg, msgLen);
  return fn(qmgr, queue, maxMsgLength, msg, msgLen);
}

extern "C" int32_t kxmDeleteQueue(const char* qmgr, const char* queue, char* msg, size_t msgLen) {
  using Fn = int32_t (*)(const char*, const char*, char*, size_t);
  static Fn fn = entry<Fn>("kxmDeleteQueue");
  if (fn == nullptr) return adminFailed("kxmDeleteQueue", msg, msgLen);
  return fn(qmgr, queue, msg, msgLen);
}

extern "C" int32_t kxmListQueues(const char* qmgr, KXMQUEUEFN cb, void* ctx, char* msg, size_t msgLen) {
  using Fn = int32_t (*)(const char*, KXMQUEUEFN, void*, char*, size_t);
  static Fn fn = entry<Fn>("kxmListQueues");
  if (fn == nullptr) return adminFailed("kxmListQueues", msg, msgLen);
  return fn(qmgr, cb, ctx, msg, msgLen);
}
