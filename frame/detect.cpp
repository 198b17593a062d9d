// File type detection: the probes of the table of formats tried in their
// fixed order, each behind a per-type enable flag, and the query exports.
#include "frame/formats.h"

namespace brv {

namespace {

uint8_t auto_detect_flags[AUTO_DETECT_FLAGS] = {
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 1, 1,  // 38: text, off until asked for
};

// The type query's answer for the source at fd, from its current position;
// which_queries says which flag a family needs to be reported.
int query_type(int fd, uint8_t which_queries, bool rewind) {
    const format_info *f = format_of(detect_format(fd));
    if (!f || !(f->flags & which_queries)) return IMG_ERR_TYPE;
    if (rewind) file_seek(fd, 0, 0);
    int code = f->refine ? f->refine(fd) : f->code;
    scratch_free_all();
    return code;
}

// A flag's index: the variants share their family's flag.
int flag_index(int code) {
    const format_info *f = format_of(code);
    return f ? f->flag : code;
}

}  // namespace

int detect_format(int fd) {
    uint8_t head[16] = {};
    file_read(fd, head, 10);
    int found = -1;
    for (int i = 0; i < probe_order_size && found < 0; i++) {
        const format_info &f = formats[probe_order[i]];
        if (auto_detect_flags[f.code] && f.probe(head, fd)) found = f.code;
    }
    file_seek(fd, 0, 0);
    return found;
}

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" {

int IMG_API IMGLOW_get_filetype(const char *name) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    int code = query_type(fd, NAMED_BY_QUERY, false);
    os_close(fd);
    return code;
}

int IMG_API IMGLOW_get_filetype_fd(int fd) { return query_type(fd, NAMED_BY_FD_QUERY, true); }

int IMG_API IMGLOW_get_filetype_mem(void *block) {
    if (!block) return IMG_ERR_OPEN;
    memory_source_scope memory(block);
    return query_type(MEMORY_FD, NAMED_BY_FD_QUERY, true);
}

int IMG_API IMGLOW_set_auto_detect(int code) {
    code = flag_index(code);
    if (code < 0 || code >= AUTO_DETECT_FLAGS) return IMG_ERR_TYPE;
    int previous = auto_detect_flags[code];
    auto_detect_flags[code] = 1;
    return previous;
}

int IMG_API IMGLOW_unset_auto_detect(int code) {
    code = flag_index(code);
    if (code < 0 || code >= AUTO_DETECT_FLAGS) return IMG_ERR_TYPE;
    int previous = auto_detect_flags[code];
    auto_detect_flags[code] = 0;
    return previous;
}

int IMG_API IMGLOW_get_auto_detect(int code) {
    code = flag_index(code);
    if (code < 0 || code >= AUTO_DETECT_FLAGS) return IMG_ERR_TYPE;
    return auto_detect_flags[code];
}

}  // extern "C"
