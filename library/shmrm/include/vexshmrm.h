/**
 * @file vexshmrm.h
 * @brief vexshmrm: the run-time status of one cluster node in one named shared-memory region.
 *
 * Every process of the node that loads the library reads and writes the same region:
 * groups, the resources inside each group, monitors, and a few node-wide values.
 * Every function returns one of the SHMRM_ result codes below.
 */

/**
 * @mainpage vexshmrm
 *
 * vexshmrm keeps the run-time status of one cluster node in one named shared-memory region.
 * Every process of the node that loads the library sees the same bytes: a header with
 * node-wide values, a table of groups with the resources of each group inside it, and a
 * table of monitors. The library gives the values it stores no meaning of its own: a setter
 * stores what it is given, a getter hands it back.
 *
 * @section sec_region The region
 * One process of the node, the creator, maps the region with shmrm_create() and releases it
 * with shmrm_delete(); every other process attaches with shmrm_attach() and releases with
 * shmrm_detach() (@ref lifecycle). Both mapping calls read the node configuration
 * `etc/vex.xml` below the install directory (the environment variable `VEX_INSTALL_PATH`, or
 * the prefix chosen at build time): the capacities of the tables (`all/num/group`,
 * `all/num/resource`, `all/num/monitor`) and the log settings. The capacities fix the
 * region's size, so every process of a node must be configured with the same ones. The region
 * lives exactly while some process holds it: when the last holder releases it, or dies, its
 * contents are gone, and the next shmrm_create() makes a new zero-filled one. Nothing is
 * persisted. Until a mapping call has succeeded in a process, every call of that process
 * but the lock calls returns #SHMRM_ERR_NOTINIT.
 *
 * @section sec_namespace Namespace
 * The region and the region lock are named objects of the system. When the environment
 * variable `VEX_IPC_NAMESPACE` is set as the library is loaded, its value and a dot prefix
 * both names, so that independent nodes, or test runs, on one host never meet. When the
 * library cannot obtain the region lock as it loads (for instance for a namespace that the
 * system cannot use in a name), it does not load on Windows; elsewhere it stays loaded,
 * writes one line to standard error, and its calls return #SHMRM_ERR_NOTINIT (the lock
 * calls #SHMRM_ERR_LOCK).
 *
 * @section sec_records Records and names
 * The layout of the region is a format shared between processes (@ref format): every field
 * of #rmhead, #rmgrp, #rmrsc and #rmmon lies at a fixed offset. A group is found by its name,
 * a resource by group, type and name, a monitor by type and name. Names and types are stored
 * in #SHMRM_NAME_LEN bytes: at most 31 characters, a longer one is cut. They are compared
 * byte for byte, case-sensitive, up to and including the NUL, so a caller's string of 32
 * characters or more matches nothing. Where a parameter says so, a NULL group name or type
 * matches every group or type; an empty string is an ordinary value. Adding does not look
 * for duplicates: every lookup takes the first match in table order. Each table stays packed
 * in the order of addition: a removal moves every later record down one position and
 * zero-fills the vacated one, so records are addressed by name, never by position, and a new
 * record starts with every attribute 0 and every text empty. Texts (`sv`) are stored in
 * #SHMRM_TEXT_LEN bytes: at most 255 characters, NUL-padded; a buffer that receives one holds
 * #SHMRM_TEXT_LEN bytes.
 *
 * @section sec_lists Name lists and size queries
 * shmrm_enumgrp(), shmrm_enumrsc() and shmrm_enummon() write a name list: every name followed
 * by a NUL, then one more NUL (two NULs when the list is empty). `*psize` holds the size of
 * the caller's buffer in bytes. Ask first with a NULL buffer: the call sets `*psize` to the
 * size the list needs and returns #SHMRM_OK. Then call with a buffer of that size: on success
 * `*psize` is set to the bytes written, both terminators included. A size below 2, or too
 * small for the next name, gives #SHMRM_ERR_BUFFER with `*psize` unchanged and the names
 * copied so far in the buffer, without the closing NUL; the size needed is not reported, so
 * ask again. Hold the region lock across both calls, or the table may grow in between.
 * shmrm_dump() (the whole region) and shmrm_getrscfree() (the free area) also answer a size
 * query when given a NULL buffer.
 *
 * @section sec_lock The region lock
 * No call takes a lock of its own: a caller brackets a series of calls that must not
 * interleave with other processes' calls with shmrm_rwlock() and shmrm_rwunlock() (or
 * shmrm_rolock() and shmrm_rounlock(): the same lock) (@ref lock). Without it a reader may
 * see a text half written or a removal half done. The lock is a recursive mutex owned by the
 * calling thread, shared by every process of the node; when its owner ends while holding it,
 * the next waiter gets it.
 *
 * @section sec_log The log
 * Every call traces its entry, its failures and its result to the module log
 * `log/shmrm.log` below the install directory, which all processes of the node share, one
 * whole line at a time. The log is open while the region is mapped in the process (calls
 * made before that trace nowhere). `shmrm/log/level` in the configuration selects the lines
 * (@ref log_levels) and `shmrm/log/size` the byte size at which the file is rotated to
 * `shmrm.log.1`.
 *
 * @section sec_results Result codes
 * Every function returns an `int` result code (@ref results): #SHMRM_OK, or the reason it
 * failed. A failed call changes nothing in the region and writes no output, except that a
 * name list that runs out of room leaves the names copied so far. Arguments are checked in
 * one order: the region is mapped (#SHMRM_ERR_NOTINIT), then the arguments
 * (#SHMRM_ERR_PARAM), then capacity or lookup. #SHMRM_RESULT_MAP lists every code with its
 * name and meaning.
 */
#ifndef VEXSHMRM_H
#define VEXSHMRM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup results Result codes
 * @brief What every function returns, and when; #SHMRM_RESULT_MAP names them all. 15 is not
 * used.
 * @{
 */
/** Success. */
#define SHMRM_OK 0
/**
 * The region is not mapped in this process: any call that needs it before shmrm_create() or
 * shmrm_attach() succeeded, or after it was released. Also shmrm_create() and shmrm_attach()
 * when the library could not obtain the region lock as it was loaded.
 */
#define SHMRM_ERR_NOTINIT 1
/** A required pointer is NULL, or a value or length is out of the range the call accepts. */
#define SHMRM_ERR_PARAM 2
/** No record carries the name (and type, and group) that the call looked up. */
#define SHMRM_ERR_NOTFOUND 3
/** A name list, or shmrm_dump(), does not fit the size the caller gave. */
#define SHMRM_ERR_BUFFER 4
/** shmrm_create(), shmrm_attach(): the XML library could not be started. */
#define SHMRM_ERR_XMLINIT 5
/** shmrm_create(): the named mapping could not be made, in five attempts a second apart. */
#define SHMRM_ERR_CREATEMAP 6
/**
 * shmrm_create(), shmrm_attach(): the mapping could not be mapped into the process, or the
 * existing region is smaller than this process's capacities need.
 */
#define SHMRM_ERR_MAPVIEW 7
/** shmrm_attach(): the named mapping could not be opened: no process holds the region. */
#define SHMRM_ERR_OPENMAP 8
/** shmrm_addgrp(): the group table is full (rmhead::grpcnt has reached rmhead::grpmax). */
#define SHMRM_ERR_GRPOVER 9
/** shmrm_addrsc(): the group's resource slots are full (rmgrp::rsccnt has reached rscmax). */
#define SHMRM_ERR_RSCOVER 10
/** shmrm_addmon(): the monitor table is full (rmhead::moncnt has reached rmhead::monmax). */
#define SHMRM_ERR_MONOVER 11
/**
 * shmrm_create(), shmrm_attach(): the capacities could not be loaded: the install directory
 * does not exist, or the configured capacities are below 1 or make a region of 2 GiB or more.
 */
#define SHMRM_ERR_LOADINFO 12
/** shmrm_create(), shmrm_attach(): `etc/vex.xml` is missing, unreadable or not well-formed. */
#define SHMRM_ERR_XMLCONFIG 13
/**
 * shmrm_rolock(), shmrm_rwlock(): the timeout passed before the region lock was free. Every
 * lock call, when the library could not obtain the region lock as it was loaded.
 */
#define SHMRM_ERR_LOCK 14
/**
 * Returned by no call: the log gives it as the reason when shmrm_create() or shmrm_attach()
 * fails with #SHMRM_ERR_LOADINFO because the install path could not be obtained.
 */
#define SHMRM_ERR_INSTALLPATH 16

/**
 * @brief Every result code, one row each: `X(name, value, "one-line meaning")`, ascending.
 *
 * Expand it with a macro of your own, for instance to name a code:
 * @code
 * #define NAME_CASE(name, value, meaning) case value: return #name;
 * switch (rc) { SHMRM_RESULT_MAP(NAME_CASE) }
 * @endcode
 * Stringize the name in X itself: handed on to another macro it arrives as its value.
 */
#define SHMRM_RESULT_MAP(X)                                                        \
    X(SHMRM_OK, 0, "success")                                                      \
    X(SHMRM_ERR_NOTINIT, 1, "the region is not mapped in this process")            \
    X(SHMRM_ERR_PARAM, 2, "a required argument is missing or out of range")        \
    X(SHMRM_ERR_NOTFOUND, 3, "no record has the given name (and type, and group)") \
    X(SHMRM_ERR_BUFFER, 4, "the caller's buffer is smaller than the result")       \
    X(SHMRM_ERR_XMLINIT, 5, "the XML library could not be started")                \
    X(SHMRM_ERR_CREATEMAP, 6, "the named mapping could not be created")            \
    X(SHMRM_ERR_MAPVIEW, 7, "the mapping could not be mapped into the process")    \
    X(SHMRM_ERR_OPENMAP, 8, "the named mapping could not be opened")               \
    X(SHMRM_ERR_GRPOVER, 9, "the group table is full")                             \
    X(SHMRM_ERR_RSCOVER, 10, "the group's resource slots are full")                \
    X(SHMRM_ERR_MONOVER, 11, "the monitor table is full")                          \
    X(SHMRM_ERR_LOADINFO, 12, "the table capacities could not be loaded")          \
    X(SHMRM_ERR_XMLCONFIG, 13, "the XML configuration could not be loaded")        \
    X(SHMRM_ERR_LOCK, 14, "the region lock could not be taken in time")            \
    X(SHMRM_ERR_INSTALLPATH, 16, "the install path could not be obtained")
/** @} */

/**
 * @defgroup log_levels Trace levels
 * @brief The levels of the module log's lines: single bits. A line is written when its level
 * is at most the configured one (`shmrm/log/level`; 4 when it is not set).
 * @{
 */
/** Every failure, just before the EXIT line that reports it. */
#define SHMRM_LOG_ERROR 1
/**
 * Warnings: a mapping call in a process that has the region mapped already; capacities of an
 * existing region that differ from the configured ones.
 */
#define SHMRM_LOG_WARNING 2
/** Events worth keeping: how the mapping was obtained, the region size, a clear. */
#define SHMRM_LOG_INFO 4
/** Every call's ENTER line and its EXIT line with the result code. */
#define SHMRM_LOG_FUNC 16
/** Input parameters ("[in]" lines) and per-record detail. */
#define SHMRM_LOG_PARAM 32
/** @} */

/**
 * @defgroup format Shared format
 * @brief The sizes and records of the region: an inter-process format, every field at a fixed
 * offset (checked at compile time).
 *
 * The region is the header #rmhead; then `grpmax` group records, each of
 * #SHMRM_GRP_HEAD_SIZE + `rscmax` * #SHMRM_RSC_SIZE bytes (the head #rmgrp followed by its
 * `rscmax` resource slots #rmrsc); then `monmax` monitor records #rmmon. Its size is
 * #SHMRM_HEAD_SIZE + `grpmax` * (#SHMRM_GRP_HEAD_SIZE + `rscmax` * #SHMRM_RSC_SIZE) +
 * `monmax` * #SHMRM_MON_SIZE bytes: 1907384 for the capacities 128, 16 and 128. Integers are
 * little-endian; text fields are NUL-terminated within their width. shmrm_dump() copies the
 * region in this layout.
 * @{
 */
/**
 * The lock timeout that waits without limit (shmrm_rolock(), shmrm_rwlock()).
 * @ingroup lock
 */
#define SHMRM_INFINITE 0xFFFFFFFFu

/** Bytes of a name or type field, and of a buffer that receives one (31 characters and NUL). */
#define SHMRM_NAME_LEN 32
/** Bytes of a text field (`sv`, `descript`, `free`), and of a buffer that receives one. */
#define SHMRM_TEXT_LEN 256
/** Bytes of the header #rmhead. */
#define SHMRM_HEAD_SIZE 184
/** Bytes of a group record's head #rmgrp, before its resource slots. */
#define SHMRM_GRP_HEAD_SIZE 344
/** Bytes of a resource slot #rmrsc. */
#define SHMRM_RSC_SIZE 884
/** Bytes of a monitor record #rmmon. */
#define SHMRM_MON_SIZE 412

/**
 * @brief The header of the region, at its start.
 *
 * The capacities are written by every shmrm_create() and shmrm_attach() from the process's
 * configuration, and by shmrm_setmaxvalue(); shmrm_clear() zeroes them with the rest.
 */
typedef struct rmhead {
    char reserved0[36];  /**< Reserved: zero. */
    int grpmax;          /**< Capacity of the group table. */
    int rscmax;          /**< Resource slots per group; the stride factor of the group table. */
    int monmax;          /**< Capacity of the monitor table. */
    int grpcnt;          /**< Groups in use: records 0 to grpcnt - 1. */
    int moncnt;          /**< Monitors in use: records 0 to moncnt - 1. */
    int reserved1;       /**< Reserved: zero. */
    int acstat;          /**< Node-wide value held for callers; 0 until set (shmrm_setacstat()). */
    int acstat2;         /**< Node-wide value held for callers; 0 until set. */
    int pow32port;       /**< Node-wide value held for callers; 0 until set. */
    char reserved2[112]; /**< Reserved: zero. */
} rmhead;

/** @brief One resource slot of a group. Its first 320 bytes are laid out as in #rmmon. */
typedef struct rmrsc {
    char name[32];           /**< Name, the lookup key: at most 31 characters. */
    char type[32];           /**< Type, the optional second key: at most 31 characters. */
    char descript[256];      /**< Description text (shmrm_setdescript()). */
    unsigned char free[256]; /**< Free data area of the callers: raw bytes, no terminator. */
    char sv[256];            /**< Text attribute: at most 255 characters. */
    int stat;                /**< Status. */
    int focnt;               /**< Failover count. */
    int strtret;             /**< Return code of the resource's last start. */
    int stopret;             /**< Return code of the resource's last stop. */
    char reserved[36];       /**< Reserved: zero. */
} rmrsc;

/** @brief The head of a group record; its rscmax resource slots (#rmrsc) follow it directly. */
typedef struct rmgrp {
    char name[32];            /**< Name, the lookup key: at most 31 characters. */
    char sv[256];             /**< Text attribute: at most 255 characters. */
    int stat;                 /**< Status. */
    int env;                  /**< Value kept for callers. */
    int rsccnt;               /**< Resource slots in use: slots 0 to rsccnt - 1. */
    unsigned short flag;      /**< Flag word kept for callers. */
    unsigned short reserved0; /**< Reserved: zero. */
    int retrycnt;             /**< Retry count. */
    int focnt;                /**< Failover count. */
    char reserved1[32];       /**< Reserved: zero. */
} rmgrp;

/** @brief One monitor record. */
typedef struct rmmon {
    char name[32];      /**< Name, the lookup key: at most 31 characters. */
    char type[32];      /**< Type, the second key: at most 31 characters. */
    char descript[256]; /**< Description bytes (shmrm_setdescript()). */
    int stat;           /**< Status. */
    int fo;             /**< Value kept for callers. */
    int proc;           /**< Value kept for callers. */
    int inst;           /**< Instruction word. */
    int instdata;       /**< Data that goes with the instruction word. */
    short scriptcnt;    /**< Script counter (16 bits). */
    short restartcnt;   /**< Restart counter (16 bits). */
    short finactcnt;    /**< Counter kept for callers (16 bits). */
    short reserved0;    /**< Reserved: zero. */
    int simuflag;       /**< Flag word kept for callers. */
    int targetpid;      /**< Target process id. */
    int ret;            /**< Return value recorded by callers. */
    int progress;       /**< Progress step (shmrm_setmonprogress()). */
    int parentpid;      /**< Parent process id. */
    unsigned int tick3; /**< Tick count (ms) when progress was last set to 3; 0 after step 0. */
    unsigned int tick4; /**< Tick count (ms) when progress was last set to 4; 0 after step 0. */
    char reserved1[36]; /**< Reserved: zero. */
} rmmon;
/** @} */

/** @cond LAYOUT_CHECKS */
/* The sizes and offsets of the shared format, checked at compile time. */
#ifdef __cplusplus
#define SHMRM_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define SHMRM_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
#define SHMRM_AT(t, f, o) SHMRM_STATIC_ASSERT(offsetof(t, f) == (o), #t "." #f " offset")

SHMRM_STATIC_ASSERT(sizeof(int) == 4 && sizeof(short) == 2, "32-bit int, 16-bit short");
SHMRM_STATIC_ASSERT(sizeof(rmhead) == SHMRM_HEAD_SIZE, "rmhead size");
SHMRM_AT(rmhead, grpmax, 36);
SHMRM_AT(rmhead, rscmax, 40);
SHMRM_AT(rmhead, monmax, 44);
SHMRM_AT(rmhead, grpcnt, 48);
SHMRM_AT(rmhead, moncnt, 52);
SHMRM_AT(rmhead, reserved1, 56);
SHMRM_AT(rmhead, acstat, 60);
SHMRM_AT(rmhead, acstat2, 64);
SHMRM_AT(rmhead, pow32port, 68);
SHMRM_AT(rmhead, reserved2, 72);

SHMRM_STATIC_ASSERT(sizeof(rmgrp) == SHMRM_GRP_HEAD_SIZE, "rmgrp head size");
SHMRM_AT(rmgrp, name, 0);
SHMRM_AT(rmgrp, sv, 32);
SHMRM_AT(rmgrp, stat, 288);
SHMRM_AT(rmgrp, env, 292);
SHMRM_AT(rmgrp, rsccnt, 296);
SHMRM_AT(rmgrp, flag, 300);
SHMRM_AT(rmgrp, reserved0, 302);
SHMRM_AT(rmgrp, retrycnt, 304);
SHMRM_AT(rmgrp, focnt, 308);
SHMRM_AT(rmgrp, reserved1, 312);

SHMRM_STATIC_ASSERT(sizeof(rmrsc) == SHMRM_RSC_SIZE, "rmrsc size");
SHMRM_AT(rmrsc, name, 0);
SHMRM_AT(rmrsc, type, 32);
SHMRM_AT(rmrsc, descript, 64);
SHMRM_AT(rmrsc, free, 320);
SHMRM_AT(rmrsc, sv, 576);
SHMRM_AT(rmrsc, stat, 832);
SHMRM_AT(rmrsc, focnt, 836);
SHMRM_AT(rmrsc, strtret, 840);
SHMRM_AT(rmrsc, stopret, 844);
SHMRM_AT(rmrsc, reserved, 848);

SHMRM_STATIC_ASSERT(sizeof(rmmon) == SHMRM_MON_SIZE, "rmmon size");
SHMRM_AT(rmmon, name, 0);
SHMRM_AT(rmmon, type, 32);
SHMRM_AT(rmmon, descript, 64);
SHMRM_AT(rmmon, stat, 320);
SHMRM_AT(rmmon, fo, 324);
SHMRM_AT(rmmon, proc, 328);
SHMRM_AT(rmmon, inst, 332);
SHMRM_AT(rmmon, instdata, 336);
SHMRM_AT(rmmon, scriptcnt, 340);
SHMRM_AT(rmmon, restartcnt, 342);
SHMRM_AT(rmmon, finactcnt, 344);
SHMRM_AT(rmmon, reserved0, 346);
SHMRM_AT(rmmon, simuflag, 348);
SHMRM_AT(rmmon, targetpid, 352);
SHMRM_AT(rmmon, ret, 356);
SHMRM_AT(rmmon, progress, 360);
SHMRM_AT(rmmon, parentpid, 364);
SHMRM_AT(rmmon, tick3, 368);
SHMRM_AT(rmmon, tick4, 372);
SHMRM_AT(rmmon, reserved1, 376);

#undef SHMRM_AT
/** @endcond */

/**
 * @defgroup lifecycle Region lifecycle
 * @brief Map the region into the process and release it.
 *
 * The creator pairs shmrm_create() with shmrm_delete(), an attacher shmrm_attach() with
 * shmrm_detach(). Within a process these four calls exclude each other; none takes the region
 * lock. Do not release the region while other threads of the process are inside calls.
 * @{
 */

/* Region lifecycle */

/**
 * @brief Maps the region as its creator: makes the named mapping, or uses it if it exists.
 *
 * Reads the configuration (`etc/vex.xml` below the install directory), opens the log, and
 * maps the whole region. A new region is zero-filled; an existing one keeps its records. In
 * both cases the configured capacities are written into the header (a warning is logged when
 * it held other, non-zero ones). Making the mapping is tried five times, a second apart. When the
 * region is mapped in this process already, the call only logs a warning.
 *
 * @retval SHMRM_OK the region is mapped
 * @retval SHMRM_ERR_NOTINIT the library could not obtain the region lock as it was loaded
 * @retval SHMRM_ERR_XMLINIT the XML library could not be started
 * @retval SHMRM_ERR_XMLCONFIG the configuration is missing or not well-formed
 * @retval SHMRM_ERR_LOADINFO the install directory does not exist, or the capacities are
 *         unusable (below 1, or a region of 2 GiB or more)
 * @retval SHMRM_ERR_CREATEMAP the mapping could not be made in five attempts
 * @retval SHMRM_ERR_MAPVIEW the view could not be mapped, or the existing region is smaller
 *         than the configured capacities need
 */
int shmrm_create(void);
/**
 * @brief Maps the existing region as an attacher; counts one more attachment.
 *
 * Reads the configuration and opens the log as shmrm_create() does, opens the mapping (once,
 * without retrying), maps it and writes the configured capacities into the header. The region
 * is never cleared here. When the region is mapped in this process already, the call only
 * adds an attachment: every successful call is matched by one shmrm_detach().
 *
 * @retval SHMRM_OK the region is mapped
 * @retval SHMRM_ERR_NOTINIT the library could not obtain the region lock as it was loaded
 * @retval SHMRM_ERR_XMLINIT the XML library could not be started
 * @retval SHMRM_ERR_XMLCONFIG the configuration is missing or not well-formed
 * @retval SHMRM_ERR_LOADINFO the install directory does not exist, or the capacities are
 *         unusable
 * @retval SHMRM_ERR_OPENMAP no process holds the region
 * @retval SHMRM_ERR_MAPVIEW the view could not be mapped, or the region is smaller than the
 *         configured capacities need
 */
int shmrm_attach(void);
/**
 * @brief Drops one attachment; the last one unmaps the region and closes the log.
 *
 * The region itself lives on while any other process holds it.
 * @retval SHMRM_OK one attachment fewer, or the region unmapped
 * @retval SHMRM_ERR_NOTINIT the region is not mapped in this process
 */
int shmrm_detach(void);
/**
 * @brief Unmaps the region in the creator, whatever the attachments, and closes the log.
 *
 * The region itself lives on while any other process holds it.
 * @retval SHMRM_OK the region is unmapped
 * @retval SHMRM_ERR_NOTINIT the region is not mapped in this process
 */
int shmrm_delete(void);
/**
 * @brief Zero-fills the whole region for every process, header included, and keeps it mapped.
 *
 * All counts and the capacities become 0, so every add fails (#SHMRM_ERR_GRPOVER and so on)
 * until shmrm_setmaxvalue() restores the capacities. Takes no lock.
 * @retval SHMRM_OK the region is zero
 * @retval SHMRM_ERR_NOTINIT the region is not mapped in this process
 */
int shmrm_clear(void);
/** @} */

/**
 * @defgroup lock Region lock
 * @brief The one lock that all processes of the node share, taken and released by callers.
 *
 * Both pairs take the same recursive mutex, owned by the calling thread: a holder of either
 * excludes every other thread of every process from both, readers included. The owning thread
 * may take it again and releases it as often as it took it. When the owner thread or process
 * ends while holding it, the next waiter gets it (and may find a series of writes half done).
 * The lock exists from the library's load, so it works whether or not the region is mapped.
 * @{
 */

/* Region lock: a recursive, cross-process mutex owned by the calling thread */

/**
 * @brief Takes the region lock, waiting at most @p timeout_ms milliseconds.
 * @param timeout_ms 0 tries once; #SHMRM_INFINITE waits without limit
 * @retval SHMRM_OK the calling thread owns the lock
 * @retval SHMRM_ERR_LOCK the timeout passed, or the library has no region lock
 */
int shmrm_rolock(unsigned int timeout_ms);
/**
 * @brief Releases the region lock once.
 * @retval SHMRM_OK released; also when the thread did not hold it
 * @retval SHMRM_ERR_LOCK the library has no region lock (none could be obtained at load)
 */
int shmrm_rounlock(void);
/**
 * @brief Takes the region lock: the same lock as shmrm_rolock().
 *
 * @copydetails shmrm_rolock
 */
int shmrm_rwlock(unsigned int timeout_ms);
/**
 * @brief Releases the region lock once.
 *
 * @copydetails shmrm_rounlock
 */
int shmrm_rwunlock(void);
/** @} */

/**
 * @defgroup header Header values and dump
 * @brief The node-wide values and capacities of the header, and a copy of the whole region.
 *
 * Every call returns #SHMRM_ERR_NOTINIT when the region is not mapped, before it looks at
 * its arguments.
 * @{
 */

/* Header values and dump */

/**
 * @brief Rewrites the three capacities in the header, for instance after shmrm_clear().
 *
 * Only the header words change: the region keeps its size. A capacity is refused when it is
 * below 1; @p grpmax and @p monmax also above, and @p rscmax different from, the capacities
 * this process sized the region with. A refusal writes none of the three.
 * @param grpmax group capacity
 * @param rscmax resource slots per group
 * @param monmax monitor capacity
 * @retval SHMRM_OK all three are written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM a value is refused
 */
int shmrm_setmaxvalue(int grpmax, int rscmax, int monmax);
/**
 * @brief Reads the three capacities from the header (0 after shmrm_clear()).
 * @param[out] grpmax group capacity
 * @param[out] rscmax resource slots per group
 * @param[out] monmax monitor capacity
 * @retval SHMRM_OK all three are written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM a pointer is NULL; none is written
 */
int shmrm_getmaxvalue(int* grpmax, int* rscmax, int* monmax);
/**
 * @brief Stores the node-wide value rmhead::acstat.
 *
 * Values below 1 are refused: 0 in the header means "never set".
 * @param value 1 or more
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p value is below 1; the field is unchanged
 */
int shmrm_setacstat(int value);
/**
 * @brief Reads the node-wide value rmhead::acstat (0 when it was never set).
 * @param[out] pvalue receives the value
 * @retval SHMRM_OK read
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p pvalue is NULL
 */
int shmrm_getacstat(int* pvalue);
/**
 * @brief Stores the node-wide value rmhead::acstat2.
 *
 * @copydetails shmrm_setacstat
 */
int shmrm_setacstat2(int value);
/**
 * @brief Reads the node-wide value rmhead::acstat2.
 *
 * @copydetails shmrm_getacstat
 */
int shmrm_getacstat2(int* pvalue);
/**
 * @brief Stores the node-wide value rmhead::pow32port.
 *
 * @copydetails shmrm_setacstat
 */
int shmrm_setpow32port(int value);
/**
 * @brief Reads the node-wide value rmhead::pow32port.
 *
 * @copydetails shmrm_getacstat
 */
int shmrm_getpow32port(int* pvalue);
/**
 * @brief Copies the whole region, in its @ref format "shared format", into a buffer.
 *
 * The region's size is the one this process computed from its capacities. Hold the region
 * lock for a copy that no other process writes into meanwhile.
 * @param[out] buf the buffer, or NULL to ask for the size
 * @param[in,out] psize in: the size of @p buf in bytes; with a NULL @p buf, out: the region's
 *        size. A copy leaves it unchanged.
 * @retval SHMRM_OK copied, or the size written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p psize is NULL
 * @retval SHMRM_ERR_BUFFER `*psize` is below the region's size; nothing is copied
 */
int shmrm_dump(void* buf, int* psize);
/** @} */

/**
 * @defgroup groups Groups
 * @brief The group table: add, remove, list, and the attributes of a group found by its name.
 *
 * A group is found by the first record, in table order, whose name equals @p grpname
 * exactly; there is no wildcard. Every call here returns #SHMRM_ERR_NOTINIT when the region
 * is not mapped, then #SHMRM_ERR_PARAM when a required pointer is NULL, before any lookup.
 * The attributes are stored and returned bit for bit.
 * @{
 */

/* Groups */

/**
 * @brief Adds a group at the end of the table, every attribute 0 and no resources.
 *
 * The name is stored cut to 31 characters; an existing group of that name is not looked for.
 * @param grpname the name; may be empty
 * @retval SHMRM_OK added
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname is NULL
 * @retval SHMRM_ERR_GRPOVER the table is full (grpcnt has reached grpmax)
 */
int shmrm_addgrp(const char* grpname);
/**
 * @brief Removes the first group of that name, with all its resources.
 *
 * Every later group moves down one position, with its resources.
 * @param grpname the name
 * @retval SHMRM_OK removed
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname is NULL
 * @retval SHMRM_ERR_NOTFOUND no group has that name
 */
int shmrm_rmgrp(const char* grpname);
/**
 * @brief Lists the names of all groups, in table order, as a @ref sec_lists "name list".
 * @param[out] buf the buffer, or NULL to ask for the size
 * @param[in,out] psize the size of @p buf; out: the bytes written, or needed
 * @retval SHMRM_OK listed, or the size written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p psize is NULL
 * @retval SHMRM_ERR_BUFFER `*psize` is below 2 or too small for the list; it is unchanged
 */
int shmrm_enumgrp(char* buf, int* psize);
/**
 * @brief Stores a group's status word rmgrp::stat.
 * @param grpname the group's name
 * @param value the new value
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname is NULL
 * @retval SHMRM_ERR_NOTFOUND no group has that name
 */
int shmrm_setgrpstat(const char* grpname, int value);
/**
 * @brief Reads a group's status word rmgrp::stat.
 * @param grpname the group's name
 * @param[out] pvalue receives the value
 * @retval SHMRM_OK read
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname or @p pvalue is NULL
 * @retval SHMRM_ERR_NOTFOUND no group has that name
 */
int shmrm_getgrpstat(const char* grpname, int* pvalue);
/**
 * @brief Stores a group's text rmgrp::sv: at most 255 characters, the rest of the field NUL.
 * @param grpname the group's name
 * @param value the text; a longer one is cut
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname or @p value is NULL
 * @retval SHMRM_ERR_NOTFOUND no group has that name
 */
int shmrm_setgrpsv(const char* grpname, const char* value);
/**
 * @brief Copies a group's text rmgrp::sv and its NUL into a buffer.
 * @param grpname the group's name
 * @param[out] buf at least #SHMRM_TEXT_LEN bytes; nothing after the NUL is written
 * @retval SHMRM_OK copied
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname or @p buf is NULL
 * @retval SHMRM_ERR_NOTFOUND no group has that name
 */
int shmrm_getgrpsv(const char* grpname, char* buf);
/**
 * @brief Stores a group's value rmgrp::env.
 *
 * @copydetails shmrm_setgrpstat
 */
int shmrm_setgrpenv(const char* grpname, int value);
/**
 * @brief Reads a group's value rmgrp::env.
 *
 * @copydetails shmrm_getgrpstat
 */
int shmrm_getgrpenv(const char* grpname, int* pvalue);
/**
 * @brief Stores a group's 16-bit flag word rmgrp::flag.
 *
 * @copydetails shmrm_setgrpstat
 */
int shmrm_setgrpflag(const char* grpname, unsigned short value);
/**
 * @brief Reads a group's 16-bit flag word rmgrp::flag: exactly 2 bytes are written.
 *
 * @copydetails shmrm_getgrpstat
 */
int shmrm_getgrpflag(const char* grpname, unsigned short* pvalue);
/**
 * @brief Stores a group's retry count rmgrp::retrycnt.
 *
 * @copydetails shmrm_setgrpstat
 */
int shmrm_setgrpretrycnt(const char* grpname, int value);
/**
 * @brief Reads a group's retry count rmgrp::retrycnt.
 *
 * @copydetails shmrm_getgrpstat
 */
int shmrm_getgrpretrycnt(const char* grpname, int* pvalue);
/**
 * @brief Stores a group's failover count rmgrp::focnt.
 *
 * @copydetails shmrm_setgrpstat
 */
int shmrm_setgrpfocnt(const char* grpname, int value);
/**
 * @brief Reads a group's failover count rmgrp::focnt.
 *
 * @copydetails shmrm_getgrpstat
 */
int shmrm_getgrpfocnt(const char* grpname, int* pvalue);
/** @} */

/**
 * @defgroup resources Resources
 * @brief The resource slots of the groups: add, remove, list, the attributes of a resource,
 * and the searches for a resource whose group the caller does not know.
 *
 * The resource lookup takes the groups in table order, skipping a group whose name differs
 * from @p grpname, and in each the used slots in order, skipping a slot whose type differs
 * from @p type, until the name matches. A NULL @p grpname matches every group, a NULL @p type
 * every type; @p name is always required. A group of the right name without a matching
 * resource does not end the search: later groups of the same name are searched too. Every
 * call here returns #SHMRM_ERR_NOTINIT when the region is not mapped, then #SHMRM_ERR_PARAM
 * for a refused argument, before any lookup.
 * @{
 */

/* Resources: a null grpname or type matches every group or type */

/**
 * @brief Adds a resource at the end of a group's slots, every attribute 0.
 *
 * The type and name are stored cut to 31 characters; an existing resource of that type and
 * name is not looked for.
 * @param grpname the group: the first of that name; no wildcard
 * @param type the resource's type
 * @param name the resource's name
 * @retval SHMRM_OK added
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM an argument is NULL
 * @retval SHMRM_ERR_NOTFOUND no group has that name
 * @retval SHMRM_ERR_RSCOVER the group's slots are full (rsccnt has reached rscmax)
 */
int shmrm_addrsc(const char* grpname, const char* type, const char* name);
/**
 * @brief Removes the first resource that the lookup finds; later slots of its group move down.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @retval SHMRM_OK removed
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name is NULL
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_rmrsc(const char* grpname, const char* type, const char* name);
/**
 * @brief Lists resource names as a @ref sec_lists "name list": of every group in table order,
 * or of the first group named @p grpname. Types and groups are not listed.
 * @param grpname the group, or NULL for all; a name no group has gives an empty list
 * @param[out] buf the buffer, or NULL to ask for the size
 * @param[in,out] psize the size of @p buf; out: the bytes written, or needed
 * @retval SHMRM_OK listed, or the size written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p psize is NULL
 * @retval SHMRM_ERR_BUFFER `*psize` is below 2 or too small for the list; it is unchanged
 */
int shmrm_enumrsc(const char* grpname, char* buf, int* psize);
/**
 * @brief Stores a resource's status word rmrsc::stat.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @param value the new value
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name is NULL
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_setrscstat(const char* grpname, const char* type, const char* name, int value);
/**
 * @brief Reads a resource's status word rmrsc::stat.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @param[out] pvalue receives the value
 * @retval SHMRM_OK read
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p pvalue is NULL
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_getrscstat(const char* grpname, const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a resource's failover count rmrsc::focnt.
 *
 * @copydetails shmrm_setrscstat
 */
int shmrm_setrscfocnt(const char* grpname, const char* type, const char* name, int value);
/**
 * @brief Reads a resource's failover count rmrsc::focnt.
 *
 * @copydetails shmrm_getrscstat
 */
int shmrm_getrscfocnt(const char* grpname, const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a resource's start return code rmrsc::strtret.
 *
 * @copydetails shmrm_setrscstat
 */
int shmrm_setrscstrtret(const char* grpname, const char* type, const char* name, int value);
/**
 * @brief Reads a resource's start return code rmrsc::strtret.
 *
 * @copydetails shmrm_getrscstat
 */
int shmrm_getrscstrtret(const char* grpname, const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a resource's stop return code rmrsc::stopret.
 *
 * @copydetails shmrm_setrscstat
 */
int shmrm_setrscstopret(const char* grpname, const char* type, const char* name, int value);
/**
 * @brief Reads a resource's stop return code rmrsc::stopret.
 *
 * @copydetails shmrm_getrscstat
 */
int shmrm_getrscstopret(const char* grpname, const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a resource's text rmrsc::sv: at most 255 characters, the rest of the field NUL.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @param value the text; a longer one is cut
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p value is NULL
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_setrscsv(const char* grpname, const char* type, const char* name, const char* value);
/**
 * @brief Copies a resource's text rmrsc::sv and its NUL into a buffer.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @param[out] buf at least #SHMRM_TEXT_LEN bytes; nothing after the NUL is written
 * @retval SHMRM_OK copied
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p buf is NULL
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_getrscsv(const char* grpname, const char* type, const char* name, char* buf);
/**
 * @brief Writes the start of a resource's free data area rmrsc::free.
 *
 * Copies min(@p len, 256) bytes; the bytes of the area behind them keep what they held. The
 * area keeps no length of its own.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @param data the bytes
 * @param len their count: 1 or more
 * @retval SHMRM_OK written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p data is NULL, or @p len is below 1
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_setrscfree(const char* grpname, const char* type, const char* name, const void* data,
                     int len);
/**
 * @brief Reads the start of a resource's free data area rmrsc::free; no terminator is added.
 *
 * Size query: with a NULL @p buf the call sets `*plen` to 256, the area's size, and returns
 * #SHMRM_OK without looking the resource up. With a buffer it copies `*plen` bytes; a `*plen`
 * above 256 copies all 256 and is set to 256.
 * @param grpname the group, or NULL for any group
 * @param type the type, or NULL for any type
 * @param name the resource's name
 * @param[out] buf the buffer, or NULL to ask for the size
 * @param[in,out] plen the bytes wanted: 1 or more; out as said above
 * @retval SHMRM_OK copied, or the size written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p plen is NULL, or `*plen` is below 1
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_getrscfree(const char* grpname, const char* type, const char* name, void* buf, int* plen);
/**
 * @brief Finds the group of the first resource, in table order, of that type and name.
 * @param[out] grpname receives the group's name: at least #SHMRM_NAME_LEN bytes
 * @param type the type, or NULL for any type
 * @param name the resource's name; an empty one is searched like any other
 * @retval SHMRM_OK found and written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p grpname or @p name is NULL
 * @retval SHMRM_ERR_NOTFOUND no resource matches
 */
int shmrm_getrscgrp(char* grpname, const char* type, const char* name);
/**
 * @brief Finds the group and the type of the first resource, in table order, of that name.
 *
 * With both outputs NULL the call tells whether such a resource exists.
 * @param[out] grpname receives the group's name (#SHMRM_NAME_LEN bytes), or NULL
 * @param[out] rsctype receives the resource's type (#SHMRM_NAME_LEN bytes), or NULL
 * @param rscname the resource's name: not empty
 * @retval SHMRM_OK found; the outputs given are written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p rscname is NULL or empty
 * @retval SHMRM_ERR_NOTFOUND no resource has that name
 */
int shmrm_getrscinfo(char* grpname, char* rsctype, const char* rscname);
/** @} */

/**
 * @defgroup monitors Monitors
 * @brief The monitor table: add, remove, list, the attributes of a monitor, its progress step.
 *
 * The monitor lookup takes the records in table order until the type and the name match; a
 * NULL @p type matches every type, @p name is always required. Every call here returns
 * #SHMRM_ERR_NOTINIT when the region is not mapped, then #SHMRM_ERR_PARAM for a refused
 * argument, before any lookup. The 16-bit counters keep the low 16 bits of what is written and
 * read back sign-extended into an `int` (40000 reads back as -25536).
 * @{
 */

/* Monitors: a null type matches every type */

/**
 * @brief Adds a monitor at the end of the table, every attribute 0.
 *
 * The type and name are stored cut to 31 characters; an existing monitor of that type and
 * name is not looked for.
 * @param type the monitor's type; no wildcard
 * @param name the monitor's name
 * @retval SHMRM_OK added
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p type or @p name is NULL
 * @retval SHMRM_ERR_MONOVER the table is full (moncnt has reached monmax)
 */
int shmrm_addmon(const char* type, const char* name);
/**
 * @brief Removes the first monitor that the lookup finds; later monitors move down.
 * @param type the type, or NULL for any type
 * @param name the monitor's name
 * @retval SHMRM_OK removed
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name is NULL
 * @retval SHMRM_ERR_NOTFOUND no monitor matches
 */
int shmrm_rmmon(const char* type, const char* name);
/**
 * @brief Lists the names of all monitors, in table order, as a @ref sec_lists "name list".
 * @param[out] buf the buffer, or NULL to ask for the size
 * @param[in,out] psize the size of @p buf; out: the bytes written, or needed
 * @retval SHMRM_OK listed, or the size written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p psize is NULL
 * @retval SHMRM_ERR_BUFFER `*psize` is below 2 or too small for the list; it is unchanged
 */
int shmrm_enummon(char* buf, int* psize);
/**
 * @brief Stores a monitor's status word rmmon::stat.
 * @param type the type, or NULL for any type
 * @param name the monitor's name
 * @param value the new value
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name is NULL
 * @retval SHMRM_ERR_NOTFOUND no monitor matches
 */
int shmrm_setmonstat(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's status word rmmon::stat.
 * @param type the type, or NULL for any type
 * @param name the monitor's name
 * @param[out] pvalue receives the value
 * @retval SHMRM_OK read
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p pvalue is NULL
 * @retval SHMRM_ERR_NOTFOUND no monitor matches
 */
int shmrm_getmonstat(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's value rmmon::fo.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonfo(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's value rmmon::fo.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonfo(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's value rmmon::proc.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonproc(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's value rmmon::proc.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonproc(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's instruction word rmmon::inst.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmoninst(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's instruction word rmmon::inst.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmoninst(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's instruction data rmmon::instdata.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmoninstdata(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's instruction data rmmon::instdata.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmoninstdata(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's 16-bit counter rmmon::scriptcnt.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonscriptcnt(const char* type, const char* name, short value);
/**
 * @brief Reads a monitor's 16-bit counter rmmon::scriptcnt.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonscriptcnt(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's 16-bit counter rmmon::restartcnt.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonrestartcnt(const char* type, const char* name, short value);
/**
 * @brief Reads a monitor's 16-bit counter rmmon::restartcnt.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonrestartcnt(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's 16-bit counter rmmon::finactcnt.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonfinactcnt(const char* type, const char* name, short value);
/**
 * @brief Reads a monitor's 16-bit counter rmmon::finactcnt.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonfinactcnt(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's flag word rmmon::simuflag.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonsimuflag(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's flag word rmmon::simuflag.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonsimuflag(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's target process id rmmon::targetpid.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_settargetpid(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's target process id rmmon::targetpid.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_gettargetpid(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's return value rmmon::ret.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setmonret(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's return value rmmon::ret.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getmonret(const char* type, const char* name, int* pvalue);
/**
 * @brief Stores a monitor's parent process id rmmon::parentpid.
 *
 * @copydetails shmrm_setmonstat
 */
int shmrm_setparentpid(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's parent process id rmmon::parentpid.
 *
 * @copydetails shmrm_getmonstat
 */
int shmrm_getparentpid(const char* type, const char* name, int* pvalue);
/**
 * @brief Finds the type of the first monitor, in table order, of that name.
 *
 * Note the order: the output comes first. With a NULL @p buf the call tells whether such a
 * monitor exists.
 * @param[out] buf receives the type: at least #SHMRM_NAME_LEN bytes; or NULL
 * @param name the monitor's name: not empty
 * @retval SHMRM_OK found; @p buf, when given, is written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name is NULL or empty
 * @retval SHMRM_ERR_NOTFOUND no monitor has that name
 */
int shmrm_getmoninfo(char* buf, const char* name);
/**
 * @brief Stores a monitor's progress step rmmon::progress; steps 3 and 4 stamp the time.
 *
 * Step 3 writes the tick count into rmmon::tick3, step 4 into rmmon::tick4, step 0 sets both
 * to 0; any other step is stored without further effect. The tick count is the system's
 * milliseconds since boot, 32 bits wide, so it wraps after about 49.7 days: subtract two
 * stamps in unsigned arithmetic.
 * @param type the type, or NULL for any type
 * @param name the monitor's name
 * @param value the step
 * @retval SHMRM_OK stored
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name is NULL
 * @retval SHMRM_ERR_NOTFOUND no monitor matches
 */
int shmrm_setmonprogress(const char* type, const char* name, int value);
/**
 * @brief Reads a monitor's progress step and its two stamps.
 * @param type the type, or NULL for any type
 * @param name the monitor's name
 * @param[out] pvalue receives rmmon::progress
 * @param[out] ptick3 receives rmmon::tick3, or NULL
 * @param[out] ptick4 receives rmmon::tick4, or NULL
 * @retval SHMRM_OK read
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p name or @p pvalue is NULL
 * @retval SHMRM_ERR_NOTFOUND no monitor matches
 */
int shmrm_getmonprogress(const char* type, const char* name, int* pvalue, unsigned int* ptick3,
                         unsigned int* ptick4);
/** @} */

/**
 * @defgroup descriptions Descriptions
 * @brief The description of a resource or a monitor (`descript`, #SHMRM_TEXT_LEN bytes).
 *
 * A NULL @p grpname addresses a monitor, a group name a resource of a group of that name
 * (an empty name is a group's name, not the monitor selector). @p type and @p name are
 * required and must both match: neither is a wildcard here. A call copies n bytes, the
 * caller's length capped at 256. A resource's description is text: the n bytes copied end
 * with a NUL, so at most n - 1 characters arrive. A monitor's description is raw bytes: n
 * bytes are copied as they are, no NUL added.
 * @{
 */

/* Descriptions: a null grpname addresses a monitor, a group name a resource of that group */

/**
 * @brief Copies a description into a buffer.
 *
 * A resource's: its text, cut to n - 1 characters, NUL-padded to n bytes. A monitor's: its
 * first n bytes.
 * @param grpname the resource's group, or NULL for a monitor
 * @param type the type
 * @param name the name
 * @param[out] buf at least `*plen` bytes (256 suffice)
 * @param plen the size of @p buf: 1 or more; read only
 * @retval SHMRM_OK copied
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p type, @p name, @p buf or @p plen is NULL, or `*plen` is below 1
 * @retval SHMRM_ERR_NOTFOUND no record matches
 */
int shmrm_getdescript(const char* grpname, const char* type, const char* name, char* buf,
                      const int* plen);
/**
 * @brief Writes a description; the bytes of the field behind the n written keep what they held.
 *
 * A resource's: the text, cut to n - 1 characters, NUL-padded to n bytes. A monitor's: the
 * first n bytes of @p value, which must all be readable; without a NUL among them, the
 * description keeps the rest of its earlier text.
 * @param grpname the resource's group, or NULL for a monitor
 * @param type the type
 * @param name the name
 * @param value the description
 * @param len its length in bytes: 1 or more (include the NUL to end a monitor's text)
 * @retval SHMRM_OK written
 * @retval SHMRM_ERR_NOTINIT the region is not mapped
 * @retval SHMRM_ERR_PARAM @p type, @p name or @p value is NULL, or @p len is below 1
 * @retval SHMRM_ERR_NOTFOUND no record matches
 */
int shmrm_setdescript(const char* grpname, const char* type, const char* name, const char* value,
                      int len);
/** @} */

#ifdef __cplusplus
}
#endif

#endif /* VEXSHMRM_H */
