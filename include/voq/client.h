/* The client library: what a program needs to follow the registers of a PLC that a voq service serves, to read and
 * write them once, and to see how the port fares. Plain C99; link with -lvoq-client (pkg-config voq-client).
 *
 * A port is opened, ranges of it are described, and a range is subscribed or asked once:
 *
 *     voq_port* port;
 *     voq_range* level;
 *     struct voq_reading now;
 *     if (voq_port_open("/home/user/tcp_1", &port, NULL) != VOQ_OK) ...
 *     voq_port_set(port, VOQ_BYTE_ORDER, 0);
 *     if (voq_range_new(port, "s1:a4:u16@100", &level) != VOQ_OK) puts(voq_port_error(port));
 *     voq_subscribe(level);
 *     while (voq_port_wait(port, -1) >= 0) {
 *         struct voq_event event;
 *         while (voq_port_next_event(port, &event)) {
 *             if (event.type == VOQ_CHANGED && voq_range_reading(event.range, &now) == VOQ_OK) ...
 *         }
 *     }
 *
 * Results. A function that returns int returns a number that is not negative, VOQ_OK where nothing else is said, or a
 * negative enum voq_code. A handle argument is never NULL, unless the function frees it. A failed call changes nothing
 * that it does not say.
 *
 * Threads. The library has no state of its own. A port with its ranges and requests is used by one thread at a time,
 * whichever that is; different ports, of the same directory too, are independent of one another.
 *
 * Processes. Handles do not survive a fork: in the child every call on them that could fail returns VOQ_FORKED, and
 * voq_port_close gives up the child's copies and leaves the parent's port as it is. Call it in a child that does not
 * exec at once: as long as a child holds its copy, the parent's request numbers stay taken.
 *
 * Waiting. Nothing waits without limit. A file that the service or another client holds locked is waited for at most
 * VOQ_LOCK_MS each; then the call returns VOQ_LOCKED.
 *
 * Signals. The library installs no handler and sends the process no SIGPIPE. A handler that runs ends the waiting of
 * voq_port_wait and of the one-shot calls: VOQ_INTERRUPTED. */
#ifndef VOQ_CLIENT_H
#define VOQ_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct voq_project voq_project; /* a project's description, read from its file */
typedef struct voq_port voq_port;       /* one port of a service */
typedef struct voq_range voq_range;     /* a register range of a port */
typedef struct voq_request voq_request; /* a one-shot request under way */

/* ------------------------------------------------------------------------------------------------------- errors */

enum voq_code {
    VOQ_OK = 0,
    VOQ_PENDING = 1,       /* of voq_request_result only: no answer yet */
    VOQ_INVALID = -1,      /* an argument, expression, name or value that makes no sense or does not fit */
    VOQ_NO_MEMORY = -2,    /* no memory */
    VOQ_SYSTEM = -3,       /* the system refused a call: missing rights, no descriptors, ... */
    VOQ_NO_PORT = -4,      /* no such port directory, no such port in the description */
    VOQ_NO_SERVICE = -5,   /* no service reads the port's FIFO, or it ended before it answered */
    VOQ_LOCKED = -6,       /* a file stayed locked by another process */
    VOQ_FULL = -7,         /* the service does not take requests out of its FIFO, which is full */
    VOQ_NO_NUMBER = -8,    /* every request number is taken by other clients */
    VOQ_NO_ANSWER = -9,    /* the time was over before the answer came; the service may still carry the request out */
    VOQ_PLC_TIMEOUT = -10, /* the PLC did not answer the service */
    VOQ_PLC_ERROR = -11,   /* communication error, or the PLC refused */
    VOQ_REFUSED = -12,     /* the service did not take the request: too many wait, or the link fails */
    VOQ_DAMAGED = -13,     /* a file of the port holds what cannot be */
    VOQ_NO_VALUE = -14,    /* there is nothing of this kind: no value yet, no statistics, no such text */
    VOQ_INTERRUPTED = -15, /* a signal handler ran while the call waited */
    VOQ_FORKED = -16       /* the handle is that of the parent process */
};

/* What a code means, in a few words; for any number. Never freed. */
const char* voq_strerror(int code);

/* Why a call failed that returns no handle to ask. */
struct voq_error {
    int code;
    char text[252]; /* complete, without a line's end; cut when longer */
};

/* The library's version, "1.2.3". */
const char* voq_version(void);

/* ------------------------------------------------------------------------------------------------------ projects */

/* Reads a project's description (TOML). `error` may be NULL. VOQ_INVALID when the file is none or not to be read;
 * *project is then NULL. A project is not changed by any call: any number of threads may use it, and any number of
 * ports be opened by it. */
int voq_project_load(const char* file, voq_project** project, struct voq_error* error);
/* Ports opened by it live on. NULL does nothing. */
void voq_project_free(voq_project* project);

/* Number of ports; the first is 0. */
size_t voq_project_ports(const voq_project* project);
/* The directory's name of a port below the user data directory ("tcp_1"), NULL for none. Lives with the project. */
const char* voq_project_port_name(const voq_project* project, size_t index);
/* Number of named registers of a port, and their names. Names live with the project; NULL beyond the last. */
size_t voq_project_names(const voq_project* project, size_t index);
const char* voq_project_name(const voq_project* project, size_t index, size_t number);

/* --------------------------------------------------------------------------------------------------------- ports */

/* Opens the port whose files lie in `directory`: a path that ends in "tcp_N", "com_N" or "can_N", N the port's number.
 * The directory must be there, the service need not run. `error` may be NULL. On failure *port is NULL: VOQ_NO_PORT,
 * VOQ_SYSTEM, VOQ_NO_MEMORY. Holds three descriptors, one more once a request number is taken. */
int voq_port_open(const char* directory, voq_port** port, struct voq_error* error);

/* Opens the port at `index` of a project, below a user data directory. Its byte order and the names of its registers
 * are then known. */
int voq_port_open_project(const char* user_directory, const voq_project* project, size_t index, voq_port** port,
                          struct voq_error* error);

/* Ends all subscriptions, frees all ranges and requests of the port, and gives its request numbers back. Waits at most
 * a second for a full FIFO. NULL does nothing. */
void voq_port_close(voq_port* port);

enum voq_option {
    VOQ_BYTE_ORDER = 1,  /* the port's byte-order word, 0 to 65535, or -1: not known. Typed values need it, unless the
                            range is big_endian, of bits, or of one-byte elements. Of a port opened by a project: that
                            of the project. Changing it makes no event */
    VOQ_LOCK_MS = 2,     /* how long a locked file is waited for, 0 to 60000; at first 1000 */
    VOQ_INTERVAL_MS = 3, /* least time between two readings of the subscribed values, 0 to 60000; at first 0: whenever
                            the service has written. What changes twice meanwhile is told once */
    /* The range of request numbers to take from, 1 to 65535; at first 50000 to 59999. Before the first subscription or
     * request only. */
    VOQ_FIRST_NUMBER = 4,
    VOQ_LAST_NUMBER = 5,
    VOQ_GUI_FIFO = 6,   /* 1: requests go through the panel GUI's FIFO; at first 0. As above */
    VOQ_ONLY_WRITER = 7 /* 1: nobody else writes into the FIFO, so that values above 4061 bytes can be written; at
                           first 0 */
};
/* VOQ_INVALID for what is no option, or out of its range. */
int voq_port_set(voq_port* port, enum voq_option option, long value);

/* The text of the last call on the port, its ranges or its requests that failed, "" when none has. Valid until the next
 * call that fails. */
const char* voq_port_error(const voq_port* port);
/* The directory, ends with "/". Lives with the port. */
const char* voq_port_directory(const voq_port* port);

/* -------------------------------------------------------------------------------------------------------- ranges */

/* Describes a range by a text: an expression
 *     sSTATION:aAREA:TYPE@ADDR[*COUNT][,option...]     s1:a4:u16@100*10,priority=1
 *     key=value,...                                    station=1,area=4,type=u16,addr=100,count=10
 * or, of a port opened by a project, the name of a register. *range is NULL on failure: VOQ_INVALID. */
int voq_range_new(voq_port* port, const char* text, voq_range** range);

/* By fields. Everything that is 0 is as usual: set the whole to zeros first. */
struct voq_fields {
    const char* type; /* "bit", "u16", "s16", "u32", "s32", "float", "double", "raw:1" to "raw:15" */
    uint32_t station; /* 0 to 255 */
    uint32_t area;    /* 0 to 65535 */
    uint32_t addr;
    uint32_t count;      /* elements, 1 to 65535; 0 is 1 */
    uint32_t unit;       /* bytes per PLC address, 1 to 15; 0 is the type's usual one */
    uint32_t subaddr;    /* second address word */
    uint32_t priority;   /* of polling: 0 (each), 1, 3 or 10 */
    uint32_t big_endian; /* 1: the PLC holds the value big-endian, whatever the port's byte order */
    uint32_t bcd;        /* 1: packed BCD */
    uint32_t flag;       /* further flag bits */
    uint32_t convpara;   /* handed to the driver */
};
/* `size` is sizeof(struct voq_fields): a later library knows by it which fields there are. */
int voq_range_new_fields(voq_port* port, const struct voq_fields* fields, size_t size, voq_range** range);

/* Ends the subscription and gives up the requests of the range. NULL does nothing. An event that names the range is
 * dropped. Does not wait: the log-off is sent later, as that of voq_unsubscribe. */
void voq_range_free(voq_range* range);

enum voq_type {
    VOQ_BIT = 1, /* an element is one byte, 0 or 1 */
    VOQ_U16 = 2,
    VOQ_S16 = 3,
    VOQ_U32 = 4,
    VOQ_S32 = 5,
    VOQ_FLOAT = 6,
    VOQ_DOUBLE = 7,
    VOQ_RAW = 8
};
enum voq_type voq_range_type(const voq_range* range);
size_t voq_range_count(const voq_range* range); /* elements */
size_t voq_range_bytes(const voq_range* range); /* of the whole value, 65792 at most */
/* The text or name it was made from; of one made by fields its expression. Lives with the range. */
const char* voq_range_name(const voq_range* range);
voq_port* voq_range_port(const voq_range* range);
/* A pointer of the caller's, NULL at first; the library does nothing with it. */
void voq_range_set_user(voq_range* range, void* user);
void* voq_range_user(const voq_range* range);

/* ------------------------------------------------------------------------------------------------- subscriptions */

/* From now on the service polls the range, and voq_port_dispatch keeps its value. The log-on is sent by the next
 * voq_port_dispatch that finds a service and room in its FIFO, and after each restart of the service again. VOQ_OK also
 * when it is subscribed already. Ranges of the same registers share one subscription. VOQ_NO_NUMBER, VOQ_LOCKED,
 * VOQ_SYSTEM. */
int voq_subscribe(voq_range* range);
/* VOQ_OK also when it is not subscribed. The last value is forgotten; the log-off is sent by the next
 * voq_port_dispatch, or by voq_port_close. */
int voq_unsubscribe(voq_range* range);

enum voq_state {
    VOQ_STATE_UNKNOWN = -1, /* the service has no record of the range yet */
    VOQ_STATE_NEVER = 0,    /* not read yet */
    VOQ_STATE_GOOD = 1,
    VOQ_STATE_TIMEOUT = 2, /* the PLC did not answer; the value is the last good one, if any */
    VOQ_STATE_ERROR = 3    /* communication error, or the value could not be stored */
};

/* A subscribed range as of the last voq_port_dispatch. */
struct voq_reading {
    int32_t state;    /* enum voq_state, or another number that the driver gave */
    int32_t live;     /* 1: the service runs and the value was read since the subscription was made; else an old one */
    int64_t stamp_us; /* when the service last accessed it: microseconds since 1970, 0 for never */
    int64_t age_us;   /* how long ago that is, never negative; 0 without a stamp */
    const void* data; /* the value as it lies in the PLC's byte order, NULL before there is one. Valid until the next */
    size_t length; /* call of voq_port_dispatch, voq_port_wait or a blocking call on the port; voq_range_bytes, or 0 */
    uint64_t changes;  /* VOQ_CHANGED told so far, which tells two readings apart */
    uint64_t reserved; /* 0 */
};
/* VOQ_OK, or VOQ_NO_VALUE when it is not subscribed. Reads no file and copies no value. */
int voq_range_reading(const voq_range* range, struct voq_reading* reading);

/* The elements of the last reading as numbers, at most `count`; returns how many. VOQ_NO_VALUE before there is a value;
 * else as voq_decode_doubles. Look at the state for what they are worth. */
int voq_range_values(const voq_range* range, double* values, size_t count);

/* -------------------------------------------------------------------------------------------------------- events */

/* Becomes readable (POLLIN) when voq_port_dispatch has something to do: the service has written, has come or gone, an
 * answer is there, a time is over. Only to be polled, alone or within epoll; never read, never closed by the caller.
 * The same for the life of the port. */
int voq_port_fd(const voq_port* port);

/* Looks at what has happened since the last call and notes it as events; returns how many wait. Needs nothing but the
 * call itself to happen: without it values stand still. Waits for nothing but locks: VOQ_LOCKED, VOQ_SYSTEM,
 * VOQ_DAMAGED; events that were noted before stay, and what was not read is read with the next call. */
int voq_port_dispatch(voq_port* port);

enum voq_event_type {
    VOQ_CHANGED = 1,  /* range: its value, state or liveness is another than told before. Several changes between two
                         dispatches are one event, with the last value */
    VOQ_ANSWERED = 2, /* request: its result is there, that its time is over too */
    /* The service has ended. What is under way is answered VOQ_NO_SERVICE; values stay, not live. */
    VOQ_SERVICE_LOST = 3,
    /* A service serves the port, for the first time or again: subscriptions have been made again. */
    VOQ_SERVICE_BACK = 4,
    VOQ_LINK_CHANGED = 5 /* the link to the PLC began to fail, or does no longer: see voq_port_link */
};
struct voq_event {
    int32_t type; /* enum voq_event_type; pass over one that you do not know */
    int32_t reserved;
    voq_range* range;     /* of VOQ_CHANGED, else NULL */
    voq_request* request; /* of VOQ_ANSWERED, else NULL */
};
/* Takes the oldest event: 1, or 0 when none waits. Looks at nothing else. */
int voq_port_next_event(voq_port* port, struct voq_event* event);

/* Dispatches, and waits until an event is there: how many, or 0 when `timeout_ms` were over first (-1: no limit, 0: no
 * waiting). For programs without a loop of their own. As voq_port_dispatch, and VOQ_INTERRUPTED. */
int voq_port_wait(voq_port* port, int timeout_ms);

/* ---------------------------------------------------------------------------------------------- one-shot requests */

/* The value as the PLC has it now. `image` takes voq_range_bytes, `size` is the room there; returns the bytes. Waits
 * for the answer, and dispatches meanwhile: events gather. VOQ_INVALID, VOQ_NO_SERVICE, VOQ_FULL, VOQ_NO_ANSWER,
 * VOQ_PLC_TIMEOUT, VOQ_PLC_ERROR, VOQ_REFUSED, VOQ_INTERRUPTED and those of voq_port_dispatch. The range need not be
 * subscribed. `timeout_ms` from 1 on. */
int voq_read(voq_range* range, void* image, size_t size, int timeout_ms);
/* Writes the whole range; `length` is voq_range_bytes. */
int voq_write(voq_range* range, const void* image, size_t length, int timeout_ms);
/* The same with numbers, one for each element: as voq_decode_doubles and voq_encode_doubles say. voq_read_values
 * returns how many elements it stored. Numbers are as they lie in the PLC, without the scale and the limits of a
 * description: voq_enter and voq_show have both. */
int voq_read_values(voq_range* range, double* values, size_t count, int timeout_ms);
int voq_write_values(voq_range* range, const double* values, size_t count, int timeout_ms);

/* Changes the value in the PLC, with no other request between reading and writing it. `change` is a text:
 *     add STEP, sub STEP     [min VALUE] [max VALUE] [wrap | bounce] [reversed]; one element only
 *     and MASK, or MASK, xor MASK, not                  each element
 *     toggle BIT, set BIT, clear BIT                    bit 0 is the lowest of the first element
 *     digit-up POSITION, digit-down POSITION            position 1 is the units digit
 *     field FIRST COUNT VALUE                           COUNT bits from bit FIRST on
 * `reversed` (may be NULL) becomes 1 when a bounce has turned the direction and the next step is to be made with
 * "reversed", else 0. Operands are as they lie: the description's scale and limits are not looked at. */
int voq_change(voq_range* range, const char* change, int* reversed, int timeout_ms);
/* Sets a bit to `value` and after 100 to 6553500 ms, in steps of 100, to the opposite; `bit` -1 is that of a single
 * bit. Answered when the bit is back: `timeout_ms` counts from there. */
int voq_pulse(voq_range* range, int bit, int value, unsigned milliseconds, int timeout_ms);

/* The same for programs with a loop of their own: sent at once without waiting, answered by VOQ_ANSWERED within
 * `timeout_ms`. *request is NULL on failure: VOQ_INVALID, VOQ_NO_SERVICE, VOQ_FULL (nothing was sent: try again later),
 * VOQ_NO_NUMBER, VOQ_LOCKED, VOQ_SYSTEM. A value is copied. Several requests of a range may be under way. */
int voq_begin_read(voq_range* range, int timeout_ms, voq_request** request);
int voq_begin_write(voq_range* range, const void* image, size_t length, int timeout_ms, voq_request** request);
int voq_begin_change(voq_range* range, const char* change, int timeout_ms, voq_request** request);
int voq_begin_pulse(voq_range* range, int bit, int value, unsigned milliseconds, int timeout_ms, voq_request** request);

/* VOQ_PENDING, VOQ_OK, or why it failed: VOQ_NO_SERVICE (it may have been carried out), VOQ_NO_ANSWER,
 * VOQ_PLC_TIMEOUT, VOQ_PLC_ERROR, VOQ_REFUSED, VOQ_DAMAGED. */
int voq_request_result(const voq_request* request);
/* Of a read that is VOQ_OK: its value; else NULL and 0. Lives with the request. */
const void* voq_request_data(const voq_request* request, size_t* length);
/* Of a change that is VOQ_OK: 1 when the next step is to be "reversed". */
int voq_request_reversed(const voq_request* request);
voq_range* voq_request_range(const voq_request* request);
void voq_request_set_user(voq_request* request, void* user);
void* voq_request_user(const voq_request* request);
/* Every request is freed, at the latest by its range. One without an answer is given up: the service may still carry it
 * out, and the port takes its answer away when it comes. NULL does nothing. */
void voq_request_free(voq_request* request);

/* -------------------------------------------------------------------------------------------------------- values */

/* Between an image, as readings, answers and writes have it, and numbers: by the range's type and the port's byte
 * order. Decoding returns the elements stored, at most `count` and at most those that `length` bytes hold. Encoding
 * takes voq_range_count numbers and returns the bytes stored. VOQ_INVALID for raw elements, when nothing says the byte
 * order, when a number does not fit (an integer type takes whole numbers only), when `size` is too small; of the
 * integer forms for float and double. A digit that is none makes a BCD element NaN; for the integer form VOQ_DAMAGED.
 */
int voq_decode_doubles(const voq_range* range, const void* image, size_t length, double* values, size_t count);
int voq_decode_integers(const voq_range* range, const void* image, size_t length, int64_t* values, size_t count);
int voq_encode_doubles(const voq_range* range, const double* values, size_t count, void* image, size_t size);
int voq_encode_integers(const voq_range* range, const int64_t* values, size_t count, void* image, size_t size);

/* What the values of a range mean to a person: of a range made by the name of a description's register, else nothing.
 */
struct voq_meaning {
    const char* unit;    /* of the scaled value, "" for none. Texts live with the range */
    const char* comment; /* "" for none */
    double scale;        /* scaled value = number * scale + offset; 1 and 0 when it is not scaled */
    double offset;
    double minimum;   /* of the scaled value, NaN for none */
    double maximum;   /* the same */
    int32_t decimals; /* of the scaled value, -1: as many as scale and offset need */
    int32_t text;     /* characters that the whole range holds as a text, 0 when it is none */
};
/* `size` is sizeof(struct voq_meaning). */
int voq_range_meaning(const voq_range* range, struct voq_meaning* meaning, size_t size);

/* Between an image and text as a person reads and types it: scaled, with the names of a description's numbers and bits,
 * a text as a text; of a range without a description as voq_format and voq_parse. voq_enter refuses what is outside
 * minimum and maximum. */
int voq_show(const voq_range* range, const void* image, size_t length, char* text, size_t size);
int voq_enter(const voq_range* range, const char* text, void* image, size_t size);

/* Between an image and text, the elements separated by spaces, as voqctl prints and takes them; for every type.
 * voq_format stores at most `size` bytes, the ending zero included, and returns the whole text's length. voq_parse
 * returns the bytes stored. */
int voq_format(const voq_range* range, const void* image, size_t length, char* text, size_t size);
int voq_parse(const voq_range* range, const char* text, void* image, size_t size);

/* -------------------------------------------------------------------------------------------- status, statistics */

/* 1 while a service serves the port, as of the last dispatch; else 0. */
int voq_port_running(const voq_port* port);

enum voq_link { VOQ_LINK_GOOD = 0, VOQ_LINK_TIMEOUT = 1, VOQ_LINK_ERROR = 2 };
/* How the link to the PLC is, as of the last dispatch; the worse of two. */
enum voq_link voq_port_link(const voq_port* port);

struct voq_status {
    int32_t running;                         /* a process reads the FIFO that requests go through */
    int32_t timeout;                         /* the marker of a link in time-out is there */
    int32_t comerror;                        /* that of a communication error */
    uint32_t waiting;                        /* one-shot writes and changes that wait */
    int64_t oldest_waiting_us;               /* how long the oldest of them does */
    uint32_t records;                        /* ranges that the service knows */
    uint32_t never, good, timed_out, failed; /* of them by state */
    uint32_t subscribed;                     /* of this port handle */
    uint32_t under_way;                      /* requests of this port handle without an answer */
    uint32_t restarts;                       /* of the service, seen by this port handle */
    uint32_t reserved;                       /* 0 */
};
/* One look at the port's files now; copies the register table: not for every turn of a loop. `size` is
 * sizeof(struct voq_status). */
int voq_port_status(voq_port* port, struct voq_status* status, size_t size);

struct voq_calls { /* driver calls of the service since it started */
    uint64_t calls;
    uint64_t ok;
    uint64_t timeouts;
    uint64_t errors;
    uint64_t refused;   /* the device does not know the range */
    uint64_t answer_us; /* time of all answers together; answers are ok and refused */
    uint64_t lost_us;   /* time of all calls that ended with a time-out */
    uint64_t longest_us;
};
struct voq_statistics {
    int64_t started_us;        /* microseconds since 1970: start of the service. Counters begin there */
    uint64_t turns;            /* of its main loop */
    struct voq_calls reads;    /* driver reads, of all stations */
    struct voq_calls writes;   /* driver writes */
    uint64_t rounds;           /* ways once through all subscribed ranges */
    uint64_t round_us;         /* length of the last one */
    uint32_t round_reads;      /* driver reads in it */
    uint32_t round_ranges;     /* ranges in it */
    uint64_t answered;         /* one-shot requests that were done */
    uint64_t answered_timeout; /* that the PLC did not answer */
    uint64_t answered_error;   /* that failed otherwise */
    uint64_t refused;          /* that the service did not take */
    uint32_t listed;           /* that wait now */
    uint32_t subscribed;       /* ranges that any client is subscribed to now */
};
/* What the service counts, as it was a moment ago; takes no lock. The same of a service that has ended, until the next
 * starts. VOQ_NO_VALUE when it keeps no statistics. `size` is sizeof(struct voq_statistics). */
int voq_port_statistics(voq_port* port, struct voq_statistics* statistics, size_t size);
/* Reads and writes of one PLC station, 0 to 255, together. `size` is sizeof(struct voq_calls). */
int voq_port_station(voq_port* port, unsigned station, struct voq_calls* calls, size_t size);

#ifdef __cplusplus
}
#endif

#endif
