/*
 * vexshmrm: the run-time status of one cluster node in one named shared-memory region.
 *
 * Every process of the node that loads the library reads and writes the same region:
 * groups, the resources inside each group, monitors, and a few node-wide values.
 * Every function returns one of the SHMRM_ result codes below.
 */
#ifndef VEXSHMRM_H
#define VEXSHMRM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. 15 is not used. */
#define SHMRM_OK 0
#define SHMRM_ERR_NOTINIT 1
#define SHMRM_ERR_PARAM 2
#define SHMRM_ERR_NOTFOUND 3
#define SHMRM_ERR_BUFFER 4
#define SHMRM_ERR_XMLINIT 5
#define SHMRM_ERR_CREATEMAP 6
#define SHMRM_ERR_MAPVIEW 7
#define SHMRM_ERR_OPENMAP 8
#define SHMRM_ERR_GRPOVER 9
#define SHMRM_ERR_RSCOVER 10
#define SHMRM_ERR_MONOVER 11
#define SHMRM_ERR_LOADINFO 12
#define SHMRM_ERR_XMLCONFIG 13
#define SHMRM_ERR_LOCK 14
#define SHMRM_ERR_INSTALLPATH 16

/*
 * Every result code, one row each: X(name, value, "one-line meaning"), in ascending order.
 * Expand it with a macro of your own, e.g. to name a code:
 *   #define NAME_CASE(name, value, meaning) case value: return #name;
 *   switch (rc) { SHMRM_RESULT_MAP(NAME_CASE) }
 * Stringize the name in X itself: passed on to another macro it arrives as its value.
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

/* Trace levels: single bits. A line is written when its level is at most the configured one. */
#define SHMRM_LOG_ERROR 1
#define SHMRM_LOG_WARNING 2
#define SHMRM_LOG_INFO 4
#define SHMRM_LOG_FUNC 16
#define SHMRM_LOG_PARAM 32

/* The lock timeout that waits without limit. */
#define SHMRM_INFINITE 0xFFFFFFFFu

/* Fixed sizes of the shared format. */
#define SHMRM_NAME_LEN 32
#define SHMRM_TEXT_LEN 256
#define SHMRM_HEAD_SIZE 184
#define SHMRM_GRP_HEAD_SIZE 344
#define SHMRM_RSC_SIZE 884
#define SHMRM_MON_SIZE 412

/*
 * Region layout: the header, then grpmax group records of
 * (SHMRM_GRP_HEAD_SIZE + rscmax * SHMRM_RSC_SIZE) bytes, then monmax monitor records.
 * Integers are little-endian; text fields are NUL-terminated within their width.
 */
typedef struct rmhead {
    char reserved0[36];
    int grpmax; /* capacity of the group table */
    int rscmax; /* resource slots per group; the stride factor of the group table */
    int monmax; /* capacity of the monitor table */
    int grpcnt; /* groups in use */
    int moncnt; /* monitors in use */
    int reserved1;
    int acstat; /* node-wide values held for callers */
    int acstat2;
    int pow32port;
    char reserved2[112];
} rmhead;

/* One resource slot. */
typedef struct rmrsc {
    char name[32];
    char type[32];
    char descript[256];
    unsigned char free[256]; /* raw bytes, no terminator */
    char sv[256];
    int stat;
    int focnt;
    int strtret;
    int stopret;
    char reserved[36];
} rmrsc;

/* The head of a group record; its rscmax resource slots (rmrsc) follow it directly. */
typedef struct rmgrp {
    char name[32];
    char sv[256];
    int stat;
    int env;
    int rsccnt; /* resource slots in use */
    unsigned short flag;
    unsigned short reserved0;
    int retrycnt;
    int focnt;
    char reserved1[32];
} rmgrp;

/* One monitor record. */
typedef struct rmmon {
    char name[32];
    char type[32];
    char descript[256];
    int stat;
    int fo;
    int proc;
    int inst;
    int instdata;
    short scriptcnt;
    short restartcnt;
    short finactcnt;
    short reserved0;
    int simuflag;
    int targetpid;
    int ret;
    int progress;
    int parentpid;
    unsigned int tick3; /* tick count (ms) when progress was last set to 3 */
    unsigned int tick4; /* tick count (ms) when progress was last set to 4 */
    char reserved1[36];
} rmmon;

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

/* Region lifecycle */
int shmrm_create(void);
int shmrm_attach(void);
int shmrm_detach(void);
int shmrm_delete(void);
int shmrm_clear(void);

/* Region lock: a recursive, cross-process mutex owned by the calling thread */
int shmrm_rolock(unsigned int timeout_ms);
int shmrm_rounlock(void);
int shmrm_rwlock(unsigned int timeout_ms);
int shmrm_rwunlock(void);

/* Header values and dump */
int shmrm_setmaxvalue(int grpmax, int rscmax, int monmax);
int shmrm_getmaxvalue(int* grpmax, int* rscmax, int* monmax);
int shmrm_setacstat(int value);
int shmrm_getacstat(int* pvalue);
int shmrm_setacstat2(int value);
int shmrm_getacstat2(int* pvalue);
int shmrm_setpow32port(int value);
int shmrm_getpow32port(int* pvalue);
int shmrm_dump(void* buf, int* psize);

/* Groups */
int shmrm_addgrp(const char* grpname);
int shmrm_rmgrp(const char* grpname);
int shmrm_enumgrp(char* buf, int* psize);
int shmrm_setgrpstat(const char* grpname, int value);
int shmrm_getgrpstat(const char* grpname, int* pvalue);
int shmrm_setgrpsv(const char* grpname, const char* value);
int shmrm_getgrpsv(const char* grpname, char* buf);
int shmrm_setgrpenv(const char* grpname, int value);
int shmrm_getgrpenv(const char* grpname, int* pvalue);
int shmrm_setgrpflag(const char* grpname, unsigned short value);
int shmrm_getgrpflag(const char* grpname, unsigned short* pvalue);
int shmrm_setgrpretrycnt(const char* grpname, int value);
int shmrm_getgrpretrycnt(const char* grpname, int* pvalue);
int shmrm_setgrpfocnt(const char* grpname, int value);
int shmrm_getgrpfocnt(const char* grpname, int* pvalue);

/* Resources: a null grpname or type matches every group or type */
int shmrm_addrsc(const char* grpname, const char* type, const char* name);
int shmrm_rmrsc(const char* grpname, const char* type, const char* name);
int shmrm_enumrsc(const char* grpname, char* buf, int* psize);
int shmrm_setrscstat(const char* grpname, const char* type, const char* name, int value);
int shmrm_getrscstat(const char* grpname, const char* type, const char* name, int* pvalue);
int shmrm_setrscfocnt(const char* grpname, const char* type, const char* name, int value);
int shmrm_getrscfocnt(const char* grpname, const char* type, const char* name, int* pvalue);
int shmrm_setrscstrtret(const char* grpname, const char* type, const char* name, int value);
int shmrm_getrscstrtret(const char* grpname, const char* type, const char* name, int* pvalue);
int shmrm_setrscstopret(const char* grpname, const char* type, const char* name, int value);
int shmrm_getrscstopret(const char* grpname, const char* type, const char* name, int* pvalue);
int shmrm_setrscsv(const char* grpname, const char* type, const char* name, const char* value);
int shmrm_getrscsv(const char* grpname, const char* type, const char* name, char* buf);
int shmrm_setrscfree(const char* grpname, const char* type, const char* name, const void* data,
                     int len);
int shmrm_getrscfree(const char* grpname, const char* type, const char* name, void* buf, int* plen);
int shmrm_getrscgrp(char* grpname, const char* type, const char* name);
int shmrm_getrscinfo(char* grpname, char* rsctype, const char* rscname);

/* Monitors: a null type matches every type */
int shmrm_addmon(const char* type, const char* name);
int shmrm_rmmon(const char* type, const char* name);
int shmrm_enummon(char* buf, int* psize);
int shmrm_setmonstat(const char* type, const char* name, int value);
int shmrm_getmonstat(const char* type, const char* name, int* pvalue);
int shmrm_setmonfo(const char* type, const char* name, int value);
int shmrm_getmonfo(const char* type, const char* name, int* pvalue);
int shmrm_setmonproc(const char* type, const char* name, int value);
int shmrm_getmonproc(const char* type, const char* name, int* pvalue);
int shmrm_setmoninst(const char* type, const char* name, int value);
int shmrm_getmoninst(const char* type, const char* name, int* pvalue);
int shmrm_setmoninstdata(const char* type, const char* name, int value);
int shmrm_getmoninstdata(const char* type, const char* name, int* pvalue);
int shmrm_setmonscriptcnt(const char* type, const char* name, short value);
int shmrm_getmonscriptcnt(const char* type, const char* name, int* pvalue);
int shmrm_setmonrestartcnt(const char* type, const char* name, short value);
int shmrm_getmonrestartcnt(const char* type, const char* name, int* pvalue);
int shmrm_setmonfinactcnt(const char* type, const char* name, short value);
int shmrm_getmonfinactcnt(const char* type, const char* name, int* pvalue);
int shmrm_setmonsimuflag(const char* type, const char* name, int value);
int shmrm_getmonsimuflag(const char* type, const char* name, int* pvalue);
int shmrm_settargetpid(const char* type, const char* name, int value);
int shmrm_gettargetpid(const char* type, const char* name, int* pvalue);
int shmrm_setmonret(const char* type, const char* name, int value);
int shmrm_getmonret(const char* type, const char* name, int* pvalue);
int shmrm_setparentpid(const char* type, const char* name, int value);
int shmrm_getparentpid(const char* type, const char* name, int* pvalue);
int shmrm_getmoninfo(char* buf, const char* name);
int shmrm_setmonprogress(const char* type, const char* name, int value);
int shmrm_getmonprogress(const char* type, const char* name, int* pvalue, unsigned int* ptick3,
                         unsigned int* ptick4);

/* Descriptions: a null grpname addresses a monitor, a group name a resource of that group */
int shmrm_getdescript(const char* grpname, const char* type, const char* name, char* buf,
                      const int* plen);
int shmrm_setdescript(const char* grpname, const char* type, const char* name, const char* value,
                      int len);

#ifdef __cplusplus
}
#endif

#endif /* VEXSHMRM_H */
