/* fakekx.c - a stand-in middleware library for the binding tests.
 *
 * KXCONN answers with the reason in FAKEKX_CONN_REASON (0 when unset) and counts its calls;
 * the connection handle is FAKEKX_ID, so a test can tell which library answered. KXGET finds
 * no message, or faults when FAKEKX_GET_FAULT is set. Built whole, without KXINQ
 * (FAKEKX_OMIT_INQ) to show an entry that cannot be resolved, and as a libkxm.so to stand in
 * for the local queue manager through LD_LIBRARY_PATH.
 */
#include <signal.h>
#include <stdlib.h>

#include "kx/kxc.h"

static int g_connCalls = 0;

KXENTRY int fakekxConnCalls(void) { return g_connCalls; }
KXENTRY void fakekxReset(void) { g_connCalls = 0; }

static void answer(KXLONG *cc, KXLONG *reason) {
  const char *r = getenv("FAKEKX_CONN_REASON");
  *reason = r != NULL ? atoi(r) : 0;
  *cc = *reason == 0 ? KXCC_OK : (*reason == KXRC_CONN_ALREADY_EXISTS ? KXCC_WARNING : KXCC_FAILED);
}

static void ok(KXLONG *cc, KXLONG *reason) {
  *cc = KXCC_OK;
  *reason = 0;
}

void KXCONN(KXCHAR *q, KXHCONN *h, KXLONG *cc, KXLONG *reason) {
  (void)q;
  ++g_connCalls;
  *h = FAKEKX_ID;
  answer(cc, reason);
}
void KXCONNX(KXCHAR *q, KXCNO *o, KXHCONN *h, KXLONG *cc, KXLONG *reason) {
  (void)o;
  KXCONN(q, h, cc, reason);
}
void KXDISC(KXHCONN *h, KXLONG *cc, KXLONG *reason) {
  *h = 0;
  ok(cc, reason);
}
void KXOPEN(KXHCONN h, KXOD *od, KXLONG o, KXHOBJ *ho, KXLONG *cc, KXLONG *reason) {
  (void)h, (void)od, (void)o;
  *ho = 1;
  ok(cc, reason);
}
void KXCLOSE(KXHCONN h, KXHOBJ *ho, KXLONG o, KXLONG *cc, KXLONG *reason) {
  (void)h, (void)o;
  *ho = 0;
  ok(cc, reason);
}
void KXGET(KXHCONN h, KXHOBJ ho, KXMD *md, KXGMO *g, KXLONG bl, void *b, KXLONG *dl, KXLONG *cc,
           KXLONG *reason) {
  (void)h, (void)ho, (void)md, (void)g, (void)bl, (void)b;
  if (getenv("FAKEKX_GET_FAULT") != NULL) raise(SIGSEGV);
  *dl = 0;
  *cc = KXCC_FAILED;
  *reason = KXRC_NO_MSG_AVAILABLE;
}
void KXPUT(KXHCONN h, KXHOBJ ho, KXMD *md, KXPMO *p, KXLONG bl, void *b, KXLONG *cc,
           KXLONG *reason) {
  (void)h, (void)ho, (void)md, (void)p, (void)bl, (void)b;
  ok(cc, reason);
}
void KXPUT1(KXHCONN h, KXOD *od, KXMD *md, KXPMO *p, KXLONG bl, void *b, KXLONG *cc,
            KXLONG *reason) {
  (void)h, (void)od, (void)md, (void)p, (void)bl, (void)b;
  ok(cc, reason);
}
#ifndef FAKEKX_OMIT_INQ
void KXINQ(KXHCONN h, KXHOBJ ho, KXLONG sc, KXLONG *s, KXLONG ic, KXLONG *ia, KXLONG cl,
           KXCHAR *ca, KXLONG *cc, KXLONG *reason) {
  (void)h, (void)ho, (void)sc, (void)s, (void)ic, (void)ia, (void)cl, (void)ca;
  ok(cc, reason);
}
#endif
void KXSET(KXHCONN h, KXHOBJ ho, KXLONG sc, KXLONG *s, KXLONG ic, KXLONG *ia, KXLONG cl,
           KXCHAR *ca, KXLONG *cc, KXLONG *reason) {
  (void)h, (void)ho, (void)sc, (void)s, (void)ic, (void)ia, (void)cl, (void)ca;
  ok(cc, reason);
}
void KXBEGIN(KXHCONN h, KXBO *o, KXLONG *cc, KXLONG *reason) {
  (void)h, (void)o;
  ok(cc, reason);
}
void KXCMIT(KXHCONN h, KXLONG *cc, KXLONG *reason) {
  (void)h;
  ok(cc, reason);
}
void KXBACK(KXHCONN h, KXLONG *cc, KXLONG *reason) {
  (void)h;
  ok(cc, reason);
}
