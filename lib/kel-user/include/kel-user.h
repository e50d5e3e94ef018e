/*
 * libkel-user: how a service of the host reports observations to keld, kel_user(3).
 *
 * A handle is one connection to the daemon's user-level context, of which there are eight. It is made
 * when it is first needed and made anew after it broke; the daemon need not run. No call waits longer
 * than its time limit, raises SIGPIPE, or is a cancellation point. Functions return 0 or a positive
 * errno value; errno itself may change.
 */
#ifndef KEL_USER_H
#define KEL_USER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A batch is shorter than this, and so is an observation with its identifier, template and arguments. */
#define KEL_USER_BATCH_LIMIT_BYTES 131072

struct kel_user;

enum kel_user_type {
  KEL_USER_STRING = 1, /* NULL is a value, too */
  KEL_USER_INT32 = 2,
  KEL_USER_UINT32 = 3,
  KEL_USER_INT64 = 4,
  KEL_USER_UINT64 = 5,
  KEL_USER_DOUBLE = 6
};

/* One typed argument, best made by the functions below. A string stays the caller's. */
struct kel_user_arg {
  int type; /* an enum kel_user_type */
  union {
    const char* string;
    int32_t int32;
    uint32_t uint32;
    int64_t int64;
    uint64_t uint64;
    double real;
  } value;
};

/* One observation. All that it points at stays the caller's and is read during the call only. */
struct kel_user_observation {
  const char* id;      /* "kel.user.backup.failed"; not empty */
  const char* message; /* printf-like template of its text; NULL: the identifier */
  const struct kel_user_arg* args;
  size_t arg_count;
  const uint64_t* time_us; /* microseconds since the epoch; NULL: now */
};

/* What became of the observations of a handle. Each one of a valid call is either sent or dropped. */
struct kel_user_counters {
  uint64_t sent;        /* handed to a connection */
  uint64_t dropped;     /* not sent: no daemon, no place, no time, no memory */
  uint64_t lost;        /* of those sent, at most so many were unread when their connection broke */
  uint64_t reconnects;  /* connections that the daemon was found to read from, after the first */
  uint64_t reserved[4]; /* zero; place for counters to come */
};

/*
 * Makes a handle and stores it; the caller closes it. A call on it takes limit_ms milliseconds at most,
 * with 0 none. Needs no daemon. KORVEL_RUN_DIR, read here, names another run directory than
 * /var/run/korvel; a set-uid program does not heed it. EINVAL where limit_ms is negative or handle
 * NULL; ENOMEM.
 */
int kel_user_open(int limit_ms, struct kel_user** handle);

/*
 * Sends one observation, stamped now, within the handle's time limit. message may be NULL: the
 * identifier; args may be NULL where arg_count is 0. Any thread. Errors are those of
 * kel_user_emit_batch().
 */
int kel_user_emit(struct kel_user* handle, const char* id, const char* message, const struct kel_user_arg* args,
                  size_t arg_count);

/*
 * Sends count observations as one batch, in their order, all or none, within limit_ms milliseconds
 * (negative: the handle's limit). Any thread; the wait for other threads counts. EINVAL: there is
 * nothing to send, a pointer or an identifier is missing or empty, or a type unknown. EMSGSIZE: the
 * batch is KEL_USER_BATCH_LIMIT_BYTES or longer. With any other error all of them are dropped and
 * counted: ETIMEDOUT: the daemon's queue stayed full or the handle in use. EUSERS: the daemon has no
 * place for another client. So the first batch on a connection is watched until it is read, for up to a
 * second within the limit; where that is too short to tell, the call returns 0, and what was turned away
 * is found lost by the next. ENOENT, ECONNREFUSED: no daemon. EACCES: it is not for this user. After
 * a failure to connect, calls fail with its error for a second, at once, before it is tried again.
 */
int kel_user_emit_batch(struct kel_user* handle, const struct kel_user_observation* observations, size_t count,
                        int limit_ms);

/*
 * Stores the counters. They begin with the handle, and with zero in the child of a fork(2), which has a
 * connection of its own from its first call on. Any thread. EINVAL for NULL; ENOMEM in such a child.
 */
int kel_user_counts(struct kel_user* handle, struct kel_user_counters* counters);

/*
 * Closes the connection and frees the handle, which no other thread may use then; NULL is fine. What
 * was sent is delivered all the same. In the child of a fork(2) the parent's connection stays.
 */
void kel_user_close(struct kel_user* handle);

/* Arguments by type. */
static inline struct kel_user_arg kel_user_string(const char* string) {
  struct kel_user_arg arg;
  arg.type = KEL_USER_STRING;
  arg.value.string = string;
  return arg;
}

static inline struct kel_user_arg kel_user_int32(int32_t value) {
  struct kel_user_arg arg;
  arg.type = KEL_USER_INT32;
  arg.value.int32 = value;
  return arg;
}

static inline struct kel_user_arg kel_user_uint32(uint32_t value) {
  struct kel_user_arg arg;
  arg.type = KEL_USER_UINT32;
  arg.value.uint32 = value;
  return arg;
}

static inline struct kel_user_arg kel_user_int64(int64_t value) {
  struct kel_user_arg arg;
  arg.type = KEL_USER_INT64;
  arg.value.int64 = value;
  return arg;
}

static inline struct kel_user_arg kel_user_uint64(uint64_t value) {
  struct kel_user_arg arg;
  arg.type = KEL_USER_UINT64;
  arg.value.uint64 = value;
  return arg;
}

static inline struct kel_user_arg kel_user_double(double value) {
  struct kel_user_arg arg;
  arg.type = KEL_USER_DOUBLE;
  arg.value.real = value;
  return arg;
}

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
