/* kxm_admin.h - administration of the local queue manager: creating and deleting queue managers
 * and queues. Not part of the KX API; only libkxm.so provides these.
 *
 * Every function returns 0 on success or a reason (the KXRC_* values of kxc.h, or the KXM_RC_*
 * values below) and, when msg is not null, writes a one-line explanation into msg.
 */
#ifndef KX_KXM_ADMIN_H
#define KX_KXM_ADMIN_H

#include <stddef.h>
#include <stdint.h>

#include "kx/kxc.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KXM_RC_ALREADY_EXISTS 4001  /* queue manager or queue exists */
#define KXM_RC_NAME_ERROR 4002      /* name empty, too long, or with characters not allowed */
#define KXM_RC_DATA_PATH_ERROR 4003 /* the data directory cannot be created or used */
#define KXM_RC_LENGTH_ERROR 4004    /* maximum message length out of range */

/* Default and largest maximum message length of a queue. */
#define KXM_DEFAULT_MAX_MSG_LENGTH (100 * 1024 * 1024)
#define KXM_LARGEST_MAX_MSG_LENGTH 999000000

/* Writes the data directory ($KX_DATA_PATH, or ~/.kx) into buf. */
KXENTRY int32_t kxmDataPath(char *buf, size_t bufLen);

KXENTRY int32_t kxmCreateQmgr(const char *qmgr, char *msg, size_t msgLen);
KXENTRY int32_t kxmDeleteQmgr(const char *qmgr, char *msg, size_t msgLen);

/* maxMsgLength below 0 gives the default. */
KXENTRY int32_t kxmCreateQueue(const char *qmgr, const char *queue, int64_t maxMsgLength, char *msg,
                               size_t msgLen);
/* Deletes the queue and every message on it. */
KXENTRY int32_t kxmDeleteQueue(const char *qmgr, const char *queue, char *msg, size_t msgLen);

/* Why the last KX call of this thread failed, in words (the file and the cause of a damaged
 * store or a full disk, where a browse stopped, ...): 0 and the text in msg, or -1 and an empty
 * msg when the library knows no more than the reason. */
KXENTRY int32_t kxmLastFailure(char *msg, size_t msgLen);

/* Calls fn once per queue in name order with its depth (committed messages) and maximum
 * message length; a non-zero result from fn stops the listing and is returned. */
typedef int32_t (*KXMQUEUEFN)(const char *queue, int64_t depth, int64_t maxMsgLength, void *ctx);
KXENTRY int32_t kxmListQueues(const char *qmgr, KXMQUEUEFN fn, void *ctx, char *msg, size_t msgLen);

#ifdef __cplusplus
}
#endif

#endif /* KX_KXM_ADMIN_H */
