// The three tables of the region as one process sees them: geometry bounded by the view this
// process mapped, the lookups, the name lists and the bounded text copies.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "region_layout.h"
#include "shmrm_internal.h"

namespace shmrm {

// A lookup key given by a caller. A null key matches everything; a key of 32 characters or more
// matches nothing, since a stored name keeps at most 31 (found without scanning the field).
//
// A match compares the key's characters and its NUL, and nothing after them, with the start of
// the 32-byte field. The last 8 of those bytes (all of them, masked, for a key below 7
// characters) are kept as one word and compared first: names that share a prefix differ at
// their end, so most fields of a scan are passed over with one load and compare. A field whose
// end matches has the rest of its head compared a word at a time; every word read of the key
// lies within its characters and NUL.
class Key {
  public:
    SHMRM_INLINE explicit Key(const char* s) : s_(s), len_(s ? ::strnlen(s, SHMRM_NAME_LEN) : 0) {
        if (s_ == nullptr || len_ == SHMRM_NAME_LEN) return;  // never compared
        if (len_ >= 7) {
            at_ = len_ - 7;
            tail_ = word(s_ + at_);  // ends with the NUL
            mask_ = ~std::uint64_t{0};
        } else {
            tail_ = short_word(s_, len_);
            mask_ = first_bytes(len_ + 1);
        }
    }
    bool any() const { return s_ == nullptr; }
    bool impossible() const { return s_ != nullptr && len_ == SHMRM_NAME_LEN; }
    // The word compared first, by value: a scan copies it to locals, which stay in registers
    // however the rest of the scan is compiled.
    struct First {
        std::size_t at;
        std::uint64_t tail;
        std::uint64_t mask;
        // at + 8 <= 32: inside the field. A null key has no bytes that count (mask 0, at 0).
        bool may_match(const char* field) const { return differs(field) == 0; }
        // The bits of the first word where the field and the key differ: none when it may match.
        std::uint64_t differs(const char* field) const { return (word(field + at) ^ tail) & mask; }
    };
    First first() const { return {at_, tail_, mask_}; }
    // The rest of a match of a field whose first word agrees: the head, [0, at_), in words that
    // start below at_. A word starting at o < at_ ends at o + 7 < at_ + 7 = len_, within the key;
    // overlapping the first word is harmless. A key that cannot match (its first word agrees with
    // every field) fails here.
    bool rest_matches(const char* field) const {
        if (len_ == SHMRM_NAME_LEN) return false;
        for (std::size_t o = 0; o < at_; o += 8) {
            if (word(field + o) != word(s_ + o)) return false;
        }
        return true;
    }
    bool matches(const char* field) const {
        return first().may_match(field) && rest_matches(field);
    }
    const char* str() const { return s_; }
    // A key for a not-found message: "-" for a null key.
    static const char* shown(const char* key) { return key ? key : "-"; }

  private:
    static std::uint64_t word(const void* p) {
        std::uint64_t w;
        std::memcpy(&w, p, sizeof w);
        return w;
    }
    // The first n (0 to 6) characters of s as the first bytes of a word, the rest zero. Reads only
    // those characters: two loads that overlap, of 4 or 2 bytes, where words are little-endian.
    static std::uint64_t short_word(const char* s, std::size_t n) {
        if constexpr (std::endian::native == std::endian::little) {
            auto part = [s](std::size_t at, std::size_t size) {
                std::uint32_t v = 0;
                std::memcpy(&v, s + at, size);
                return std::uint64_t{v};
            };
            if (n >= 4) return part(0, 4) | part(n - 4, 4) << (8 * (n - 4));
            if (n >= 2) return part(0, 2) | part(n - 2, 2) << (8 * (n - 2));
            return n == 1 ? part(0, 1) : 0;
        } else {
            unsigned char bytes[8] = {};
            std::memcpy(bytes, s, n);
            return word(bytes);
        }
    }
    // The mask of the first n (1 to 7) bytes of an 8-byte word, in memory order.
    static std::uint64_t first_bytes(std::size_t n) {
        if constexpr (std::endian::native == std::endian::little) {
            return (std::uint64_t{1} << (8 * n)) - 1;
        } else {
            return ~std::uint64_t{0} << (8 * (8 - n));
        }
    }

    const char* s_;
    std::size_t len_;
    std::size_t at_ = 0;      // where the compared word starts in the field
    std::uint64_t tail_ = 0;  // the key's bytes at at_, up to and including its NUL
    std::uint64_t mask_ = 0;  // the bytes of tail_ that count
};

// A caller's string in a parameter line.
inline const char* shown(const char* s) {
    return s ? s : "(null)";
}

// How every call reads the tables
// --------------------------------
// The region is written by other processes at any moment, with or without the region lock, and a
// damaged peer may write anything at all. So a call reads each count and capacity it uses from
// the region once, into a local, and clamps it once: a count into [0, what the mapped view holds],
// a capacity to 0 or more. Every scan, move, fill and copy is then bounded by those locals and by
// the bytes this process actually mapped, never by a second read of the same word: a second read
// may disagree with the first, and a removal that trusted both once moved memory with a negative
// length. The views below are where each count is read; a call keeps the view it made.
//
// The mapped view is this process's own: the bytes it mapped, fixed while the region stays mapped.
// The group table may fill all of it after the header (a region made by a process with larger
// capacities lies wholly inside the view), the monitor table runs from this process's monitor
// position to its end. What the records then mean is the header's business; that no access
// leaves the view is this rule's.

// A count read from the region, within [0, limit].
inline int clamp_count(int n, int limit) {
    return n < 0 ? 0 : (n > limit ? limit : n);
}

// The group table as one call sees it: the header's rscmax and grpcnt, each read once; positions
// are the whole records of the resulting stride that fit the mapped view.
struct Groups {
    unsigned char* first = nullptr;
    std::size_t stride = 0;
    int positions = 0;  // whole records that fit the mapped view
    int rscmax = 0;     // header's rscmax, at least 0
    int count = 0;      // header's grpcnt as read
    int used = 0;       // count within [0, positions]

    static Groups of(unsigned char* base) {
        Groups t;
        const rmhead* h = head(base);
        t.first = base + SHMRM_HEAD_SIZE;
        const int r = load(h->rscmax);
        t.rscmax = r < 0 ? 0 : r;
        t.stride = static_cast<std::size_t>(group_stride(t.rscmax));
        t.positions =
            r == state.layout.rscmax ? state.layout.group_positions : positions_for(t.stride);
        t.count = load(h->grpcnt);
        t.used = clamp_count(t.count, t.positions);
        return t;
    }
    rmgrp* at(int i) const { return reinterpret_cast<rmgrp*>(first + std::size_t(i) * stride); }
    static rmrsc* slot(rmgrp* grp, int j) {
        return reinterpret_cast<rmrsc*>(reinterpret_cast<unsigned char*>(grp) +
                                        SHMRM_GRP_HEAD_SIZE + std::size_t(j) * SHMRM_RSC_SIZE);
    }
    // Slots in use in a group: its rsccnt, read once per visit, within the header's rscmax.
    int slots_used(rmgrp* grp) const { return clamp_count(load(grp->rsccnt), rscmax); }

    // Whole records of `stride` bytes in the mapped view after the header.
    static int positions_for(std::size_t stride);
};

// The monitor table as one call sees it: moncnt read once; positions are the whole records
// between this process's monitor table and the end of the mapped view.
struct Monitors {
    rmmon* first = nullptr;
    int positions = 0;
    int count = 0;  // header's moncnt as read
    int used = 0;   // count within [0, positions]

    static Monitors of(unsigned char* base) {
        Monitors t;
        t.first = reinterpret_cast<rmmon*>(state._prmmon.load(std::memory_order_relaxed));
        t.positions = state.layout.monitor_positions;
        t.count = load(head(base)->moncnt);
        t.used = clamp_count(t.count, t.positions);
        return t;
    }
    rmmon* at(int i) const { return first + i; }
};

// The position of the first of `used` records, `stride` bytes apart from `first`, at or after
// `from`, whose field at `offset` agrees with `probe` and which `confirm` (given the record) then
// accepts; -1 when none. Four records a step, so that the loop's own count and compare are paid
// once for four first words: almost every record of a scan is passed over on its first word.
template <typename Confirm>
int scan(const unsigned char* first, std::size_t stride, int from, int used, std::size_t offset,
         Key::First probe, Confirm confirm) {
    int i = from;
    const char* field = reinterpret_cast<const char*>(first + std::size_t(i) * stride + offset);
    auto hit = [&](const char* f) { return probe.may_match(f) && confirm(f - offset); };
    for (; i + 4 <= used; i += 4, field += 4 * stride) {
        if (probe.may_match(field) || probe.may_match(field + stride) ||
            probe.may_match(field + 2 * stride) || probe.may_match(field + 3 * stride)) {
            for (int k = 0; k < 4; ++k) {
                if (hit(field + std::size_t(k) * stride)) return i + k;
            }
        }
    }
    for (; i < used; ++i, field += stride) {
        if (hit(field)) return i;
    }
    return -1;
}

// The position of the first group, in table order from `from`, whose name equals the key; -1 when
// none. Out of line, so that its loop has the registers to itself.
int find_group(const Groups& groups, const Key& name, int from = 0);

struct Resource {
    rmgrp* group = nullptr;
    rmrsc* rsc = nullptr;
    int slot = -1;
    int slots = 0;  // the group's slots in use, as the search read them
    explicit operator bool() const { return rsc != nullptr; }
};

struct NoVisit {
    void operator()(int, const rmrsc&) const {}
};

// The first resource, in table order, of a group matching the group key whose type and name match:
// a group of the right name without such a resource does not end the search. `visit` sees
// every slot examined, before it is compared; with `visit_all` false a key that cannot match
// answers at once, without a scan.
template <typename Visit = NoVisit>
Resource find_resource(unsigned char* base, const char* group_key, const char* type_key,
                       const char* name_key, Visit visit = {}, bool visit_all = false) {
    // Names tell records apart, types often do not: the name is measured and compared first,
    // and a name that no record can carry is answered before the other keys are measured.
    const Key name(name_key);
    if (!visit_all && name.impossible()) return {};
    const Key group(group_key), type(type_key);
    if (!visit_all && (group.impossible() || type.impossible())) return {};
    const Groups groups = Groups::of(base);
    const Key::First name_first = name.first(), type_first = type.first();
    for (int i = find_group(groups, group); i >= 0; i = find_group(groups, group, i + 1)) {
        rmgrp* grp = groups.at(i);
        const int slots = groups.slots_used(grp);
        if constexpr (std::is_same_v<Visit, NoVisit>) {
            const int j =
                scan(reinterpret_cast<const unsigned char*>(Groups::slot(grp, 0)), SHMRM_RSC_SIZE,
                     0, slots, offsetof(rmrsc, name), name_first, [&](const char* rec) {
                         const rmrsc* rsc = reinterpret_cast<const rmrsc*>(rec);
                         return type_first.may_match(rsc->type) && name.rest_matches(rsc->name) &&
                                type.rest_matches(rsc->type);
                     });
            if (j >= 0) return {grp, Groups::slot(grp, j), j, slots};
        } else {
            for (int j = 0; j < slots; ++j) {
                rmrsc* rsc = Groups::slot(grp, j);
                visit(j, *rsc);
                if (name_first.may_match(rsc->name) && type_first.may_match(rsc->type) &&
                    name.rest_matches(rsc->name) && type.rest_matches(rsc->type)) {
                    return {grp, rsc, j, slots};
                }
            }
        }
    }
    return {};
}

// The position of the first monitor in table order whose type and name match; -1 when none.
// A name that no record can carry is answered before the type is measured.
int find_monitor(const Monitors& monitors, const char* type, const char* name);

// Copies text into n bytes: at most n bytes of it, the rest of the n bytes NUL.
inline void bounded_copy(char* dst, const char* text, std::size_t n) {
    const std::size_t len = ::strnlen(text, n);
    std::memcpy(dst, text, len);
    std::memset(dst + len, 0, n - len);
}

// Copies text into a field of n bytes as bounded_copy does, then sets byte n - 1 to NUL.
inline void copy_text(char* field, const char* text, std::size_t n) {
    bounded_copy(field, text, n);
    field[n - 1] = '\0';
}

// Copies a stored text and its NUL to a caller's buffer, at most `width` bytes.
inline void copy_out(char* buf, const char* field, std::size_t width) {
    std::size_t len = strnlen(field, width);
    std::memcpy(buf, field, len < width ? len + 1 : width);
}

// Removes record i of `count` records of `size` bytes: later records move down one position
// whole, and the position vacated at the end is zero-filled. `count` is the caller's local, and a
// position outside it moves nothing.
inline void remove_record(unsigned char* first, std::size_t size, int i, int count) {
    if (i < 0 || i >= count) return;
    unsigned char* at = first + std::size_t(i) * size;
    std::memmove(at, at + size, std::size_t(count - 1 - i) * size);
    std::memset(first + std::size_t(count - 1) * size, 0, size);
}

// The length of a stored name: the characters before its NUL, all 32 of the field when it has
// none. A word at a time where words are little-endian: the lowest byte flagged by the zero-byte
// test is the first NUL (bytes above it may be flagged falsely; none below).
inline std::size_t name_length(const char* field) {
    if constexpr (std::endian::native != std::endian::little) {
        return ::strnlen(field, SHMRM_NAME_LEN);
    } else {
        constexpr std::uint64_t ones = 0x0101010101010101, highs = 0x8080808080808080;
        for (std::size_t at = 0; at < SHMRM_NAME_LEN; at += 8) {
            std::uint64_t w;
            std::memcpy(&w, field + at, sizeof w);
            const std::uint64_t zeros = (w - ones) & ~w & highs;
            if (zeros != 0) return at + static_cast<std::size_t>(std::countr_zero(zeros)) / 8;
        }
        return SHMRM_NAME_LEN;
    }
}

// Copies n (0 to 32) bytes, as memcpy does, in two overlapping moves of a fixed size that the
// compiler writes inline: a name list copies one short name after another.
inline void copy_name(char* dst, const char* src, std::size_t n) {
    auto two = [&](auto size) {
        std::memcpy(dst, src, size);
        std::memcpy(dst + n - size, src + n - size, size);
    };
    if (n >= 16) {
        two(std::integral_constant<std::size_t, 16>());
    } else if (n >= 8) {
        two(std::integral_constant<std::size_t, 8>());
    } else if (n >= 4) {
        two(std::integral_constant<std::size_t, 4>());
    } else if (n >= 2) {
        two(std::integral_constant<std::size_t, 2>());
    } else if (n == 1) {
        *dst = *src;
    }
}

// Writes a name list: every name and its NUL, then one more NUL (two when empty). A null buffer
// asks for the size; a size below 2, or too small for the next name, gives SHMRM_ERR_BUFFER
// with the size unchanged and the names so far in the buffer. `next` yields the name fields
// in order, then nullptr.
template <typename Next>
int write_name_list(char* buf, int* psize, Next next) {
    if (buf == nullptr) {
        long long sum = 0;
        while (const char* name = next())
            sum += static_cast<long long>(name_length(name)) + 1;
        *psize = static_cast<int>((sum == 0 ? 1 : sum) + 1);
        return SHMRM_OK;
    }
    const long long size = *psize;
    if (size < 2) return SHMRM_ERR_BUFFER;
    long long used = 0;
    while (const char* name = next()) {
        const std::size_t len = name_length(name);
        if (size < used + static_cast<long long>(len) + 2) return SHMRM_ERR_BUFFER;
        copy_name(buf + used, name, len);
        buf[used + static_cast<long long>(len)] = '\0';
        used += static_cast<long long>(len) + 1;
    }
    if (used == 0) {
        buf[0] = buf[1] = '\0';
        *psize = 2;
    } else {
        buf[used] = '\0';
        *psize = static_cast<int>(used + 1);
    }
    return SHMRM_OK;
}

}  // namespace shmrm
