// The header's own values: the node-wide words, the capacities, and the dump of the region.
#include <cstddef>
#include <cstring>

#include "shmrm_internal.h"
#include "vexshmrm_schema.h"

namespace shmrm {
namespace {

// A node-wide word of the header and the tags of its setter and getter.
struct HeaderWord {
    int rmhead::*field;
    const char* set_tag;
    const char* get_tag;
};

// Values of 1 or more are stored; 0 in the header means "never set".
int set_word(const HeaderWord& word, int value) {
    TracedCall call(word.set_tag);
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (value < 1) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    store(head(base)->*word.field, value);
    return call.exit(SHMRM_OK);
}

int get_word(const HeaderWord& word, int* out) {
    TracedCall call(word.get_tag);
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (out == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    *out = load(head(base)->*word.field);
    return call.exit(SHMRM_OK);
}

}  // namespace
}  // namespace shmrm

using namespace shmrm;

// The node-wide words: a getter and a setter for each word row of the schema.
#define SHMRM_HEADER_WORD(field, shape, field_type, get_type, set_type, getter, setter, get_tag, \
                          set_tag)                                                               \
    SHMRM_IF_WORD(                                                                               \
        shape,                                                                                   \
        SHMRM_EXPORT int shmrm_##getter(get_type* pvalue) {                                      \
            return get_word(HeaderWord{&rmhead::field, set_tag, get_tag}, pvalue);               \
        } SHMRM_EXPORT int shmrm_##setter(set_type value) {                                      \
            return set_word(HeaderWord{&rmhead::field, set_tag, get_tag}, value);                \
        })
SHMRM_HEADER_ATTRIBUTES(SHMRM_HEADER_WORD)
#undef SHMRM_HEADER_WORD

SHMRM_EXPORT int shmrm_setmaxvalue(int grpmax, int rscmax, int monmax) {
    TracedCall call("_setmaxvalue");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    // Capacities beyond what this process mapped would let later calls reach past the tables.
    const Layout& sized = state.layout;
    if (grpmax < 1 || rscmax < 1 || monmax < 1 || grpmax > sized.grpmax || rscmax != sized.rscmax ||
        monmax > sized.monmax)
        return call.fail(SHMRM_ERR_PARAM, "invalid param");
    rmhead* h = head(base);
    store(h->grpmax, grpmax);
    store(h->rscmax, rscmax);
    store(h->monmax, monmax);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_getmaxvalue(int* grpmax, int* rscmax, int* monmax) {
    TracedCall call("_getmaxvalue");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (grpmax == nullptr || rscmax == nullptr || monmax == nullptr)
        return call.fail(SHMRM_ERR_PARAM, "invalid param");
    rmhead* h = head(base);
    *grpmax = load(h->grpmax);
    *rscmax = load(h->rscmax);
    *monmax = load(h->monmax);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_dump(void* buf, int* psize) {
    TracedCall call("_dump");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (psize == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const int size = state.region_size.load(std::memory_order_relaxed);
    if (buf == nullptr) {
        *psize = size;
        return call.exit(SHMRM_OK);
    }
    if (*psize < size) return call.fail(SHMRM_ERR_BUFFER, "not enough buffer");
    std::memcpy(buf, base, static_cast<std::size_t>(size));
    return call.exit(SHMRM_OK);
}
