// The records' integer attributes, made from the word rows of vexshmrm_schema.h: one struct per
// record with a member per word (named and typed as the record's field), and a walk over its
// rows for everything that handles every attribute alike (the decoder, the views, the stress
// program's model).
#pragma once

#include <cstddef>
#include <string_view>
#include <type_traits>

#include "vexshmrm.h"
#include "vexshmrm_schema.h"

namespace shmrmctl {

// A word row: its name, its member in the words struct `Words`, its field in the region's
// record, its place among the words of its record, and the exports that read and write it
// (only in each_export: those who walk the layout need not link the library).
template <typename Words, typename Field>
struct Word {
    using Value = Field;
    std::string_view name;
    Field Words::*value;
    Field Words::Record::*field;
    std::size_t index;
};
template <typename Words, typename Field, typename G, typename S, typename GetFn, typename SetFn>
struct WordExport : Word<Words, Field> {
    using GetValue = G;  // what the getter writes through its pointer
    using SetValue = S;  // what the setter takes
    GetFn get;
    SetFn set;
    std::string_view get_name, set_name;
};

// The shapes of the rows that are no word, in the order every view shows them after the words.
enum class Other { kText, kProgress, kDescript, kFree };

#define SHMRMCTL_WORD_MEMBER(name, shape, field_type, ...) \
    SHMRM_IF_WORD(shape, field_type name = 0;)
#define SHMRMCTL_WORD_ROW(name, shape, field_type, ...) \
    SHMRM_IF_WORD(shape, f(Word<Self, field_type>{#name, &Self::name, &Record::name, i++});)
#define SHMRMCTL_WORD_EXPORT(name, shape, field_type, get_type, set_type, getter, setter, ...)   \
    SHMRM_IF_WORD(                                                                               \
        shape, f(WordExport<Self, field_type, get_type, set_type, decltype(&shmrm_##getter),     \
                            decltype(&shmrm_##setter)>{{#name, &Self::name, &Record::name, i++}, \
                                                       &shmrm_##getter,                          \
                                                       &shmrm_##setter,                          \
                                                       "shmrm_" #getter,                         \
                                                       "shmrm_" #setter});)
#define SHMRMCTL_WORD_COUNT(name, shape, ...) SHMRM_IF_WORD(shape, +1)
#define SHMRMCTL_OTHER_text(name) Other::kText,
#define SHMRMCTL_OTHER_progress(name) Other::kProgress,
#define SHMRMCTL_OTHER_descript(name) Other::kDescript,
#define SHMRMCTL_OTHER_free(name) Other::kFree,
#define SHMRMCTL_OTHER_word(name)
#define SHMRMCTL_OTHER_maxvalue(name)
#define SHMRMCTL_OTHER_ROW(name, shape, ...) SHMRMCTL_OTHER_##shape(name)

// struct Type: the words of ROWS as members; Record, the region's record; kWords, how many;
// has(other), whether a row of that shape is there; each(f) and each_export(f) call f with the
// Word (or WordExport) of every word row, in row order.
#define SHMRMCTL_WORDS(Type, RecordType, ROWS)                             \
    struct Type {                                                          \
        using Record = RecordType;                                         \
        ROWS(SHMRMCTL_WORD_MEMBER)                                         \
        static constexpr std::size_t kWords = 0 ROWS(SHMRMCTL_WORD_COUNT); \
        static constexpr bool has(Other other) {                           \
            for (const Other o : {ROWS(SHMRMCTL_OTHER_ROW) Other{-1}})     \
                if (o == other) return true;                               \
            return false;                                                  \
        }                                                                  \
        template <typename F>                                              \
        static void each(F&& f) {                                          \
            using Self = Type;                                             \
            std::size_t i = 0;                                             \
            ROWS(SHMRMCTL_WORD_ROW)                                        \
        }                                                                  \
        template <typename F>                                              \
        static void each_export(F&& f) {                                   \
            using Self = Type;                                             \
            std::size_t i = 0;                                             \
            ROWS(SHMRMCTL_WORD_EXPORT)                                     \
        }                                                                  \
        bool operator==(const Type&) const = default;                      \
    };

SHMRMCTL_WORDS(HeaderWords, rmhead, SHMRM_HEADER_ATTRIBUTES)
SHMRMCTL_WORDS(GroupWords, rmgrp, SHMRM_GROUP_ATTRIBUTES)
SHMRMCTL_WORDS(ResourceWords, rmrsc, SHMRM_RESOURCE_ATTRIBUTES)
SHMRMCTL_WORDS(MonitorWords, rmmon, SHMRM_MONITOR_ATTRIBUTES)

// A word's value as the views show it: a 16-bit unsigned word is a set of flags, in hex.
template <typename T>
constexpr bool kFlagWord = std::is_same_v<T, unsigned short>;

}  // namespace shmrmctl
