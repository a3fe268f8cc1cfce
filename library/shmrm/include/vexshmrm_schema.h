/**
 * @file vexshmrm_schema.h
 * @brief Every attribute of the records, one row each.
 *
 * The library's exports of the integer attributes and their prototypes (below), shmrmctl's
 * attribute table, its status columns and JSON keys, the tests' reference model and the stress
 * program's model are all made from these rows. Adding an integer attribute to a record is: the
 * field in its struct (vexshmrm.h), its getter's and setter's lines in vexshmrm.def, and one row
 * here (see "Adding an attribute" in the README).
 *
 * A row is X(name, shape, field type, get type, set type, getter, setter, get tag, set tag):
 * @code
 *   name        the attribute's name, also the record's field for a word
 *   shape       word (an integer field), text (sv), free (the free area), descript (the
 *               description), progress (the progress step and its stamps), maxvalue (the three
 *               capacities at once)
 *   field type  the field's C type (words only)
 *   get type    what the getter writes through its pointer (words only)
 *   set type    what the setter takes (words only)
 *   getter      the export that reads it, without its shmrm_ prefix
 *   setter      the export that writes it, without its shmrm_ prefix
 *   get tag     the tag the getter's trace lines carry (words only)
 *   set tag     the tag the setter's trace lines carry (words only)
 * @endcode
 * Rows are in the order of the record's columns: the views show a record's words in row order.
 * A 16-bit monitor counter keeps the low 16 bits of what is written and reads back
 * sign-extended into an int; an unsigned 16-bit word is a set of flags, shown in hex.
 */
#ifndef VEXSHMRM_SCHEMA_H
#define VEXSHMRM_SCHEMA_H

/** The node-wide values of the region header (#rmhead). */
#define SHMRM_HEADER_ATTRIBUTES(X)                                                        \
    X(acstat, word, int, int, int, getacstat, setacstat, "_getacstat", "_setacstat")      \
    X(acstat2, word, int, int, int, getacstat2, setacstat2, "_getacstat2", "_setacstat2") \
    X(pow32port, word, int, int, int, getpow32port, setpow32port, "_getpow32port",        \
      "_setpow32port")                                                                    \
    X(maxvalue, maxvalue, int, int, int, getmaxvalue, setmaxvalue, "", "")

/** The head of a group record (#rmgrp). */
#define SHMRM_GROUP_ATTRIBUTES(X)                                                         \
    X(stat, word, int, int, int, getgrpstat, setgrpstat, "_getgrpstat", "_setgrpstat")    \
    X(sv, text, char, char, char, getgrpsv, setgrpsv, "", "")                             \
    X(env, word, int, int, int, getgrpenv, setgrpenv, "_getgrpenv", "_setgrpenv")         \
    X(flag, word, unsigned short, unsigned short, unsigned short, getgrpflag, setgrpflag, \
      "_getgrpflag", "_setgrpflag")                                                       \
    X(retrycnt, word, int, int, int, getgrpretrycnt, setgrpretrycnt, "_getgrpretrycnt",   \
      "_setgrpretrycnt")                                                                  \
    X(focnt, word, int, int, int, getgrpfocnt, setgrpfocnt, "_getgrpfocnt", "_setgrpfocnt")

/** A resource slot of a group (#rmrsc). */
#define SHMRM_RESOURCE_ATTRIBUTES(X)                                                        \
    X(stat, word, int, int, int, getrscstat, setrscstat, "_getrscstat", "_setrscstat")      \
    X(focnt, word, int, int, int, getrscfocnt, setrscfocnt, "_getrscfocnt", "_setrscfocnt") \
    X(strtret, word, int, int, int, getrscstrtret, setrscstrtret, "_getrscstrtret",         \
      "_setrscstrtret")                                                                     \
    X(stopret, word, int, int, int, getrscstopret, setrscstopret, "_getrscstopret",         \
      "_setrscstopret")                                                                     \
    X(sv, text, char, char, char, getrscsv, setrscsv, "", "")                               \
    X(free, free, char, char, char, getrscfree, setrscfree, "", "")                         \
    X(descript, descript, char, char, char, getdescript, setdescript, "", "")

/** A monitor record (#rmmon). */
#define SHMRM_MONITOR_ATTRIBUTES(X)                                                             \
    X(stat, word, int, int, int, getmonstat, setmonstat, "_getmonstat", "_setmonstat")          \
    X(fo, word, int, int, int, getmonfo, setmonfo, "_getmonfo", "_setmonfo")                    \
    X(proc, word, int, int, int, getmonproc, setmonproc, "_getmonproc", "_setmonproc")          \
    X(inst, word, int, int, int, getmoninst, setmoninst, "_getmoninst", "_setmoninstruct")      \
    X(instdata, word, int, int, int, getmoninstdata, setmoninstdata, "shmrm_getmoninstdata",    \
      "shmrm_setmoninstdata")                                                                   \
    X(scriptcnt, word, short, int, short, getmonscriptcnt, setmonscriptcnt, "_getmonscriptcnt", \
      "_setmonscriptcnt")                                                                       \
    X(restartcnt, word, short, int, short, getmonrestartcnt, setmonrestartcnt,                  \
      "shmrm_getmonrestartcnt", "shmrm_setmonrestartcnt")                                       \
    X(finactcnt, word, short, int, short, getmonfinactcnt, setmonfinactcnt,                     \
      "shmrm_getmonfinactcnt", "shmrm_setmonfinactcnt")                                         \
    X(simuflag, word, int, int, int, getmonsimuflag, setmonsimuflag, "_getmonsimuflag",         \
      "_setmonsimuflag")                                                                        \
    X(targetpid, word, int, int, int, gettargetpid, settargetpid, "_gettargetpid",              \
      "_settargetpid")                                                                          \
    X(ret, word, int, int, int, getmonret, setmonret, "shmrm_getmonret", "shmrm_setmonret")     \
    X(parentpid, word, int, int, int, getparentpid, setparentpid, "_getparentpid",              \
      "_setparentpid")                                                                          \
    X(progress, progress, int, int, int, getmonprogress, setmonprogress, "", "")                \
    X(descript, descript, char, char, char, getdescript, setdescript, "", "")

/**
 * Helpers for rows of one shape: SHMRM_IF_WORD(shape, text) expands to text for a word and to
 * nothing otherwise, so that X(name, shape, ...) can be written as
 * @code
 * #define X(name, shape, ...) SHMRM_IF_WORD(shape, (something for name))
 * @endcode
 */
#define SHMRM_IF_WORD(shape, ...) SHMRM_IF_WORD_##shape(__VA_ARGS__)
/** @cond SHAPES */
#define SHMRM_IF_WORD_word(...) __VA_ARGS__
#define SHMRM_IF_WORD_text(...)
#define SHMRM_IF_WORD_free(...)
#define SHMRM_IF_WORD_descript(...)
#define SHMRM_IF_WORD_progress(...)
#define SHMRM_IF_WORD_maxvalue(...)
/** @endcond */

/*
 * The prototypes of every word row's getter and setter, made from the rows: a program that
 * includes this header can call the exports of an attribute from its row alone.
 */
/** @cond */
#define SHMRM_DECLARE_HEADER_WORD(attr, shape, ft, gt, st, getter, setter, ...) \
    SHMRM_IF_WORD(shape, int shmrm_##getter(gt* pvalue); int shmrm_##setter(st value);)
#define SHMRM_DECLARE_GROUP_WORD(attr, shape, ft, gt, st, getter, setter, ...) \
    SHMRM_IF_WORD(shape, int shmrm_##getter(const char* grpname, gt* pvalue);  \
                  int shmrm_##setter(const char* grpname, st value);)
#define SHMRM_DECLARE_RESOURCE_WORD(attr, shape, ft, gt, st, getter, setter, ...)                \
    SHMRM_IF_WORD(                                                                               \
        shape,                                                                                   \
        int shmrm_##getter(const char* grpname, const char* type, const char* name, gt* pvalue); \
        int shmrm_##setter(const char* grpname, const char* type, const char* name, st value);)
#define SHMRM_DECLARE_MONITOR_WORD(attr, shape, ft, gt, st, getter, setter, ...)             \
    SHMRM_IF_WORD(shape, int shmrm_##getter(const char* type, const char* name, gt* pvalue); \
                  int shmrm_##setter(const char* type, const char* name, st value);)

#ifdef __cplusplus
extern "C" {
#endif
SHMRM_HEADER_ATTRIBUTES(SHMRM_DECLARE_HEADER_WORD)
SHMRM_GROUP_ATTRIBUTES(SHMRM_DECLARE_GROUP_WORD)
SHMRM_RESOURCE_ATTRIBUTES(SHMRM_DECLARE_RESOURCE_WORD)
SHMRM_MONITOR_ATTRIBUTES(SHMRM_DECLARE_MONITOR_WORD)
#ifdef __cplusplus
}
#endif
/** @endcond */

#endif /* VEXSHMRM_SCHEMA_H */
