/* liblmx: named local mailboxes between processes, with asynchronous locate and death monitoring.
 * Broker-less: each mailbox is a SOCK_SEQPACKET Unix socket at $LMX_DIR/NAME (default /run/lmx,
 * created with mode 1770). Every message buffer begins with its 32-bit message number. One
 * thread per process calls the service; a thread of the service's own, started by lmx_init with
 * every signal blocked, does its work meanwhile. A child forked after lmx_init starts without
 * it (the parent's mailboxes stay the parent's).
 * Failures set errno: EINVAL bad argument or name, EPERM before lmx_init, ENOMEM.
 *
 * A sender's name is proven: a peer is heard as mailbox X only if its process runs as the user
 * that owns X's socket file in this process's mailbox directory; any other peer is refused.
 *
 * Mailbox ids are process-local handles of names. A name keeps its id while this process holds
 * something of it: a mailbox of that name, a connection from or to it, a monitor of it, a message
 * from it not yet freed or sent on, or the socket file a locate found for it (lmx_locate or a
 * locate answer; until that file is removed or replaced, as seen at the next lmx_receive). Once
 * nothing is left the name is forgotten: its old id names nothing (no other name gets it until
 * some 4 billion ids later) and the name gets a new id if it comes back. */
#ifndef LMX_H
#define LMX_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t lmx_mbox_id_t;

#define LMX_INVALID_ID ((lmx_mbox_id_t)0xffffffffu) /* "not found" / failure */
#define LMX_LOCATE_DEFAULT_NO 0x1901000u            /* the located mailbox exists */
#define LMX_MONITOR_DEFAULT_NO 0x1901001u           /* the monitored mailbox is gone */
#define LMX_ANY_SENDER 0xfff11111u                  /* lmx_receive: from anyone */
#define LMX_LOCATE_SENDER 0xfff00000u               /* lmx_locate_async: the default answer */
#define LMX_NAME_MAX 100
#define LMX_DEFAULT_DIR "/run/lmx"

/* Starts the service for this process; `mailboxes` is how many it will create at most; there are
 * no options (NULL). 0 on success, -1 on failure (EALREADY when started already). */
int lmx_init(unsigned mailboxes, const void* options);
/* Releases everything: mailboxes, connections, monitors, queued messages. */
void lmx_exit(void);

/* Creates a mailbox (flags 0); LMX_INVALID_ID on failure: a bad name (EINVAL), a live mailbox of
 * that name (EADDRINUSE), more than announced to lmx_init (ENOSPC), I/O. A socket file left by a
 * dead owner is replaced. Names: 1 to LMX_NAME_MAX of A-Z a-z 0-9 . _ -, not starting with '.'. */
lmx_mbox_id_t lmx_create_mailbox(const char* name, uint32_t flags);
/* Deletes one of this process's mailboxes: its socket file goes and its connections close, so the
 * peers' monitors of it answer. 0, or -1 (EINVAL) when it is not ours. */
int lmx_delete_mailbox(lmx_mbox_id_t id);

/* Readable exactly while a message waits that lmx_receive returns: a peer's message, a locate
 * answer or a monitor answer. The service's own work (connections coming and going, hellos,
 * partial messages, directory changes, queued output) never makes it readable. */
int lmx_get_fd(void);

/* Takes the next message addressed to one of this process's mailboxes. `filter` is a list of
 * message numbers ending in 0, or NULL for all; `from` a sender's id or LMX_ANY_SENDER.
 * timeout_ms 0 never blocks; -1 waits for ever. At most 4 MiB of messages wait untaken: beyond
 * that the service stops reading its peers until the application takes some.
 * Returns NULL with errno EAGAIN when nothing waits (ETIMEDOUT after a positive timeout). */
void* lmx_receive(const uint32_t* filter, int32_t timeout_ms, uint32_t from);
/* The sender's mailbox id (process-local handle of the sender's name). */
lmx_mbox_id_t lmx_sender(const void* msg);
/* The user the sender's process ran as, which owns the sender's mailbox; (uid_t)-1 for the
 * service's own answers (locate, monitor) and for buffers that were not received. */
uid_t lmx_sender_uid(const void* msg);
/* The message number (its first 32 bits) and its size in bytes. */
uint32_t lmx_msgno(const void* msg);
size_t lmx_size(const void* msg);

/* Sends `msg` from mailbox `from` (one of ours) to mailbox `to` and takes ownership of it in
 * every case. Never blocks: a busy peer gets the message queued, up to 4 MiB per peer, and the
 * queue drains as the peer reads. 0 on success; -1 with ENOBUFS when the queue is full, or the
 * error of the connection (ECONNREFUSED, ENOENT: the mailbox is gone). */
int lmx_send(void* msg, lmx_mbox_id_t to, lmx_mbox_id_t from);

/* A zeroed buffer of `size` bytes (at least 4) whose first 32 bits are `msgno`; NULL if too big
 * (EMSGSIZE). Needs no lmx_init. */
void* lmx_alloc(size_t size, uint32_t msgno);
void lmx_free(void* msg);
/* The largest message size lmx_alloc accepts. */
size_t lmx_get_max_size(void);

/* Asks for a LMX_LOCATE_DEFAULT_NO message, whose sender is the mailbox `name`, as soon as that
 * mailbox exists (at once if it does). Only the default answer exists: `data` NULL, `sender`
 * LMX_LOCATE_SENDER. Each request is answered once. 0 on success. */
int lmx_locate_async(const char* name, const void* data, uint32_t sender);
/* The id of the live mailbox `name`, or LMX_INVALID_ID; ENOSPC when this process already knows
 * as many names as it can (65536). */
lmx_mbox_id_t lmx_locate(const char* name);
/* Asks for a LMX_MONITOR_DEFAULT_NO message, whose sender is `id`, when that mailbox dies or is
 * deleted (at once if it is already gone); `data` NULL. Returns a monitor id, 0 on failure. */
uint32_t lmx_monitor(lmx_mbox_id_t id, const void* data);
/* Cancels a monitor and withdraws its answer if not yet taken; a monitor that already ended is
 * cancelled as well (0). -1 for an id never handed out. */
int lmx_unmonitor(uint32_t monitor_id);

/* The name behind a mailbox id of this process, or NULL; valid while the id is. */
const char* lmx_name(lmx_mbox_id_t id);

#ifdef __cplusplus
}
#endif

#endif /* LMX_H */
