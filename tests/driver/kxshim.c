/* kxshim.c - a libkxm.so that forwards every call to the real local queue manager and writes
 * one line per KXGET ("KXGET <buffer length> <cc> <reason> <data length>") to the file named
 * by KXSHIM_LOG. Put first on LD_LIBRARY_PATH, it shows how rplqmfmt reads a queue.
 * KXSHIM_FAIL_AT=N makes the N-th KXGET fail with completion code 2 and reason 2195 without
 * taking anything; KXSHIM_FAULT_AT=N makes it fault (SIGSEGV) instead.
 */
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "kx/kxc.h"

static void *real(const char *name) {
  static void *lib = NULL;
  if (lib == NULL) lib = dlopen(KXSHIM_REAL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "kxshim: %s\n", dlerror());
    abort();
  }
  return dlsym(lib, name);
}

#define FORWARD(type, name) ((type)real(#name))

void KXCONN(KXCHAR *q, KXHCONN *h, KXLONG *cc, KXLONG *r) { FORWARD(PKXCONN, KXCONN)(q, h, cc, r); }
void KXCONNX(KXCHAR *q, KXCNO *o, KXHCONN *h, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXCONNX, KXCONNX)(q, o, h, cc, r);
}
void KXDISC(KXHCONN *h, KXLONG *cc, KXLONG *r) { FORWARD(PKXDISC, KXDISC)(h, cc, r); }
void KXOPEN(KXHCONN h, KXOD *od, KXLONG o, KXHOBJ *ho, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXOPEN, KXOPEN)(h, od, o, ho, cc, r);
}
void KXCLOSE(KXHCONN h, KXHOBJ *ho, KXLONG o, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXCLOSE, KXCLOSE)(h, ho, o, cc, r);
}
void KXGET(KXHCONN h, KXHOBJ ho, KXMD *md, KXGMO *g, KXLONG bl, void *b, KXLONG *dl, KXLONG *cc,
           KXLONG *r) {
  static long gets = 0;
  ++gets;
  const char *failAt = getenv("KXSHIM_FAIL_AT");
  const char *faultAt = getenv("KXSHIM_FAULT_AT");
  if (faultAt != NULL && atol(faultAt) == gets) raise(SIGSEGV);
  if (failAt != NULL && atol(failAt) == gets) {
    *dl = 0;
    *cc = KXCC_FAILED;
    *r = KXRC_UNEXPECTED_ERROR;
  } else {
    FORWARD(PKXGET, KXGET)(h, ho, md, g, bl, b, dl, cc, r);
  }
  const char *path = getenv("KXSHIM_LOG");
  FILE *log = path != NULL ? fopen(path, "a") : NULL;
  if (log != NULL) {
    fprintf(log, "KXGET %d %d %d %d\n", (int)bl, (int)*cc, (int)*r, (int)*dl);
    fclose(log);
  }
}
void KXPUT(KXHCONN h, KXHOBJ ho, KXMD *md, KXPMO *p, KXLONG bl, void *b, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXPUT, KXPUT)(h, ho, md, p, bl, b, cc, r);
}
void KXPUT1(KXHCONN h, KXOD *od, KXMD *md, KXPMO *p, KXLONG bl, void *b, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXPUT1, KXPUT1)(h, od, md, p, bl, b, cc, r);
}
void KXINQ(KXHCONN h, KXHOBJ ho, KXLONG sc, KXLONG *s, KXLONG ic, KXLONG *ia, KXLONG cl,
           KXCHAR *ca, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXINQ, KXINQ)(h, ho, sc, s, ic, ia, cl, ca, cc, r);
}
void KXSET(KXHCONN h, KXHOBJ ho, KXLONG sc, KXLONG *s, KXLONG ic, KXLONG *ia, KXLONG cl,
           KXCHAR *ca, KXLONG *cc, KXLONG *r) {
  FORWARD(PKXSET, KXSET)(h, ho, sc, s, ic, ia, cl, ca, cc, r);
}
void KXBEGIN(KXHCONN h, KXBO *o, KXLONG *cc, KXLONG *r) { FORWARD(PKXBEGIN, KXBEGIN)(h, o, cc, r); }
void KXCMIT(KXHCONN h, KXLONG *cc, KXLONG *r) { FORWARD(PKXCMIT, KXCMIT)(h, cc, r); }
void KXBACK(KXHCONN h, KXLONG *cc, KXLONG *r) { FORWARD(PKXBACK, KXBACK)(h, cc, r); }
