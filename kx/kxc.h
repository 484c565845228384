/* kxc.h - the Velora KX messaging API: types, structures, constants and entry points.
 *
 * Plain C ABI so that any conforming middleware library (the local queue manager libkxm.so,
 * a client library libkxic.so, ...) can be swapped in at run time. Integers are in the
 * machine's byte order; character fields are blank padded, never NUL terminated.
 */
#ifndef KX_KXC_H
#define KX_KXC_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Elementary types ------------------------------------------------------------------ */

typedef int32_t KXLONG;
typedef KXLONG KXHCONN;
typedef KXLONG KXHOBJ;
typedef uint8_t KXBYTE;
typedef char KXCHAR;

#define KX_Q_NAME_LENGTH 48
#define KX_Q_MGR_NAME_LENGTH 48
#define KX_MSG_ID_LENGTH 24
#define KX_CORREL_ID_LENGTH 24
#define KX_FORMAT_LENGTH 8
#define KX_DATE_LENGTH 8
#define KX_TIME_LENGTH 8

/* ---- Completion codes -------------------------------------------------------------------- */

#define KXCC_OK 0
#define KXCC_WARNING 1
#define KXCC_FAILED 2

/* ---- Reasons ----------------------------------------------------------------------------- */

#define KXRC_NONE 0
#define KXRC_BACKED_OUT 2003            /* commit failed, the unit of work was backed out */
#define KXRC_BUFFER_ERROR 2004          /* buffer pointer null with a non-zero length */
#define KXRC_BUFFER_LENGTH_ERROR 2005   /* negative buffer length */
#define KXRC_CHAR_ATTR_LENGTH_ERROR 2006
#define KXRC_DATA_LENGTH_ERROR 2010     /* DataLength pointer missing */
#define KXRC_HCONN_ERROR 2018           /* bad connection handle */
#define KXRC_HOBJ_ERROR 2019            /* bad object handle */
#define KXRC_INT_ATTR_COUNT_ERROR 2021
#define KXRC_MD_ERROR 2026              /* bad message descriptor */
#define KXRC_MSG_TOO_BIG_FOR_Q 2030     /* message longer than the queue's maximum */
#define KXRC_NO_MSG_AVAILABLE 2033      /* no (more) messages */
#define KXRC_NOT_AUTHORIZED 2035
#define KXRC_NOT_OPEN_FOR_BROWSE 2036
#define KXRC_NOT_OPEN_FOR_INPUT 2037
#define KXRC_NOT_OPEN_FOR_INQUIRE 2038
#define KXRC_NOT_OPEN_FOR_OUTPUT 2039
#define KXRC_NOT_OPEN_FOR_SET 2040
#define KXRC_OBJECT_IN_USE 2042         /* queue opened for exclusive input elsewhere */
#define KXRC_OBJECT_TYPE_ERROR 2043     /* only queues can be opened */
#define KXRC_OD_ERROR 2044              /* bad object descriptor */
#define KXRC_OPTIONS_ERROR 2046         /* bad or contradictory options */
#define KXRC_Q_DELETED 2052             /* the queue was deleted while open */
#define KXRC_Q_MGR_NAME_ERROR 2058      /* unknown queue manager */
#define KXRC_Q_MGR_NOT_AVAILABLE 2059   /* queue manager not available */
#define KXRC_SELECTOR_COUNT_ERROR 2065
#define KXRC_SELECTOR_ERROR 2067        /* unknown attribute selector */
#define KXRC_STORAGE_NOT_AVAILABLE 2071
#define KXRC_TRUNCATED_MSG_ACCEPTED 2079 /* warning: data cut to the buffer, message taken */
#define KXRC_TRUNCATED_MSG_FAILED 2080  /* data longer than the buffer; message left alone */
#define KXRC_UNKNOWN_OBJECT_NAME 2085   /* unknown queue */
#define KXRC_WAIT_INTERVAL_ERROR 2090   /* negative WaitInterval other than unlimited */
#define KXRC_OBJECT_DAMAGED 2101        /* the queue manager's store is damaged: not retried */
#define KXRC_RESOURCE_PROBLEM 2102      /* disk full, or the store stayed locked too long */
#define KXRC_BO_ERROR 2134              /* bad begin options */
#define KXRC_CNO_ERROR 2139             /* bad connect options */
#define KXRC_UNEXPECTED_ERROR 2195
#define KXRC_PMO_ERROR 2173             /* bad put-message options */
#define KXRC_GMO_ERROR 2186             /* bad get-message options */
#define KXRC_CONN_ALREADY_EXISTS 2391   /* warning: this thread is already connected */

/* ---- Open options (KXOPEN) --------------------------------------------------------------- */

#define KXOO_INPUT_AS_Q_DEF 0x00000001
#define KXOO_INPUT_SHARED 0x00000002
#define KXOO_INPUT_EXCLUSIVE 0x00000004
#define KXOO_BROWSE 0x00000008
#define KXOO_OUTPUT 0x00000010
#define KXOO_INQUIRE 0x00000020
#define KXOO_SET 0x00000040
#define KXOO_FAIL_IF_QUIESCING 0x00002000

/* ---- Close options (KXCLOSE) ------------------------------------------------------------- */

#define KXCO_NONE 0

/* ---- Get-message options (KXGMO.Options) ------------------------------------------------- */

#define KXGMO_NONE 0x00000000
#define KXGMO_WAIT 0x00000001
#define KXGMO_SYNCPOINT 0x00000002
#define KXGMO_NO_SYNCPOINT 0x00000004
#define KXGMO_BROWSE_FIRST 0x00000010
#define KXGMO_BROWSE_NEXT 0x00000020
#define KXGMO_ACCEPT_TRUNCATED_MSG 0x00000040
#define KXGMO_FAIL_IF_QUIESCING 0x00002000

/* KXGMO.MatchOptions */
#define KXMO_NONE 0x00000000
#define KXMO_MATCH_MSG_ID 0x00000001
#define KXMO_MATCH_CORREL_ID 0x00000002

/* KXGMO.WaitInterval without limit */
#define KXWI_UNLIMITED (-1)

/* ---- Put-message options (KXPMO.Options) ------------------------------------------------- */

#define KXPMO_NONE 0x00000000
#define KXPMO_SYNCPOINT 0x00000002
#define KXPMO_NO_SYNCPOINT 0x00000004
#define KXPMO_NEW_MSG_ID 0x00000040
#define KXPMO_SET_ALL_CONTEXT 0x00000800 /* descriptor stored exactly as given: no MsgId, no date */
#define KXPMO_FAIL_IF_QUIESCING 0x00002000

/* ---- Connect and begin options ------------------------------------------------------------ */

#define KXCNO_NONE 0
#define KXBO_NONE 0

/* ---- Object types (KXOD.ObjectType) ------------------------------------------------------- */

#define KXOT_Q 1

/* ---- Attribute selectors (KXINQ / KXSET) ------------------------------------------------- */

#define KXIA_CURRENT_Q_DEPTH 3
#define KXIA_MAX_MSG_LENGTH 13
#define KXIA_BACKOUT_THRESHOLD 22 /* back-outs after which a get passes a message over; 0 never */
#define KXCA_Q_NAME 2016 /* character attribute, 48 bytes */

/* ---- Descriptor values -------------------------------------------------------------------- */

#define KXMT_REQUEST 1
#define KXMT_REPLY 2
#define KXMT_REPORT 4
#define KXMT_DATAGRAM 8

#define KXEI_UNLIMITED (-1) /* Expiry */
#define KXFB_NONE 0
#define KXRO_NONE 0
#define KXPRI_PRIORITY_AS_Q_DEF (-1)
#define KXPER_NOT_PERSISTENT 0
#define KXPER_PERSISTENT 1
#define KXPER_PERSISTENCE_AS_Q_DEF 2

/* Encoding: the integer part is the low four bits; 2 reversed (little-endian), 1 normal. */
#define KXENC_INTEGER_MASK 0x0000000F
#define KXENC_INTEGER_NORMAL 0x00000001
#define KXENC_INTEGER_REVERSED 0x00000002
#define KXENC_LITTLE_ENDIAN 546
#define KXENC_BIG_ENDIAN 273
#define KXENC_NATIVE KXENC_LITTLE_ENDIAN

/* CodedCharSetId 0 means the queue manager's own code page, which is UTF-8 (1208). */
#define KXCCSI_Q_MGR 0
#define KXCCSI_UTF8 1208

/* Formats, 8 characters, blank padded. */
#define KXFMT_NONE "        "
#define KXFMT_STRING "KXSTR   "
#define KXFMT_RFH2 "KXHRF2  "
#define KXFMT_COMPACT "COMPACT "

/* ---- Structures --------------------------------------------------------------------------- */

/* Message descriptor, version 2, 364 bytes.
 *
 *   0 StrucId "MD  "    4 Version          8 Report          12 MsgType
 *  16 Expiry           20 Feedback        24 Encoding        28 CodedCharSetId
 *  32 Format[8]        40 Priority        44 Persistence
 *  48 MsgId[24]        72 CorrelId[24]
 *  96 BackoutCount     times the message was got under syncpoint and backed out (set by the
 *                      queue manager on every get; 0 for a message never backed out)
 * 100 Fields1[204]     further fields, carried unchanged from put to get
 * 304 PutDate[8] "YYYYMMDD"   312 PutTime[8] "HHMMSSTH"  (set by the queue manager, UTC)
 * 320 Fields2[44]      further fields, carried unchanged from put to get
 */
typedef struct tagKXMD {
  KXCHAR StrucId[4];
  KXLONG Version;
  KXLONG Report;
  KXLONG MsgType;
  KXLONG Expiry;
  KXLONG Feedback;
  KXLONG Encoding;
  KXLONG CodedCharSetId;
  KXCHAR Format[8];
  KXLONG Priority;
  KXLONG Persistence;
  KXBYTE MsgId[24];
  KXBYTE CorrelId[24];
  KXLONG BackoutCount;
  KXBYTE Fields1[204];
  KXCHAR PutDate[8];
  KXCHAR PutTime[8];
  KXBYTE Fields2[44];
} KXMD;

/* Object descriptor, 108 bytes.
 *   0 StrucId "OD  "   4 Version (1)   8 ObjectType (1 queue)
 *  12 ObjectName[48]  60 ObjectQMgrName[48]
 */
typedef struct tagKXOD {
  KXCHAR StrucId[4];
  KXLONG Version;
  KXLONG ObjectType;
  KXCHAR ObjectName[48];
  KXCHAR ObjectQMgrName[48];
} KXOD;

/* Get-message options, 24 bytes.
 *   0 StrucId "GMO "   4 Version (2)   8 Options   12 WaitInterval (ms)
 *  16 MatchOptions    20 ReturnedLength (set by a get)
 */
typedef struct tagKXGMO {
  KXCHAR StrucId[4];
  KXLONG Version;
  KXLONG Options;
  KXLONG WaitInterval;
  KXLONG MatchOptions;
  KXLONG ReturnedLength;
} KXGMO;

/* Put-message options, connect options, begin options: 12 bytes each.
 *   0 StrucId   4 Version (1)   8 Options
 */
typedef struct tagKXPMO {
  KXCHAR StrucId[4];
  KXLONG Version;
  KXLONG Options;
} KXPMO;

typedef struct tagKXCNO {
  KXCHAR StrucId[4];
  KXLONG Version;
  KXLONG Options;
} KXCNO;

typedef struct tagKXBO {
  KXCHAR StrucId[4];
  KXLONG Version;
  KXLONG Options;
} KXBO;

#ifdef __cplusplus
#define KX_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define KX_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif

KX_STATIC_ASSERT(sizeof(KXLONG) == 4, "KXLONG is 32 bits");
KX_STATIC_ASSERT(sizeof(KXMD) == 364, "KXMD is 364 bytes");
KX_STATIC_ASSERT(offsetof(KXMD, Version) == 4, "KXMD.Version");
KX_STATIC_ASSERT(offsetof(KXMD, Report) == 8, "KXMD.Report");
KX_STATIC_ASSERT(offsetof(KXMD, MsgType) == 12, "KXMD.MsgType");
KX_STATIC_ASSERT(offsetof(KXMD, Expiry) == 16, "KXMD.Expiry");
KX_STATIC_ASSERT(offsetof(KXMD, Feedback) == 20, "KXMD.Feedback");
KX_STATIC_ASSERT(offsetof(KXMD, Encoding) == 24, "KXMD.Encoding");
KX_STATIC_ASSERT(offsetof(KXMD, CodedCharSetId) == 28, "KXMD.CodedCharSetId");
KX_STATIC_ASSERT(offsetof(KXMD, Format) == 32, "KXMD.Format");
KX_STATIC_ASSERT(offsetof(KXMD, Priority) == 40, "KXMD.Priority");
KX_STATIC_ASSERT(offsetof(KXMD, Persistence) == 44, "KXMD.Persistence");
KX_STATIC_ASSERT(offsetof(KXMD, MsgId) == 48, "KXMD.MsgId");
KX_STATIC_ASSERT(offsetof(KXMD, CorrelId) == 72, "KXMD.CorrelId");
KX_STATIC_ASSERT(offsetof(KXMD, BackoutCount) == 96, "KXMD.BackoutCount");
KX_STATIC_ASSERT(offsetof(KXMD, Fields1) == 100, "KXMD.Fields1");
KX_STATIC_ASSERT(offsetof(KXMD, PutDate) == 304, "KXMD.PutDate");
KX_STATIC_ASSERT(offsetof(KXMD, PutTime) == 312, "KXMD.PutTime");
KX_STATIC_ASSERT(offsetof(KXMD, Fields2) == 320, "KXMD.Fields2");
KX_STATIC_ASSERT(sizeof(KXOD) == 108, "KXOD is 108 bytes");
KX_STATIC_ASSERT(offsetof(KXOD, ObjectType) == 8, "KXOD.ObjectType");
KX_STATIC_ASSERT(offsetof(KXOD, ObjectName) == 12, "KXOD.ObjectName");
KX_STATIC_ASSERT(offsetof(KXOD, ObjectQMgrName) == 60, "KXOD.ObjectQMgrName");
KX_STATIC_ASSERT(sizeof(KXGMO) == 24, "KXGMO is 24 bytes");
KX_STATIC_ASSERT(offsetof(KXGMO, Options) == 8, "KXGMO.Options");
KX_STATIC_ASSERT(offsetof(KXGMO, WaitInterval) == 12, "KXGMO.WaitInterval");
KX_STATIC_ASSERT(offsetof(KXGMO, MatchOptions) == 16, "KXGMO.MatchOptions");
KX_STATIC_ASSERT(offsetof(KXGMO, ReturnedLength) == 20, "KXGMO.ReturnedLength");
KX_STATIC_ASSERT(sizeof(KXPMO) == 12, "KXPMO is 12 bytes");
KX_STATIC_ASSERT(sizeof(KXCNO) == 12, "KXCNO is 12 bytes");
KX_STATIC_ASSERT(sizeof(KXBO) == 12, "KXBO is 12 bytes");

/* ---- Defaults ----------------------------------------------------------------------------- */

/* Brace initialisers: `KXMD md = KXMD_DEFAULT;` (C and C++). */
#define KXMD_DEFAULT                                                                      \
  { {'M', 'D', ' ', ' '}, 2, KXRO_NONE, KXMT_DATAGRAM, KXEI_UNLIMITED, KXFB_NONE,          \
    KXENC_NATIVE, KXCCSI_Q_MGR, {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '},                 \
    KXPRI_PRIORITY_AS_Q_DEF, KXPER_PERSISTENCE_AS_Q_DEF, {0}, {0}, 0, {0}, {0}, {0}, {0} }
#define KXOD_DEFAULT {{'O', 'D', ' ', ' '}, 1, KXOT_Q, {0}, {0}}
#define KXGMO_DEFAULT {{'G', 'M', 'O', ' '}, 2, KXGMO_NO_SYNCPOINT, 0, KXMO_NONE, -1}
#define KXPMO_DEFAULT {{'P', 'M', 'O', ' '}, 1, KXPMO_NO_SYNCPOINT}
#define KXCNO_DEFAULT {{'C', 'N', 'O', ' '}, 1, KXCNO_NONE}
#define KXBO_DEFAULT {{'B', 'O', ' ', ' '}, 1, KXBO_NONE}

/* The same as functions, for structures already allocated. */
static inline void kxDefaultMd(KXMD *md) {
  const KXMD d = KXMD_DEFAULT;
  *md = d;
}
static inline void kxDefaultOd(KXOD *od) {
  const KXOD d = KXOD_DEFAULT;
  *od = d;
}
static inline void kxDefaultGmo(KXGMO *gmo) {
  const KXGMO d = KXGMO_DEFAULT;
  *gmo = d;
}
static inline void kxDefaultPmo(KXPMO *pmo) {
  const KXPMO d = KXPMO_DEFAULT;
  *pmo = d;
}
static inline void kxDefaultCno(KXCNO *cno) {
  const KXCNO d = KXCNO_DEFAULT;
  *cno = d;
}
static inline void kxDefaultBo(KXBO *bo) {
  const KXBO d = KXBO_DEFAULT;
  *bo = d;
}

/* Copies a name into a fixed character field, NUL padded (a name longer than the field is cut). */
static inline void kxSetName(KXCHAR *field, size_t room, const char *name) {
  size_t n = strlen(name);
  if (n > room) n = room;
  memcpy(field, name, n);
  memset(field + n, 0, room - n);
}

/* ---- Entry points --------------------------------------------------------------------------
 * Every entry returns nothing; the outcome is in *CompCode and *Reason. Names are 48 bytes,
 * blank or NUL padded. Define KX_NO_PROTOTYPES to get only the pointer types (for callers that
 * load a library at run time and must not refer to the symbols themselves).
 */

typedef void (*PKXCONN)(KXCHAR *QMgrName, KXHCONN *Hconn, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXCONNX)(KXCHAR *QMgrName, KXCNO *ConnectOpts, KXHCONN *Hconn, KXLONG *CompCode,
                         KXLONG *Reason);
typedef void (*PKXDISC)(KXHCONN *Hconn, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXOPEN)(KXHCONN Hconn, KXOD *ObjDesc, KXLONG Options, KXHOBJ *Hobj,
                        KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXCLOSE)(KXHCONN Hconn, KXHOBJ *Hobj, KXLONG Options, KXLONG *CompCode,
                         KXLONG *Reason);
typedef void (*PKXGET)(KXHCONN Hconn, KXHOBJ Hobj, KXMD *MsgDesc, KXGMO *GetMsgOpts,
                       KXLONG BufferLength, void *Buffer, KXLONG *DataLength, KXLONG *CompCode,
                       KXLONG *Reason);
typedef void (*PKXPUT)(KXHCONN Hconn, KXHOBJ Hobj, KXMD *MsgDesc, KXPMO *PutMsgOpts,
                       KXLONG BufferLength, void *Buffer, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXPUT1)(KXHCONN Hconn, KXOD *ObjDesc, KXMD *MsgDesc, KXPMO *PutMsgOpts,
                        KXLONG BufferLength, void *Buffer, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXINQ)(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG *Selectors,
                       KXLONG IntAttrCount, KXLONG *IntAttrs, KXLONG CharAttrLength,
                       KXCHAR *CharAttrs, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXSET)(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG *Selectors,
                       KXLONG IntAttrCount, KXLONG *IntAttrs, KXLONG CharAttrLength,
                       KXCHAR *CharAttrs, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXBEGIN)(KXHCONN Hconn, KXBO *BeginOpts, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXCMIT)(KXHCONN Hconn, KXLONG *CompCode, KXLONG *Reason);
typedef void (*PKXBACK)(KXHCONN Hconn, KXLONG *CompCode, KXLONG *Reason);

#if defined(__GNUC__)
#define KXENTRY __attribute__((visibility("default")))
#else
#define KXENTRY
#endif

#ifndef KX_NO_PROTOTYPES
KXENTRY void KXCONN(KXCHAR *QMgrName, KXHCONN *Hconn, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXCONNX(KXCHAR *QMgrName, KXCNO *ConnectOpts, KXHCONN *Hconn, KXLONG *CompCode,
                     KXLONG *Reason);
KXENTRY void KXDISC(KXHCONN *Hconn, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXOPEN(KXHCONN Hconn, KXOD *ObjDesc, KXLONG Options, KXHOBJ *Hobj, KXLONG *CompCode,
                    KXLONG *Reason);
KXENTRY void KXCLOSE(KXHCONN Hconn, KXHOBJ *Hobj, KXLONG Options, KXLONG *CompCode,
                     KXLONG *Reason);
KXENTRY void KXGET(KXHCONN Hconn, KXHOBJ Hobj, KXMD *MsgDesc, KXGMO *GetMsgOpts,
                   KXLONG BufferLength, void *Buffer, KXLONG *DataLength, KXLONG *CompCode,
                   KXLONG *Reason);
KXENTRY void KXPUT(KXHCONN Hconn, KXHOBJ Hobj, KXMD *MsgDesc, KXPMO *PutMsgOpts,
                   KXLONG BufferLength, void *Buffer, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXPUT1(KXHCONN Hconn, KXOD *ObjDesc, KXMD *MsgDesc, KXPMO *PutMsgOpts,
                    KXLONG BufferLength, void *Buffer, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXINQ(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG *Selectors,
                   KXLONG IntAttrCount, KXLONG *IntAttrs, KXLONG CharAttrLength,
                   KXCHAR *CharAttrs, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXSET(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG *Selectors,
                   KXLONG IntAttrCount, KXLONG *IntAttrs, KXLONG CharAttrLength,
                   KXCHAR *CharAttrs, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXBEGIN(KXHCONN Hconn, KXBO *BeginOpts, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXCMIT(KXHCONN Hconn, KXLONG *CompCode, KXLONG *Reason);
KXENTRY void KXBACK(KXHCONN Hconn, KXLONG *CompCode, KXLONG *Reason);
#endif

#ifdef __cplusplus
}
#endif

#endif /* KX_KXC_H */
